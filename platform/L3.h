// L3: layer-3 state published by the interface agents.
//
// `L3::Intf::StatusDir` (mounted at "l3/intf/status") holds one
// `L3::Intf::Status` per layer-3 interface, keyed by interface id. Writers
// change them through the mutators; every real change is announced to the
// entity's notifiees with the attribute ids below (a collection change with
// the entry's key), and a setter given what is held notifies nobody.
#pragma once

#include "platform/Dovix.h"
#include "platform/Zov.h"

namespace L3 {

// The name of a VRF: at most 100 bytes, compared by text.
class VrfName : public Zov::BoundedString<100> {
 public:
  using BoundedString::BoundedString;
  VrfName(const Zov::BoundedString<100>& s) : BoundedString(s) {}
  // The VRF every device has: "default".
  static VrfName defaultVrf();
};

namespace Intf {

// One layer-3 interface.
class Status : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("L3::Intf::Status")

 public:
  static constexpr Zov::AttributeId kVrf = 259;

  Status(Dovix::IntfId intfId, const VrfName& vrf);

  Dovix::IntfId intfId() const { return intfId_; }
  const VrfName& vrf() const { return vrf_; }
  void vrfIs(const VrfName& vrf);

 private:
  Dovix::IntfId intfId_;
  VrfName vrf_;
};

// Every layer-3 interface, by id.
class StatusDir : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("L3::Intf::StatusDir")

 public:
  static constexpr Zov::AttributeId kIntfStatus = 258;
  using IntfStatusMap =
      Zov::HashMap2018Generic<Dovix::IntfId, const Status, std::hash<Dovix::IntfId>>;

  explicit StatusDir(const Zov::String& name) : Entity(name) {}

  const IntfStatusMap& intfStatus() const { return intfStatus_; }
  const Status* intfStatus(Dovix::IntfId id) const { return intfStatus_.lookup(id); }
  // Puts `status` under its own interface id (announced with 258 and the id).
  // REQUIRES: `status` is not null.
  void intfStatusIs(const Zov::Ptr<const Status>& status);
  // Removes the entry under `id`, announcing it when there was one.
  void intfStatusDel(Dovix::IntfId id);

 private:
  IntfStatusMap intfStatus_;
};

}  // namespace Intf
}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  std::size_t operator()(const L3::VrfName& name) const noexcept {
    return Zov::hashSingleAttr(0, name);
  }
};

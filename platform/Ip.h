// Ip: the VRFs known to the device, published by the IP agent in two views:
// `Ip::AllVrfStatusGlobal` (mounted at "ip/vrf/status/global") and
// `Ip::AllVrfStatusLocal` (the cell's "ip/vrf/status/local"). Each holds a
// `vrf` collection keyed by VRF name; a change is announced with `kVrf` and
// the name.
#pragma once

#include "platform/L3.h"

namespace Ip {

// One VRF in one view. `View` only tells the two views' types apart.
template <class View>
class VrfStatus : public Zov::Entity {
 public:
  explicit VrfStatus(const L3::VrfName& name) : Entity(name), vrfName_(name) {}
  const L3::VrfName& vrfName() const { return vrfName_; }

 private:
  L3::VrfName vrfName_;
};

class VrfStatusGlobal : public VrfStatus<VrfStatusGlobal> {
  ZOV_TRACKED_ALLOCATION("Ip::VrfStatusGlobal")
 public:
  using VrfStatus::VrfStatus;
};

class VrfStatusLocal : public VrfStatus<VrfStatusLocal> {
  ZOV_TRACKED_ALLOCATION("Ip::VrfStatusLocal")
 public:
  using VrfStatus::VrfStatus;
};

// Every VRF of one view, by name.
template <class Entry>
class AllVrfStatus : public Zov::Entity {
 public:
  static constexpr Zov::AttributeId kVrf = 258;
  using VrfMap = Zov::HashMap2018Generic<L3::VrfName, Entry, std::hash<L3::VrfName>>;

  explicit AllVrfStatus(const Zov::String& name) : Entity(name) {}

  const VrfMap& vrf() const { return vrf_; }
  const Entry* vrf(const L3::VrfName& name) const { return vrf_.lookup(name); }
  // Adds a VRF of this name; one already there stays and nothing is announced.
  void vrfIs(const L3::VrfName& name) {
    if (vrf_.contains(name)) return;
    vrf_.entryIs(name, Zov::Ptr<Entry>(new Entry(name)));
    notifieeList()->visit(kVrf, &name);
  }
  void vrfDel(const L3::VrfName& name) {
    if (vrf_.entryDel(name)) notifieeList()->visit(kVrf, &name);
  }

 private:
  VrfMap vrf_;
};

class AllVrfStatusGlobal : public AllVrfStatus<VrfStatusGlobal> {
  ZOV_TRACKED_ALLOCATION("Ip::AllVrfStatusGlobal")
 public:
  using AllVrfStatus::AllVrfStatus;
};

class AllVrfStatusLocal : public AllVrfStatus<VrfStatusLocal> {
  ZOV_TRACKED_ALLOCATION("Ip::AllVrfStatusLocal")
 public:
  using AllVrfStatus::AllVrfStatus;
};

}  // namespace Ip

// The watcher of one mounted layer-3 interface status: a change of the
// interface's `vrf` schedules a refresh. See IntfWatcher.h for the behaviour
// it shares with `LinkStatusAclSm`.
#pragma once

#include "McastDns/AclPlugin/IntfWatcher.h"

namespace McastDns {

struct L3IntfStatusWatch {
  using Entity = L3::Intf::Status;
  using Key = Dovix::IntfId;
  static constexpr Zov::AttributeId kWatchedAttribute = L3::Intf::Status::kVrf;
  static constexpr TypeIndex kType = kL3IntfStatusAclSmType;
  static constexpr const char* kReactorRecord = "McastDns::L3IntfStatusAclSm::ZovL3IntfStatus";
  static constexpr const char* kChangeName = "handleVrf";
  static constexpr const char* kInitializedText =
      "void McastDns::L3IntfStatusAclSm::handleInitialized()";
  static constexpr const char* kChangeText = "void McastDns::L3IntfStatusAclSm::handleVrf()";
  static constexpr const char* kDestroyText = "void McastDns::L3IntfStatusAclSm::destroy()";
  static Key keyOf(const Entity& entity) { return entity.intfId(); }
  // The key of a watcher without an entity: the id of the empty name.
  static Key emptyKey() { return Dovix::IntfId(Zov::String()); }
};

class L3IntfStatusAclSm : public IntfWatcher<L3IntfStatusAclSm, L3IntfStatusWatch> {
  ZOV_TRACKED_ALLOCATION("McastDns::L3IntfStatusAclSm")

 public:
  using ZovL3IntfStatus = ZovWatched;

  // Creates a watcher and switches its notification on.
  static Zov::Ptr<L3IntfStatusAclSm> L3IntfStatusAclSmIs(
      const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus, CpAclSm* parent);

  // Used only by `L3IntfStatusAclSmIs`.
  L3IntfStatusAclSm(const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus, CpAclSm* parent)
      : IntfWatcher(l3IntfStatus, parent) {}

  Zov::Ptr<const L3::Intf::Status> l3IntfStatus() const { return watched(); }
  Dovix::IntfId intfId() const { return key(); }
  void handleVrf() { handleChange(); }
};

// Forwards to `L3IntfStatusAclSm::L3IntfStatusAclSmIs`.
Zov::Ptr<L3IntfStatusAclSm> l3IntfStatusAclSmFactory(
    const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus, CpAclSm* parent);

inline Dovix::IntfId L3IntfStatusAclSmKeyTraits::key(const L3IntfStatusAclSm& member) {
  return member.intfId();
}
inline Zov::Ptr<L3IntfStatusAclSm>& L3IntfStatusAclSmKeyTraits::next(L3IntfStatusAclSm& member) {
  return member.next();
}

}  // namespace McastDns

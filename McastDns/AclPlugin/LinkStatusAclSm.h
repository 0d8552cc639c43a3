// The watcher of one mounted link status: a change of the link's `state`
// schedules a refresh. See IntfWatcher.h for the behaviour it shares with
// `L3IntfStatusAclSm`.
#pragma once

#include "McastDns/AclPlugin/IntfWatcher.h"

namespace McastDns {

struct LinkStatusWatch {
  using Entity = LinkStatus;
  using Key = IntfKey;
  static constexpr Zov::AttributeId kWatchedAttribute = LinkStatus::kState;
  static constexpr TypeIndex kType = kLinkStatusAclSmType;
  static constexpr const char* kReactorRecord = "McastDns::LinkStatusAclSm::ZovLinkStatus";
  static constexpr const char* kChangeName = "handleState";
  static constexpr const char* kInitializedText =
      "void McastDns::LinkStatusAclSm::handleInitialized()";
  static constexpr const char* kChangeText = "void McastDns::LinkStatusAclSm::handleState()";
  static constexpr const char* kDestroyText = "void McastDns::LinkStatusAclSm::destroy()";
  static Key keyOf(const Entity& entity) { return entity.intfKey(); }
  // The key of a watcher without an entity: the empty interface name and 0.
  static Key emptyKey() { return IntfKey{Dovix::IntfId(Zov::String()), 0}; }
};

class LinkStatusAclSm : public IntfWatcher<LinkStatusAclSm, LinkStatusWatch> {
  ZOV_TRACKED_ALLOCATION("McastDns::LinkStatusAclSm")

 public:
  using ZovLinkStatus = ZovWatched;

  // Creates a watcher and switches its notification on.
  static Zov::Ptr<LinkStatusAclSm> LinkStatusAclSmIs(const Zov::Ptr<const LinkStatus>& linkStatus,
                                                     CpAclSm* parent);

  // Used only by `LinkStatusAclSmIs`.
  LinkStatusAclSm(const Zov::Ptr<const LinkStatus>& linkStatus, CpAclSm* parent)
      : IntfWatcher(linkStatus, parent) {}

  Zov::Ptr<const LinkStatus> linkStatus() const { return watched(); }
  IntfKey intfKey() const { return key(); }
  void handleState() { handleChange(); }
};

// Forwards to `LinkStatusAclSm::LinkStatusAclSmIs`.
Zov::Ptr<LinkStatusAclSm> linkStatusAclSmFactory(const Zov::Ptr<const LinkStatus>& linkStatus,
                                                 CpAclSm* parent);

inline IntfKey LinkStatusAclSmKeyTraits::key(const LinkStatusAclSm& member) {
  return member.intfKey();
}
inline Zov::Ptr<LinkStatusAclSm>& LinkStatusAclSmKeyTraits::next(LinkStatusAclSm& member) {
  return member.next();
}

}  // namespace McastDns

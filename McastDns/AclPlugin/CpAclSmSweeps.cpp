// The interface handlers: they keep the watcher collections in step with the
// mounted collections, one key at a time and in full sweeps, and turn every
// change into at most one pending refresh.
#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "McastDns/AclPlugin/PluginTrace.h"

namespace McastDns {

void CpAclSm::handleLinkChange() {
  MCASTDNS_TRACE(kTraceHandler, "handleLinkChange") << "void McastDns::CpAclSm::handleLinkChange()";
  if (!initialized_ || dirtyAcl_) return;
  // A pending refresh reads the state when it runs, so it covers every change
  // that comes before it: only the first change of a burst arms the timer.
  if (Pell::TimerTask* task = timerTask()) task->scheduleTaskLowestDelay(refreshAclsDelay());
  dirtyAcl_ = true;
}

void CpAclSm::handleLinkStatus(const IntfKey& intfKey) {
  MCASTDNS_TRACE(kTraceHandler, "handleLinkStatus")
      << "void McastDns::CpAclSm::handleLinkStatus(const McastDns::IntfKey&)";
  if (!initialized_) return;
  const Status* links = status();
  if (const LinkStatus* link = links ? links->linkStatus(intfKey) : nullptr) {
    linkStatusAclSmIs(Zov::Ptr<const LinkStatus>(link));
    return;
  }
  if (Zov::Ptr<LinkStatusAclSm> gone = linkStatusAclSmDel(intfKey)) gone->destroy();
}

void CpAclSm::handleL3IntfStatus(Dovix::IntfId intfId) {
  MCASTDNS_TRACE(kTraceHandler, "handleL3IntfStatus")
      << "void McastDns::CpAclSm::handleL3IntfStatus(Dovix::IntfId)";
  if (!initialized_) return;
  const L3::Intf::StatusDir* dir = intfStatusDir();
  if (const L3::Intf::Status* intf = dir ? dir->intfStatus(intfId) : nullptr) {
    // A replaced interface status gets a new watcher; the old one leaves
    // quietly, since the new one's creation schedules the refresh.
    if (const L3IntfStatusAclSm* held = l3IntfStatusAclSm_.find(intfId);
        held && held->watchedEntity() != intf) {
      l3IntfStatusAclSm_.deleteMember(intfId);
    }
    l3IntfStatusAclSmIs(Zov::Ptr<const L3::Intf::Status>(intf));
    return;
  }
  if (Zov::Ptr<L3IntfStatusAclSm> gone = l3IntfStatusAclSmDel(intfId)) gone->destroy();
}

namespace {
// First pass of a sweep: drops, without a refresh, every watcher whose key the
// mounted collection no longer holds.
template <class Map, class Mounted>
void prune(Map& watchers, const Mounted* mounted) {
  watchers.forEachMember([&](const auto& watcher) {
    const auto key = watcher->key();
    if (!mounted || !mounted->contains(key)) watchers.deleteMember(key);
  });
}
}  // namespace

void CpAclSm::handleL3IntfStatus() {
  MCASTDNS_TRACE(kTraceHandler, "handleL3IntfStatus")
      << "void McastDns::CpAclSm::handleL3IntfStatus()";
  if (!initialized_) return;
  const L3::Intf::StatusDir* dir = intfStatusDir();
  prune(l3IntfStatusAclSm_, dir ? &dir->intfStatus() : nullptr);
  if (!dir) return;
  l3IntfStatusAclSm_.reserve(dir->intfStatus().size());
  for (const auto& entry : dir->intfStatus()) {
    if (entry.second) handleL3IntfStatus(entry.second->intfId());
  }
}

void CpAclSm::handleLinkStatus() {
  MCASTDNS_TRACE(kTraceHandler, "handleLinkStatus") << "void McastDns::CpAclSm::handleLinkStatus()";
  if (!initialized_) return;
  const Status* links = status();
  prune(linkStatusAclSm_, links ? &links->linkStatus() : nullptr);
  if (!links) return;
  linkStatusAclSm_.reserve(links->linkStatus().size());
  for (const auto& entry : links->linkStatus()) {
    if (entry.second) handleLinkStatus(entry.second->intfKey());
  }
}

}  // namespace McastDns

#include "agent/live/KernelState.h"

#include <fnmatch.h>
#include <net/if.h>

#include "agent/os/Namespaces.h"

namespace AclAgent {

const std::string KernelState::kOwned = "in live mode the kernel owns links, interfaces and VRFs";

KernelState::KernelState(StateDatabase& db, std::vector<std::string> mdnsGlobs)
    : claim_(db,
             {StatePath::kMdnsStatus, StatePath::kL3IntfStatus, StatePath::kVrfStatusGlobal,
              StatePath::kVrfStatusLocal},
             kOwned),
      globs_(std::move(mdnsGlobs)) {
  vrfIs(std::string(kDefaultVrf));
}

std::string KernelState::intfId(const std::string& vrf, const std::string& name) {
  return vrf == kDefaultVrf ? name : vrf + "/" + name;
}

std::uint8_t KernelState::linkState(const KernelLink& link) const {
  constexpr unsigned kWanted = IFF_UP | IFF_RUNNING | IFF_MULTICAST;
  if ((link.flags & kWanted) != kWanted) return 0;
  if (globs_.empty()) return 1;
  for (const std::string& glob : globs_) {
    if (fnmatch(glob.c_str(), link.name.c_str(), 0) == 0) return 1;
  }
  return 0;
}

void KernelState::mdnsGlobsIs(std::vector<std::string> mdnsGlobs) {
  globs_ = std::move(mdnsGlobs);
  for (const auto& [vrf, ns] : namespaces_) {
    for (const auto& [index, link] : ns.links) publish(vrf, link);
  }
}

void KernelState::vrfIs(const std::string& vrf) {
  if (namespaces_.count(vrf)) return;
  // A name the database refuses (over a VRF name's length) leaves nothing.
  claim_.write([&](StateDatabase& db) { db.vrfIs(VrfView::kGlobal, vrf); });
  namespaces_[vrf];
}

void KernelState::vrfDel(const std::string& vrf) {
  auto it = namespaces_.find(vrf);
  if (it == namespaces_.end() || vrf == kDefaultVrf) return;
  for (const auto& [index, link] : it->second.links) withdraw(vrf, link);
  namespaces_.erase(it);
  claim_.write([&](StateDatabase& db) { db.vrfDel(VrfView::kGlobal, vrf); });
}

void KernelState::publish(const std::string& vrf, const KernelLink& link) {
  const std::string id = intfId(vrf, link.name);
  claim_.write([&](StateDatabase& db) {
    db.intfVrfIs(id, vrf);
    db.linkStateIs(LinkName{id, 0}, linkState(link));
  });
}

void KernelState::withdraw(const std::string& vrf, const KernelLink& link) {
  const std::string id = intfId(vrf, link.name);
  claim_.write([&](StateDatabase& db) {
    db.linkStatusDel(LinkName{id, 0});
    db.intfStatusDel(id);
  });
}

void KernelState::linkIs(const std::string& vrf, int ifindex, const KernelLink& link) {
  auto ns = namespaces_.find(vrf);
  if (ns == namespaces_.end() || (link.flags & IFF_LOOPBACK)) return;
  if (ns->second.dumping) ns->second.dumped.insert(ifindex);
  auto [it, added] = ns->second.links.try_emplace(ifindex, link);
  if (!added) {
    if (it->second == link) return;
    // A new name is a new interface; the old one goes.
    if (it->second.name != link.name) withdraw(vrf, it->second);
    it->second = link;
  }
  publish(vrf, link);
}

void KernelState::linkDel(const std::string& vrf, int ifindex) {
  auto ns = namespaces_.find(vrf);
  if (ns == namespaces_.end()) return;
  auto it = ns->second.links.find(ifindex);
  if (it == ns->second.links.end()) return;
  withdraw(vrf, it->second);
  ns->second.links.erase(it);
}

void KernelState::dumpBegin(const std::string& vrf) {
  auto ns = namespaces_.find(vrf);
  if (ns == namespaces_.end()) return;
  ns->second.dumping = true;
  ns->second.dumped.clear();
}

void KernelState::dumpEnd(const std::string& vrf) {
  auto ns = namespaces_.find(vrf);
  if (ns == namespaces_.end() || !ns->second.dumping) return;
  ns->second.dumping = false;
  std::vector<int> gone;
  for (const auto& [index, link] : ns->second.links) {
    if (!ns->second.dumped.count(index)) gone.push_back(index);
  }
  for (int index : gone) linkDel(vrf, index);
}

const std::map<int, KernelLink>& KernelState::links(const std::string& vrf) const {
  static const std::map<int, KernelLink> none;
  auto ns = namespaces_.find(vrf);
  return ns == namespaces_.end() ? none : ns->second.links;
}

}  // namespace AclAgent

// KernelState: the device's links, interfaces and VRFs as the Linux kernel
// tells them, published to the state database.
//
//   KernelState state(db, {"eth*"});
//   state.vrfIs("red");                                  // namespace red appeared
//   state.linkIs("red", 7, {"eth0", IFF_UP | IFF_RUNNING | IFF_MULTICAST});
//   state.linkDel("red", 7);                             // it went or moved away
//
// - VRFs: "default" (the agent's own namespace) and each VRF whose namespace
//   exists, in the global VRF collection.
// - Interfaces: every interface but loopback has an `L3::Intf::Status` with
//   its VRF. Its interface id is its name in the agent's own namespace and
//   "VRF/NAME" in a VRF's namespace, so that names repeated across namespaces
//   stay apart.
// - Links: each interface has a `McastDns::LinkStatus` under (its id, 0) in
//   state 1 while it is up, running and multicast-capable and its name
//   matches one of the globs, and 0 otherwise.
//
// Only differences are written: a link message that changes nothing the
// database holds notifies nobody. A full dump of a namespace is bracketed by
// `dumpBegin`/`dumpEnd`, and what the dump did not mention is gone.
//
// Threading: the event thread only.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/host/StateDatabase.h"

namespace AclAgent {

// One link as rtnetlink reports it.
struct KernelLink {
  std::string name;
  unsigned flags = 0;  // IFF_*
  friend bool operator==(const KernelLink&, const KernelLink&) = default;
};

class KernelState {
 public:
  // `mdnsGlobs`: the names (fnmatch patterns) whose links may be in state 1;
  // empty means every name.
  // Claims the paths of links, interfaces and VRFs: other writes to them are
  // refused with `kOwned` while this lives.
  KernelState(StateDatabase& db, std::vector<std::string> mdnsGlobs);
  static const std::string kOwned;

  // The interface id of interface `name` in the namespace of `vrf`.
  static std::string intfId(const std::string& vrf, const std::string& name);
  // The state a link's status holds.
  std::uint8_t linkState(const KernelLink& link) const;
  // New globs: every link's state is published again as they say; only the
  // links whose state changes notify anyone.
  void mdnsGlobsIs(std::vector<std::string> mdnsGlobs);

  // VRF `vrf`'s namespace appeared; "default" is there from the start.
  // Raises what the state database raises for a name it refuses (a
  // `Zov::RangeException` for one over 100 bytes), and then knows nothing of
  // `vrf`.
  void vrfIs(const std::string& vrf);
  // It went, and every interface in it.
  void vrfDel(const std::string& vrf);

  // The link with index `ifindex` in `vrf`'s namespace is as `link` says.
  void linkIs(const std::string& vrf, int ifindex, const KernelLink& link);
  // It went (deleted, or moved to another namespace).
  void linkDel(const std::string& vrf, int ifindex);

  // A full dump of `vrf`'s links begins or ends; links the dump did not
  // mention are gone at its end.
  void dumpBegin(const std::string& vrf);
  void dumpEnd(const std::string& vrf);

  // The links known in `vrf`'s namespace, by index.
  const std::map<int, KernelLink>& links(const std::string& vrf) const;

 private:
  struct Namespace {
    std::map<int, KernelLink> links;
    std::set<int> dumped;  // seen by the dump in progress
    bool dumping = false;
  };
  void publish(const std::string& vrf, const KernelLink& link);
  void withdraw(const std::string& vrf, const KernelLink& link);

  StateDatabase::Claim claim_;
  std::vector<std::string> globs_;
  std::map<std::string, Namespace> namespaces_;
};

}  // namespace AclAgent

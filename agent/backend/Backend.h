// Backend: what the agent holds to put the rules that stand in the rule
// service in place in the Linux kernel, one network namespace per VRF.
//
//   std::unique_ptr<Backend> backend = makeBackend(loop, options, std::cerr);
//   backend->vrfRulesIs("red", ChainRules{{"INPUT", {"-p udp ... -j ACCEPT"}}});
//   backend->vrfRulesIs("red", std::nullopt);   // a finish that changed nothing
//   backend->resync();                          // read every VRF back, repair drift
//   backend->vrfResync("red");                  // read one back: its namespace appeared
//   std::cout << appliedText(backend->statuses());
//
// Where: `BackendOptions::namespaces` says which namespace is a VRF's. What:
// table filter; the rules of chain C stand in one chain the backend owns for
// C, behind one jump at the top of C; nothing else is touched, and a VRF with
// no rule standing has neither. When: a VRF is read back the first time it
// is seen, and written when what must stand differs from what is in place.
// Failures are reported to the error stream as
// `acl-agent: apply vrf "NAME": MESSAGE` and retried with a growing delay.
//
// Threading: the event thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/os/Namespaces.h"
#include "platform/Pell.h"

namespace AclAgent {

// What must stand in one VRF: each chain, in bytewise order, with its rule
// texts (iptables syntax, without their final newline) in order.
using ChainRules = std::map<std::string, std::vector<std::string>>;

struct BackendOptions {
  // Which kernel table writes: nf_tables over netlink in the agent's own
  // process, the iptables programs, or (auto) nft where the kernel has
  // nf_tables and the `iptables` on PATH is its nf_tables variant, unless
  // the iptables programs were named.
  enum class Kind : std::uint8_t { kAuto, kNft, kIptables };
  Kind kind = Kind::kAuto;
  // --iptables-restore or --iptables-save was given: auto means iptables.
  bool iptablesNamed = false;
  NamespaceMap namespaces;
  // Every this long on the loop's clock, every VRF is read back; 0: never.
  Pell::Nanoseconds resyncPeriod = 90'000'000'000;
  // Read-backs and writes at once; 0: one per CPU the agent may run on, at
  // most 4. More than CPUs write a little sooner, but the agent's own thread
  // then waits longer for a CPU.
  unsigned maxJobs = 0;
  // The iptables programs, and how long one may run (real time).
  std::string iptablesRestore = "iptables-restore";
  std::string iptablesSave = "iptables-save";
  Pell::Nanoseconds childTimeout = 5'000'000'000;
};

// What `show applied` shows of one VRF. kFailed: a VRF name that can never be
// applied, or rules left out (refused, or in a chain that cannot be given an
// owned chain) while the rest stands; `error` says which.
struct VrfStatus {
  enum class State : std::uint8_t { kOk, kWriting, kWaiting, kFailed };
  std::string vrf;
  std::string netns;  // "" for VRF default
  State state = State::kOk;
  std::size_t rules = 0;
  std::uint64_t writes = 0;
  std::uint64_t repairs = 0;
  std::string error;    // the last error; empty when ok
  std::string backend;  // "nft" or "iptables"
};

class Backend {
 public:
  virtual ~Backend() = default;

  // A finish named `vrf`: the backend now knows it. `rules`, when given, is
  // what must stand there now; when not, what stands did not change.
  virtual void vrfRulesIs(const std::string& vrf, std::optional<ChainRules> rules) = 0;
  // Reads every known VRF's namespace back and rewrites each whose owned
  // chains or jumps are not what they should be.
  virtual void resync() = 0;
  // Reads the namespace of `vrf` alone back, as `resync` does for every VRF:
  // for a namespace that appeared. Nothing when the VRF is not known yet
  // (it is read back when first seen).
  virtual void vrfResync(const std::string& vrf) = 0;
  // From now on every VRF is read back every `period` (0: never), the first
  // time `period` from now.
  virtual void resyncPeriodIs(Pell::Nanoseconds period) = 0;
  // Every known VRF, in bytewise order of the name.
  virtual std::vector<VrfStatus> statuses() const = 0;
  // Whether no read-back or write is under way or waiting for its turn.
  virtual bool idle() const = 0;
  // Called each time the backend becomes idle; one listener.
  virtual void idleListenerIs(std::function<void()> listener) = 0;
  // How many descriptors the backend keeps open for each VRF it writes.
  virtual unsigned descriptorsPerVrf() const = 0;
};

// `show applied`: one line per VRF,
//   applied vrf="red" netns="red" state=ok rules=1 writes=1 repairs=0 backend=nft
// with ` error="..."` before the backend when not ok; "no vrfs" when there
// is none.
std::string appliedText(const std::vector<VrfStatus>& statuses);
// The VRFs whose rules must stand and are not in place.
std::vector<VrfStatus> notInPlace(const std::vector<VrfStatus>& statuses);

// The kind of table `options` choose, auto resolved, with the reason for a
// message; an explicit choice is taken as it stands.
BackendOptions::Kind chosenKind(const BackendOptions& options, std::string* why);

// The backend that `options` choose.
std::unique_ptr<Backend> makeBackend(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                     const BackendOptions& options, std::ostream& errors);

// Removes the owned chains and jumps from the agent's own namespace and every
// namespace under the map's folder that is a VRF's, reporting failures to
// `errors`; runs to the end before it returns (no event loop). Returns
// whether everything was removed.
bool removeApplied(const BackendOptions& options, std::ostream& errors);

}  // namespace AclAgent

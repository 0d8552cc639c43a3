// IptablesBackend: puts what stands in the rule service in place in the Linux
// kernel, one network namespace per VRF, with iptables-restore.
//
//   IptablesBackend backend(loop, options, std::cerr);
//   rules->finishListenerIs([&](const L3::VrfName& vrf, bool changed) {
//     backend.vrfSeen(vrf.str(), changed ? std::optional(rules->vrfRules(vrf)) : std::nullopt);
//   });
//   backend.resync();                  // read every namespace back, repair drift
//   std::cout << backend.appliedText();
//
// Where: VRF "default" is the agent's own namespace; any other VRF NAME is the
// named namespace (under `netnsDir`) that `netnsTemplate` gives, "%s" standing
// for NAME. A name that cannot be a namespace name (empty, "." or "..",
// holding '/' or a NUL byte, longer than 255 bytes) is reported once and
// never applied.
//
// What: table filter. The rules of chain C go into one chain the agent owns
// for C (`ownedChain(C)`), each tagged with a comment match that holds a hash
// of its text; C holds exactly one jump to it, at its top. Nothing else in C
// and no chain the agent does not own is ever touched. A VRF with no rule
// standing has neither jump nor owned chain.
//
// When: a VRF is written (one iptables-restore --noflush input, one COMMIT,
// run inside its namespace) only when what must stand there differs from
// what the backend last read back or wrote. Writes and read-backs run as
// child processes that the event loop hears end (watched descriptors), at
// most `maxChildren` at a time, each killed past `childTimeout` of real time;
// each counts as work in flight on the loop while it runs, so `settle` waits
// for it. A failed or timed-out write is reported and retried after a delay
// that grows from 100 ms to 30 s, on background tasks of the loop, always
// with the latest rules; other VRFs go on. A rule line that iptables-restore
// refuses is reported and left out, and the rest is written. A namespace that
// does not exist makes its VRF wait until the next resync.
//
// Errors go to `errors` as lines `acl-agent: apply vrf "NAME": MESSAGE`.
//
// Threading: the event thread only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/host/RuleService.h"
#include "platform/Pell.h"

namespace AclAgent {

struct IptablesBackendOptions {
  std::string netnsTemplate = "%s";
  std::string netnsDir = "/run/netns";
  std::string iptablesRestore = "iptables-restore";
  std::string iptablesSave = "iptables-save";
  // Every this long on the loop's clock, every VRF is read back; 0: never.
  Pell::Nanoseconds resyncPeriod = 90'000'000'000;
  // Child processes at once; 0: one per CPU the agent may run on, at most 4.
  // More children than CPUs write a little sooner, but the agent's own thread
  // then waits longer for a CPU.
  unsigned maxChildren = 0;
  Pell::Nanoseconds childTimeout = 5'000'000'000;  // real time
};

class IptablesBackend {
 public:
  // kFailed: a VRF name that can never be applied, or rules left out (refused
  // by iptables-restore, or in a chain whose owned chain's name would be too
  // long) while the rest stands; `error` says which.
  enum class State : std::uint8_t { kOk, kWriting, kWaiting, kFailed };

  // What `show applied` shows of one VRF.
  struct VrfStatus {
    std::string vrf;
    std::string netns;  // "" for VRF default
    State state = State::kOk;
    std::size_t rules = 0;
    std::uint64_t writes = 0;
    std::uint64_t repairs = 0;
    std::string error;  // the last error; empty when ok
  };

  IptablesBackend(Zov::Ptr<Pell::TaskSchedulerRoot> loop, IptablesBackendOptions options,
                  std::ostream& errors);
  // Kills children still running; rules in place stay.
  ~IptablesBackend();
  IptablesBackend(const IptablesBackend&) = delete;
  IptablesBackend& operator=(const IptablesBackend&) = delete;

  // The owned chain for kernel chain `chain`, the same in every namespace.
  static std::string ownedChain(const std::string& chain);

  // A finish named `vrf`: the backend now knows it. `rules`, when given, is
  // what must stand there now; when not, what stands did not change. The
  // first time a VRF is seen it is read back, and written if it differs.
  void vrfSeen(const std::string& vrf, std::optional<ChainRules> rules);

  // Reads every known VRF's namespace back and rewrites each whose owned
  // chains or jumps are not what they should be.
  void resync();

  // One line per known VRF, in bytewise order of the name:
  //   applied vrf="red" netns="red" state=ok rules=1 writes=1 repairs=0
  // with ` error="..."` when not ok. "no vrfs" when none is known.
  std::string appliedText() const;
  std::vector<VrfStatus> statuses() const;
  // Whether every known VRF's rules are in place.
  bool allInPlace() const;

  // Removes the owned chains and jumps from the agent's own namespace and
  // every namespace under `options.netnsDir` whose name the template gives,
  // reporting failures to `errors`; runs to the end before it returns (no
  // event loop). Returns whether everything was removed.
  static bool removeApplied(const IptablesBackendOptions& options, std::ostream& errors);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace AclAgent

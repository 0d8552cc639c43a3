#include "agent/backend/iptables/IptablesBackend.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <utility>

#include "agent/backend/iptables/IptablesText.h"
#include "agent/base/Text.h"
#include "agent/os/ChildProcess.h"

namespace AclAgent {
namespace {

constexpr Pell::Nanoseconds kFirstRetry = 100'000'000;
constexpr Pell::Nanoseconds kLastRetry = 30'000'000'000;
constexpr const char* kNoNamespace = "no namespace";

std::size_t ruleCount(const ChainRules& rules) {
  std::size_t n = 0;
  for (const auto& [chain, texts] : rules) n += texts.size();
  return n;
}

// The CPUs this process may run on.
unsigned cpuCount() {
  cpu_set_t cpus;
  if (::sched_getaffinity(0, sizeof cpus, &cpus) == 0) {
    return static_cast<unsigned>(std::max(1, CPU_COUNT(&cpus)));
  }
  return static_cast<unsigned>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
}

const char* stateName(IptablesBackend::State state) {
  switch (state) {
    case IptablesBackend::State::kOk:
      return "ok";
    case IptablesBackend::State::kWriting:
      return "writing";
    case IptablesBackend::State::kWaiting:
      return "waiting";
    case IptablesBackend::State::kFailed:
      return "failed";
  }
  return "?";
}

}  // namespace

struct IptablesBackend::Impl {
  // One VRF and the job that puts its rules in place: read back, then write
  // when what stands differs.
  struct Vrf {
    std::string name;
    std::string netns;  // empty for VRF default
    std::string fault;  // why the name cannot be a namespace's; never applied then
    ChainRules wanted;
    // What the backend last wrote or found in place, as far as it knows.
    std::optional<ChainRules> applied;
    State state = State::kWriting;
    std::string error;
    std::uint64_t writes = 0;
    std::uint64_t repairs = 0;

    enum class Phase : std::uint8_t { kIdle, kQueued, kReading, kWriting } phase = Phase::kIdle;
    bool again = false;  // asked for again while the job ran
    std::unique_ptr<ChildProcess> child;
    ChainRules writing;  // the rules of the write in flight
    RestoreInput input;
    bool repair = false;

    // What is left out, with the message that said why: rules and chains that
    // iptables-restore refused, and chains that cannot have an owned chain.
    std::map<std::pair<std::string, std::string>, std::string> refusedRules;
    std::map<std::string, std::string> refusedChains;
    bool otherFamilyReported = false;

    Pell::Nanoseconds retryDelay = 0;
    std::unique_ptr<Pell::BackgroundTimer> retry;
  };

  // A program the backend runs, looked up on PATH once rather than at every
  // start, and again after a child could not run it (moved, removed).
  struct Program {
    std::string name;
    std::string path;  // empty while not found
  };

  Impl(Zov::Ptr<Pell::TaskSchedulerRoot> l, IptablesBackendOptions o, std::ostream& e)
      : loop(std::move(l)), options(std::move(o)), errors(e) {
    if (options.maxChildren == 0) options.maxChildren = std::min(cpuCount(), 4u);
    for (Program* program : {&save, &restore}) {
      // One missing now is reported when a VRF needs it.
      std::string missing;
      program->path = ChildProcess::findProgram(program->name, &missing).value_or("");
    }
    if (options.resyncPeriod > 0) {
      resyncTimer = std::make_unique<Pell::BackgroundTimer>(loop, "iptablesResyncTask", [this] {
        resync();
        resyncTimer->armIn(options.resyncPeriod);
      });
      resyncTimer->armIn(options.resyncPeriod);
    }
  }

  void report(const Vrf& vrf, const std::string& message) {
    errors << "acl-agent: apply vrf " << quoteName(vrf.name) << ": " << message << std::endl;
  }

  // What must stand, less what is left out; reports each chain that cannot
  // have an owned chain the first time it is met.
  ChainRules effective(Vrf& vrf) {
    ChainRules rules;
    for (const auto& [chain, texts] : vrf.wanted) {
      if (texts.empty()) continue;
      if (auto fault = chainFault(chain); fault && !vrf.refusedChains.contains(chain)) {
        vrf.refusedChains[chain] = *fault;
        report(vrf, *fault);
      }
      if (vrf.refusedChains.contains(chain)) continue;
      for (const std::string& text : texts) {
        if (!vrf.refusedRules.contains({chain, text})) rules[chain].push_back(text);
      }
    }
    return rules;
  }

  // The message of something left out of what stands, or empty.
  static std::string leftOut(const Vrf& vrf) {
    for (const auto& [chain, texts] : vrf.wanted) {
      if (auto it = vrf.refusedChains.find(chain);
          it != vrf.refusedChains.end() && !texts.empty()) {
        return it->second;
      }
      for (const std::string& text : texts) {
        if (auto it = vrf.refusedRules.find({chain, text}); it != vrf.refusedRules.end()) {
          return it->second;
        }
      }
    }
    return {};
  }

  // Forgets refusals of rules and chains that are no longer wanted.
  static void pruneRefusals(Vrf& vrf) {
    std::erase_if(vrf.refusedChains, [&](const auto& entry) {
      auto it = vrf.wanted.find(entry.first);
      return it == vrf.wanted.end() || it->second.empty();
    });
    std::erase_if(vrf.refusedRules, [&](const auto& entry) {
      auto it = vrf.wanted.find(entry.first.first);
      return it == vrf.wanted.end() || std::find(it->second.begin(), it->second.end(),
                                                 entry.first.second) == it->second.end();
    });
  }

  std::string namespacePath(const Vrf& vrf) const { return options.netnsDir + "/" + vrf.netns; }

  void vrfSeen(const std::string& name, std::optional<ChainRules> rules) {
    auto [it, isNew] = vrfs.try_emplace(name);
    Vrf& vrf = it->second;
    if (isNew) {
      vrf.name = name;
      if (name != "default") vrf.netns = netnsName(options.netnsTemplate, name);
      if (auto fault = name == "default" ? std::nullopt : netnsNameFault(vrf.netns)) {
        vrf.fault = *fault;
        vrf.state = State::kFailed;
        vrf.error = *fault;
        report(vrf, *fault);
      }
    }
    const bool changed = rules && *rules != vrf.wanted;
    if (changed) {
      vrf.wanted = std::move(*rules);
      pruneRefusals(vrf);
    }
    if (!vrf.fault.empty()) return;
    const bool settled =
        vrf.phase == Vrf::Phase::kIdle && (vrf.state == State::kOk || vrf.state == State::kFailed);
    if (isNew) {
      syncIs(vrf, true);
    } else if (changed) {
      if (settled && vrf.applied && effective(vrf) == *vrf.applied) {
        // Only what is left out changed: what stands is still right.
        vrf.error = leftOut(vrf);
        vrf.state = vrf.error.empty() ? State::kOk : State::kFailed;
      } else {
        syncIs(vrf, true);
      }
    } else if (vrf.state == State::kWaiting && vrf.error == kNoNamespace &&
               ::access(namespacePath(vrf).c_str(), F_OK) == 0) {
      syncIs(vrf, true);
    }
    pump();
  }

  void resync() {
    for (auto& [name, vrf] : vrfs) {
      if (vrf.fault.empty()) syncIs(vrf, false);
    }
    pump();
  }

  // Asks for a read-back of `vrf`, and a write if it differs. `change`: what
  // must stand changed (or is not known to stand), rather than a check.
  void syncIs(Vrf& vrf, bool change) {
    if (vrf.phase == Vrf::Phase::kReading || vrf.phase == Vrf::Phase::kWriting) {
      vrf.again = true;
      return;
    }
    if (change || vrf.state == State::kWaiting) vrf.state = State::kWriting;
    if (vrf.phase == Vrf::Phase::kQueued) return;
    if (vrf.retry) vrf.retry->stop();
    vrf.phase = Vrf::Phase::kQueued;
    queue.push_back(vrf.name);
  }

  // Starts queued jobs while fewer than `maxChildren` children run.
  void pump() {
    while (running < options.maxChildren && !queue.empty()) {
      Vrf& vrf = vrfs.at(queue.front());
      queue.pop_front();
      if (vrf.phase == Vrf::Phase::kQueued) startRead(vrf);
    }
  }

  // Runs `program` for `vrf` in its namespace; false when it could not start
  // (the VRF's state says why).
  bool startChild(Vrf& vrf, Program& program, std::vector<std::string> args, std::string input,
                  void (Impl::*handler)(Vrf&, ChildResult)) {
    int netnsFd = -1;
    if (!vrf.netns.empty()) {
      std::string error;
      netnsFd = ChildProcess::openNamespace(namespacePath(vrf), &error);
      if (netnsFd < 0) {
        if (error.empty()) {
          namespaceMissing(vrf);
        } else {
          failed(vrf, error);
        }
        return false;
      }
    }
    std::string error;
    if (program.path.empty()) {
      std::optional<std::string> found = ChildProcess::findProgram(program.name, &error);
      if (!found) {
        if (netnsFd >= 0) ::close(netnsFd);
        failed(vrf, error);
        return false;
      }
      program.path = std::move(*found);
    }
    const ChildCommand command{program.name, std::move(args), netnsFd, std::move(input),
                               program.path};
    vrf.child = ChildProcess::start(
        loop, command, options.childTimeout,
        [this, name = vrf.name, handler, &program](ChildResult result) {
          Vrf& v = vrfs.at(name);
          --running;
          std::unique_ptr<ChildProcess> ended = std::move(v.child);
          if (!result.failure.empty()) program.path.clear();
          (this->*handler)(v, std::move(result));
          pump();
        },
        &error);
    if (netnsFd >= 0) ::close(netnsFd);
    if (!vrf.child) {
      failed(vrf, error);
      return false;
    }
    ++running;
    return true;
  }

  void startRead(Vrf& vrf) {
    vrf.again = false;
    if (startChild(vrf, save, {"-t", "filter"}, {}, &Impl::handleRead)) {
      vrf.phase = Vrf::Phase::kReading;
    }
  }

  void handleRead(Vrf& vrf, ChildResult result) {
    vrf.phase = Vrf::Phase::kIdle;
    if (!result.ok()) {
      failed(vrf, result.whyFailed(options.iptablesSave, options.childTimeout,
                                   errorSummary(result.err)));
      return;
    }
    const SavedTable saved = parseSave(result.out);
    if (otherFamilyPresent(result.err) && !vrf.otherFamilyReported) {
      vrf.otherFamilyReported = true;
      report(vrf,
             "iptables-legacy tables hold rules in this namespace too: the kernel runs them "
             "besides the agent's chains");
    }
    // The read-back is current, so the latest rules are what is compared and
    // written: a request made while it ran is answered by this job.
    vrf.again = false;
    ChainRules rules = effective(vrf);
    if (inPlace(saved, rules)) {
      vrf.applied = std::move(rules);
      succeeded(vrf);
      return;
    }
    vrf.repair = vrf.applied && *vrf.applied == rules;
    vrf.input = restoreInput(saved, rules);
    vrf.writing = std::move(rules);
    if (startChild(vrf, restore, {"--noflush"}, vrf.input.text, &Impl::handleWrite)) {
      vrf.phase = Vrf::Phase::kWriting;
      vrf.state = State::kWriting;
      ++vrf.writes;
      if (vrf.repair) ++vrf.repairs;
    }
  }

  void handleWrite(Vrf& vrf, ChildResult result) {
    vrf.phase = Vrf::Phase::kIdle;
    if (result.ok()) {
      vrf.applied = std::move(vrf.writing);
      succeeded(vrf);
      return;
    }
    if (result.failure.empty() && !result.timedOut) {
      if (auto blame = blamedLine(vrf.input, result.err)) {
        // Leave it out and write the rest at once.
        const std::string why = errorSummary(result.err);
        std::string message;
        if (blame->kind == RestoreLine::Kind::kRule) {
          message = "rule " + quoteName(blame->rule) + " refused: " + why;
          vrf.refusedRules[{blame->chain, blame->rule}] = message;
        } else {
          message = "chain " + quoteName(blame->chain) + " refused: " + why;
          vrf.refusedChains[blame->chain] = message;
        }
        report(vrf, message);
        vrf.error = message;
        syncIs(vrf, true);
        return;
      }
    }
    failed(vrf, result.whyFailed(options.iptablesRestore, options.childTimeout,
                                 errorSummary(result.err)));
  }

  void succeeded(Vrf& vrf) {
    vrf.retryDelay = 0;
    vrf.error = leftOut(vrf);
    vrf.state = vrf.error.empty() ? State::kOk : State::kFailed;
    if (vrf.again) syncIs(vrf, effective(vrf) != *vrf.applied);
  }

  void namespaceMissing(Vrf& vrf) {
    vrf.phase = Vrf::Phase::kIdle;
    vrf.again = false;
    // Nothing can stand in a namespace that does not exist, and nothing has
    // to when no rule must.
    vrf.applied = ChainRules();
    vrf.error = effective(vrf).empty() ? "" : kNoNamespace;
    vrf.state = vrf.error.empty() ? State::kOk : State::kWaiting;
  }

  // Reports a failure and retries after a delay that doubles each time.
  void failed(Vrf& vrf, const std::string& message) {
    report(vrf, message);
    vrf.phase = Vrf::Phase::kIdle;
    vrf.error = message;
    vrf.state = State::kWaiting;
    vrf.retryDelay = vrf.retryDelay == 0 ? kFirstRetry : std::min(vrf.retryDelay * 2, kLastRetry);
    if (!vrf.retry) {
      vrf.retry = std::make_unique<Pell::BackgroundTimer>(loop, "iptablesRetryTask",
                                                          [this, name = vrf.name] {
                                                            syncIs(vrfs.at(name), true);
                                                            pump();
                                                          });
    }
    vrf.retry->armIn(vrf.retryDelay);
    // What must stand changed while this ran: try that at once.
    if (vrf.again) syncIs(vrf, true);
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop;
  IptablesBackendOptions options;
  std::ostream& errors;
  Program save{options.iptablesSave, {}};
  Program restore{options.iptablesRestore, {}};
  std::map<std::string, Vrf> vrfs;
  std::deque<std::string> queue;
  unsigned running = 0;
  std::unique_ptr<Pell::BackgroundTimer> resyncTimer;
};

IptablesBackend::IptablesBackend(Zov::Ptr<Pell::TaskSchedulerRoot> loop,
                                 IptablesBackendOptions options, std::ostream& errors)
    : impl_(std::make_unique<Impl>(std::move(loop), std::move(options), errors)) {}

IptablesBackend::~IptablesBackend() = default;

std::string IptablesBackend::ownedChain(const std::string& chain) {
  return AclAgent::ownedChain(chain);
}

void IptablesBackend::vrfSeen(const std::string& vrf, std::optional<ChainRules> rules) {
  impl_->vrfSeen(vrf, std::move(rules));
}

void IptablesBackend::resync() {
  impl_->resync();
}

std::vector<IptablesBackend::VrfStatus> IptablesBackend::statuses() const {
  std::vector<VrfStatus> out;
  for (const auto& [name, vrf] : impl_->vrfs) {
    out.push_back(VrfStatus{name, vrf.netns, vrf.state, ruleCount(vrf.wanted), vrf.writes,
                            vrf.repairs, vrf.state == State::kOk ? "" : vrf.error});
  }
  return out;
}

std::string IptablesBackend::appliedText() const {
  if (impl_->vrfs.empty()) return "no vrfs\n";
  std::string text;
  for (const VrfStatus& s : statuses()) {
    text += "applied vrf=" + quoteName(s.vrf) + " netns=" + quoteName(s.netns) +
            " state=" + stateName(s.state) + " rules=" + std::to_string(s.rules) +
            " writes=" + std::to_string(s.writes) + " repairs=" + std::to_string(s.repairs);
    if (s.state != State::kOk) text += " error=" + quoteName(s.error);
    text += '\n';
  }
  return text;
}

bool IptablesBackend::allInPlace() const {
  return std::all_of(impl_->vrfs.begin(), impl_->vrfs.end(), [](const auto& entry) {
    return ruleCount(entry.second.wanted) == 0 || entry.second.state == State::kOk;
  });
}

}  // namespace AclAgent

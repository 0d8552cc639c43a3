#include "agent/backend/VrfApplier.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "agent/base/Text.h"

namespace AclAgent {
namespace {

constexpr Pell::Nanoseconds kFirstRetry = 100'000'000;
constexpr Pell::Nanoseconds kLastRetry = 30'000'000'000;
constexpr Pell::Nanoseconds kFirstRace = 1'000'000;
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

}  // namespace

struct VrfApplier::Vrf {
  enum class Step : std::uint8_t {
    kNew,           // not read back yet
    kUnapplicable,  // the name can never be a namespace's; `error` says why
    kQueued,        // waits for its turn to be read back
    kReading,
    kWriting,
    kInPlace,      // what was last read back or written is what must stand
    kNoNamespace,  // the namespace does not exist; nothing stands in it
    kRetryDue,     // the last job failed; `retry` runs it again
    kRaced,        // the last write lost to someone else's; `retry` reads back
  };

  std::string name;
  std::string netns;  // empty for VRF default
  Step step = Step::kNew;
  ChainRules wanted;
  // What stands in the kernel, as far as the last job tells; nothing after a
  // failure, when it is not known.
  std::optional<ChainRules> applied;
  std::string error;   // the last error, or what is left out
  bool again = false;  // asked for again while a job ran
  // A write succeeded and the read-back that checks it has not ended yet.
  bool verifying = false;
  std::uint64_t writes = 0;
  std::uint64_t repairs = 0;

  std::unique_ptr<KernelTable::Job> job;
  ChainRules writing;  // the rules of the write under way

  // What is left out, with the message that said why: rules and chains that
  // the table refused, and chains that cannot have an owned chain.
  std::map<std::pair<std::string, std::string>, std::string> refusedRules;
  std::map<std::string, std::string> refusedChains;
  std::set<std::string> warned;

  Pell::Nanoseconds retryDelay = 0;
  Pell::Nanoseconds raceDelay = 0;
  std::unique_ptr<Pell::BackgroundTimer> retry;
};

VrfApplier::VrfApplier(Zov::Ptr<Pell::TaskSchedulerRoot> loop, std::unique_ptr<KernelTable> table,
                       BackendOptions options, std::ostream& errors)
    : loop_(std::move(loop)),
      table_(std::move(table)),
      options_(std::move(options)),
      errors_(errors) {
  if (options_.maxJobs == 0) options_.maxJobs = std::min(cpuCount(), 4u);
  // A table that hears someone else's change has it read back at once.
  table_->driftListenerIs([this](const std::string& vrf) { vrfResync(vrf); });
  resyncTimer_ = std::make_unique<Pell::BackgroundTimer>(loop_, "resyncTask", [this] {
    resync();
    resyncTimer_->armIn(options_.resyncPeriod);
  });
  resyncPeriodIs(options_.resyncPeriod);
}

void VrfApplier::resyncPeriodIs(Pell::Nanoseconds period) {
  options_.resyncPeriod = period;
  if (period > 0) {
    resyncTimer_->armIn(period);
  } else {
    resyncTimer_->stop();
  }
}

// Jobs go before the table they run on.
VrfApplier::~VrfApplier() {
  for (auto& [name, vrf] : vrfs_) vrf->job.reset();
}

void VrfApplier::report(const Vrf& vrf, const std::string& message) {
  errors_ << "acl-agent: apply vrf " << quoteName(vrf.name) << ": " << message << std::endl;
}

// What must stand, less what is left out.
ChainRules VrfApplier::effective(const Vrf& vrf) const {
  ChainRules rules;
  for (const auto& [chain, texts] : vrf.wanted) {
    if (texts.empty() || vrf.refusedChains.contains(chain) || table_->chainFault(chain)) continue;
    for (const std::string& text : texts) {
      if (!vrf.refusedRules.contains({chain, text})) rules[chain].push_back(text);
    }
  }
  return rules;
}

// Leaves out, and reports once, each chain that cannot have an owned chain
// and each rule that the table cannot write.
void VrfApplier::noteUnownable(Vrf& vrf) {
  for (const auto& [chain, texts] : vrf.wanted) {
    if (texts.empty() || vrf.refusedChains.contains(chain)) continue;
    if (auto fault = table_->chainFault(chain)) {
      vrf.refusedChains[chain] = *fault;
      report(vrf, *fault);
      continue;
    }
    for (const std::string& text : texts) {
      if (vrf.refusedRules.contains({chain, text})) continue;
      if (auto fault = table_->ruleFault(text)) {
        vrf.refusedRules[{chain, text}] = *fault;
        report(vrf, *fault);
      }
    }
  }
}

// The message of something left out of what stands, or empty.
std::string VrfApplier::leftOut(const Vrf& vrf) {
  for (const auto& [chain, texts] : vrf.wanted) {
    if (auto it = vrf.refusedChains.find(chain); it != vrf.refusedChains.end() && !texts.empty()) {
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
void VrfApplier::pruneRefusals(Vrf& vrf) {
  std::erase_if(vrf.refusedChains, [&](const auto& entry) {
    auto it = vrf.wanted.find(entry.first);
    return it == vrf.wanted.end() || it->second.empty();
  });
  std::erase_if(vrf.refusedRules, [&](const auto& entry) {
    auto it = vrf.wanted.find(entry.first.first);
    return it == vrf.wanted.end() ||
           std::find(it->second.begin(), it->second.end(), entry.first.second) == it->second.end();
  });
}

// A VRF read back again shows as it stood, unless what must stand changed.
VrfStatus::State VrfApplier::shownState(const Vrf& vrf) const {
  using State = VrfStatus::State;
  switch (vrf.step) {
    case Vrf::Step::kUnapplicable:
      return State::kFailed;
    case Vrf::Step::kNew:
    case Vrf::Step::kWriting:
    case Vrf::Step::kRaced:
      return State::kWriting;
    case Vrf::Step::kRetryDue:
      return State::kWaiting;
    case Vrf::Step::kNoNamespace:
      return vrf.error.empty() ? State::kOk : State::kWaiting;
    case Vrf::Step::kQueued:
    case Vrf::Step::kReading:
      if (vrf.verifying) return State::kWriting;
      if (!vrf.applied || effective(vrf) != *vrf.applied) return State::kWriting;
      break;
    case Vrf::Step::kInPlace:
      break;
  }
  return vrf.error.empty() ? State::kOk : State::kFailed;
}

void VrfApplier::vrfRulesIs(const std::string& name, std::optional<ChainRules> rules) {
  auto [it, isNew] = vrfs_.try_emplace(name);
  if (isNew) {
    it->second = std::make_unique<Vrf>();
    Vrf& made = *it->second;
    made.name = name;
    made.netns = options_.namespaces.netnsOf(name);
    if (auto fault = name == kDefaultVrf ? std::nullopt : NamespaceMap::nameFault(made.netns)) {
      made.step = Vrf::Step::kUnapplicable;
      made.error = *fault;
      report(made, *fault);
    }
  }
  Vrf& vrf = *it->second;
  const bool changed = rules && *rules != vrf.wanted;
  if (changed) {
    vrf.wanted = std::move(*rules);
    pruneRefusals(vrf);
  }
  if (vrf.step == Vrf::Step::kUnapplicable) return;
  if (changed) noteUnownable(vrf);
  const bool settled = vrf.step == Vrf::Step::kInPlace || vrf.step == Vrf::Step::kNoNamespace;
  if (isNew) {
    sync(vrf);
  } else if (changed) {
    if (settled && vrf.applied && effective(vrf) == *vrf.applied) {
      // Only what is left out changed: what stands is still right.
      vrf.error = vrf.step == Vrf::Step::kNoNamespace ? "" : leftOut(vrf);
    } else {
      sync(vrf);
    }
  } else if (vrf.step == Vrf::Step::kNoNamespace && !vrf.error.empty() &&
             ::access(options_.namespaces.pathOf(vrf.netns).c_str(), F_OK) == 0) {
    sync(vrf);
  }
  pump();
}

void VrfApplier::resync() {
  // One whose retry is due is read back then: a resync that wrote it sooner
  // would undo the pacing of a write that keeps failing or has no effect.
  for (auto& [name, vrf] : vrfs_) {
    if (vrf->step != Vrf::Step::kUnapplicable && vrf->step != Vrf::Step::kRetryDue) sync(*vrf);
  }
  pump();
}

void VrfApplier::vrfResync(const std::string& name) {
  auto it = vrfs_.find(name);
  if (it == vrfs_.end() || it->second->step == Vrf::Step::kUnapplicable) return;
  sync(*it->second);
  pump();
}

// Asks for a read-back of `vrf`, and a write if it differs.
void VrfApplier::sync(Vrf& vrf) {
  switch (vrf.step) {
    case Vrf::Step::kReading:
    case Vrf::Step::kWriting:
      vrf.again = true;
      return;
    case Vrf::Step::kQueued:
    case Vrf::Step::kRaced:
      // Read back soon anyway, with the latest rules.
      return;
    default:
      break;
  }
  if (vrf.retry) vrf.retry->stop();
  vrf.step = Vrf::Step::kQueued;
  queue_.push_back(&vrf);
}

// Starts queued jobs while fewer than `maxJobs` run.
void VrfApplier::pump() {
  while (running_ < options_.maxJobs && !queue_.empty()) {
    Vrf& vrf = *queue_.front();
    queue_.pop_front();
    if (vrf.step == Vrf::Step::kQueued) startRead(vrf);
  }
}

// The VRF's namespace, opened for a job (-1: the agent's own); -2 when it
// cannot be, the VRF's step saying why.
int VrfApplier::namespaceFd(Vrf& vrf) {
  if (vrf.netns.empty()) return -1;
  std::string error;
  const int fd = openNamespace(options_.namespaces.pathOf(vrf.netns), &error);
  if (fd >= 0) return fd;
  if (error.empty()) {
    namespaceMissing(vrf);
  } else {
    failed(vrf, error);
  }
  return -2;
}

template <class Result, class Start>
bool VrfApplier::startJob(Vrf& vrf, void (VrfApplier::*handler)(Vrf&, Result), Start start) {
  const int fd = namespaceFd(vrf);
  if (fd == -2) return false;
  std::string error;
  vrf.job = start(
      fd,
      [this, &vrf, handler](Result result) {
        std::unique_ptr<KernelTable::Job> ended = std::move(vrf.job);
        --running_;
        (this->*handler)(vrf, std::move(result));
        jobEnded();
      },
      &error);
  if (fd >= 0) ::close(fd);
  if (!vrf.job) {
    failed(vrf, error);
    return false;
  }
  ++running_;
  return true;
}

void VrfApplier::startRead(Vrf& vrf) {
  vrf.again = false;
  if (startJob(vrf, &VrfApplier::handleRead, [&](int fd, auto done, std::string* error) {
        return table_->read(vrf.name, fd, std::move(done), error);
      })) {
    vrf.step = Vrf::Step::kReading;
  }
}

void VrfApplier::handleRead(Vrf& vrf, KernelTable::ReadResult read) {
  if (!read.error.empty()) {
    failed(vrf, read.error);
    return;
  }
  for (const std::string& warning : read.warnings) {
    if (vrf.warned.insert(warning).second) report(vrf, warning);
  }
  // The read-back is current, so the latest rules are what is compared and
  // written: a request made while it ran is answered by this job.
  vrf.again = false;
  const bool verifying = std::exchange(vrf.verifying, false);
  ChainRules rules = effective(vrf);
  const std::optional<std::string> drift = read.snapshot->drift(rules);
  if (!drift) {
    vrf.applied = std::move(rules);
    succeeded(vrf);
    return;
  }
  if (verifying && vrf.applied && *vrf.applied == rules) {
    // Writing it again would change nothing (a restore of another family
    // than the save, one that does nothing and says it succeeded) or pile
    // up jumps: the retry's growing delay paces it instead.
    failed(vrf, "the write did not take effect: " + *drift);
    return;
  }
  const bool repair = vrf.applied && *vrf.applied == rules;
  if (startJob(vrf, &VrfApplier::handleWrite, [&](int fd, auto done, std::string* error) {
        return table_->write(vrf.name, fd, *read.snapshot, rules, std::move(done), error);
      })) {
    vrf.step = Vrf::Step::kWriting;
    vrf.writing = std::move(rules);
    ++vrf.writes;
    if (repair) ++vrf.repairs;
  }
}

void VrfApplier::handleWrite(Vrf& vrf, KernelTable::WriteResult written) {
  if (written.raced) {
    raced(vrf, written.error);
    return;
  }
  if (written.error.empty()) {
    for (const std::string& warning : written.warnings) {
      if (vrf.warned.insert(warning).second) report(vrf, warning);
    }
    // Checked by reading it back before it counts as in place; until then
    // the retry delay stands, so a write that never takes effect is paced.
    vrf.applied = std::move(vrf.writing);
    vrf.verifying = true;
    vrf.step = Vrf::Step::kInPlace;
    sync(vrf);
    return;
  }
  if (written.refused) {
    // Leave it out and write the rest at once.
    const auto& [chain, rule] = *written.refused;
    std::string message;
    if (rule) {
      message = "rule " + quoteName(*rule) + " refused: " + written.error;
      vrf.refusedRules[{chain, *rule}] = message;
    } else {
      message = "chain " + quoteName(chain) + " refused: " + written.error;
      vrf.refusedChains[chain] = message;
    }
    report(vrf, message);
    vrf.error = message;
    vrf.applied.reset();
    vrf.step = Vrf::Step::kRetryDue;
    sync(vrf);
    return;
  }
  failed(vrf, written.error);
}

void VrfApplier::jobEnded() {
  pump();
  if (idle() && idleListener_) idleListener_();
}

void VrfApplier::succeeded(Vrf& vrf) {
  vrf.retryDelay = 0;
  vrf.raceDelay = 0;
  vrf.error = leftOut(vrf);
  vrf.step = Vrf::Step::kInPlace;
  if (vrf.again) sync(vrf);
}

void VrfApplier::namespaceMissing(Vrf& vrf) {
  table_->vrfGone(vrf.name);
  vrf.again = false;
  vrf.verifying = false;
  // Nothing can stand in a namespace that does not exist, and nothing has
  // to when no rule must.
  vrf.applied = ChainRules();
  vrf.error = effective(vrf).empty() ? "" : kNoNamespace;
  vrf.step = Vrf::Step::kNoNamespace;
}

// Reports a failure and retries after a delay that doubles each time.
void VrfApplier::failed(Vrf& vrf, const std::string& message) {
  report(vrf, message);
  vrf.error = message;
  vrf.applied.reset();
  vrf.verifying = false;
  vrf.step = Vrf::Step::kRetryDue;
  vrf.retryDelay = vrf.retryDelay == 0 ? kFirstRetry : std::min(vrf.retryDelay * 2, kLastRetry);
  retryIn(vrf, vrf.retryDelay);
  // What must stand changed while this ran: try that at once.
  if (vrf.again) sync(vrf);
}

void VrfApplier::raced(Vrf& vrf, const std::string& message) {
  vrf.raceDelay = vrf.raceDelay == 0 ? kFirstRace : vrf.raceDelay * 2;
  if (vrf.raceDelay > kFirstRetry) {
    vrf.raceDelay = 0;
    failed(vrf, message);
    return;
  }
  vrf.step = Vrf::Step::kRaced;
  retryIn(vrf, vrf.raceDelay);
}

void VrfApplier::retryIn(Vrf& vrf, Pell::Nanoseconds delay) {
  if (!vrf.retry) {
    vrf.retry = std::make_unique<Pell::BackgroundTimer>(loop_, "retryTask", [this, &vrf] {
      // The wait is over: a raced VRF is now due like any other.
      if (vrf.step == Vrf::Step::kRaced) vrf.step = Vrf::Step::kRetryDue;
      sync(vrf);
      pump();
    });
  }
  vrf.retry->armIn(delay);
}

std::vector<VrfStatus> VrfApplier::statuses() const {
  std::vector<VrfStatus> out;
  for (const auto& [name, vrf] : vrfs_) {
    const VrfStatus::State state = shownState(*vrf);
    out.push_back(VrfStatus{name, vrf->netns, state, ruleCount(vrf->wanted), vrf->writes,
                            vrf->repairs, state == VrfStatus::State::kOk ? "" : vrf->error,
                            table_->name()});
  }
  return out;
}

}  // namespace AclAgent

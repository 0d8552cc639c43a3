// The iptables backend against the real kernel: how long a change takes to
// stand in the kernel, how long 256 VRFs take to converge from nothing, each
// against the least work the same job needs (one iptables-restore per
// namespace, run back to back), and how long the event loop is held while
// the backend works.
//
// Run by bench/apply-bench.sh, as root inside private mount and network
// namespaces with their own /run, where namespaces vrf1 ... vrfN exist; the
// benchmarks refuse to run anywhere else (they write the filter table of the
// namespace they run in and of those).
//
// Times are wall-clock times (manual timing): child processes do the work,
// so the CPU time of this thread says little about them. The loop is on the
// wall clock, as the agent runs it live.
//
// How the loop is watched, from outside its code:
// - a background task armed 1 ms ahead, again and again, records how late
//   it runs (`late_max_us`, `late_p99_us`): a handler that holds the thread
//   makes it late, and so does the machine's own scheduling, which
//   `BM_LoopIdle` shows alone;
// - `TaskSchedulerRoot::runUntil` looks at its condition after every step
//   (the handlers of one poll, or one task); the thread's CPU time between
//   two looks is what that step cost the thread (`step_max_us`; how many
//   took over 1 ms: `steps_over_1ms`). The first step, the burst of finishes
//   that starts the work, is `first_step_us`;
// - over the whole run, the thread's CPU time and minor page faults per write
//   (`cpu_per_write_us`, `faults_per_write`), and how long it waited for a
//   CPU while ready to run (`runq_wait_ms`, the kernel's schedstat).
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "agent/backend/Backend.h"
#include "agent/backend/iptables/IptablesText.h"
#include "agent/os/ChildProcess.h"
#include "agent/os/Namespaces.h"

namespace bench {
namespace {

using AclAgent::Backend;
using AclAgent::ChainRules;
using AclAgent::ChildCommand;
using AclAgent::ChildProcess;
using AclAgent::ChildResult;
using Pell::Nanoseconds;

const std::string kMdns = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT";
// A second rule, so that every iteration of a one-VRF change changes it.
const std::string kOther = "-p udp --dport 5354 -d 224.0.0.251 -j ACCEPT";

std::string vrfName(int i) {
  return "vrf" + std::to_string(i);
}

Nanoseconds threadCpu() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return Nanoseconds(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

Nanoseconds wallNow() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return Nanoseconds(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

double micros(Nanoseconds ns) {
  return static_cast<double>(ns) / 1e3;
}

// How long this thread has waited, ready to run, for a CPU since it started
// (the kernel's schedstat run_delay); 0 where the kernel does not keep it.
Nanoseconds runQueueWait() {
  std::ifstream in("/proc/thread-self/schedstat");
  Nanoseconds running = 0, waiting = 0;
  in >> running >> waiting;
  return in ? waiting : 0;
}

// Why the benchmarks cannot run here, or empty: they need the private
// namespaces that apply-bench.sh makes, and `vrfs` VRF namespaces in them.
std::string whyNot(int vrfs) {
  const char* outer = std::getenv("ACL_OUTER_NETNS");
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/self/ns/net", error);
  if (!outer || !*outer || error || own.string() == outer) {
    return "runs only inside the private namespaces that bench/apply-bench.sh makes";
  }
  for (int i = 1; i <= vrfs; ++i) {
    struct stat st {};
    if (::stat(("/run/netns/" + vrfName(i)).c_str(), &st) != 0) {
      return "namespace " + vrfName(i) + " is missing: apply-bench.sh makes them";
    }
  }
  return {};
}

Zov::Ptr<Pell::TaskSchedulerRoot> wallLoop() {
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  loop->wallClockIs(true);
  return loop;
}

AclAgent::BackendOptions backendOptions() {
  AclAgent::BackendOptions options;
  options.resyncPeriod = 0;
  return options;
}

// Runs `command` in namespace `netns` to its end; its standard output, or
// nothing with `*error` set when it could not run or failed.
std::optional<std::string> runIn(const std::string& netns, ChildCommand command,
                                 std::string* error) {
  command.netnsFd = AclAgent::openNamespace("/run/netns/" + netns, error);
  if (command.netnsFd < 0) {
    if (error->empty()) *error = "no namespace " + netns;
    return std::nullopt;
  }
  constexpr Nanoseconds kTimeout = 5'000'000'000;
  ChildResult result = ChildProcess::run(command, kTimeout);
  ::close(command.netnsFd);
  if (!result.ok()) {
    *error = netns + ": " + result.whyFailed(command.program, kTimeout, result.err);
    return std::nullopt;
  }
  return std::move(result.out);
}

// What `netns`'s filter table holds now.
AclAgent::SavedTable savedIn(const std::string& netns, std::string* error) {
  const auto out = runIn(netns, {"iptables-save", {"-t", "filter"}, -1, ""}, error);
  return AclAgent::parseSave(out ? *out : "");
}

bool restoreIn(const std::string& netns, const std::string& input, std::string* error) {
  return runIn(netns, {"iptables-restore", {"--noflush"}, -1, input}, error).has_value();
}

// Takes the backend's chain and jump out of VRF namespaces 1 to `vrfs`, one
// iptables-restore each, so that the next converge starts from nothing. On a
// failure, skips the benchmark with the reason and returns false.
bool clearNamespaces(benchmark::State& state, int vrfs) {
  for (int i = 1; i <= vrfs; ++i) {
    std::string why;
    const AclAgent::SavedTable saved = savedIn(vrfName(i), &why);
    if (!why.empty() || (!AclAgent::inPlace(saved, {}) &&
                         !restoreIn(vrfName(i), AclAgent::restoreInput(saved, {}).text, &why))) {
      state.SkipWithError(why.c_str());
      return false;
    }
  }
  return true;
}

// The minor page faults this thread has taken since it started.
std::uint64_t minorFaults() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return static_cast<std::uint64_t>(usage.ru_minflt);
}

// Watches the loop while it runs, as the header says; what it records adds
// up over several watched spells. Without `tick` no task runs besides the
// loop's own, so that the thread's CPU time is the backend's alone.
class LoopWatch {
 public:
  LoopWatch(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, bool tick)
      : loop_(loop), tick_(loop, "loopWatchTask", [this] { ticked(); }), ticking_(tick) {}

  // Starts a watched spell: the task is due 1 ms from now.
  void start() {
    before_ = {threadCpu(), runQueueWait(), minorFaults()};
    if (ticking_) arm();
  }
  // Ends it; time outside the spells is not the loop's.
  void stop() {
    tick_.stop();
    cpu_ += threadCpu() - before_.cpu;
    waited_ += runQueueWait() - before_.waited;
    faults_ += minorFaults() - before_.faults;
  }

  // Runs the loop until `done()`, recording each step's CPU time.
  void runUntil(const std::function<bool()>& done) {
    Nanoseconds last = threadCpu();
    loop_->runUntil([&] {
      const Nanoseconds now = threadCpu();
      longestStep_ = std::max(longestStep_, now - last);
      if (now - last > 1'000'000) ++longSteps_;
      ++steps_;
      last = now;
      return done();
    });
  }

  Nanoseconds longestStep() const { return longestStep_; }
  // Steps that held the thread more than 1 ms.
  std::uint64_t longSteps() const { return longSteps_; }
  std::uint64_t steps() const { return steps_; }
  Nanoseconds latest() const {
    return late_.empty() ? 0 : *std::max_element(late_.begin(), late_.end());
  }
  Nanoseconds lateP99() const {
    if (late_.empty()) return 0;
    std::vector<Nanoseconds> sorted = late_;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() * 99 / 100];
  }
  // The thread's CPU time in the spells, everything it ran included.
  Nanoseconds cpu() const { return cpu_; }
  // How long the event thread waited for a CPU while it was ready to run.
  Nanoseconds waited() const { return waited_; }
  std::uint64_t faults() const { return faults_; }

 private:
  void arm() {
    due_ = loop_->now() + 1'000'000;
    tick_.armIn(1'000'000);
  }
  void ticked() {
    late_.push_back(loop_->now() - due_);
    arm();
  }

  struct Mark {
    Nanoseconds cpu = 0;
    Nanoseconds waited = 0;
    std::uint64_t faults = 0;
  };

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  Pell::BackgroundTimer tick_;
  bool ticking_;
  Nanoseconds due_ = 0;
  std::vector<Nanoseconds> late_;
  Nanoseconds longestStep_ = 0;
  std::uint64_t longSteps_ = 0;
  std::uint64_t steps_ = 0;
  Mark before_;
  Nanoseconds cpu_ = 0;
  Nanoseconds waited_ = 0;
  std::uint64_t faults_ = 0;
};

// The watch's figures; per write where `writes` is not 0.
void reportWatch(benchmark::State& state, const LoopWatch& watch, std::uint64_t writes = 0) {
  state.counters["step_max_us"] = micros(watch.longestStep());
  state.counters["steps_over_1ms"] = static_cast<double>(watch.longSteps());
  state.counters["late_max_us"] = micros(watch.latest());
  state.counters["late_p99_us"] = micros(watch.lateP99());
  state.counters["runq_wait_ms"] = static_cast<double>(watch.waited()) / 1e6;
  if (writes == 0) return;
  const double n = static_cast<double>(writes);
  state.counters["cpu_per_write_us"] = micros(watch.cpu()) / n;
  state.counters["faults_per_write"] = static_cast<double>(watch.faults()) / n;
}

std::uint64_t totalWrites(const Backend& backend) {
  std::uint64_t writes = 0;
  for (const auto& status : backend.statuses()) writes += status.writes;
  return writes;
}

// The loop alone for 250 ms with only the watch's task: how late a task runs
// when nothing holds the thread, on this machine, now.
void BM_LoopIdle(benchmark::State& state) {
  auto loop = wallLoop();
  LoopWatch watch(loop, true);
  for (auto _ : state) {
    watch.start();
    const Nanoseconds start = wallNow();
    watch.runUntil([&] { return wallNow() - start >= 250'000'000; });
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    watch.stop();
  }
  reportWatch(state, watch);
}

// A change of one VRF's rules, from the finish that tells the backend to the
// end of the iptables-restore that put it in place: the backend reads the
// namespace back (iptables-save) and then writes it (iptables-restore).
// `tick` 0 leaves the watch's task out, for the CPU time per write.
void BM_ApplyOneVrf(benchmark::State& state) {
  if (const std::string why = whyNot(1); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  auto loop = wallLoop();
  std::ostringstream errors;
  const std::unique_ptr<Backend> owned = AclAgent::makeBackend(loop, backendOptions(), errors);
  Backend& backend = *owned;
  backend.vrfRulesIs(vrfName(1), ChainRules{{"INPUT", {kMdns}}});
  loop->drain();
  const std::uint64_t writesBefore = totalWrites(backend);
  bool other = true;
  Nanoseconds longestFirstStep = 0;
  LoopWatch watch(loop, state.range(0) != 0);
  for (auto _ : state) {
    const ChainRules rules{{"INPUT", {other ? kOther : kMdns}}};
    other = !other;
    watch.start();
    const Nanoseconds start = wallNow(), startCpu = threadCpu();
    backend.vrfRulesIs(vrfName(1), rules);
    longestFirstStep = std::max(longestFirstStep, threadCpu() - startCpu);
    watch.runUntil([&] { return loop->workInFlight() == 0; });
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    watch.stop();
    if (!AclAgent::notInPlace(backend.statuses()).empty()) {
      state.SkipWithError(("the rule is not in place: " + errors.str()).c_str());
      return;
    }
  }
  const std::uint64_t writes = totalWrites(backend) - writesBefore;
  if (writes != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError(("not one write per change: " + std::to_string(writes)).c_str());
    return;
  }
  reportWatch(state, watch, writes);
  state.counters["first_step_us"] = micros(longestFirstStep);
  std::string error;
  if (!AclAgent::inPlace(savedIn(vrfName(1), &error),
                         ChainRules{{"INPUT", {other ? kMdns : kOther}}})) {
    state.SkipWithError(("the kernel does not hold the last rule " + error).c_str());
  }
}

// The floor of one change: the one iptables-restore with the same input,
// started and waited for. With `save`, an iptables-save runs first, as the
// backend's does: the same work, back to back.
void applyOneVrfFloor(benchmark::State& state, bool save) {
  if (const std::string why = whyNot(1); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  bool other = true;
  for (auto _ : state) {
    state.PauseTiming();
    std::string error;
    const AclAgent::SavedTable saved = savedIn(vrfName(1), &error);
    const ChainRules rules{{"INPUT", {other ? kOther : kMdns}}};
    other = !other;
    const std::string input = AclAgent::restoreInput(saved, rules).text;
    state.ResumeTiming();
    const Nanoseconds start = wallNow();
    if (save) savedIn(vrfName(1), &error);
    const bool written = restoreIn(vrfName(1), input, &error);
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    if (!written || !error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
  }
}
void BM_ApplyOneVrfFloor_Restore(benchmark::State& state) {
  applyOneVrfFloor(state, false);
}
void BM_ApplyOneVrfFloor_SaveRestore(benchmark::State& state) {
  applyOneVrfFloor(state, true);
}

// V VRFs from nothing (no chain or jump of the backend's in any of their
// namespaces) to all in place: one finish each, in one step of the loop as a
// refresh makes them, then the loop runs until no child is left. At most
// `children` child processes run at once (the agent's default is one per
// CPU, at most 4); `tick` 0 leaves the watch's task out, for the CPU time per
// write; `nft` 1 converges with the nft backend, 0 with the iptables one.
void BM_Converge(benchmark::State& state) {
  const int vrfs = static_cast<int>(state.range(0));
  if (const std::string why = whyNot(vrfs); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  auto loop = wallLoop();
  for (auto _ : state) {
    state.PauseTiming();
    if (!clearNamespaces(state, vrfs)) return;
    std::ostringstream errors;
    AclAgent::BackendOptions options = backendOptions();
    options.maxJobs = static_cast<unsigned>(state.range(1));
    options.kind = state.range(3) != 0 ? AclAgent::BackendOptions::Kind::kNft
                                       : AclAgent::BackendOptions::Kind::kIptables;
    auto backend = AclAgent::makeBackend(loop, options, errors);
    const ChainRules rules{{"INPUT", {kMdns}}};
    LoopWatch watch(loop, state.range(2) != 0);
    state.ResumeTiming();
    watch.start();
    const Nanoseconds start = wallNow(), startCpu = threadCpu();
    for (int i = 1; i <= vrfs; ++i) backend->vrfRulesIs(vrfName(i), rules);
    state.counters["first_step_us"] = micros(threadCpu() - startCpu);
    watch.runUntil([&] { return loop->workInFlight() == 0; });
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    watch.stop();
    const std::uint64_t writes = totalWrites(*backend);
    reportWatch(state, watch, writes);
    if (!AclAgent::notInPlace(backend->statuses()).empty() ||
        writes != static_cast<std::uint64_t>(vrfs)) {
      state.SkipWithError(("not one write per VRF that put its rule in place: " + errors.str() +
                           " writes=" + std::to_string(writes))
                              .c_str());
      return;
    }
  }
}

// The floor of a converge: one iptables-restore per namespace with the same
// input as the backend's, run back to back.
void BM_ConvergeFloor(benchmark::State& state) {
  const int vrfs = static_cast<int>(state.range(0));
  if (const std::string why = whyNot(vrfs); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    if (!clearNamespaces(state, vrfs)) return;
    // Every namespace now holds what the first holds: the same input.
    std::string error;
    const std::string input =
        AclAgent::restoreInput(savedIn(vrfName(1), &error), ChainRules{{"INPUT", {kMdns}}}).text;
    state.ResumeTiming();
    const Nanoseconds start = wallNow();
    for (int i = 1; i <= vrfs && error.empty(); ++i) {
      restoreIn(vrfName(i), input, &error);
    }
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
  }
}

// How long starting one child holds the event thread (the memory file and
// pipes, the child until it execs, the pidfd and timer), with `range(0)` MiB
// of touched heap besides the process's own, as a larger agent holds: wall
// time, and the thread's CPU time (`thread_cpu_us`). The program is looked up
// on PATH once, as the backend does.
void BM_ChildStart(benchmark::State& state) {
  auto loop = wallLoop();
  std::vector<char> heap(static_cast<std::size_t>(state.range(0)) << 20);
  std::memset(heap.data(), 1, heap.size());
  benchmark::DoNotOptimize(heap.data());
  std::string error;
  const std::optional<std::string> path = ChildProcess::findProgram("true", &error);
  if (!path) {
    state.SkipWithError(error.c_str());
    return;
  }
  const ChildCommand command{"true", {}, -1, "", *path};
  Nanoseconds cpu = 0;
  for (auto _ : state) {
    bool ended = false;
    const Nanoseconds start = wallNow(), startCpu = threadCpu();
    auto child = ChildProcess::start(
        loop, command, 5'000'000'000, [&](ChildResult) { ended = true; }, &error);
    cpu += threadCpu() - startCpu;
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    if (!child) {
      state.SkipWithError(error.c_str());
      return;
    }
    loop->runUntil([&] { return ended; });
  }
  state.counters["thread_cpu_us"] = micros(cpu) / static_cast<double>(state.iterations());
}

// For comparison with `BM_ChildStart`: posix_spawn of the same program, which
// shares the parent's memory and holds the parent until the child has exec'd
// (no page tables are copied), then waits for it untimed. It cannot enter a
// namespace itself.
void BM_SpawnFloor(benchmark::State& state) {
  std::vector<char> heap(static_cast<std::size_t>(state.range(0)) << 20);
  std::memset(heap.data(), 1, heap.size());
  benchmark::DoNotOptimize(heap.data());
  char program[] = "/bin/true";
  char* argv[] = {program, nullptr};
  Nanoseconds cpu = 0;
  for (auto _ : state) {
    const Nanoseconds start = wallNow(), startCpu = threadCpu();
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, program, nullptr, nullptr, argv, environ);
    cpu += threadCpu() - startCpu;
    state.SetIterationTime(static_cast<double>(wallNow() - start) / 1e9);
    if (error != 0) {
      state.SkipWithError(std::strerror(error));
      return;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
  }
  state.counters["thread_cpu_us"] = micros(cpu) / static_cast<double>(state.iterations());
}

BENCHMARK(BM_LoopIdle)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ApplyOneVrf)
    ->ArgName("tick")
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ApplyOneVrfFloor_Restore)
    ->Name("BM_ApplyOneVrfFloor/Restore")
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ApplyOneVrfFloor_SaveRestore)
    ->Name("BM_ApplyOneVrfFloor/SaveRestore")
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Converge)
    ->ArgNames({"V", "children", "tick", "nft"})
    ->Args({256, 4, 1, 0})
    ->Args({256, 2, 1, 0})
    ->Args({256, 1, 1, 0})
    ->Args({256, 4, 0, 0})
    ->Args({256, 2, 1, 1})
    ->Args({256, 2, 0, 1})
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConvergeFloor)
    ->ArgName("V")
    ->Arg(256)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChildStart)
    ->ArgName("MiB")
    ->Arg(0)
    ->Arg(256)
    ->Arg(1024)
    ->UseManualTime()
    ->Iterations(200)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SpawnFloor)
    ->ArgName("MiB")
    ->Arg(0)
    ->Arg(1024)
    ->UseManualTime()
    ->Iterations(200)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench

BENCHMARK_MAIN();

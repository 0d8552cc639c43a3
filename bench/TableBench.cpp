// The two backends side by side against the real kernel: one change of one
// VRF (read back, one write, the read-back that checks it) and one read-back
// of a VRF in place (a resync that finds nothing to do), each with the nft
// backend and with the iptables backend.
//
// Run by bench/table-bench.sh, as root inside private mount and network
// namespaces with their own /run; it refuses to run anywhere else (it writes
// the filter table of the namespace it runs in).
//
// `real_time` is the wall time of one operation; `cpu_us` the event thread's
// CPU time for it (the iptables backend's children are not counted there,
// they run beside it).
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "agent/backend/Backend.h"

namespace bench {

using AclAgent::BackendOptions;
using AclAgent::ChainRules;

const std::string kMdns = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT";
const std::string kOther = "-p udp --dport 5354 -d 224.0.0.251 -j ACCEPT";

std::int64_t nowNs(clockid_t clock) {
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

bool inPrivateNamespaces() {
  const char* outer = std::getenv("ACL_OUTER_NETNS");
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/self/ns/net", error);
  return outer && *outer && !error && own.string() != outer;
}

std::unique_ptr<AclAgent::Backend> backendOf(BackendOptions::Kind kind) {
  BackendOptions options;
  options.kind = kind;
  options.resyncPeriod = 0;
  return AclAgent::makeBackend(Pell::TaskSchedulerRoot::findOrCreateScheduler(), options,
                               std::cerr);
}

// Times `step` on the wall clock and on the thread's CPU clock; with
// `pause`, that long passes untimed before each step.
template <class Step>
void timed(benchmark::State& state, Step step, std::chrono::milliseconds pause = {}) {
  std::int64_t cpu = 0;
  for (auto _ : state) {
    if (pause.count() > 0) {
      state.PauseTiming();
      std::this_thread::sleep_for(pause);
      state.ResumeTiming();
    }
    const std::int64_t wall0 = nowNs(CLOCK_MONOTONIC);
    const std::int64_t cpu0 = nowNs(CLOCK_THREAD_CPUTIME_ID);
    step();
    cpu += nowNs(CLOCK_THREAD_CPUTIME_ID) - cpu0;
    state.SetIterationTime(double(nowNs(CLOCK_MONOTONIC) - wall0) / 1e9);
  }
  state.counters["cpu_us"] = double(cpu) / 1e3 / double(state.iterations());
}

// `pause` apart: a transaction right after another one waits in the kernel
// for the release of what the one before it deleted.
void BM_WriteOneVrf(benchmark::State& state, BackendOptions::Kind kind, int pause) {
  if (!inPrivateNamespaces()) {
    state.SkipWithError("runs only inside the namespaces that bench/table-bench.sh makes");
    return;
  }
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  auto backend = backendOf(kind);
  backend->vrfRulesIs("default", ChainRules{{"INPUT", {kMdns}}});
  loop->settle();
  bool both = false;
  const std::uint64_t before = backend->statuses().front().writes;
  timed(
      state,
      [&] {
        both = !both;
        backend->vrfRulesIs("default", both ? ChainRules{{"INPUT", {kMdns, kOther}}}
                                            : ChainRules{{"INPUT", {kMdns}}});
        loop->settle();
      },
      std::chrono::milliseconds(pause));
  const AclAgent::VrfStatus status = backend->statuses().front();
  if (status.state != AclAgent::VrfStatus::State::kOk ||
      status.writes - before != std::uint64_t(state.iterations())) {
    state.SkipWithError("not one write per change");
  }
  backend->vrfRulesIs("default", ChainRules{});
  loop->settle();
}

void BM_ReadBackOneVrf(benchmark::State& state, BackendOptions::Kind kind) {
  if (!inPrivateNamespaces()) {
    state.SkipWithError("runs only inside the namespaces that bench/table-bench.sh makes");
    return;
  }
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  auto backend = backendOf(kind);
  backend->vrfRulesIs("default", ChainRules{{"INPUT", {kMdns, kOther}}});
  loop->settle();
  const std::uint64_t writes = backend->statuses().front().writes;
  timed(state, [&] {
    backend->resync();
    loop->settle();
  });
  if (backend->statuses().front().writes != writes) state.SkipWithError("a read-back wrote");
  backend->vrfRulesIs("default", ChainRules{});
  loop->settle();
}

BENCHMARK_CAPTURE(BM_WriteOneVrf, nft, BackendOptions::Kind::kNft, 0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_WriteOneVrf, iptables, BackendOptions::Kind::kIptables, 0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_WriteOneVrf, nft_50ms_apart, BackendOptions::Kind::kNft, 50)
    ->UseManualTime()
    ->Iterations(40)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_WriteOneVrf, iptables_50ms_apart, BackendOptions::Kind::kIptables, 50)
    ->UseManualTime()
    ->Iterations(40)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ReadBackOneVrf, nft, BackendOptions::Kind::kNft)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ReadBackOneVrf, iptables, BackendOptions::Kind::kIptables)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace bench

BENCHMARK_MAIN();

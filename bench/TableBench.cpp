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
// they run beside it). Beside them, how soon the nft backend repairs a flush
// of its chain by another process, from that process's transaction to the
// repair read back, and what a flood of another process's transactions costs
// it.
#include <benchmark/benchmark.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/backend/Backend.h"
#include "agent/backend/VrfApplier.h"
#include "agent/backend/nft/NftSocket.h"
#include "agent/backend/nft/NftTable.h"

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

// Flushes the agent's chain from a process of its own, as someone else
// would; the time just before its transaction, or -1 when it failed. The
// process is reaped by the caller (`*child`). With `*release` left at -1 it
// ends at once, as `iptables -F` does: its exit releases its netlink
// socket, and the kernel then flushes the release of what was deleted (an
// RCU grace period, tens of milliseconds) holding the lock that every
// transaction in the namespace takes, so a repair made meanwhile waits for
// it. Given a `release`, it keeps its socket open until that descriptor is
// closed, so what is timed is the agent's own part.
std::int64_t flushFromAnotherProcess(pid_t* child, int* release = nullptr) {
  int hold[2] = {-1, -1};
  if (release && ::pipe(hold) != 0) return -1;
  int times[2];
  if (::pipe(times) != 0) return -1;
  *child = ::fork();
  if (*child == 0) {
    std::string error;
    std::unique_ptr<AclAgent::NftSocket> socket = AclAgent::NftSocket::open(-1, &error);
    std::int64_t start = -1;
    if (socket) {
      AclAgent::NftBatch batch(socket->nextSeq(), std::nullopt);
      batch.add(NFT_MSG_DELRULE, 0, [](nlmsghdr* message) {
        nftnl_rule* rule = nftnl_rule_alloc();
        nftnl_rule_set_u32(rule, NFTNL_RULE_FAMILY, NFPROTO_IPV4);
        nftnl_rule_set_str(rule, NFTNL_RULE_TABLE, "filter");
        nftnl_rule_set_str(rule, NFTNL_RULE_CHAIN, "ACLAGENT-INPUT");
        nftnl_rule_nlmsg_build_payload(message, rule);
        nftnl_rule_free(rule);
      });
      batch.end();
      start = nowNs(CLOCK_MONOTONIC);
      if (!socket->commit(batch).error.empty()) start = -1;
    }
    const bool sent = ::write(times[1], &start, sizeof start) == sizeof start;
    if (hold[0] >= 0) {
      ::close(hold[1]);
      char byte;
      while (::read(hold[0], &byte, 1) > 0) {
      }
    }
    ::_exit(sent ? 0 : 1);
  }
  ::close(times[1]);
  if (release) {
    ::close(hold[0]);
    *release = hold[1];
  }
  std::int64_t start = -1;
  if (*child < 0 || ::read(times[0], &start, sizeof start) != sizeof start) start = -1;
  ::close(times[0]);
  return start;
}

// From another process's flush of the agent's chain to the repair in place:
// heard on the notification socket, read back, written, and read back
// again. `p50_us` and `p99_us` are over the iterations.
void BM_RepairForeignFlush(benchmark::State& state, bool flusherStays) {
  if (!inPrivateNamespaces()) {
    state.SkipWithError("runs only inside the namespaces that bench/table-bench.sh makes");
    return;
  }
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  auto backend = backendOf(BackendOptions::Kind::kNft);
  backend->vrfRulesIs("default", ChainRules{{"INPUT", {kMdns}}});
  loop->settle();
  auto repairs = [&] { return backend->statuses().front().repairs; };
  std::vector<double> took;
  for (auto _ : state) {
    state.PauseTiming();
    // Apart, as in BM_WriteOneVrf/nft_50ms_apart.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    state.ResumeTiming();
    const std::uint64_t before = repairs();
    pid_t child = -1;
    int release = -1;
    const std::int64_t start = flushFromAnotherProcess(&child, flusherStays ? &release : nullptr);
    auto reap = [&] {
      if (release >= 0) ::close(release);
      if (child > 0) ::waitpid(child, nullptr, 0);
    };
    if (start < 0) {
      reap();
      state.SkipWithError("the foreign flush failed");
      break;
    }
    loop->runUntil([&] { return repairs() > before && backend->idle(); });
    const double seconds = double(nowNs(CLOCK_MONOTONIC) - start) / 1e9;
    reap();
    state.SetIterationTime(seconds);
    took.push_back(seconds * 1e6);
  }
  std::sort(took.begin(), took.end());
  if (!took.empty()) {
    state.counters["p50_us"] = took[took.size() / 2];
    state.counters["p99_us"] = took[std::min(took.size() - 1, took.size() * 99 / 100)];
  }
  if (backend->statuses().front().state != AclAgent::VrfStatus::State::kOk) {
    state.SkipWithError("the chain was not repaired");
  }
  backend->vrfRulesIs("default", ChainRules{});
  loop->settle();
}

// A flood of another process's transactions on table filter, as in the
// flood test: 1,000 transactions from one `nft -i`, every hundredth a flush
// of the agent's chain and the rest on a chain of its own. From the flood's
// start until it has ended and the agent's chain stands again, on the wall
// clock, so that a write the flood beats is made again when the agent's
// would be. `read_backs` and `writes` are what the flood cost the agent;
// `cpu_us_per_foreign` its event thread's CPU per foreign transaction.
void BM_ForeignFlood(benchmark::State& state) {
  if (!inPrivateNamespaces()) {
    state.SkipWithError("runs only inside the namespaces that bench/table-bench.sh makes");
    return;
  }
  constexpr int kTransactions = 1000;
  const std::string script = "/run/flood.nft";
  {
    std::ofstream out(script);
    out << "add chain ip filter SOMEONE-ELSE\n";
    for (int i = 1; i <= kTransactions; ++i) {
      if (i % 100 == 0) {
        out << "flush chain ip filter ACLAGENT-INPUT\n";
      } else if (i % 2 == 1) {
        out << "add rule ip filter SOMEONE-ELSE tcp dport 23 accept\n";
      } else {
        out << "flush chain ip filter SOMEONE-ELSE\n";
      }
    }
  }
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  loop->wallClockIs(true);
  AclAgent::BackendOptions options;
  options.resyncPeriod = 0;
  auto owned = std::make_unique<AclAgent::NftTable>(loop);
  AclAgent::NftTable& table = *owned;
  AclAgent::VrfApplier backend(loop, std::move(owned), options, std::cerr);
  const ChainRules rules{{"INPUT", {kMdns}}};
  backend.vrfRulesIs("default", rules);
  loop->settle();
  std::uint64_t reads = 0, writes = 0;
  std::int64_t cpu = 0;
  for (auto _ : state) {
    const std::uint64_t reads0 = table.reads(), writes0 = table.transactions();
    const std::int64_t wall0 = nowNs(CLOCK_MONOTONIC);
    const std::int64_t cpu0 = nowNs(CLOCK_THREAD_CPUTIME_ID);
    FILE* flood = ::popen(("nft -i < " + script + " > /dev/null 2>&1; echo $?").c_str(), "r");
    if (!flood) {
      state.SkipWithError("cannot start nft");
      break;
    }
    std::string said;
    bool ended = false;
    {
      Pell::FdWatch output(*loop, ::fileno(flood), [&] {
        char buffer[64];
        const ssize_t n = ::read(::fileno(flood), buffer, sizeof buffer);
        if (n > 0) said.append(buffer, static_cast<std::size_t>(n));
        if (n <= 0) ended = true;
      });
      loop->runUntil([&] {
        return ended && backend.idle() &&
               backend.statuses().front().state == AclAgent::VrfStatus::State::kOk;
      });
    }
    cpu += nowNs(CLOCK_THREAD_CPUTIME_ID) - cpu0;
    state.SetIterationTime(double(nowNs(CLOCK_MONOTONIC) - wall0) / 1e9);
    ::pclose(flood);
    if (said != "0\n") {
      state.SkipWithError("the flood failed");
      break;
    }
    reads += table.reads() - reads0;
    writes += table.transactions() - writes0;
  }
  const double n = double(state.iterations());
  state.counters["read_backs"] = double(reads) / n;
  state.counters["writes"] = double(writes) / n;
  state.counters["cpu_us_per_foreign"] = double(cpu) / 1e3 / n / kTransactions;
  backend.vrfRulesIs("default", ChainRules{});
  loop->settle();
  loop->wallClockIs(false);
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

BENCHMARK_CAPTURE(BM_RepairForeignFlush, flusher_exits, false)
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RepairForeignFlush, flusher_stays, true)
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ForeignFlood)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace bench

BENCHMARK_MAIN();

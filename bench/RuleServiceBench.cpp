// A full refresh into the agent's rule service, as the agent runs it.
//
// The world has one link per VRF. `Unchanged` refreshes while the service
// already holds exactly what the refresh sends; `Changed` alternates the
// published state between every link in state 1 and every link in state 0
// before each refresh, so every VRF's rule flips at every refresh. The writes
// that flip the links are outside the timing, in both variants alike.
// `Counting` is the same refresh over the same world into a context that only
// counts its calls: what the plugin's side of `Unchanged` costs, so that the
// summary can tell what the service adds.
#include <benchmark/benchmark.h>

#include "agent/host/RuleService.h"
#include "bench/BenchWorld.h"

namespace bench {
namespace {

void flipAll(World& world) {
  for (const auto& link : world.links) link->stateIs(link->state() ^ 1);
}

void ruleServiceRefresh(benchmark::State& state, bool change) {
  const int vrfs = static_cast<int>(state.range(0));
  World world(vrfs, vrfs);
  Zov::Ptr<AclAgent::RuleService> rules(new AclAgent::RuleService(nullptr));
  // Nobody reads the call log here; it would only grow.
  rules->callLogIs(false);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(rules);
  // Every VRF plus the gateway rule in "default".
  if (rules->rules().size() != static_cast<std::size_t>(vrfs) + 1) {
    state.SkipWithError("the first refresh left other rules standing than expected");
  }
  for (auto _ : state) {
    state.PauseTiming();
    if (change) flipAll(world);
    state.ResumeTiming();
    sm->handleRefreshAcls(true);
  }
  // Either every VRF's rule and the gateway rule stand, or the gateway rule
  // alone.
  const std::size_t standing = rules->rules().size();
  if (standing != static_cast<std::size_t>(vrfs) + 1 && standing != 1) {
    state.SkipWithError("a refresh left other rules standing than the published state asks for");
  }
  releaseStateMachine(sm);
}

void BM_RuleServiceRefresh_Counting(benchmark::State& state) {
  const int vrfs = static_cast<int>(state.range(0));
  World world(vrfs, vrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  // Every VRF has its link up, and the gateway is on: the first refresh
  // registered everything.
  if (context->registers() != static_cast<std::uint64_t>(vrfs) + 1 ||
      context->calls() != 2 * static_cast<std::uint64_t>(vrfs) + 2) {
    state.SkipWithError("the first refresh made other calls than expected");
  }
  for (auto _ : state) {
    // Paused and resumed like the others, so that all three pay the same
    // timer overhead.
    state.PauseTiming();
    state.ResumeTiming();
    sm->handleRefreshAcls(true);
  }
  releaseStateMachine(sm);
}
void BM_RuleServiceRefresh_Unchanged(benchmark::State& state) {
  ruleServiceRefresh(state, false);
}
void BM_RuleServiceRefresh_Changed(benchmark::State& state) {
  ruleServiceRefresh(state, true);
}

BENCHMARK(BM_RuleServiceRefresh_Counting)
    ->Name("BM_RuleServiceRefresh/Counting")
    ->ArgName("V")
    ->Arg(1)
    ->Arg(64)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RuleServiceRefresh_Unchanged)
    ->Name("BM_RuleServiceRefresh/Unchanged")
    ->ArgName("V")
    ->Arg(1)
    ->Arg(64)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RuleServiceRefresh_Changed)
    ->Name("BM_RuleServiceRefresh/Changed")
    ->ArgName("V")
    ->Arg(1)
    ->Arg(64)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench

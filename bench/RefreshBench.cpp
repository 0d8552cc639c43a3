// The refresh against its floor.
//
// `BM_Refresh/L/V` times `handleRefreshAcls(true)` over L links in state 1 on
// L interfaces spread over V VRFs. `BM_RefreshFloor/L/V` does the same work
// over plain hash maps holding the same data: the same lookups, the same VRF
// table, the same 2V + 2 calls on the same context, and nothing of the
// framework (no published entities, no counted entries, no trace test). The
// ratio of the two is what the framework costs; the summary after the run
// prints it.
#include <benchmark/benchmark.h>

#include "bench/BenchWorld.h"

namespace bench {
namespace {

// Both benchmarks check, before timing, that one pass makes exactly the calls
// a refresh of this world must make; a mismatch would make the ratio
// meaningless.
bool expectCalls(benchmark::State& state, const NoopContext& context, int links, int vrfs) {
  const std::uint64_t registers = std::min(links, vrfs) + 1;  // the needed VRFs and the gateway
  const std::uint64_t total = 2 * static_cast<std::uint64_t>(vrfs) + 2;
  if (context.registers() == registers && context.calls() == total) return true;
  state.SkipWithError("the pass made other calls than the refresh must make");
  return false;
}

void BM_Refresh(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int vrfs = static_cast<int>(state.range(1));
  World world(links, vrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  // The constructor's forced refresh is the check's single pass.
  if (expectCalls(state, *context, links, vrfs)) {
    for (auto _ : state) sm->handleRefreshAcls(true);
    state.counters["calls"] = 2.0 * vrfs + 2;
  }
  releaseStateMachine(sm);
}

void BM_RefreshFloor(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int vrfs = static_cast<int>(state.range(1));
  // The world stays, as it does beside the refresh, so that both run over a
  // heap in the same state.
  World world(links, vrfs);
  FloorState floor(world);
  Zov::Ptr<NoopContext> context(new NoopContext);
  floorRefresh(floor, *context);
  if (expectCalls(state, *context, links, vrfs)) {
    for (auto _ : state) floorRefresh(floor, *context);
    state.counters["calls"] = 2.0 * vrfs + 2;
  }
}

BENCHMARK(BM_Refresh)
    ->ArgNames({"L", "V"})
    ->ArgsProduct({{16, 1024, 16384}, {1, 64, 1024}})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RefreshFloor)
    ->ArgNames({"L", "V"})
    ->ArgsProduct({{16, 1024, 16384}, {1, 64, 1024}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench

// Start-up and teardown of the state machine over N interfaces, each with a
// link status: the constructor's sweeps create 2N watchers and end in the
// forced refresh. The start-up benchmark also reports what the watchers
// occupy, from the framework's allocation records and from the heap; its
// floor makes as many plain objects and runs the refresh's floor.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <string_view>
#include <unordered_map>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "bench/BenchWorld.h"

namespace bench {
namespace {

constexpr int kVrfs = 64;

struct Record {
  std::uint64_t objects = 0;
  std::uint64_t bytes = 0;
};

Record recordOf(std::string_view typeName) {
  const Zov::AllocTrackTypeInfo* info = Zov::AllocTrackTypeInfo::find(typeName);
  return info ? Record{info->liveObjects(), info->liveBytes()} : Record{};
}

// Bytes the heap hands out now, small and mapped chunks alike, headers
// included. Under a sanitizer's allocator glibc's heap sees nothing: 0.
std::uint64_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Bytes per watcher, its reactor included, as the allocation records count
// them (the objects themselves, without what they allocate besides).
double bytesPerWatcher(const char* watcher, const char* reactor, const Record& watcherBefore,
                       const Record& reactorBefore) {
  const Record w = recordOf(watcher);
  const Record r = recordOf(reactor);
  const std::uint64_t watchers = w.objects - watcherBefore.objects;
  if (watchers == 0) return 0;
  return static_cast<double>((w.bytes - watcherBefore.bytes) + (r.bytes - reactorBefore.bytes)) /
         static_cast<double>(watchers);
}

constexpr const char* kLinkWatcher = "McastDns::LinkStatusAclSm";
constexpr const char* kLinkReactor = "McastDns::LinkStatusAclSm::ZovLinkStatus";
constexpr const char* kL3Watcher = "McastDns::L3IntfStatusAclSm";
constexpr const char* kL3Reactor = "McastDns::L3IntfStatusAclSm::ZovL3IntfStatus";

void BM_StartUp(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  World world(n, kVrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);

  // One build outside the timing, to weigh what it leaves standing.
  const Record linkWatcher = recordOf(kLinkWatcher), linkReactor = recordOf(kLinkReactor);
  const Record l3Watcher = recordOf(kL3Watcher), l3Reactor = recordOf(kL3Reactor);
  const std::uint64_t heapBefore = heapInUse();
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  const double heapPerIntf = static_cast<double>(heapInUse() - heapBefore) / n;
  state.counters["linkWatcherB"] =
      bytesPerWatcher(kLinkWatcher, kLinkReactor, linkWatcher, linkReactor);
  state.counters["l3WatcherB"] = bytesPerWatcher(kL3Watcher, kL3Reactor, l3Watcher, l3Reactor);
  state.counters["heapB/intf"] = heapPerIntf;
  if (sm->linkStatusAclSms().size() != static_cast<std::size_t>(n) ||
      sm->l3IntfStatusAclSms().size() != static_cast<std::size_t>(n) ||
      context->finishes() != World::finishesPerRefresh(kVrfs)) {
    state.SkipWithError("start-up did not build one watcher per entry and one refresh");
  }
  releaseStateMachine(sm);

  for (auto _ : state) {
    sm = world.stateMachine(context);
    state.PauseTiming();
    releaseStateMachine(sm);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_StartUp)->ArgName("N")->Arg(16)->Arg(1024)->Arg(16384)->Unit(benchmark::kMicrosecond);

// The least a start-up must do: one plain object for each entry the sweeps
// walk, made into a `std::unordered_map` under the entry's key, as many as
// the state machine makes watchers (2N), and the refresh's floor
// (`floorRefresh`). The objects hold what a watcher must: the entry and the
// state machine. As in `BM_StartUp`, taking them down is left out.
struct PlainWatcher {
  const void* entry = nullptr;
  const void* parent = nullptr;
  bool initialized = false;
};

struct PlainWatchers {
  std::unordered_map<McastDns::IntfKey, PlainWatcher, McastDns::IntfKeyHash> links;
  std::unordered_map<Dovix::IntfId, PlainWatcher> intfs;
};

[[gnu::noipa]] void startUpFloor(const World& world, const FloorState& floor,
                                 PlainWatchers& watchers, NoopContext& context) {
  for (const auto& [id, intf] : world.intfDir->intfStatus()) {
    watchers.intfs.try_emplace(id, PlainWatcher{intf.ptr(), &watchers, true});
  }
  for (const auto& [key, link] : world.status->linkStatus()) {
    watchers.links.try_emplace(key, PlainWatcher{link.ptr(), &watchers, true});
  }
  floorRefresh(floor, context);
}

void BM_StartUpFloor(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  World world(n, kVrfs);
  FloorState floor(world);
  Zov::Ptr<NoopContext> context(new NoopContext);
  {
    PlainWatchers watchers;
    startUpFloor(world, floor, watchers, *context);
    if (watchers.links.size() != static_cast<std::size_t>(n) ||
        watchers.intfs.size() != static_cast<std::size_t>(n) ||
        context->finishes() != World::finishesPerRefresh(kVrfs)) {
      state.SkipWithError("the floor did not make one object per entry and one refresh");
    }
  }
  for (auto _ : state) {
    auto watchers = std::make_unique<PlainWatchers>();
    startUpFloor(world, floor, *watchers, *context);
    state.PauseTiming();
    watchers.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_StartUpFloor)
    ->ArgName("N")
    ->Arg(16)
    ->Arg(1024)
    ->Arg(16384)
    ->Unit(benchmark::kMicrosecond);

void BM_Teardown(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  World world(n, kVrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  for (auto _ : state) {
    state.PauseTiming();
    Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
    state.ResumeTiming();
    releaseStateMachine(sm);
  }
}
BENCHMARK(BM_Teardown)->ArgName("N")->Arg(16)->Arg(1024)->Arg(16384)->Unit(benchmark::kMicrosecond);

// The same start-up the way the agent gets it: the root entity mounts the five
// paths, and the completion, run from the event loop, builds the state
// machine. Each build gets a fresh state database, so that no mount groups of
// earlier builds pile up in it.
void BM_StartUpThroughMounts(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  World world(n, kVrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  for (auto _ : state) {
    state.PauseTiming();
    context->entityManagerIs(world.entityManager());
    state.ResumeTiming();
    Zov::Ptr<McastDns::AclPlugin> plugin = McastDns::AclPlugin::AclPluginIs("McastDns");
    plugin->init(context);
    scheduler->advance(0);
    state.PauseTiming();
    const Zov::Ptr<McastDns::CpAclSm>& sm = plugin->cpAclSm();
    if (!sm || sm->linkStatusAclSms().size() != static_cast<std::size_t>(n)) {
      state.SkipWithError("mount completion built no state machine over every link");
    }
    plugin = nullptr;
    context->entityManagerIs(nullptr);
    scheduler->settle();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_StartUpThroughMounts)
    ->ArgName("N")
    ->Arg(16)
    ->Arg(1024)
    ->Arg(16384)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench

// What a change costs on its way in: one write of a link's `state` while a
// refresh is already pending, a burst of writes followed by the timer's run,
// and the entry trace of a handler whose level is off.
#include <benchmark/benchmark.h>

#include "bench/BenchWorld.h"
#include "platform/ZovTrace.h"

namespace bench {
namespace {

constexpr int kLinks = 1024;
constexpr int kVrfs = 64;

// Flips a link between state 1 and state 0, so every write is a real change.
void flip(McastDns::LinkStatus& link) {
  link.stateIs(link.state() ^ 1);
}

// A reactor that is told of every change and does nothing with it: what the
// framework's dispatch costs without the plugin behind it.
class EmptyReactor : public Zov::PtrInterface::NotifieeConst {
 public:
  explicit EmptyReactor(const Zov::PtrInterface* notifier) {
    notifierIs(notifier);
    isRegisteredNotifieeIs(true);
    hasNotificationActiveIs(true);
  }
  void onAttribute(Zov::AttributeId id, const void*) override { benchmark::DoNotOptimize(id); }
};

// The writer's `stateIs` with nobody listening.
void BM_LinkStateIs_Unwatched(benchmark::State& state) {
  Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus(McastDns::IntfKey{}, 1));
  for (auto _ : state) flip(*link);
}
BENCHMARK(BM_LinkStateIs_Unwatched);

// The writer's `stateIs` with one reactor that does nothing.
void BM_LinkStateIs_EmptyReactor(benchmark::State& state) {
  Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus(McastDns::IntfKey{}, 1));
  Zov::Ptr<EmptyReactor> reactor(new EmptyReactor(link.ptr()));
  for (auto _ : state) flip(*link);
}
BENCHMARK(BM_LinkStateIs_EmptyReactor);

// The writer's `stateIs` through the notifiee list, the watcher's reactor and
// `handleLinkChange()`, which finds a refresh pending and returns.
void BM_LinkStateIs_PendingRefresh(benchmark::State& state) {
  World world(kLinks, kVrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  McastDns::LinkStatus& link = *world.links[kLinks / 2];
  flip(link);
  if (!sm->dirtyAcl()) state.SkipWithError("the first change armed no refresh");
  const std::uint64_t calls = context->calls();
  for (auto _ : state) flip(link);
  if (context->calls() != calls || !sm->dirtyAcl()) {
    state.SkipWithError("a change inside the burst did more than find the refresh pending");
  }
  releaseStateMachine(sm);
}
BENCHMARK(BM_LinkStateIs_PendingRefresh);

// A link's status removed from the published collection and put back, with
// nobody listening: what the collection's own bookkeeping costs a flapping
// link. N = 12,288 fills the collection's index to its load limit, where a
// removal followed by an insertion must not rebuild the index each time.
void BM_LinkStatusDelAndIs(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  World world(links, 1);
  std::size_t i = 0;
  for (auto _ : state) {
    const Zov::Ptr<McastDns::LinkStatus>& link = world.links[i];
    world.status->linkStatusDel(link->intfKey());
    world.status->linkStatusIs(link);
    i = i + 1 == world.links.size() ? 0 : i + 1;
  }
}
BENCHMARK(BM_LinkStatusDelAndIs)->ArgName("N")->Arg(1024)->Arg(12288)->Arg(16384);

// K changes spread over the links, then the timer's run: one refresh of 1024
// links over 64 VRFs, whatever K is. Each link touched goes down and comes
// back up, so that the refresh always finds every link in state 1 and costs
// the same for every K: what grows with K is the changes alone.
void BM_Burst(benchmark::State& state) {
  const int changes = static_cast<int>(state.range(0));
  World world(kLinks, kVrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  const std::uint64_t finishesBefore = context->finishes();
  for (auto _ : state) {
    for (int k = 0; k < changes; ++k) flip(*world.links[(k / 2) % kLinks]);
    runRefreshTimer();
  }
  state.counters["refreshes"] = benchmark::Counter(
      static_cast<double>(context->finishes() - finishesBefore) / World::finishesPerRefresh(kVrfs),
      benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * changes);
  releaseStateMachine(sm);
}
BENCHMARK(BM_Burst)->ArgName("K")->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// What `handleLinkChange()` does, without its entry trace: the same early
// return while a refresh is pending, the same arming otherwise.
[[gnu::noipa]] void handleLinkChangeUntraced(McastDns::CpAclSm& sm) {
  if (!sm.initialized() || sm.dirtyAcl()) return;
  if (Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask()) {
    task->scheduleTaskLowestDelay(McastDns::CpAclSm::refreshAclsDelay());
  }
  sm.dirtyAclIs(true);
}

// A state machine with a refresh pending, so both handlers return at once.
struct DirtyStateMachine {
  DirtyStateMachine() : world(16, 1), context(new NoopContext), sm(world.stateMachine(context)) {
    sm->handleLinkChange();
  }
  ~DirtyStateMachine() { releaseStateMachine(sm); }
  World world;
  Zov::Ptr<NoopContext> context;
  Zov::Ptr<McastDns::CpAclSm> sm;
};

void BM_HandleLinkChange_TraceOff(benchmark::State& state) {
  DirtyStateMachine d;
  McastDns::CpAclSm& sm = *d.sm;
  for (auto _ : state) {
    sm.handleLinkChange();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_HandleLinkChange_TraceOff);

void BM_HandleLinkChange_NoTrace(benchmark::State& state) {
  DirtyStateMachine d;
  McastDns::CpAclSm& sm = *d.sm;
  for (auto _ : state) {
    handleLinkChangeUntraced(sm);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_HandleLinkChange_NoTrace);

// For scale: level 8 on, every record built and handed to a sink that drops
// it.
void BM_HandleLinkChange_TraceOnDropped(benchmark::State& state) {
  DirtyStateMachine d;
  McastDns::CpAclSm& sm = *d.sm;
  Zov::TraceHandle* handle = Zov::TraceHandle::find("McastDnsAclPlugin");
  if (!handle) {
    state.SkipWithError("the plugin's trace handle does not exist");
    return;
  }
  const std::uint16_t levels = handle->levels();
  Zov::TraceSink previous = Zov::traceSinkIs([](const Zov::TraceRecord&) {});
  handle->levelIs(8, true);
  for (auto _ : state) sm.handleLinkChange();
  handle->levelsIs(levels);
  Zov::traceSinkIs(std::move(previous));
}
BENCHMARK(BM_HandleLinkChange_TraceOnDropped);

}  // namespace
}  // namespace bench

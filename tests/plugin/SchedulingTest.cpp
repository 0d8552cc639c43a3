// Refresh scheduling, watchers and sweeps, on the virtual clock: every change
// that matters leads to exactly one refresh 10 ms later.
#include "McastDns/AclPlugin/Trace.h"
#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

using ::testing::_;

class SchedulingTest : public StateMachineTest {
 protected:
  Pell::TimerTask& timer() { return *sm_->refreshAclsTask(); }
};

TEST_F(SchedulingTest, StartWithEntriesRunsOneRefreshAndLeavesNothingPending) {
  intf("Ethernet1", "red");
  intf("Ethernet2", "blue");
  link("Ethernet1", 1);
  link("Ethernet2", 0);
  EXPECT_CALL(context(), registerChainRule(_, _, L3::VrfName("red"), _, _, _, 0, _, _, _, _, _));
  CpAclSm& sm = start();
  EXPECT_EQ(sm.refreshes(), 1u);
  EXPECT_TRUE(sm.initialized());
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(timer().armed());
  EXPECT_EQ(sm.linkStatusAclSms().size(), 2u);
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 2u);
  EXPECT_EQ(timer().taskName(), Zov::String("refreshAclsTask"));
  EXPECT_EQ(timer().taskPriority(), Pell::TaskPriority(3));
}

TEST_F(SchedulingTest, BurstOfChangesArmsOnceAndRefreshesOnce) {
  intf("Ethernet1", "red");
  auto eth1 = link("Ethernet1", 0);
  CpAclSm& sm = start();
  const Pell::Nanoseconds start = scheduler_->now();

  for (int i = 0; i < 10; ++i) eth1->stateIs(i % 2 ? 0 : 1);
  eth1->stateIs(1);
  ASSERT_TRUE(sm.dirtyAcl());
  ASSERT_TRUE(timer().armed());
  EXPECT_EQ(timer().due(), start + 10'000'000);

  // Changes later in the window neither re-arm nor move the timer.
  advanceMs(5);
  config_->gatewayEnabledIs(true);
  intf("Ethernet1", "blue");
  EXPECT_EQ(timer().due(), start + 10'000'000);

  advanceMs(4.999999);
  EXPECT_EQ(sm.refreshes(), 1u);
  EXPECT_CALL(context(), finishRegistration(_, _, _, _)).Times(3);  // blue, default, default
  advanceMs(0.000001);
  EXPECT_EQ(sm.refreshes(), 2u);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(timer().armed());
  EXPECT_EQ(timer().runs(), 1u);
}

TEST_F(SchedulingTest, ArmsOnlyWhenInitialisedAndClean) {
  CpAclSm& sm = start();
  sm.initializedIs(false);
  sm.handleLinkChange();
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(timer().armed());

  sm.initializedIs(true);
  sm.handleLinkChange();
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(sm.refreshes(), 2u);

  // A change right after a refresh arms again.
  config_->gatewaySettingIs(7);
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(timer().armed());
  advanceMs(10);
  EXPECT_EQ(sm.refreshes(), 3u);
}

TEST_F(SchedulingTest, ReplacedRefreshTaskLeavesTheOldRunWithoutEffect) {
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> old = sm.refreshAclsTask();
  sm.handleLinkChange();  // arms the old task
  ASSERT_TRUE(old->armed());

  // The replacement runs the pending refresh itself.
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "other");
  EXPECT_NE(task, old);
  EXPECT_EQ(sm.refreshes(), 2u);
  EXPECT_FALSE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(old->runs(), 1u);
  EXPECT_EQ(sm.refreshes(), 2u);
  EXPECT_EQ(sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "other"), task);
}

// --- watchers ---------------------------------------------------------------------

TEST_F(SchedulingTest, WatchersFollowStateAndVrfChanges) {
  intf("Ethernet1", "red");
  auto eth1 = link("Ethernet1", 0);
  CpAclSm& sm = start();
  auto watcher = sm.linkStatusAclSm(keyOf("Ethernet1"));
  ASSERT_TRUE(watcher);
  EXPECT_TRUE(watcher->initialized());
  EXPECT_EQ(watcher->linkStatus(), eth1);
  EXPECT_EQ(watcher->parent(), &sm);
  EXPECT_EQ(watcher->fwkType().index, 1u);
  EXPECT_EQ(sm.l3IntfStatusAclSm(Dovix::IntfId(Zov::String("Ethernet1")))->fwkType().index, 0u);

  eth1->stateIs(1);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  intf("Ethernet1", "blue");
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(sm.refreshes(), 3u);

  // A change of another attribute of the watched entity is ignored.
  status_->enabledIs(true);
  config_->opaqueIs({1});
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, RemovedEntriesAreDestroyedAndScheduleARefresh) {
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  CpAclSm& sm = start();
  auto watcher = sm.linkStatusAclSm(keyOf("Ethernet1"));

  status_->linkStatusDel(keyOf("Ethernet1"));
  EXPECT_FALSE(sm.linkStatusAclSm(keyOf("Ethernet1")));
  EXPECT_FALSE(watcher->initialized());
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);

  // Notifications that still reach a destroyed watcher call nothing.
  const_cast<LinkStatus*>(watcher->linkStatus().ptr())->stateIs(0);
  EXPECT_FALSE(sm.dirtyAcl());

  intfDir_->intfStatusDel(Dovix::IntfId(Zov::String("Ethernet1")));
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  EXPECT_TRUE(sm.dirtyAcl());

  // A removal notified for a key that was never watched does nothing.
  advanceMs(10);
  sm.handleLinkStatus(keyOf("Ethernet9"));
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, ReplacedInterfaceStatusGetsANewWatcher) {
  auto first = intf("Ethernet1", "red");
  CpAclSm& sm = start();
  const Dovix::IntfId id{Zov::String("Ethernet1")};
  auto oldWatcher = sm.l3IntfStatusAclSm(id);

  Zov::Ptr<const L3::Intf::Status> second(new L3::Intf::Status(id, L3::VrfName("blue")));
  intfDir_->intfStatusIs(second);
  auto newWatcher = sm.l3IntfStatusAclSm(id);
  ASSERT_TRUE(newWatcher);
  EXPECT_NE(newWatcher, oldWatcher);
  EXPECT_EQ(newWatcher->l3IntfStatus(), second);
  EXPECT_TRUE(oldWatcher->initialized()) << "dropped without destroy()";
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);
  EXPECT_TRUE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, ReplacedLinkStatusRaisesAndKeepsTheOldWatcher) {
  auto first = link("Ethernet1", 1);
  CpAclSm& sm = start();
  auto held = sm.linkStatusAclSm(keyOf("Ethernet1"));

  Zov::Ptr<LinkStatus> second(new LinkStatus(keyOf("Ethernet1"), 1));
  EXPECT_THROW(status_->linkStatusIs(second), Zov::ReinstantiationException);
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("Ethernet1")), held);
  EXPECT_EQ(held->linkStatus(), first);
  EXPECT_EQ(status_->linkStatus(keyOf("Ethernet1")), second.ptr());

  EXPECT_THROW(sm.linkStatusAclSmIs(nullptr), Zov::NullPointerException);
  EXPECT_EQ(sm.linkStatusAclSmIs(first), held);
}

TEST_F(SchedulingTest, SweepPrunesQuietlyAndAdoptsNewEntries) {
  CpAclSm& sm = start();
  // Watchers under K2 and K3; entries under K1 and K2.
  auto k2 = link("K2", 0);
  auto k3 = link("K3", 0);
  advanceMs(10);
  auto k2Watcher = sm.linkStatusAclSm(keyOf("K2"));
  auto k3Watcher = sm.linkStatusAclSm(keyOf("K3"));
  sm.initializedIs(false);  // keep the handlers out while the status changes
  status_->linkStatusDel(keyOf("K3"));
  auto k1 = link("K1", 0);
  sm.initializedIs(true);
  ASSERT_FALSE(sm.dirtyAcl());

  sm.handleLinkStatus();
  EXPECT_EQ(sm.linkStatusAclSms().size(), 2u);
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("K2")), k2Watcher);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("K1")));
  EXPECT_FALSE(sm.linkStatusAclSm(keyOf("K3")));
  EXPECT_TRUE(k3Watcher->initialized()) << "dropped without destroy()";
  EXPECT_TRUE(sm.dirtyAcl()) << "the new watcher under K1 schedules the refresh";

  // A sweep over matching collections changes nothing and schedules nothing.
  advanceMs(10);
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  EXPECT_FALSE(sm.dirtyAcl());

  // A sweep over an empty mounted collection removes every watcher quietly.
  sm.initializedIs(false);
  status_->linkStatusDel(keyOf("K1"));
  status_->linkStatusDel(keyOf("K2"));
  sm.initializedIs(true);
  sm.handleLinkStatus();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, WatcherCollectionOperations) {
  CpAclSm& sm = start();
  Zov::Ptr<LinkStatus> a(new LinkStatus(keyOf("A"), 0));
  Zov::Ptr<LinkStatus> b(new LinkStatus(keyOf("B"), 0));
  Zov::Ptr<LinkStatus> c(new LinkStatus(keyOf("C"), 0));

  auto first = sm.linkStatusAclSmIs(a);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(sm.linkStatusAclSmIs(a), first);
  EXPECT_FALSE(sm.dirtyAcl()) << "a held watcher is returned without a call";

  sm.linkStatusAclSmIs(b);
  sm.linkStatusAclSmIs(c);
  advanceMs(10);
  auto removed = sm.linkStatusAclSmDel(keyOf("A"));
  EXPECT_EQ(removed, first);
  EXPECT_TRUE(removed->initialized());
  EXPECT_FALSE(sm.linkStatusAclSmDel(keyOf("A")));
  sm.linkStatusAclSmDelAll();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_FALSE(sm.dirtyAcl());

  // A watcher built with no entity has no reactor and the empty key.
  Zov::Ptr<LinkStatusAclSm> bare = linkStatusAclSmFactory(nullptr, &sm);
  EXPECT_FALSE(bare->linkStatus());
  EXPECT_EQ(bare->intfKey(), (IntfKey{Dovix::IntfId(), 0}));
  EXPECT_TRUE(bare->initialized());
}

}  // namespace
}  // namespace McastDns::test

namespace McastDns::test {
namespace {

// Captures the plugin's trace records while it lives.
class TraceCapture {
 public:
  explicit TraceCapture(std::uint16_t levels) {
    traceHandle().levelsIs(levels);
    previous_ = Zov::traceSinkIs([this](const Zov::TraceRecord& r) { records_.push_back(r); });
  }
  ~TraceCapture() {
    traceHandle().levelsIs(0);
    Zov::traceSinkIs(std::move(previous_));
  }
  std::vector<std::string> texts(const char* function) const {
    std::vector<std::string> out;
    for (const auto& r : records_) {
      if (r.function == function) out.push_back(r.text);
    }
    return out;
  }
  const std::vector<Zov::TraceRecord>& records() const { return records_; }

 private:
  Zov::TraceSink previous_;
  std::vector<Zov::TraceRecord> records_;
};

TEST_F(SchedulingTest, HandlersTraceTheirSignatureAtLevelEightOnly) {
  using ::testing::ElementsAre;
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  {
    TraceCapture capture(1u << 0);
    start();
    EXPECT_TRUE(capture.records().empty());
  }
  TraceCapture capture(1u << 8);
  sm_ = nullptr;
  start();
  for (const auto& r : capture.records()) {
    EXPECT_EQ(r.handle, "McastDnsAclPlugin");
    EXPECT_EQ(r.level, 8u);
    EXPECT_EQ(r.file, "/src/McastDns/AclPlugin/McastDnsAclPlugin");
  }
  EXPECT_THAT(capture.texts("handleInitialized"),
              ElementsAre("void McastDns::CpAclSm::handleInitialized()",
                          "void McastDns::L3IntfStatusAclSm::handleInitialized()",
                          "void McastDns::LinkStatusAclSm::handleInitialized()"));
  EXPECT_THAT(capture.texts("handleL3IntfStatus"),
              ElementsAre("void McastDns::CpAclSm::handleL3IntfStatus()",
                          "void McastDns::CpAclSm::handleL3IntfStatus(Dovix::IntfId)"));
  EXPECT_THAT(capture.texts("handleLinkStatus"),
              ElementsAre("void McastDns::CpAclSm::handleLinkStatus()",
                          "void McastDns::CpAclSm::handleLinkStatus(const McastDns::IntfKey&)"));
  EXPECT_THAT(capture.texts("handleVrf"),
              ElementsAre("void McastDns::L3IntfStatusAclSm::handleVrf()"));
  EXPECT_THAT(capture.texts("handleState"),
              ElementsAre("void McastDns::LinkStatusAclSm::handleState()"));
  EXPECT_EQ(capture.texts("handleLinkChange").size(), 2u);
  // One from installing the refresh task (before `initialized`), one forced.
  EXPECT_THAT(capture.texts("handleRefreshAcls"),
              ElementsAre("void McastDns::CpAclSm::handleRefreshAcls(bool)",
                          "void McastDns::CpAclSm::handleRefreshAcls(bool)"));

  status_->linkStatusDel(keyOf("Ethernet1"));
  EXPECT_THAT(capture.texts("destroy"), ElementsAre("void McastDns::LinkStatusAclSm::destroy()"));
}

}  // namespace
}  // namespace McastDns::test

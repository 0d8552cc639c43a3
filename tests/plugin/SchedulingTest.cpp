// Refresh scheduling, watchers and sweeps, on the virtual clock: every change
// that matters leads to exactly one refresh 10 ms later.
#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

class SchedulingTest : public StateMachineTest {
 protected:
  Pell::TimerTask& timer() { return *sm_->refreshAclsTask(); }
  // Runs the pending refresh, if any, so that the next change arms again.
  void settle() { advanceMs(10); }
};

// --- arming ---------------------------------------------------------------------------

TEST_F(SchedulingTest, StartWatchesEveryEntryRunsOneRefreshAndLeavesNothingPending) {
  intf("Ethernet1", "red");
  intf("Ethernet3", "blue");
  link("Ethernet1", 1);
  link("Ethernet2", 0);
  CpAclSm& sm = start();
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 2u);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("Ethernet1")));
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("Ethernet2")));
  EXPECT_EQ(refreshes(), 1);
  EXPECT_TRUE(sm.initialized());
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(timer().armed());
}

TEST_F(SchedulingTest, BurstOfChangesArmsOnceAndRefreshesOnceTenMillisecondsLater) {
  intf("Ethernet1", "red");
  auto eth1 = link("Ethernet1", 0);
  start();
  const Pell::Nanoseconds first = scheduler_->now();
  for (int i = 0; i < 11; ++i) eth1->stateIs(i % 2 ? 0 : 1);
  advanceMs(5);
  config_->gatewayEnabledIs(true);
  intf("Ethernet1", "blue");
  EXPECT_EQ(timer().due(), first + 10'000'000) << "later changes neither re-arm nor move it";

  advanceMs(4.999999);
  EXPECT_EQ(refreshes(), 1);
  advanceMs(0.000001);
  EXPECT_EQ(refreshes(), 2);
  EXPECT_EQ(timer().runs(), 1u);
}

TEST_F(SchedulingTest, ChangesWhileUninitialisedArmNothing) {
  CpAclSm& sm = start();
  sm.initializedIs(false);
  sm.handleLinkChange();
  config_->gatewayEnabledIs(true);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(timer().armed());
}

// --- watchers -------------------------------------------------------------------------

TEST_F(SchedulingTest, LinkStateAndInterfaceVrfChangesArmTheRefresh) {
  intf("Ethernet1", "red");
  auto eth1 = link("Ethernet1", 0);
  CpAclSm& sm = start();
  eth1->stateIs(1);
  EXPECT_TRUE(sm.dirtyAcl());
  settle();
  intf("Ethernet1", "blue");  // right after a refresh, a change arms again
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(timer().armed());
  settle();
  EXPECT_EQ(refreshes(), 3);
}

TEST_F(SchedulingTest, RemovedEntryDestroysItsWatcherAndArmsTheRefresh) {
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  CpAclSm& sm = start();
  auto linkWatcher = sm.linkStatusAclSm(keyOf("Ethernet1"));
  status_->linkStatusDel(keyOf("Ethernet1"));
  EXPECT_FALSE(sm.linkStatusAclSm(keyOf("Ethernet1")));
  EXPECT_FALSE(linkWatcher->initialized()) << "destroyed";
  EXPECT_TRUE(sm.dirtyAcl());

  settle();
  auto intfWatcher = sm.l3IntfStatusAclSm(idOf("Ethernet1"));
  intfDir_->intfStatusDel(idOf("Ethernet1"));
  EXPECT_FALSE(sm.l3IntfStatusAclSm(idOf("Ethernet1")));
  EXPECT_FALSE(intfWatcher->initialized()) << "destroyed";
  EXPECT_TRUE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, DestroyedWatcherIgnoresItsEntity) {
  auto eth1 = link("Ethernet1", 1);
  CpAclSm& sm = start();
  // Held here, so that its reactor still hears the entity.
  auto watcher = sm.linkStatusAclSm(keyOf("Ethernet1"));
  status_->linkStatusDel(keyOf("Ethernet1"));
  settle();
  eth1->stateIs(0);
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, ReplacedInterfaceStatusGetsANewWatcherAndTheOldLeavesQuietly) {
  intf("Ethernet1", "red");
  CpAclSm& sm = start();
  auto oldWatcher = sm.l3IntfStatusAclSm(idOf("Ethernet1"));
  Zov::Ptr<const L3::Intf::Status> second(
      new L3::Intf::Status(idOf("Ethernet1"), L3::VrfName("blue")));
  intfDir_->intfStatusIs(second);
  auto newWatcher = sm.l3IntfStatusAclSm(idOf("Ethernet1"));
  ASSERT_TRUE(newWatcher);
  EXPECT_EQ(newWatcher->l3IntfStatus(), second);
  EXPECT_TRUE(oldWatcher->initialized()) << "dropped without destroy()";
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);
  EXPECT_TRUE(sm.dirtyAcl()) << "the new watcher's creation arms the refresh";
}

TEST_F(SchedulingTest, ReplacedLinkStatusRaisesAndKeepsTheOldWatcher) {
  auto first = link("Ethernet1", 1);
  CpAclSm& sm = start();
  auto held = sm.linkStatusAclSm(keyOf("Ethernet1"));
  Zov::Ptr<LinkStatus> second(new LinkStatus(keyOf("Ethernet1"), 1));
  EXPECT_THROW(status_->linkStatusIs(second), Zov::ReinstantiationException);
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("Ethernet1")), held);
  EXPECT_EQ(held->linkStatus(), first);
}

// --- sweeps ---------------------------------------------------------------------------

TEST_F(SchedulingTest, SweepDropsGoneKeysQuietlyKeepsHeldOnesAndAdoptsNewOnes) {
  link("K2", 0);
  link("K3", 0);
  CpAclSm& sm = start();
  auto k2 = sm.linkStatusAclSm(keyOf("K2"));
  auto k3 = sm.linkStatusAclSm(keyOf("K3"));
  unseen([&] {
    status_->linkStatusDel(keyOf("K3"));
    link("K1", 0);
  });
  sm.handleLinkStatus();
  EXPECT_EQ(sm.linkStatusAclSms().size(), 2u);
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("K2")), k2);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("K1")));
  EXPECT_TRUE(k3->initialized()) << "dropped without destroy()";
  EXPECT_TRUE(sm.dirtyAcl()) << "the new watcher under K1 arms the refresh";
}

TEST_F(SchedulingTest, SweepReplacesTheWatcherOfAReplacedInterfaceStatus) {
  intf("Ethernet1", "red");
  CpAclSm& sm = start();
  Zov::Ptr<const L3::Intf::Status> second(
      new L3::Intf::Status(idOf("Ethernet1"), L3::VrfName("blue")));
  unseen([&] { intfDir_->intfStatusIs(second); });
  sm.handleL3IntfStatus();
  EXPECT_EQ(sm.l3IntfStatusAclSm(idOf("Ethernet1"))->l3IntfStatus(), second);
}

TEST_F(SchedulingTest, SweepsAndRemovalsThatChangeNoWatcherArmNothing) {
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  link("Ethernet2", 1);
  CpAclSm& sm = start();
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  sm.handleLinkStatus(keyOf("Ethernet9"));  // never watched
  sm.handleL3IntfStatus(idOf("Ethernet9"));
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_EQ(sm.linkStatusAclSms().size(), 2u);
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);

  // Over emptied collections, every watcher goes, quietly.
  unseen([&] {
    status_->linkStatusDel(keyOf("Ethernet1"));
    status_->linkStatusDel(keyOf("Ethernet2"));
    intfDir_->intfStatusDel(idOf("Ethernet1"));
  });
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  EXPECT_FALSE(sm.dirtyAcl());
}

// --- the collection operations ------------------------------------------------------------

TEST_F(SchedulingTest, WatcherIsCreatedOnceArmsOnceAndIsRemovedQuietly) {
  CpAclSm& sm = start();
  Zov::Ptr<LinkStatus> a(new LinkStatus(keyOf("A"), 0));
  auto first = sm.linkStatusAclSmIs(a);
  EXPECT_TRUE(first->initialized());
  EXPECT_EQ(first->parent(), &sm);
  EXPECT_TRUE(sm.dirtyAcl());
  settle();
  EXPECT_EQ(sm.linkStatusAclSmIs(a), first);
  EXPECT_FALSE(sm.dirtyAcl()) << "a held watcher is returned without a call";

  // Removal hands the watcher out once and calls nothing.
  sm.linkStatusAclSmIs(Zov::Ptr<LinkStatus>(new LinkStatus(keyOf("B"), 0)));
  sm.l3IntfStatusAclSmIs(intf("C", "red"));
  settle();
  EXPECT_EQ(sm.linkStatusAclSmDel(keyOf("A")), first);
  EXPECT_TRUE(first->initialized());
  EXPECT_FALSE(sm.linkStatusAclSmDel(keyOf("A")));
  sm.linkStatusAclSmDelAll();
  sm.l3IntfStatusAclSmDelAll();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(SchedulingTest, NoEntityGetsNoWatcher) {
  CpAclSm& sm = start();
  EXPECT_THROW(sm.linkStatusAclSmIs(nullptr), Zov::NullPointerException);
  EXPECT_THROW(sm.l3IntfStatusAclSmIs(nullptr), Zov::NullPointerException);
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
}

// --- traces -------------------------------------------------------------------------------

TEST_F(SchedulingTest, HandlersTraceTheirSignatureAtLevelEightOnly) {
  using ::testing::ElementsAre;
  intf("Ethernet1", "red");
  link("Ethernet1", 1);
  {
    TraceCapture trace(1u << 0);
    start();
    EXPECT_TRUE(trace.records().empty());
  }
  TraceCapture trace(kHandlerLevels);
  sm_ = nullptr;
  start();
  for (const auto& r : trace.records()) {
    EXPECT_EQ(r.level, 8u);
    EXPECT_EQ(r.file, "/src/McastDns/AclPlugin/McastDnsAclPlugin");
  }
  EXPECT_THAT(trace.texts("handleInitialized"),
              ElementsAre("void McastDns::CpAclSm::handleInitialized()",
                          "void McastDns::L3IntfStatusAclSm::handleInitialized()",
                          "void McastDns::LinkStatusAclSm::handleInitialized()"));
  EXPECT_THAT(trace.texts("handleL3IntfStatus"),
              ElementsAre("void McastDns::CpAclSm::handleL3IntfStatus()",
                          "void McastDns::CpAclSm::handleL3IntfStatus(Dovix::IntfId)"));
  EXPECT_THAT(trace.texts("handleLinkStatus"),
              ElementsAre("void McastDns::CpAclSm::handleLinkStatus()",
                          "void McastDns::CpAclSm::handleLinkStatus(const McastDns::IntfKey&)"));
  EXPECT_THAT(trace.texts("handleVrf"), ElementsAre(kVrfTrace));
  EXPECT_THAT(trace.texts("handleState"), ElementsAre(kStateTrace));
  EXPECT_THAT(trace.texts("handleLinkChange"), ElementsAre(kLinkChangeTrace, kLinkChangeTrace));
  // One from installing the refresh task (before `initialized`), one forced.
  EXPECT_THAT(trace.texts("handleRefreshAcls"), ElementsAre(kRefreshTrace, kRefreshTrace));

  status_->linkStatusDel(keyOf("Ethernet1"));
  intfDir_->intfStatusDel(idOf("Ethernet1"));
  EXPECT_THAT(trace.texts("destroy"), ElementsAre("void McastDns::LinkStatusAclSm::destroy()",
                                                  "void McastDns::L3IntfStatusAclSm::destroy()"));
}

}  // namespace
}  // namespace McastDns::test

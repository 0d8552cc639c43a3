// The state machine's frame: which notification reaches which handler, the
// notification switch and the zombie state, absent inputs, re-pointed
// reactors, the refresh task's replacement and removal, and teardown with
// parts held elsewhere or after a failed construction.
#include <stdexcept>

#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "StateMachineFixture.h"
#include "platform/ZovModule.h"

namespace McastDns::test {
namespace {

class CpAclSmFrameTest : public StateMachineTest {
 protected:
  // A state machine over one link, down, on et1 in VRF red.
  CpAclSm& startWithOneLink() {
    intf("et1", "red");
    et1_ = link("et1", 0);
    return start();
  }
  Zov::Ptr<LinkStatus> et1_;
};

TEST_F(CpAclSmFrameTest, OtherAttributesReachNoHandler) {
  CpAclSm& sm = startWithOneLink();
  TraceCapture trace(kHandlerLevels);
  const Dovix::IntfId et1 = idOf("et1");
  config_->opaqueIs({1, 2, 3});
  status_->enabledIs(true);
  intfDir_->notifieeList()->visit(L3::Intf::StatusDir::kIntfStatus + 1, &et1);
  sm.refreshAclsTask()->notifieeList()->visit(Pell::TimerTask::kRun + 1);
  for (Zov::AttributeId id : {258u, 260u}) {  // a watched entry's other attributes
    et1_->notifieeList()->visit(id);
    intfDir_->intfStatus(et1)->notifieeList()->visit(id);
  }
  EXPECT_TRUE(trace.records().empty());
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(CpAclSmFrameTest, NotificationSwitchReachesEveryReactorOnlyWhenItChanges) {
  CpAclSm& sm = startWithOneLink();
  sm.hasNotificationActiveIs(false);
  TraceCapture trace(kHandlerLevels);
  config_->gatewayEnabledIs(true);
  et1_->stateIs(1);
  intf("et1", "blue");
  link("et2", 1);
  intf("et2", "red");
  sm.refreshAclsTask()->scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_TRUE(trace.records().empty()) << "not even the timer's run";

  sm.hasNotificationActiveIs(true);
  et1_->stateIs(0);
  EXPECT_EQ(trace.count(kStateTrace), 1);
  config_->gatewaySettingIs(2);
  EXPECT_EQ(trace.count(kLinkChangeTrace), 2);
  advanceMs(10);
  EXPECT_EQ(trace.count(kRefreshTrace), 1);

  // Switching to the state held passes nothing on.
  LinkStatusAclSm& watcher = *sm.linkStatusAclSm(keyOf("et1"));
  watcher.hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  EXPECT_FALSE(watcher.hasNotificationActive());
  sm.hasNotificationActiveIs(false);
  watcher.hasNotificationActiveIs(true);
  sm.hasNotificationActiveIs(false);
  EXPECT_TRUE(watcher.hasNotificationActive());
}

TEST_F(CpAclSmFrameTest, ZombieReactorsForwardNothingUntilTheZombieStateIsCleared) {
  CpAclSm& sm = startWithOneLink();
  sm.zovDoZombieReactors(true);
  sm.handleLinkChange();
  // Switching notification off and on again does not revive them.
  sm.hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  TraceCapture trace(kHandlerLevels);
  config_->gatewayEnabledIs(true);
  link("et2", 1);
  intf("et2", "blue");
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_TRUE(trace.records().empty());
  // A refresh task put in place now has a zombie reactor too.
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "other");
  task->scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_EQ(trace.count(kRefreshTrace), 1) << "only the replacement's own refresh";
  // The watchers are not the state machine's reactors: they still hear.
  et1_->stateIs(1);
  EXPECT_EQ(trace.count(kStateTrace), 1);
  EXPECT_TRUE(sm.dirtyAcl());

  sm.zovDoZombieReactors(false);
  const long changes = trace.count(kLinkChangeTrace);
  config_->gatewaySettingIs(5);
  EXPECT_EQ(trace.count(kLinkChangeTrace), changes + 1);

  // Besides forwarding nothing, a zombie stops hearing its notifier at all.
  Zov::Ptr<CpAclSm::ZovMcastDnsConfig> reactor(new CpAclSm::ZovMcastDnsConfig(config_, &sm));
  reactor->hasNotificationActiveIs(true);
  reactor->zovDoZombieReactors(true);
  EXPECT_FALSE(reactor->hasNotificationActive());
  reactor->zovDoZombieReactors(false);
  EXPECT_TRUE(reactor->hasNotificationActive());
}

// The agent always passes a context, so only here can the state machine run
// without one. Absent inputs count as empty: every handler works on nothing.
TEST_F(CpAclSmFrameTest, AbsentInputsCountAsEmptyAndSweepsOverThemLeaveNoWatcher) {
  sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr);
  CpAclSm& sm = *sm_;
  sm.linkStatusAclSmIs(Zov::Ptr<const LinkStatus>(new LinkStatus(keyOf("et1"), 1)));
  sm.l3IntfStatusAclSmIs(
      Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(idOf("et1"), L3::VrfName("red"))));
  sm.handleLinkStatus();
  sm.handleL3IntfStatus();
  EXPECT_TRUE(sm.linkStatusAclSms().empty());
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  sm.handleLinkStatus(keyOf("et1"));
  sm.handleL3IntfStatus(idOf("et1"));
  EXPECT_TRUE(sm.dirtyAcl()) << "armed by the watchers' creation";
  advanceMs(10);
  EXPECT_FALSE(sm.dirtyAcl());
}

// A reactor that is not registered joins the new notifier's list only after
// its handler has run, so the handler cannot hear its own changes to it.
TEST_F(CpAclSmFrameTest, RepointedReactorsCallTheirHandlerBeforeTheyRegister) {
  auto e1 = intf("et1", "red");
  auto l1 = link("et1", 0);
  CpAclSm& sm = start();
  Zov::Ptr<CpAclSm::ZovMcastDnsConfig> configReactor(new CpAclSm::ZovMcastDnsConfig(config_, &sm));
  Zov::Ptr<LinkStatusAclSm::ZovLinkStatus> linkReactor(
      new LinkStatusAclSm::ZovLinkStatus(l1, sm.linkStatusAclSm(keyOf("et1")).ptr()));
  Zov::Ptr<L3IntfStatusAclSm::ZovL3IntfStatus> intfReactor(
      new L3IntfStatusAclSm::ZovL3IntfStatus(e1, sm.l3IntfStatusAclSm(idOf("et1")).ptr()));
  Zov::Ptr<const Config> other(new Config("other"));
  std::vector<std::size_t> listed;
  TraceCapture trace(kHandlerLevels, [&](const Zov::TraceRecord& record) {
    if (record.text == kLinkChangeTrace) listed.push_back(other->notifieeList()->size());
  });
  configReactor->notifierIs(config_);
  linkReactor->notifierIs(l1);
  configReactor->notifierIs(status_);
  EXPECT_EQ(configReactor->entity(), nullptr) << "anything but a configuration counts as none";
  EXPECT_TRUE(trace.records().empty()) << "the same entity, or none, is no change";

  configReactor->isRegisteredNotifieeIs(false);
  configReactor->notifierIs(other);
  EXPECT_EQ(configReactor->entity(), other.ptr());
  EXPECT_EQ(listed, std::vector<std::size_t>{0});
  EXPECT_EQ(other->notifieeList()->size(), 1u);
  linkReactor->notifierIs(Zov::Ptr<const LinkStatus>(new LinkStatus(keyOf("et1"), 1)));
  intfReactor->notifierIs(
      Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(idOf("et1"), L3::VrfName("blue"))));
  EXPECT_EQ(trace.count(kStateTrace), 1);
  EXPECT_EQ(trace.count(kVrfTrace), 1);
}

// While the replacement runs the pending refresh, the old task may still fire
// (the context is free to run the loop); its reactor is a zombie by then.
TEST_F(CpAclSmFrameTest, OnlyOtherSettingsReplaceTheRefreshTaskAndRunThePendingRefreshOnce) {
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask();
  sm.handleLinkChange();
  EXPECT_EQ(sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "refreshAclsTask"), task);
  EXPECT_TRUE(task->armed());
  EXPECT_EQ(refreshes(), 1) << "keeping the task runs no refresh";
  EXPECT_CALL(*context_, unregisterChainRule)
      .WillOnce([&](auto&&...) { task->notifieeList()->visit(Pell::TimerTask::kRun); })
      .WillRepeatedly(::testing::DoDefault());
  // Written by id, as a tool would.
  Zov::genericIfAttributeIs(sm, CpAclSm::kRefreshAclsTask,
                            std::vector<Zov::GenericValue>{scheduler_, 5, "otherTask"});
  EXPECT_EQ(sm.refreshAclsTask()->taskPriority(), Pell::TaskPriority(5));
  EXPECT_EQ(sm.refreshAclsTask()->taskName(), Zov::String("otherTask"));
  EXPECT_EQ(refreshes(), 2) << "replacing it runs the pending refresh, once";
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(CpAclSmFrameTest, WithoutARefreshTaskOnlyAForcedRefreshGoesAhead) {
  CpAclSm& sm = start();
  const Zov::Ptr<Pell::TimerTask> task =
      Zov::genericIfAttributeDel(sm, CpAclSm::kRefreshAclsTask).asReference<Pell::TimerTask>();
  ASSERT_TRUE(task);
  EXPECT_FALSE(sm.refreshAclsTask());
  EXPECT_FALSE(sm.refreshAclsTaskDel()) << "none is left to remove";
  sm.handleLinkChange();
  task->scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_EQ(refreshes(), 1);
  EXPECT_TRUE(sm.dirtyAcl());
  sm.handleRefreshAcls(true);
  EXPECT_EQ(refreshes(), 2);
  EXPECT_FALSE(sm.dirtyAcl());
}

// Someone may still hold a watcher or the timer task when the state machine
// goes: their links up must be cut, or their next event reaches freed memory.
TEST_F(CpAclSmFrameTest, WatchersAndTaskHeldElsewhereAreCutLoose) {
  startWithOneLink();
  Zov::Ptr<Pell::TimerTask> task = sm_->refreshAclsTask();
  Zov::Ptr<LinkStatusAclSm> heldLink = sm_->linkStatusAclSm(keyOf("et1"));
  Zov::Ptr<L3IntfStatusAclSm> heldIntf = sm_->l3IntfStatusAclSm(idOf("et1"));
  sm_->handleLinkChange();
  sm_ = nullptr;
  // Checked before anything can reach the dead state machine, so that a
  // failure is reported rather than crashing the run.
  ASSERT_EQ(heldLink->parent(), nullptr);
  ASSERT_EQ(heldIntf->parent(), nullptr);
  et1_->stateIs(1);
  intf("et1", "blue");
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_TRUE(task->notifieeList()->empty());
}

// A constructor that throws runs no destructor of its own: only its members'
// destructors can undo what it built. What they leave unreachable the leak
// checker reports; what could stay reachable is checked here.
TEST_F(CpAclSmFrameTest, ConstructionThatThrowsLeavesNothingBehind) {
  const std::uint64_t tasks = PluginTesting::liveObjects("Pell::TimerTask");
  auto l1 = link("et1", 1);
  intf("et1", "red");
  // The first refresh fails after the sweeps have built the watchers and
  // armed the timer.
  EXPECT_CALL(*context_, registerChainRule)
      .WillOnce(::testing::Throw(std::runtime_error("ACL service unavailable")));
  EXPECT_THROW(start(), std::runtime_error);
  EXPECT_EQ(PluginTesting::liveObjects("Pell::TimerTask"), tasks);
  EXPECT_TRUE(config_->notifieeList()->empty());
  EXPECT_TRUE(l1->notifieeList()->empty());
  EXPECT_EQ(context_->references(), 1u);
}

}  // namespace
}  // namespace McastDns::test

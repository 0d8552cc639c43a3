// The state machine's frame: which notification reaches which handler, the
// notification switch and the zombie state, absent inputs, the refresh task's
// replacement and removal, and teardown down to the last allocation.
#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "McastDns/AclPlugin/Trace.h"
#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

const char* const kLinkChange = "void McastDns::CpAclSm::handleLinkChange()";
const char* const kRefresh = "void McastDns::CpAclSm::handleRefreshAcls(bool)";
const char* const kState = "void McastDns::LinkStatusAclSm::handleState()";

// Captures the plugin's handler-entry records while it lives, so that a test
// can see which handlers a notification reached.
class HandlerLog {
 public:
  HandlerLog() : levels_(traceHandle().levels()) {
    traceHandle().levelIs(kTraceHandler, true);
    previous_ = Zov::traceSinkIs([this](const Zov::TraceRecord& record) {
      if (record.handle == "McastDnsAclPlugin") entries_.push_back(record.text);
    });
  }
  ~HandlerLog() {
    Zov::traceSinkIs(previous_);
    traceHandle().levelsIs(levels_);
  }
  long count(const std::string& signature) const {
    return std::count(entries_.begin(), entries_.end(), signature);
  }
  bool empty() const { return entries_.empty(); }
  void clear() { entries_.clear(); }

 private:
  std::uint16_t levels_;
  Zov::TraceSink previous_;
  std::vector<std::string> entries_;
};

// The live objects of every allocation record a state machine builds; a
// record appears with its first allocation, so a missing one counts 0.
std::map<std::string, std::uint64_t> liveObjects() {
  std::map<std::string, std::uint64_t> counts;
  for (const char* record :
       {"McastDns::CpAclSm", "McastDns::CpAclSm::ZovMcastDnsConfig",
        "McastDns::CpAclSm::ZovMcastDnsStatus", "McastDns::CpAclSm::ZovL3IntfStatusDir",
        "McastDns::CpAclSm::ZovRefreshAclsTask", "McastDns::LinkStatusAclSm",
        "McastDns::LinkStatusAclSm::ZovLinkStatus", "McastDns::L3IntfStatusAclSm",
        "McastDns::L3IntfStatusAclSm::ZovL3IntfStatus", "Pell::TimerTask"}) {
    const Zov::AllocTrackTypeInfo* info = Zov::AllocTrackTypeInfo::find(record);
    counts[record] = info ? info->liveObjects() : 0;
  }
  return counts;
}

Dovix::IntfId idOf(const char* name) {
  return Dovix::IntfId(Zov::String(name));
}

using CpAclSmFrameTest = StateMachineTest;

TEST_F(CpAclSmFrameTest, OnlyTheWatchedAttributesReachTheHandlers) {
  intf("et1", "red");
  link("et1", 0);
  CpAclSm& sm = start();
  Pell::TimerTask& timer = *sm.refreshAclsTask();
  HandlerLog log;

  // Other attributes of the watched inputs, and ids next to the watched ones,
  // reach no handler.
  const Dovix::IntfId et1 = idOf("et1");
  config_->opaqueIs({1, 2, 3});
  status_->enabledIs(true);
  intfDir_->notifieeList()->visit(L3::Intf::StatusDir::kIntfStatus + 1, &et1);
  timer.notifieeList()->visit(Pell::TimerTask::kRun + 1);
  EXPECT_TRUE(log.empty());

  // Each of the two gateway attributes reaches the scheduling handler.
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(5);
  EXPECT_EQ(log.count(kLinkChange), 2);

  // The timer's run is an unforced refresh: while clean it does nothing.
  advanceMs(10);
  const std::uint64_t refreshes = sm.refreshes();
  log.clear();
  timer.scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(log.count(kRefresh), 1);
  EXPECT_EQ(sm.refreshes(), refreshes);
}

TEST_F(CpAclSmFrameTest, SwitchedOffNothingReactsUntilSwitchedOnAgain) {
  intf("et1", "red");
  auto et1 = link("et1", 0);
  CpAclSm& sm = start();
  HandlerLog log;

  sm.hasNotificationActiveIs(false);
  config_->gatewayEnabledIs(true);
  et1->stateIs(1);
  intf("et1", "blue");
  link("et2", 1);
  intf("et2", "red");
  EXPECT_TRUE(log.empty());
  // The timer runs, but its run does not reach the refresh.
  sm.handleLinkChange();
  log.clear();
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(sm.dirtyAcl());

  // Switched on again, every reaction is back.
  sm.hasNotificationActiveIs(true);
  sm.handleRefreshAcls(true);
  log.clear();
  et1->stateIs(0);
  EXPECT_EQ(log.count(kState), 1);
  config_->gatewaySettingIs(2);
  EXPECT_EQ(log.count(kLinkChange), 2);
  advanceMs(10);
  EXPECT_EQ(log.count(kRefresh), 1);
  EXPECT_FALSE(sm.dirtyAcl());

  // Switching on an active object does nothing at all: a watcher switched off
  // on its own stays off.
  sm.linkStatusAclSm(keyOf("et1"))->hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  log.clear();
  et1->stateIs(1);
  EXPECT_EQ(log.count(kState), 0);
}

TEST_F(CpAclSmFrameTest, ZombieReactorsForwardNothingAndLeaveTheWatchers) {
  intf("et1", "red");
  auto et1 = link("et1", 0);
  CpAclSm& sm = start();
  HandlerLog log;

  sm.zovDoZombieReactors(true);
  config_->gatewayEnabledIs(true);
  link("et2", 1);
  intf("et2", "blue");
  EXPECT_TRUE(log.empty());

  // The watchers are not zombies: their changes still arm the timer, whose
  // run, though, reaches nothing.
  et1->stateIs(1);
  EXPECT_TRUE(sm.dirtyAcl());
  log.clear();
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_TRUE(log.empty());

  // Switching the notification off and on does not revive a zombie reactor;
  // clearing the zombie state does.
  sm.hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  config_->gatewaySettingIs(4);
  EXPECT_TRUE(log.empty());
  sm.zovDoZombieReactors(false);
  config_->gatewaySettingIs(5);
  EXPECT_EQ(log.count(kLinkChange), 1);
  link("et4", 0);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("et4")));
}

// The agent always passes a context, so only here can the state machine run
// without one; every handler must then work on nothing.
TEST_F(CpAclSmFrameTest, EveryInputAbsentTheContextTooHandlersRunOnNothing) {
  sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr);
  CpAclSm& sm = *sm_;
  EXPECT_EQ(sm.refreshes(), 1u);
  sm.handleLinkStatus(keyOf("et1"));
  sm.handleL3IntfStatus(idOf("et1"));
  sm.handleLinkChange();
  advanceMs(10);
  EXPECT_EQ(sm.refreshes(), 2u);
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(CpAclSmFrameTest, RefreshTaskIsKeptReplacedAndRemoved) {
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask();
  sm.handleLinkChange();

  // The same scheduler, priority and name keep the task and its pending run;
  // another priority replaces it.
  EXPECT_EQ(sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "refreshAclsTask"), task);
  EXPECT_TRUE(task->armed());
  Zov::Ptr<Pell::TimerTask> next =
      sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(4), "refreshAclsTask");
  EXPECT_NE(next, task);

  // Removal hands the task out once. Its run then reaches nothing, a change
  // only marks the refresh pending, and a forced refresh still goes ahead.
  sm.handleLinkChange();
  EXPECT_EQ(sm.refreshAclsTaskDel(), next);
  EXPECT_FALSE(sm.refreshAclsTask());
  EXPECT_FALSE(sm.refreshAclsTaskDel());
  const std::uint64_t refreshes = sm.refreshes();
  advanceMs(10);
  EXPECT_EQ(next->runs(), 1u);
  EXPECT_EQ(sm.refreshes(), refreshes);
  EXPECT_TRUE(sm.dirtyAcl());
  sm.handleRefreshAcls(true);
  EXPECT_EQ(sm.refreshes(), refreshes + 1);
  EXPECT_FALSE(sm.dirtyAcl());
}

// Teardown sends nothing, not even the pending refresh. Someone may still
// hold a watcher or the timer task when the state machine goes: their links
// up must be cut, or their next event reaches freed memory.
TEST_F(CpAclSmFrameTest, TeardownSendsNothingAndLeavesNothingBehind) {
  const std::map<std::string, std::uint64_t> before = liveObjects();
  const std::size_t armedBefore = scheduler_->armedTasks();
  auto e1 = intf("et1", "red");
  auto l1 = link("et1", 0);
  auto l2 = link("et2", 0, 3);
  start();
  Zov::Ptr<Pell::TimerTask> task = sm_->refreshAclsTask();
  Zov::Ptr<LinkStatusAclSm> heldLink = sm_->linkStatusAclSm(keyOf("et1"));
  Zov::Ptr<L3IntfStatusAclSm> heldIntf = sm_->l3IntfStatusAclSm(idOf("et1"));
  l2->stateIs(1);  // leaves a refresh pending
  ASSERT_NE(liveObjects(), before);

  EXPECT_CALL(context(), registerChainRule).Times(0);
  EXPECT_CALL(context(), unregisterChainRule).Times(0);
  EXPECT_CALL(context(), finishRegistration).Times(0);
  sm_ = nullptr;
  // Checked before anything can reach the dead state machine, so that a
  // failure is reported rather than crashing the run.
  ASSERT_TRUE(heldLink->parent() == nullptr || heldLink->zovMarkedForDeletion());
  ASSERT_TRUE(heldIntf->parent() == nullptr || heldIntf->zovMarkedForDeletion());
  l1->stateIs(1);
  intf("et1", "blue");
  config_->gatewayEnabledIs(true);
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_TRUE(task->notifieeList()->empty());

  task = nullptr;
  heldLink = nullptr;
  heldIntf = nullptr;
  EXPECT_EQ(liveObjects(), before);
  EXPECT_EQ(scheduler_->armedTasks(), armedBefore);
  const Zov::PtrInterface* watched[] = {config_.ptr(), status_.ptr(), intfDir_.ptr(),
                                        e1.ptr(),      l1.ptr(),      l2.ptr()};
  for (const Zov::PtrInterface* entity : watched) {
    EXPECT_TRUE(entity->notifieeList()->empty());
  }
  EXPECT_EQ(config_->references(), 1u);
  EXPECT_EQ(e1->references(), 2u);  // the directory's entry and ours
  EXPECT_EQ(l1->references(), 2u);
  EXPECT_EQ(context_->references(), 1u);
}

// A constructor that throws runs no destructor of its own: only its members'
// destructors can undo what it built.
TEST_F(CpAclSmFrameTest, ConstructionThatThrowsLeavesNothingBehind) {
  const std::map<std::string, std::uint64_t> before = liveObjects();
  const std::size_t armedBefore = scheduler_->armedTasks();
  auto e1 = intf("et1", "red");
  auto l1 = link("et1", 1);

  // The first refresh fails after the sweeps have built the watchers and
  // armed the timer.
  EXPECT_CALL(context(), registerChainRule)
      .WillOnce(::testing::Throw(std::runtime_error("ACL service unavailable")));
  EXPECT_THROW(start(), std::runtime_error);
  EXPECT_EQ(liveObjects(), before);
  EXPECT_EQ(scheduler_->armedTasks(), armedBefore);
  EXPECT_TRUE(config_->notifieeList()->empty());
  EXPECT_TRUE(status_->notifieeList()->empty());
  EXPECT_TRUE(l1->notifieeList()->empty());
  EXPECT_EQ(e1->references(), 2u);
  EXPECT_EQ(context_->references(), 1u);
}

}  // namespace
}  // namespace McastDns::test

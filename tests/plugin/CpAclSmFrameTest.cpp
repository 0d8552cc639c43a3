// The state machine's frame: which notification reaches which handler, the
// notification switch and the zombie state, absent inputs, the refresh task's
// replacement and removal, and teardown down to the last allocation.
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "McastDns/AclPlugin/Trace.h"
#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

using ::testing::_;
using ::testing::AnyNumber;

const char* const kLinkChange = "void McastDns::CpAclSm::handleLinkChange()";
const char* const kLinkStatusKey =
    "void McastDns::CpAclSm::handleLinkStatus(const McastDns::IntfKey&)";
const char* const kIntfStatusId = "void McastDns::CpAclSm::handleL3IntfStatus(Dovix::IntfId)";
const char* const kRefresh = "void McastDns::CpAclSm::handleRefreshAcls(bool)";
const char* const kState = "void McastDns::LinkStatusAclSm::handleState()";

// Captures the plugin's handler-entry records while it lives, so that a test
// can count how often each handler was entered.
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

  int count(const std::string& signature) const {
    int n = 0;
    for (const std::string& entry : entries_) n += entry == signature;
    return n;
  }
  const std::vector<std::string>& entries() const { return entries_; }
  void clear() { entries_.clear(); }

 private:
  std::uint16_t levels_;
  Zov::TraceSink previous_;
  std::vector<std::string> entries_;
};

// The allocation records of everything a state machine builds.
const char* const kRecords[] = {
    "McastDns::CpAclSm",
    "McastDns::CpAclSm::ZovMcastDnsConfig",
    "McastDns::CpAclSm::ZovMcastDnsStatus",
    "McastDns::CpAclSm::ZovL3IntfStatusDir",
    "McastDns::CpAclSm::ZovRefreshAclsTask",
    "McastDns::LinkStatusAclSm",
    "McastDns::LinkStatusAclSm::ZovLinkStatus",
    "McastDns::L3IntfStatusAclSm",
    "McastDns::L3IntfStatusAclSm::ZovL3IntfStatus",
    "Pell::TimerTask",
};

// Live objects of one record; a record appears with its first allocation.
std::uint64_t live(const std::string& record) {
  const Zov::AllocTrackTypeInfo* info = Zov::AllocTrackTypeInfo::find(record);
  return info ? info->liveObjects() : 0;
}

std::map<std::string, std::uint64_t> liveObjects() {
  std::map<std::string, std::uint64_t> counts;
  for (const char* record : kRecords) counts[record] = live(record);
  return counts;
}

class CpAclSmFrameTest : public StateMachineTest {
 protected:
  static Dovix::IntfId idOf(const char* name) { return Dovix::IntfId(Zov::String(name)); }

  // Builds the state machine over the given inputs instead of the fixture's.
  CpAclSm& startWith(const Zov::Ptr<const Config>& config, const Zov::Ptr<const Status>& status,
                     const Zov::Ptr<const L3::Intf::StatusDir>& intfDir,
                     const Zov::Ptr<const Ip::AllVrfStatusGlobal>& vrfGlobal,
                     const Zov::Ptr<const Ip::AllVrfStatusLocal>& vrfLocal,
                     const Zov::Ptr<Acl::PluginContext>& context) {
    sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, config, status, intfDir, vrfGlobal,
                             vrfLocal, context);
    return *sm_;
  }
};

// --- dispatch ------------------------------------------------------------------------

TEST_F(CpAclSmFrameTest, EachNotificationReachesItsHandlerOnce) {
  intf("et1", "red");
  link("et1", 0);
  CpAclSm& sm = start();
  HandlerLog log;

  // Configuration: the two gateway attributes, and nothing else.
  config_->opaqueIs({1, 2, 3});
  config_->notifieeList()->visit(261);
  EXPECT_TRUE(log.entries().empty());
  config_->gatewayEnabledIs(true);
  EXPECT_EQ(log.count(kLinkChange), 1);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  config_->gatewaySettingIs(5);
  EXPECT_EQ(log.count(kLinkChange), 2);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);

  // Status: the link collection only; its key reaches the handler.
  log.clear();
  status_->enabledIs(true);
  vrfGlobal_->vrfIs("blue");
  EXPECT_TRUE(log.entries().empty());
  EXPECT_FALSE(sm.dirtyAcl());
  link("et2", 0, 4);
  EXPECT_EQ(log.count(kLinkStatusKey), 1);
  ASSERT_TRUE(sm.linkStatusAclSm(keyOf("et2", 4)));
  EXPECT_EQ(sm.linkStatusAclSms().size(), 2u);
  status_->linkStatusDel(keyOf("et2", 4));
  EXPECT_EQ(log.count(kLinkStatusKey), 2);
  EXPECT_FALSE(sm.linkStatusAclSm(keyOf("et2", 4)));
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("et1")));

  // Interface directory: likewise, keyed by interface id.
  log.clear();
  const Dovix::IntfId et2 = idOf("et2");
  intfDir_->notifieeList()->visit(L3::Intf::StatusDir::kIntfStatus + 1, &et2);
  EXPECT_TRUE(log.entries().empty());
  intf("et2", "blue");
  EXPECT_EQ(log.count(kIntfStatusId), 1);
  EXPECT_TRUE(sm.l3IntfStatusAclSm(et2));
  intfDir_->intfStatusDel(et2);
  EXPECT_EQ(log.count(kIntfStatusId), 2);
  EXPECT_FALSE(sm.l3IntfStatusAclSm(et2));
  EXPECT_TRUE(sm.l3IntfStatusAclSm(idOf("et1")));
  advanceMs(10);

  // The timer's run is an unforced refresh: while clean it sends nothing.
  // Other ids of the task are ignored.
  log.clear();
  EXPECT_CALL(context(), finishRegistration).Times(0);
  Pell::TimerTask& timer = *sm.refreshAclsTask();
  const std::uint64_t runs = timer.runs();
  const std::uint64_t refreshes = sm.refreshes();
  timer.scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(timer.runs(), runs + 1);
  EXPECT_EQ(log.count(kRefresh), 1);
  EXPECT_EQ(sm.refreshes(), refreshes);
  sm.dirtyAclIs(true);
  timer.notifieeList()->visit(Pell::TimerTask::kRun + 1);
  EXPECT_EQ(log.count(kRefresh), 1);
  EXPECT_TRUE(sm.dirtyAcl());
  ::testing::Mock::VerifyAndClearExpectations(&context());
  timer.notifieeList()->visit(Pell::TimerTask::kRun);
  EXPECT_EQ(sm.refreshes(), refreshes + 1);
  EXPECT_FALSE(sm.dirtyAcl());
}

// --- notification switch and zombies ---------------------------------------------------

TEST_F(CpAclSmFrameTest, SwitchedOffNothingReacts) {
  intf("et1", "red");
  auto et1 = link("et1", 0);
  CpAclSm& sm = start();
  Pell::TimerTask& timer = *sm.refreshAclsTask();
  EXPECT_TRUE(sm.hasNotificationActive());
  HandlerLog log;

  sm.hasNotificationActiveIs(false);
  EXPECT_FALSE(sm.hasNotificationActive());
  config_->gatewayEnabledIs(true);
  et1->stateIs(1);
  intf("et1", "blue");
  link("et2", 1);
  intf("et2", "red");
  EXPECT_TRUE(log.entries().empty());
  EXPECT_EQ(sm.linkStatusAclSms().size(), 1u);
  EXPECT_EQ(sm.l3IntfStatusAclSms().size(), 1u);

  // The timer runs, but its run does not reach the refresh.
  EXPECT_CALL(context(), finishRegistration).Times(0);
  sm.handleLinkChange();
  advanceMs(10);
  EXPECT_EQ(timer.runs(), 1u);
  EXPECT_EQ(log.count(kRefresh), 0);
  EXPECT_TRUE(sm.dirtyAcl());
  ::testing::Mock::VerifyAndClearExpectations(&context());

  // Switched on again, every reaction is back.
  sm.hasNotificationActiveIs(true);
  sm.handleRefreshAcls(true);
  log.clear();
  et1->stateIs(0);
  EXPECT_EQ(log.count(kState), 1);
  EXPECT_TRUE(sm.dirtyAcl());
  config_->gatewaySettingIs(2);
  EXPECT_EQ(log.count(kLinkChange), 2);
  advanceMs(10);
  EXPECT_EQ(log.count(kRefresh), 1);
  EXPECT_FALSE(sm.dirtyAcl());
  link("et3", 0);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("et3")));

  // Switching on an active object does nothing at all: a watcher switched off
  // on its own stays off.
  Zov::Ptr<LinkStatusAclSm> watcher = sm.linkStatusAclSm(keyOf("et1"));
  watcher->hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  log.clear();
  et1->stateIs(1);
  EXPECT_EQ(log.count(kState), 0);
  watcher->hasNotificationActiveIs(true);
}

TEST_F(CpAclSmFrameTest, ZombieReactorsForwardNothingAndLeaveTheWatchers) {
  intf("et1", "red");
  auto et1 = link("et1", 0);
  CpAclSm& sm = start();
  Zov::Ptr<LinkStatusAclSm> watcher = sm.linkStatusAclSm(keyOf("et1"));
  HandlerLog log;

  sm.zovDoZombieReactors(true);
  EXPECT_TRUE(sm.zovMarkedForDeletion());
  config_->gatewayEnabledIs(true);
  link("et2", 1);
  intf("et2", "blue");
  EXPECT_TRUE(log.entries().empty());
  EXPECT_FALSE(sm.dirtyAcl());

  // The watchers are not zombies: their changes still arm the timer, whose
  // run, though, reaches nothing.
  EXPECT_EQ(sm.linkStatusAclSm(keyOf("et1")), watcher);
  EXPECT_FALSE(watcher->zovMarkedForDeletion());
  et1->stateIs(1);
  EXPECT_TRUE(sm.dirtyAcl());
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_EQ(log.count(kRefresh), 0);

  // Neither a second call nor switching the notification back on revives a
  // zombie reactor.
  sm.zovDoZombieReactors(true);
  sm.hasNotificationActiveIs(false);
  sm.hasNotificationActiveIs(true);
  log.clear();
  config_->gatewaySettingIs(4);
  status_->linkStatusDel(keyOf("et2"));
  sm.refreshAclsTask()->scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 2u);
  EXPECT_TRUE(log.entries().empty());
  EXPECT_TRUE(sm.dirtyAcl());

  // Cleared, they forward again.
  sm.zovDoZombieReactors(false);
  EXPECT_FALSE(sm.zovMarkedForDeletion());
  config_->gatewaySettingIs(5);
  EXPECT_EQ(log.count(kLinkChange), 1);
  link("et4", 0);
  EXPECT_TRUE(sm.linkStatusAclSm(keyOf("et4")));
}

// --- absent inputs ---------------------------------------------------------------------

TEST_F(CpAclSmFrameTest, AbsentInputsReadAsEmptyAndTheGatewayOff) {
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(5353);
  intf("et1", "red");
  link("et1", 1);
  vrfGlobal_->vrfIs("blue");

  // Without the configuration the gateway is off; without the interface
  // directory no link leads to a VRF, yet the links are still watched.
  EXPECT_CALL(context(), registerChainRule).Times(0);
  EXPECT_CALL(context(), unregisterChainRule).Times(AnyNumber());
  EXPECT_CALL(context(), unregisterChainRule(_, _, L3::VrfName("blue"), _, _, _, 0u));
  EXPECT_CALL(context(), unregisterChainRule(_, _, L3::VrfName("default"), _, _, _, 1u));
  EXPECT_CALL(context(), finishRegistration).Times(3);  // blue, default, default
  CpAclSm& sm = startWith(nullptr, status_, nullptr, vrfGlobal_, nullptr, context_);
  EXPECT_FALSE(sm.mcastDnsConfig());
  EXPECT_FALSE(sm.l3IntfStatusDir());
  EXPECT_EQ(sm.linkStatusAclSms().size(), 1u);
  EXPECT_TRUE(sm.l3IntfStatusAclSms().empty());
  {
    HandlerLog log;
    config_->gatewaySettingIs(1);
    intf("et2", "red");
    EXPECT_TRUE(log.entries().empty());
  }
  EXPECT_FALSE(sm.dirtyAcl());
  ::testing::Mock::VerifyAndClearExpectations(&context());

  // Every input absent, the context too: handlers and sweeps run on nothing.
  CpAclSm& bare = startWith(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_TRUE(bare.initialized());
  EXPECT_EQ(bare.refreshes(), 1u);
  bare.handleLinkStatus(keyOf("et1"));
  bare.handleL3IntfStatus(idOf("et1"));
  bare.handleLinkStatus();
  bare.handleL3IntfStatus();
  EXPECT_TRUE(bare.linkStatusAclSms().empty());
  bare.handleLinkChange();
  advanceMs(10);
  EXPECT_EQ(bare.refreshes(), 2u);
  EXPECT_FALSE(bare.dirtyAcl());
}

// --- attributes ---------------------------------------------------------------------------

TEST_F(CpAclSmFrameTest, AttributesReadBackWhatItWasBuiltWith) {
  CpAclSm& sm = start();
  EXPECT_EQ(sm.af(), Dovix::AddressFamily::kIpv4);
  EXPECT_EQ(sm.mcastDnsConfig(), config_);
  EXPECT_EQ(sm.mcastDnsStatus(), status_);
  EXPECT_EQ(sm.l3IntfStatusDir(), intfDir_);
  EXPECT_EQ(sm.allVrfStatusGlobal(), vrfGlobal_);
  EXPECT_EQ(sm.allVrfStatusLocal(), vrfLocal_);
  EXPECT_EQ(sm.context(), context_);
  EXPECT_EQ(sm.scheduler(), scheduler_);
  EXPECT_EQ(sm.refreshAclsDelay(), 0.01);
  EXPECT_TRUE(sm.initialized());
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_EQ(sm.fwkType().index, 2u);
  EXPECT_EQ(sm.refreshAclsTask()->taskScheduler(), scheduler_);

  // Another address family behaves the same: the ACL type stays 0.
  EXPECT_CALL(context(), unregisterChainRule(static_cast<Acl::IptablesType>(0),
                                             static_cast<Acl::AclType>(0), _, _, _, _, _))
      .Times(2);
  Zov::Ptr<CpAclSm> v6 = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv6, config_, status_, intfDir_,
                                            vrfGlobal_, vrfLocal_, context_);
  EXPECT_EQ(v6->af(), Dovix::AddressFamily::kIpv6);
  EXPECT_EQ(v6->refreshAclsDelay(), 0.01);
}

// --- the refresh task -----------------------------------------------------------------------

TEST_F(CpAclSmFrameTest, RefreshTaskIsKeptForTheSameIdentityAndReplacedOtherwise) {
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask();
  sm.handleLinkChange();

  // The same scheduler, priority and name keep the task and run nothing.
  EXPECT_EQ(sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "refreshAclsTask"), task);
  EXPECT_EQ(sm.refreshes(), 1u);
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(task->armed());

  // Another name replaces it, and the replacement runs the pending refresh.
  // The old task, still armed, then runs into nothing.
  Zov::Ptr<Pell::TimerTask> next = sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(3), "x");
  EXPECT_NE(next, task);
  EXPECT_EQ(sm.refreshAclsTask(), next);
  EXPECT_EQ(sm.refreshes(), 2u);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_CALL(context(), finishRegistration).Times(0);
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_EQ(sm.refreshes(), 2u);

  // Another priority replaces it too.
  EXPECT_NE(sm.refreshAclsTaskIs(scheduler_, Pell::TaskPriority(4), "x"), next);
}

TEST_F(CpAclSmFrameTest, RefreshTaskDelHandsOutTheTaskOnce) {
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask();
  sm.handleLinkChange();
  ASSERT_TRUE(task->armed());

  EXPECT_EQ(sm.refreshAclsTaskDel(), task);
  EXPECT_FALSE(sm.refreshAclsTask());
  EXPECT_FALSE(sm.refreshAclsTaskDel());

  // The removed task's run reaches nothing; without a task a change only
  // marks the refresh pending and a forced refresh still goes ahead.
  EXPECT_CALL(context(), finishRegistration).Times(0);
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_TRUE(sm.dirtyAcl());
  ::testing::Mock::VerifyAndClearExpectations(&context());
  EXPECT_CALL(context(), finishRegistration).Times(2);
  sm.handleRefreshAcls(true);
  EXPECT_FALSE(sm.dirtyAcl());
  sm.handleLinkChange();
  EXPECT_TRUE(sm.dirtyAcl());
}

// --- teardown ---------------------------------------------------------------------------------

TEST_F(CpAclSmFrameTest, TeardownWithARefreshPendingSendsNothing) {
  intf("et1", "red");
  auto et1 = link("et1", 0);
  CpAclSm& sm = start();
  Zov::Ptr<Pell::TimerTask> task = sm.refreshAclsTask();
  et1->stateIs(1);
  ASSERT_TRUE(sm.dirtyAcl());

  EXPECT_CALL(context(), registerChainRule).Times(0);
  EXPECT_CALL(context(), unregisterChainRule).Times(0);
  EXPECT_CALL(context(), finishRegistration).Times(0);
  sm_ = nullptr;
  advanceMs(10);
  EXPECT_EQ(task->runs(), 1u);
  EXPECT_TRUE(task->notifieeList()->empty());
  et1->stateIs(0);
  config_->gatewayEnabledIs(true);
  advanceMs(10);
}

// Someone may still hold a watcher when the state machine goes; the watcher's
// link up must be cut, or its next change reaches freed memory.
TEST_F(CpAclSmFrameTest, TeardownCutsHeldWatchersLoose) {
  auto et1 = link("et1", 0);
  intf("et1", "red");
  start();
  Zov::Ptr<LinkStatusAclSm> link = sm_->linkStatusAclSm(keyOf("et1"));
  Zov::Ptr<L3IntfStatusAclSm> intf = sm_->l3IntfStatusAclSm(idOf("et1"));
  sm_ = nullptr;
  // Checked before anything can reach the dead state machine, so that a
  // failure is reported rather than crashing the run.
  ASSERT_TRUE(link->parent() == nullptr || link->zovMarkedForDeletion());
  ASSERT_TRUE(intf->parent() == nullptr || intf->zovMarkedForDeletion());
  et1->stateIs(1);
  this->intf("et1", "blue");
}

TEST_F(CpAclSmFrameTest, TeardownLeavesNoObjectAndNoReactorBehind) {
  std::map<std::string, std::uint64_t> before = liveObjects();
  const std::size_t armedBefore = scheduler_->armedTasks();

  auto e1 = intf("et1", "red");
  auto e2 = intf("et2", "blue");
  auto l1 = link("et1", 1);
  auto l2 = link("et2", 0, 3);
  start();
  l2->stateIs(1);  // leaves a refresh pending
  EXPECT_EQ(live("McastDns::CpAclSm"), before["McastDns::CpAclSm"] + 1);
  EXPECT_EQ(live("McastDns::CpAclSm::ZovRefreshAclsTask"),
            before["McastDns::CpAclSm::ZovRefreshAclsTask"] + 1);
  EXPECT_EQ(live("McastDns::LinkStatusAclSm::ZovLinkStatus"),
            before["McastDns::LinkStatusAclSm::ZovLinkStatus"] + 2);
  EXPECT_EQ(live("McastDns::L3IntfStatusAclSm"), before["McastDns::L3IntfStatusAclSm"] + 2);
  EXPECT_EQ(live("Pell::TimerTask"), before["Pell::TimerTask"] + 1);
  EXPECT_EQ(scheduler_->armedTasks(), armedBefore + 1);

  sm_ = nullptr;
  EXPECT_EQ(liveObjects(), before);
  EXPECT_EQ(scheduler_->armedTasks(), armedBefore);

  // Every watched entity is released and has no notifiee left.
  const Zov::PtrInterface* watched[] = {config_.ptr(), status_.ptr(), intfDir_.ptr(), e1.ptr(),
                                        e2.ptr(),      l1.ptr(),      l2.ptr()};
  for (const Zov::PtrInterface* entity : watched) {
    EXPECT_TRUE(entity->notifieeList()->empty());
  }
  EXPECT_EQ(config_->references(), 1u);
  EXPECT_EQ(intfDir_->references(), 1u);
  EXPECT_EQ(e1->references(), 2u);  // the directory's entry and ours
  EXPECT_EQ(l1->references(), 2u);
  EXPECT_EQ(context_->references(), 1u);
}

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
  EXPECT_FALSE(sm_);
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

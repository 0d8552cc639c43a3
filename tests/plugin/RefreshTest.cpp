// The rule refresh against a mocked plugin context: when it goes ahead, the
// whole rule key of its calls, and what a failure of the service leaves. What
// it decides for each state is checked end to end by the golden scenarios and
// against a model by the fuzz replays.
#include <stdexcept>
#include <vector>

#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

using ::testing::DoDefault;
using ::testing::Throw;

constexpr auto kIpt0 = static_cast<Acl::IptablesType>(0);
constexpr auto kAcl0 = static_cast<Acl::AclType>(0);
constexpr auto kDir0 = static_cast<Acl::AclDirection>(0);
const char* const kMdnsRule = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n";
const char* const kGatewayRule = "-p tcp --dport 8853 -j ACCEPT\n";

// The calls of a refresh over the empty state, with the gateway rule
// registered or withdrawn.
std::vector<Call> emptyStateRefresh(bool gateway) {
  return {{Call::kUnregister, "default", 0},
          {Call::kFinish, "default"},
          {gateway ? Call::kRegister : Call::kUnregister, "default", 1},
          {Call::kFinish, "default"}};
}

using RefreshTest = StateMachineTest;

TEST_F(RefreshTest, OnlyAnInitialisedStateMachineArmsAndRefreshesAndOnlyWhenDirtyOrForced) {
  CpAclSm& sm = start();
  calls_.clear();
  sm.initializedIs(false);
  sm.handleLinkChange();
  config_->gatewayEnabledIs(true);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(sm.refreshAclsTask()->armed());
  sm.dirtyAclIs(true);
  sm.handleRefreshAcls(true);
  EXPECT_TRUE(calls_.empty()) << ::testing::PrintToString(calls_);
  EXPECT_TRUE(sm.dirtyAcl());

  sm.initializedIs(true);
  sm.dirtyAclIs(false);
  // The timer's run is an unforced refresh: armed while clean, it sends nothing.
  sm.refreshAclsTask()->scheduleTaskLowestDelay(0.01);
  advanceMs(10);
  EXPECT_EQ(sm.refreshAclsTask()->runs(), 1u);
  EXPECT_TRUE(calls_.empty()) << ::testing::PrintToString(calls_);
}

// Only a link in state 1 is up, and a VRF that only an interface names is not
// decided; the address family changes nothing, not even the ACL type.
TEST_F(RefreshTest, CallsCarryTheWholeRuleKeyWhateverTheAddressFamily) {
  intf("et1", "red");
  link("et1", 1);
  intf("et2", "blue");
  link("et2", 2);
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(1);
  const L3::VrfName def("default");
  const Zov::String input("INPUT");
  const Zov::String owner("McastDnsAclPlugin");
  const Zov::String none("");
  const Acl::UniqueId unassigned(~0u, ~0u);
  EXPECT_CALL(*context_,
              registerChainRule(kIpt0, kAcl0, L3::VrfName("red"), kDir0, input, owner, 0u,
                                Zov::String(kMdnsRule), none, none, false, unassigned));
  EXPECT_CALL(*context_,
              registerChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 1u,
                                Zov::String(kGatewayRule), none, none, false, unassigned));
  EXPECT_CALL(*context_, unregisterChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 0u));
  EXPECT_CALL(*context_, finishRegistration(kIpt0, kAcl0, L3::VrfName("red"), input));
  EXPECT_CALL(*context_, finishRegistration(kIpt0, kAcl0, def, input)).Times(2);
  sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv6, config_, status_, intfDir_, vrfGlobal_,
                           vrfLocal_, context_);
}

TEST_F(RefreshTest, ForcedRefreshCancelsThePendingOne) {
  CpAclSm& sm = start();
  link("et1", 1);
  Zov::Ptr<Pell::TimerTask> timer = sm.refreshAclsTask();
  ASSERT_TRUE(timer->armed());

  sm.handleRefreshAcls(true);
  EXPECT_FALSE(sm.dirtyAcl());
  advanceMs(20);
  EXPECT_EQ(timer->runs(), 0u);
  EXPECT_EQ(refreshes(), 2);
}

// A failure of the service ends the refresh where it happened: what was sent
// stands, nothing after it is sent, and the refresh stays pending.
TEST_F(RefreshTest, FailedRefreshStopsWhereItFailedAndStaysPending) {
  CpAclSm& sm = start();
  calls_.clear();
  EXPECT_CALL(*context_, finishRegistration)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  sm.handleLinkChange();
  EXPECT_THROW(sm.handleRefreshAcls(true), std::runtime_error);
  EXPECT_EQ(calls_, (std::vector<Call>{{Call::kUnregister, "default", 0}}));
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(sm.refreshAclsTask()->armed());

  calls_.clear();
  advanceMs(10);
  EXPECT_EQ(calls_, emptyStateRefresh(false)) << "the armed timer refreshes in full";
}

// The flag stays set after a failed timer refresh, so later changes arm
// nothing until a refresh goes ahead for another reason.
TEST_F(RefreshTest, AfterAFailedTimerRefreshOnlyAForcedOneGoesAhead) {
  CpAclSm& sm = start();
  EXPECT_CALL(*context_, unregisterChainRule)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  config_->gatewayEnabledIs(true);
  EXPECT_THROW(advanceMs(10), std::runtime_error);
  config_->gatewaySettingIs(9);
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_FALSE(sm.refreshAclsTask()->armed());
  calls_.clear();
  sm.handleRefreshAcls(true);
  EXPECT_EQ(calls_, emptyStateRefresh(true));
  EXPECT_FALSE(sm.dirtyAcl());
}

}  // namespace
}  // namespace McastDns::test

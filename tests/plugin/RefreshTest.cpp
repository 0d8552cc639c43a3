// The rule refresh against a mocked plugin context: when it goes ahead, what
// it decides for each VRF and for the gateway, and exactly which calls carry
// those decisions.
#include <map>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
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

// What one refresh decided: for each VRF whether sequence 0 was registered
// (true) or withdrawn (false), and whether the gateway rule was registered.
struct Decisions {
  std::map<std::string, bool> mdns;
  bool gateway = false;
  friend bool operator==(const Decisions&, const Decisions&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Decisions& d) {
    for (const auto& [vrf, needed] : d.mdns) os << "'" << vrf << "':" << needed << " ";
    return os << "gateway:" << d.gateway;
  }
};

class RefreshTest : public StateMachineTest {
 protected:
  // Reads the decisions out of one refresh's calls and checks their shape:
  // per VRF one sequence-0 call followed by the finish of that VRF, then
  // sequence 1 in "default" and the finish of "default".
  static Decisions decisionsOf(const std::vector<Call>& calls) {
    Decisions d;
    if (calls.size() < 4 || calls.size() % 2 != 0) {
      ADD_FAILURE() << "not the calls of one refresh: " << ::testing::PrintToString(calls);
      return d;
    }
    for (std::size_t i = 0; i + 2 < calls.size(); i += 2) {
      const Call& op = calls[i];
      EXPECT_NE(op.kind, Call::kFinish) << "call " << i;
      EXPECT_EQ(op.sequence, 0u) << "call " << i;
      EXPECT_EQ(calls[i + 1], (Call{Call::kFinish, op.vrf})) << "call " << i + 1;
      EXPECT_TRUE(d.mdns.emplace(op.vrf, op.kind == Call::kRegister).second)
          << "VRF '" << op.vrf << "' decided twice";
    }
    const Call& gateway = calls[calls.size() - 2];
    EXPECT_NE(gateway.kind, Call::kFinish);
    EXPECT_EQ(gateway.vrf, "default");
    EXPECT_EQ(gateway.sequence, 1u);
    EXPECT_EQ(calls.back(), (Call{Call::kFinish, "default"}));
    d.gateway = gateway.kind == Call::kRegister;
    return d;
  }

  // The decisions that the published state calls for, worked out
  // independently of the state machine.
  Decisions expectedDecisions() const {
    Decisions d;
    for (const auto& [key, link] : status_->linkStatus()) {
      const L3::Intf::Status* intf = intfDir_->intfStatus(key.intfId);
      if (intf && link->state() == 1) d.mdns[intf->vrf().str()] = true;
    }
    for (const auto& entry : vrfGlobal_->vrf()) d.mdns.emplace(entry.first.str(), false);
    for (const auto& entry : vrfLocal_->vrf()) d.mdns.emplace(entry.first.str(), false);
    d.mdns.emplace("default", false);
    d.gateway = config_->gatewayEnabled() && config_->gatewaySetting() != 0;
    return d;
  }

  // Runs a forced refresh and returns its calls.
  std::vector<Call> refreshNow() {
    calls_.clear();
    sm_->handleRefreshAcls(true);
    return calls_;
  }
};

TEST_F(RefreshTest, UninitialisedOrCleanAndUnforcedNothingGoesAhead) {
  CpAclSm& sm = start();
  calls_.clear();
  sm.initializedIs(false);
  sm.dirtyAclIs(true);
  sm.handleRefreshAcls(false);
  sm.handleRefreshAcls(true);
  EXPECT_TRUE(calls_.empty()) << ::testing::PrintToString(calls_);
  EXPECT_TRUE(sm.dirtyAcl());

  sm.initializedIs(true);
  sm.dirtyAclIs(false);
  calls_.clear();
  sm.handleRefreshAcls(false);
  EXPECT_TRUE(calls_.empty()) << "clean and unforced: " << ::testing::PrintToString(calls_);
}

TEST_F(RefreshTest, CallsCarryTheWholeRuleKeyWhateverTheAddressFamily) {
  const L3::VrfName def("default");
  const Zov::String input("INPUT");
  const Zov::String owner("McastDnsAclPlugin");
  // The empty state withdraws both rules in "default", in this order; the
  // address family changes nothing, not even the ACL type.
  for (Dovix::AddressFamily af : {Dovix::AddressFamily::kIpv4, Dovix::AddressFamily::kIpv6}) {
    ::testing::InSequence order;
    EXPECT_CALL(context(), unregisterChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 0u));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, def, input));
    EXPECT_CALL(context(), unregisterChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 1u));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, def, input));
    EXPECT_CALL(context(), registerChainRule).Times(0);
    sm_ = CpAclSm::CpAclSmIs(af, config_, status_, intfDir_, vrfGlobal_, vrfLocal_, context_);
    ::testing::Mock::VerifyAndClearExpectations(&context());
  }

  // A registration carries the rule text, two empty texts, false and the
  // unassigned unique id.
  intf("et1", "red");
  link("et1", 1);
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(1);
  const Zov::String none("");
  const Acl::UniqueId unassigned(~0u, ~0u);
  EXPECT_CALL(context(),
              registerChainRule(kIpt0, kAcl0, L3::VrfName("red"), kDir0, input, owner, 0u,
                                Zov::String(kMdnsRule), none, none, false, unassigned));
  EXPECT_CALL(context(),
              registerChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 1u,
                                Zov::String(kGatewayRule), none, none, false, unassigned));
  sm_->handleRefreshAcls(true);
}

TEST_F(RefreshTest, MatchesAModelOverRandomStates) {
  CpAclSm& sm = start();
  std::mt19937 random(20240611);
  auto pick = [&random](int n) { return static_cast<int>(random() % n); };
  const char* const vrfs[] = {"default", "red", "blue", "", "mgmt"};

  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    // Take everything down, then publish a fresh random state.
    std::vector<IntfKey> links;
    for (const auto& entry : status_->linkStatus()) links.push_back(entry.first);
    for (const IntfKey& key : links) status_->linkStatusDel(key);
    std::vector<Dovix::IntfId> intfs;
    for (const auto& entry : intfDir_->intfStatus()) intfs.push_back(entry.first);
    for (Dovix::IntfId id : intfs) intfDir_->intfStatusDel(id);
    for (const char* vrf : vrfs) {
      vrfGlobal_->vrfDel(vrf);
      vrfLocal_->vrfDel(vrf);
    }

    for (const char* name : {"et1", "et2", "et3", "et4", "et5", "et6"}) {
      if (pick(4) != 0) intf(name, vrfs[pick(5)]);
      for (std::uint32_t index = 0; index < 2; ++index) {
        if (pick(2) == 0) link(name, static_cast<std::uint8_t>(pick(3)), index);
      }
    }
    if (pick(2) == 0) link("et8", 1);  // no interface status
    for (const char* vrf : vrfs) {
      if (pick(3) == 0) vrfGlobal_->vrfIs(vrf);
      if (pick(3) == 0) vrfLocal_->vrfIs(vrf);
    }
    config_->gatewayEnabledIs(pick(2) == 0);
    config_->gatewaySettingIs(static_cast<std::uint16_t>(pick(3) * 4000));

    calls_.clear();
    if (!sm.dirtyAcl()) sm.handleLinkChange();
    advanceMs(10);
    EXPECT_EQ(decisionsOf(calls_), expectedDecisions());
    // Every decision is sent again, changed or not.
    const std::vector<Call> calls = calls_;
    EXPECT_EQ(refreshNow(), calls);
  }
}

TEST_F(RefreshTest, ForcedRefreshCancelsThePendingOne) {
  CpAclSm& sm = start();
  link("et1", 1);
  Zov::Ptr<Pell::TimerTask> timer = sm.refreshAclsTask();
  ASSERT_TRUE(timer->armed());

  sm.handleRefreshAcls(true);
  EXPECT_FALSE(timer->armed());
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
  EXPECT_CALL(context(), finishRegistration)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  sm.handleLinkChange();
  EXPECT_THROW(sm.handleRefreshAcls(true), std::runtime_error);
  EXPECT_EQ(calls_, (std::vector<Call>{{Call::kUnregister, "default", 0}}));
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(sm.refreshAclsTask()->armed());

  calls_.clear();
  advanceMs(10);
  EXPECT_EQ(decisionsOf(calls_), expectedDecisions()) << "the armed timer refreshes in full";
}

// The flag stays set after a failed timer refresh, so later changes arm
// nothing until a refresh goes ahead for another reason.
TEST_F(RefreshTest, AfterAFailedTimerRefreshOnlyAForcedOneGoesAhead) {
  CpAclSm& sm = start();
  EXPECT_CALL(context(), unregisterChainRule)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  config_->gatewayEnabledIs(true);
  EXPECT_THROW(advanceMs(10), std::runtime_error);
  config_->gatewaySettingIs(9);
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_FALSE(sm.refreshAclsTask()->armed());
  EXPECT_EQ(decisionsOf(refreshNow()), (Decisions{{{"default", false}}, true}));
  EXPECT_FALSE(sm.dirtyAcl());
}

}  // namespace
}  // namespace McastDns::test

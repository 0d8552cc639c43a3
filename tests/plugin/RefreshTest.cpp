// The rule refresh against a mocked plugin context: when it goes ahead, what
// it decides for each VRF and for the gateway, and exactly which calls carry
// those decisions.
#include <map>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "StateMachineFixture.h"

namespace McastDns::test {
namespace {

using ::testing::_;
using ::testing::DoDefault;
using ::testing::InSequence;
using ::testing::Throw;
using ::testing::Truly;

constexpr auto kIpt0 = static_cast<Acl::IptablesType>(0);
constexpr auto kAcl0 = static_cast<Acl::AclType>(0);
constexpr auto kDir0 = static_cast<Acl::AclDirection>(0);
const char* const kMdnsRule = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n";
const char* const kGatewayRule = "-p tcp --dport 8853 -j ACCEPT\n";

// One call on the context, reduced to what varies between calls.
struct Call {
  enum Kind { kRegister, kUnregister, kFinish };
  Call(Kind kind, std::string vrf, unsigned sequence = 0, std::string rule = "")
      : kind(kind), vrf(std::move(vrf)), sequence(sequence), rule(std::move(rule)) {}
  Kind kind;
  std::string vrf;
  unsigned sequence;
  std::string rule;
  friend bool operator==(const Call&, const Call&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Call& c) {
    static const char* const kNames[] = {"register", "unregister", "finish"};
    return os << kNames[c.kind] << "('" << c.vrf << "', " << c.sequence << ")";
  }
};

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
  // Appends every context call to `calls_`, in the order made.
  void recordCalls() {
    ON_CALL(context(), registerChainRule)
        .WillByDefault([this](Acl::IptablesType, Acl::AclType, L3::VrfName vrf, Acl::AclDirection,
                              const Zov::String&, const Zov::String&, unsigned sequence,
                              const Zov::String& rule, const Zov::String&, const Zov::String&, bool,
                              const Acl::UniqueId&) {
          calls_.push_back({Call::kRegister, vrf.str(), sequence, rule.str()});
        });
    ON_CALL(context(), unregisterChainRule)
        .WillByDefault([this](Acl::IptablesType, Acl::AclType, L3::VrfName vrf, Acl::AclDirection,
                              const Zov::String&, const Zov::String&, unsigned sequence) {
          calls_.push_back({Call::kUnregister, vrf.str(), sequence, ""});
        });
    ON_CALL(context(), finishRegistration)
        .WillByDefault(
            [this](Acl::IptablesType, Acl::AclType, L3::VrfName vrf, const Zov::String&) {
              calls_.push_back({Call::kFinish, vrf.str()});
            });
  }

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

  std::vector<Call> calls_;
};

// --- when a refresh goes ahead ---------------------------------------------------

TEST_F(RefreshTest, GatesKeepTheContextAndTheFlagUntouched) {
  intf("et1", "red");
  link("et1", 1);
  CpAclSm& sm = start();
  recordCalls();

  // Not initialised: neither a forced nor a dirty refresh goes ahead.
  sm.initializedIs(false);
  sm.dirtyAclIs(true);
  sm.handleRefreshAcls(false);
  sm.handleRefreshAcls(true);
  EXPECT_TRUE(sm.dirtyAcl());
  sm.dirtyAclIs(false);
  sm.handleRefreshAcls(true);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_TRUE(calls_.empty()) << ::testing::PrintToString(calls_);

  // Initialised, clean and not forced: nothing either.
  sm.initializedIs(true);
  sm.handleRefreshAcls(false);
  EXPECT_TRUE(calls_.empty()) << ::testing::PrintToString(calls_);
  EXPECT_EQ(sm.refreshes(), 1u);

  // Dirty or forced, it goes ahead.
  sm.dirtyAclIs(true);
  sm.handleRefreshAcls(false);
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_EQ(calls_.size(), 6u);
  EXPECT_EQ(refreshNow().size(), 6u);
}

// --- the calls, exactly -------------------------------------------------------------

TEST_F(RefreshTest, EmptyStateWithdrawsBothRulesInDefault) {
  const L3::VrfName def("default");
  const Zov::String input("INPUT");
  const Zov::String owner("McastDnsAclPlugin");
  {
    InSequence order;
    EXPECT_CALL(context(), unregisterChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 0u));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, def, input));
    EXPECT_CALL(context(), unregisterChainRule(kIpt0, kAcl0, def, kDir0, input, owner, 1u));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, def, input));
  }
  EXPECT_CALL(context(), registerChainRule).Times(0);
  start();
}

TEST_F(RefreshTest, RegistrationsCarryTheWholeRuleKeyAndTexts) {
  intf("et1", "red");
  link("et1", 1);
  vrfGlobal_->vrfIs("red");
  vrfLocal_->vrfIs("red");
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(1);
  const Zov::String input("INPUT");
  const Zov::String owner("McastDnsAclPlugin");
  const Zov::String none("");
  const Acl::UniqueId unassigned(~0u, ~0u);

  // "red" is listed by both VRF views, yet the link keeps it registered, once.
  {
    InSequence order;
    EXPECT_CALL(context(),
                registerChainRule(kIpt0, kAcl0, L3::VrfName("red"), kDir0, input, owner, 0u,
                                  Zov::String(kMdnsRule), none, none, false, unassigned));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, L3::VrfName("red"), input));
  }
  EXPECT_CALL(context(), unregisterChainRule(_, _, L3::VrfName("red"), _, _, _, _)).Times(0);
  {
    InSequence order;
    EXPECT_CALL(context(), unregisterChainRule(_, _, L3::VrfName("default"), _, _, _, 0u));
    EXPECT_CALL(context(), finishRegistration(_, _, L3::VrfName("default"), _));
  }
  {
    InSequence order;
    EXPECT_CALL(context(),
                registerChainRule(kIpt0, kAcl0, L3::VrfName("default"), kDir0, input, owner, 1u,
                                  Zov::String(kGatewayRule), none, none, false, unassigned));
    EXPECT_CALL(context(), finishRegistration(kIpt0, kAcl0, L3::VrfName("default"), input));
  }
  start();
}

// --- which VRFs need the rule --------------------------------------------------------

TEST_F(RefreshTest, NeededAndKnownVrfs) {
  start();
  recordCalls();

  // Two links on interfaces in one VRF, and two links on one interface.
  intf("et1", "red");
  intf("et2", "red");
  link("et1", 1);
  link("et2", 1);
  link("et2", 1, 7);
  // A link on an interface without status; links in other states.
  link("et9", 1);
  intf("et3", "blue");
  intf("et4", "green");
  intf("et5", "mgmt");
  link("et3", 0);
  link("et4", 2);
  link("et5", 255);
  Decisions d = decisionsOf(refreshNow());
  EXPECT_EQ(d, (Decisions{{{"red", true}, {"default", false}}, false}));

  // A VRF known only to one view is withdrawn once; the interfaces' VRFs
  // without a link in state 1 stay unmentioned until a view lists them.
  vrfLocal_->vrfIs("blue");
  vrfGlobal_->vrfIs("mgmt");
  d = decisionsOf(refreshNow());
  EXPECT_EQ(
      d, (Decisions{{{"red", true}, {"blue", false}, {"mgmt", false}, {"default", false}}, false}));
  EXPECT_EQ(calls_.size(), 2 * 4 + 2u);

  // A link in state 1 in "default" registers there; the empty VRF name is a
  // VRF like any other.
  intf("et6", "default");
  intf("et7", "");
  link("et6", 1);
  link("et7", 1);
  vrfLocal_->vrfIs("");
  d = decisionsOf(refreshNow());
  EXPECT_EQ(d, (Decisions{
                   {{"red", true}, {"blue", false}, {"mgmt", false}, {"default", true}, {"", true}},
                   false}));
  EXPECT_EQ(calls_.size(), 2 * 5 + 2u);
}

TEST_F(RefreshTest, GatewayStandsOnlyWhenEnabledWithANonZeroSetting) {
  CpAclSm& sm = start();
  recordCalls();
  struct Case {
    bool enabled;
    std::uint16_t setting;
    bool registered;
  };
  for (const Case& c : {Case{false, 0, false}, Case{false, 5353, false}, Case{true, 0, false},
                        Case{true, 1, true}, Case{true, 65535, true}, Case{false, 1, false}}) {
    SCOPED_TRACE(::testing::Message() << "enabled " << c.enabled << " setting " << c.setting);
    config_->gatewayEnabledIs(c.enabled);
    config_->gatewaySettingIs(c.setting);
    refreshNow();
    ASSERT_EQ(calls_.size(), 4u);
    EXPECT_EQ(calls_[2], (Call{c.registered ? Call::kRegister : Call::kUnregister, "default", 1,
                               c.registered ? kGatewayRule : ""}));
    // The gateway decides nothing about sequence 0.
    EXPECT_EQ(calls_[0], (Call{Call::kUnregister, "default", 0}));
  }
  EXPECT_FALSE(sm.dirtyAcl());
}

TEST_F(RefreshTest, MatchesAModelOverRandomStates) {
  CpAclSm& sm = start();
  recordCalls();
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

    const std::string names[] = {"et1", "et2", "et3", "et4", "et5", "et6"};
    for (const std::string& name : names) {
      if (pick(4) != 0) intf(name.c_str(), vrfs[pick(5)]);
      for (std::uint32_t index = 0; index < 2; ++index) {
        if (pick(2) == 0) link(name.c_str(), static_cast<std::uint8_t>(pick(3)), index);
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
    EXPECT_EQ(calls_.size(), 2 * expectedDecisions().mdns.size() + 2);
  }
}

// --- repeats, the timer, failures --------------------------------------------------------

TEST_F(RefreshTest, RefreshesWithoutAChangeSendTheSameCalls) {
  intf("et1", "red");
  intf("et2", "blue");
  link("et1", 1);
  link("et2", 0);
  vrfGlobal_->vrfIs("green");
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(3);
  CpAclSm& sm = start();
  recordCalls();

  const std::vector<Call> first = refreshNow();
  EXPECT_EQ(first.size(), 2 * 3 + 2u);
  EXPECT_EQ(refreshNow(), first);
  calls_.clear();
  sm.handleLinkChange();
  advanceMs(10);
  EXPECT_EQ(calls_, first);
}

TEST_F(RefreshTest, ForcedRefreshCancelsThePendingOne) {
  CpAclSm& sm = start();
  recordCalls();
  link("et1", 1);
  Zov::Ptr<Pell::TimerTask> timer = sm.refreshAclsTask();
  ASSERT_TRUE(timer->armed());
  ASSERT_TRUE(sm.dirtyAcl());

  EXPECT_EQ(refreshNow().size(), 4u);
  EXPECT_FALSE(timer->armed());
  EXPECT_FALSE(sm.dirtyAcl());
  calls_.clear();
  advanceMs(20);
  EXPECT_EQ(timer->runs(), 0u);
  EXPECT_TRUE(calls_.empty());
  EXPECT_EQ(sm.refreshes(), 2u);
}

TEST_F(RefreshTest, ThrowingContextEndsTheRefreshAndLeavesItPending) {
  CpAclSm& sm = start();
  recordCalls();
  Zov::Ptr<Pell::TimerTask> timer = sm.refreshAclsTask();

  // A forced refresh whose first finish throws: the withdrawal before it
  // stands, nothing after it is sent, the timer keeps running.
  EXPECT_CALL(context(), finishRegistration)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  sm.handleLinkChange();
  EXPECT_THROW(sm.handleRefreshAcls(true), std::runtime_error);
  EXPECT_EQ(calls_, (std::vector<Call>{{Call::kUnregister, "default", 0}}));
  EXPECT_TRUE(sm.dirtyAcl());
  EXPECT_TRUE(timer->armed());
  EXPECT_EQ(sm.refreshes(), 1u);

  // The armed timer then refreshes in full.
  calls_.clear();
  advanceMs(10);
  EXPECT_EQ(calls_.size(), 4u);
  EXPECT_FALSE(sm.dirtyAcl());

  // A timer refresh that throws reaches the loop; the flag stays set, so
  // later changes arm nothing until a refresh goes ahead.
  EXPECT_CALL(context(), unregisterChainRule)
      .WillOnce(Throw(std::runtime_error("ACL service unavailable")))
      .WillRepeatedly(DoDefault());
  config_->gatewayEnabledIs(true);
  EXPECT_THROW(advanceMs(10), std::runtime_error);
  EXPECT_TRUE(sm.dirtyAcl());
  config_->gatewaySettingIs(9);
  EXPECT_FALSE(timer->armed());
  calls_.clear();
  sm.handleRefreshAcls(true);
  EXPECT_EQ(decisionsOf(calls_), (Decisions{{{"default", false}}, true}));
  EXPECT_FALSE(sm.dirtyAcl());
}

// --- the rule texts --------------------------------------------------------------------

TEST_F(RefreshTest, NewRuleTextsWaitForTheNextRefreshAndAreNotCopied) {
  intf("et1", "red");
  link("et1", 1);
  config_->gatewayEnabledIs(true);
  config_->gatewaySettingIs(1);
  CpAclSm& sm = start();
  recordCalls();
  EXPECT_EQ(sm.mdnsIptRule(), Zov::String(kMdnsRule));
  EXPECT_EQ(sm.mdnsIptRule().bytes(), 45u);
  EXPECT_EQ(sm.mdnsGwIptRule(), Zov::String(kGatewayRule));
  EXPECT_EQ(sm.mdnsGwIptRule().bytes(), 30u);

  const Zov::String rule("-p udp --dport 5353 -j ACCEPT\n");
  const Zov::String gateway("-p tcp --dport 8853 -s 10.0.0.0/8 -j ACCEPT\n");
  sm.mdnsIptRuleIs(rule);
  sm.mdnsGwIptRuleIs(gateway);
  EXPECT_TRUE(sm.mdnsIptRule().sharesDataWith(rule));
  EXPECT_TRUE(sm.mdnsGwIptRule().sharesDataWith(gateway));
  EXPECT_TRUE(calls_.empty());
  EXPECT_FALSE(sm.dirtyAcl());
  EXPECT_FALSE(sm.refreshAclsTask()->armed());

  auto shares = [](const Zov::String& text) {
    return Truly([text](const Zov::String& arg) { return arg.sharesDataWith(text); });
  };
  EXPECT_CALL(context(),
              registerChainRule(_, _, L3::VrfName("red"), _, _, _, 0u, shares(rule), _, _, _, _));
  EXPECT_CALL(context(), registerChainRule(_, _, L3::VrfName("default"), _, _, _, 1u,
                                           shares(gateway), _, _, _, _));
  sm.handleLinkChange();
  advanceMs(10);
}

}  // namespace
}  // namespace McastDns::test

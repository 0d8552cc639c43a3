// The agent's rule service: which rules stand after which batches, and the
// three renderings the agent prints.
#include "agent/RuleService.h"

#include <gtest/gtest.h>

namespace AclAgent {
namespace {

constexpr auto kIpt = Acl::IptablesType::kIptables;
constexpr auto kIp6 = Acl::IptablesType::kIp6tables;
constexpr auto kCp = Acl::AclType::kControlPlane;
constexpr auto kIn = Acl::AclDirection::kIn;
constexpr auto kOut = Acl::AclDirection::kOut;
const Zov::String kInput("INPUT");
const Zov::String kOwner("McastDnsAclPlugin");
const Zov::String kMdnsRule("-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n");
const Zov::String kGatewayRule("-p tcp --dport 8853 -j ACCEPT\n");

class RuleServiceTest : public ::testing::Test {
 protected:
  // The plugin's own calls: chain INPUT, owner McastDnsAclPlugin, type 0.
  void reg(const char* vrf, unsigned seq, const Zov::String& text = kMdnsRule) {
    rules_->registerChainRule(kIpt, kCp, L3::VrfName(vrf), kIn, kInput, kOwner, seq, text, {}, {},
                              false, Acl::UniqueId());
  }
  void unreg(const char* vrf, unsigned seq) {
    rules_->unregisterChainRule(kIpt, kCp, L3::VrfName(vrf), kIn, kInput, kOwner, seq);
  }
  void finish(const char* vrf) { rules_->finishRegistration(kIpt, kCp, L3::VrfName(vrf), kInput); }

  // The standing rules as "vrf/seq=text" lines, for compact comparisons.
  std::vector<std::string> standing() const {
    std::vector<std::string> out;
    for (const auto& [key, rule] : rules_->rules()) {
      out.push_back(key.vrf.str() + "/" + std::to_string(key.sequence) + "=" + rule.text.str());
    }
    return out;
  }

  Zov::Ptr<RuleService> rules_{new RuleService(nullptr)};
};

using Lines = std::vector<std::string>;

TEST_F(RuleServiceTest, BatchesTakeEffectAtTheirOwnFinishOnly) {
  reg("red", 0);
  reg("blue", 0);
  EXPECT_TRUE(rules_->rules().empty()) << "nothing stands before a finish";
  EXPECT_EQ(rules_->stagedOperations(), 2u);

  // Finishes of other batches: another VRF, another chain, another table.
  finish("green");
  rules_->finishRegistration(kIpt, kCp, L3::VrfName("red"), Zov::String("OUTPUT"));
  rules_->finishRegistration(kIp6, kCp, L3::VrfName("red"), kInput);
  EXPECT_TRUE(rules_->rules().empty());

  finish("red");
  EXPECT_EQ(standing(), (Lines{"red/0=" + kMdnsRule.str()}));
  EXPECT_EQ(rules_->stagedOperations(), 1u) << "blue is staged and not in force";

  // A finish leaves alone what its batch did not name, in its own VRF too.
  reg("red", 1, kGatewayRule);
  finish("red");
  EXPECT_EQ(standing(), (Lines{"red/0=" + kMdnsRule.str(), "red/1=" + kGatewayRule.str()}));
  EXPECT_EQ(rules_->finishes(L3::VrfName("red")), 4u) << "every batch of the VRF counts";
}

TEST_F(RuleServiceTest, RepeatsLeaveOneRuleAndTheLastStagedOperationWins) {
  reg("red", 0);
  reg("red", 0);
  finish("red");
  reg("red", 0);
  finish("red");
  EXPECT_EQ(standing(), (Lines{"red/0=" + kMdnsRule.str()}));

  // A new text under a held key replaces the old one.
  reg("red", 0, Zov::String("-j DROP\n"));
  finish("red");
  EXPECT_EQ(standing(), (Lines{"red/0=-j DROP\n"}));

  // Within one batch, calls apply in order.
  reg("red", 0);
  unreg("red", 0);
  finish("red");
  EXPECT_TRUE(rules_->rules().empty());
  unreg("red", 0);
  reg("red", 0, kGatewayRule);
  finish("red");
  EXPECT_EQ(standing(), (Lines{"red/0=" + kGatewayRule.str()}));

  // All of a registration is kept, not just its text.
  rules_->registerChainRule(kIpt, kCp, L3::VrfName("red"), kIn, kInput, kOwner, 0, kMdnsRule,
                            Zov::String("t2"), Zov::String("t3"), true, Acl::UniqueId(7, 9));
  finish("red");
  const Rule& held = rules_->rules().begin()->second;
  EXPECT_EQ(held, (Rule{kMdnsRule, Zov::String("t2"), Zov::String("t3"), true, {7, 9}}));
}

TEST_F(RuleServiceTest, RefreshesKeepBothDefaultRulesAndWithdrawalsAreHarmless) {
  // Two refreshes as the plugin makes them: the default VRF gets one batch
  // for sequence 0 and one for sequence 1.
  for (int i = 0; i < 2; ++i) {
    reg("default", 0);
    finish("default");
    reg("default", 1, kGatewayRule);
    finish("default");
  }
  EXPECT_EQ(standing(), (Lines{"default/0=" + kMdnsRule.str(), "default/1=" + kGatewayRule.str()}));

  // The gateway goes off: only sequence 1 goes, and repeating it changes nothing.
  for (int i = 0; i < 2; ++i) {
    reg("default", 0);
    finish("default");
    unreg("default", 1);
    finish("default");
  }
  EXPECT_EQ(standing(), (Lines{"default/0=" + kMdnsRule.str()}));

  // Withdrawing what was never there, and finishing an empty batch.
  unreg("red", 0);
  finish("red");
  finish("blue");
  EXPECT_EQ(standing(), (Lines{"default/0=" + kMdnsRule.str()}));
  EXPECT_EQ(rules_->stagedOperations(), 0u);
}

// The golden scenarios show the renderings of what the plugin sends; here
// are bytes the plugin never sends, and the call log's switch.
TEST_F(RuleServiceTest, RendersEscapedTextAndShowingCallsConsumesThem) {
  // A text without its trailing newline is written to iptables as it stands.
  reg("x\x01\xff", 0, Zov::String("-j \"q\\\""));
  finish("x\x01\xff");
  EXPECT_EQ(rules_->renderCalls(),
            "register ipt=0 acl=0 vrf=\"x\\x01\\xff\" dir=0 chain=\"INPUT\" "
            "owner=\"McastDnsAclPlugin\" seq=0 rule=\"-j \\\"q\\\\\\\"\" text2=\"\" text3=\"\" "
            "flag=false\n"
            "finish ipt=0 acl=0 vrf=\"x\\x01\\xff\" chain=\"INPUT\"\n");
  EXPECT_EQ(rules_->renderCalls(), "no calls\n");
  EXPECT_EQ(rules_->renderRules(),
            "rule ipt=0 acl=0 vrf=\"x\\x01\\xff\" dir=0 chain=\"INPUT\" "
            "owner=\"McastDnsAclPlugin\" seq=0 rule=\"-j \\\"q\\\\\\\"\"\n");
  EXPECT_EQ(rules_->renderIptables(),
            "# vrf \"x\\x01\\xff\"\n*filter\n-A INPUT -j \"q\\\"\nCOMMIT\n");

  // Without its log the service works on and still counts.
  rules_->callLogIs(false);
  unreg("x\x01\xff", 0);
  finish("x\x01\xff");
  EXPECT_EQ(rules_->renderCalls(), "no calls\n");
  EXPECT_TRUE(rules_->rules().empty());
  EXPECT_EQ(rules_->calls(), 4u);
}

TEST_F(RuleServiceTest, IptablesOutputStaysRestorable) {
  auto put = [&](Acl::IptablesType ipt, Acl::AclDirection dir, const char* chain, const char* owner,
                 unsigned seq, std::string_view text) {
    rules_->registerChainRule(ipt, kCp, L3::VrfName("red"), dir, Zov::String(chain),
                              Zov::String(owner), seq, Zov::String(text), {}, {}, false, {});
    rules_->finishRegistration(ipt, kCp, L3::VrfName("red"), Zov::String(chain));
  };
  // Out of order on purpose: chains sort bytewise, rules by owner then seq.
  put(kIpt, kIn, "INPUT", "b", 0, "-j B0\n");
  put(kIpt, kOut, "INPUT", "a", 1, "-j A1\n");
  put(kIpt, kIn, "INPUT", "a", 0, "-j A0\n");
  put(kIpt, kIn, "MDNS", "a", 0, "-j ACCEPT\n");
  put(kIpt, kIn, "INPUT", "c", 0, "-j ACCEPT\n-j DROP\n");
  put(kIpt, kIn, "INPUT", "c", 1, "\n");
  put(kIpt, kIn, "IN PUT", "a", 0, "-j ACCEPT\n");
  put(kIp6, kIn, "INPUT", "a", 0, "-j ACCEPT\n");

  EXPECT_EQ(rules_->renderIptables(),
            "# vrf \"red\"\n"
            "*filter\n"
            "# not restorable: ipt=0 acl=0 vrf=\"red\" dir=0 chain=\"IN PUT\" owner=\"a\" seq=0 "
            "rule=\"-j ACCEPT\\n\" (the chain name holds white space or control bytes)\n"
            "-A INPUT -j A0\n"
            "-A INPUT -j A1\n"
            "-A INPUT -j B0\n"
            "# not restorable: ipt=0 acl=0 vrf=\"red\" dir=0 chain=\"INPUT\" owner=\"c\" seq=0 "
            "rule=\"-j ACCEPT\\n-j DROP\\n\" (the rule text has a line break before its end)\n"
            "-A INPUT\n"
            ":MDNS - [0:0]\n"
            "-A MDNS -j ACCEPT\n"
            "COMMIT\n"
            "# vrf \"red\" ipt=1 acl=0\n"
            "*filter\n"
            "-A INPUT -j ACCEPT\n"
            "COMMIT\n");
}

}  // namespace
}  // namespace AclAgent

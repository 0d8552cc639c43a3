// The agent's rule service: which rules stand after which batches, and the
// three renderings the agent prints.
#include "agent/RuleService.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <tuple>

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

// The service against the plainest model of its contract, over random calls:
// every finish must tell the same "changed" and leave the same rules, however
// the batches' calls mix, repeat and come back. Names are sometimes the same
// objects from call to call and sometimes equal copies, as plugins send them.
TEST(RuleServiceModelTest, AgreesWithAPlainModelOverRandomCalls) {
  using Batch = std::tuple<Acl::IptablesType, Acl::AclType, std::string, std::string>;
  struct Model {
    std::map<RuleKey, Rule> rules;
    std::map<Batch, std::map<RuleKey, std::optional<Rule>>> staged;
    std::map<std::string, std::uint64_t> finishes;
  } model;
  Zov::Ptr<RuleService> rules(new RuleService(nullptr));
  rules->callLogIs(false);
  std::optional<bool> heard;
  rules->finishListenerIs([&](const L3::VrfName&, bool changed) { heard = changed; });

  std::mt19937 random(17);
  auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  const std::vector<L3::VrfName> vrfs{L3::VrfName("default"), L3::VrfName("red"),
                                      L3::VrfName("blue")};
  const std::vector<Zov::String> chains{Zov::String("INPUT"), Zov::String("OUTPUT")};
  const std::vector<Zov::String> owners{Zov::String("a"), Zov::String("b")};
  const std::vector<Zov::String> texts{Zov::String("-j A\n"), Zov::String("-j B\n")};
  // A name as the plugin would hold it, or an equal copy.
  auto vrf = [&](int i) { return pick(4) ? vrfs[i] : L3::VrfName(vrfs[i].str()); };
  auto chain = [&](int i) { return pick(4) ? chains[i] : Zov::String(chains[i].str()); };

  std::uint64_t calls = 0;
  for (int step = 0; step < 40000; ++step) {
    const auto ipt = static_cast<Acl::IptablesType>(pick(2));
    const int v = pick(3), c = pick(2);
    const Batch batch{ipt, Acl::AclType::kControlPlane, vrfs[v].str(), chains[c].str()};
    const RuleKey key{ipt, Acl::AclType::kControlPlane, vrfs[v],
                      static_cast<Acl::AclDirection>(pick(2)), chains[c], owners[pick(2)],
                      // In "blue", more keys than the service keeps empty.
                      static_cast<unsigned>(v == 2 ? pick(40) : pick(3))};
    ++calls;
    const int what = pick(10);
    if (what < 4) {
      Rule rule{
          texts[pick(2)], {}, {}, pick(8) == 0, pick(8) ? Acl::UniqueId() : Acl::UniqueId(1, 2)};
      rules->registerChainRule(key.iptablesType, key.aclType, vrf(v), key.direction, chain(c),
                               key.owner, key.sequence, rule.text, rule.text2, rule.text3,
                               rule.flag, rule.uniqueId);
      model.staged[batch].insert_or_assign(key, rule);
    } else if (what < 7) {
      rules->unregisterChainRule(key.iptablesType, key.aclType, vrf(v), key.direction, chain(c),
                                 key.owner, key.sequence);
      model.staged[batch].insert_or_assign(key, std::nullopt);
    } else {
      bool changed = false;
      for (auto& [staged, rule] : model.staged[batch]) {
        auto standing = model.rules.find(staged);
        if (!rule) {
          changed |= standing != model.rules.end();
          if (standing != model.rules.end()) model.rules.erase(standing);
        } else if (standing == model.rules.end() || !(standing->second == *rule)) {
          changed = true;
          model.rules.insert_or_assign(staged, *rule);
        }
      }
      model.staged.erase(batch);
      ++model.finishes[vrfs[v].str()];
      heard.reset();
      rules->finishRegistration(ipt, Acl::AclType::kControlPlane, vrf(v), chain(c));
      ASSERT_EQ(heard, std::optional(changed)) << "step " << step;
      ASSERT_TRUE(rules->rules() == model.rules) << "step " << step;
    }
    std::size_t staged = 0;
    for (const auto& [b, ops] : model.staged) staged += ops.size();
    ASSERT_EQ(rules->stagedOperations(), staged) << "step " << step;
  }
  for (const L3::VrfName& name : vrfs) {
    EXPECT_EQ(rules->finishes(L3::VrfName(name.str())), model.finishes[name.str()]);
  }
  EXPECT_EQ(rules->calls(), calls);
  EXPECT_FALSE(model.rules.empty()) << "the run should leave rules standing";
}

}  // namespace
}  // namespace AclAgent

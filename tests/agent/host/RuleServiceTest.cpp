// The agent's rule service: which rules stand after which batches, and what
// of its renderings the golden scenarios do not show.
#include "agent/host/RuleService.h"

#include "agent/backend/iptables/IptablesShow.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <tuple>

namespace AclAgent {
namespace {

constexpr auto kIpt = Acl::IptablesType::kIptables;
constexpr auto kCp = Acl::AclType::kControlPlane;
constexpr auto kIn = Acl::AclDirection::kIn;

class RuleServiceTest : public ::testing::Test {
 protected:
  void put(Acl::IptablesType ipt, Acl::AclDirection dir, const char* vrf, const char* chain,
           const char* owner, unsigned seq, std::string_view text) {
    rules_->registerChainRule(ipt, kCp, L3::VrfName(vrf), dir, Zov::String(chain),
                              Zov::String(owner), seq, Zov::String(text), {}, {}, false, {});
    rules_->finishRegistration(ipt, kCp, L3::VrfName(vrf), Zov::String(chain));
  }

  Zov::Ptr<RuleService> rules_{new RuleService(nullptr)};
};

// The plugin sends empty second and third texts and no flag; the log shows
// each field from its own place all the same.
TEST_F(RuleServiceTest, TheCallLogShowsEveryFieldAndNothingWhileOff) {
  rules_->registerChainRule(kIpt, kCp, L3::VrfName("red"), kIn, Zov::String("INPUT"),
                            Zov::String("a"), 2, Zov::String("-j A\n"), Zov::String("two"),
                            Zov::String("three"), true, {});
  EXPECT_EQ(rules_->renderCalls(),
            "register ipt=0 acl=0 vrf=\"red\" dir=0 chain=\"INPUT\" owner=\"a\" seq=2 "
            "rule=\"-j A\\n\" text2=\"two\" text3=\"three\" flag=true\n");
  rules_->callLogIs(false);
  put(kIpt, kIn, "red", "INPUT", "a", 0, "-j A\n");
  EXPECT_EQ(rules_->renderCalls(), "no calls\n");
}

// The golden scenarios show the renderings of what the plugin sends; here are
// texts it never sends.
TEST_F(RuleServiceTest, IptablesOutputStaysRestorable) {
  // Out of order on purpose: chains sort bytewise, rules by owner then seq.
  put(kIpt, kIn, "red", "INPUT", "b", 0, "-j B0\n");
  put(kIpt, Acl::AclDirection::kOut, "red", "INPUT", "a", 1, "-j A1\n");
  put(kIpt, kIn, "red", "INPUT", "a", 0, "-j A0\n");
  put(kIpt, kIn, "red", "MDNS", "a", 0, "-j ACCEPT\n");
  put(kIpt, kIn, "red", "INPUT", "c", 0, "-j ACCEPT\n-j DROP\n");
  put(kIpt, kIn, "red", "INPUT", "c", 1, "\n");
  put(kIpt, kIn, "red", "IN PUT", "a", 0, "-j ACCEPT\n");
  put(Acl::IptablesType::kIp6tables, kIn, "red", "INPUT", "a", 0, "-j ACCEPT\n");
  // A text without its trailing newline is written as it stands.
  put(kIpt, kIn, "red", "OUTPUT", "a", 0, "-j \"q\\\"");

  EXPECT_EQ(renderIptables(rules_->rules()),
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
            "-A OUTPUT -j \"q\\\"\n"
            "COMMIT\n"
            "# vrf \"red\" ipt=1 acl=0\n"
            "*filter\n"
            "-A INPUT -j ACCEPT\n"
            "COMMIT\n");
}

// The service against the plainest model of its contract, over random calls:
// every finish must tell the same "changed" and leave the same rules, however
// the batches' calls mix, repeat and come back, and a VRF dropped now and
// then (its namespace went) loses every rule and staged call of it. Names are
// sometimes the same objects from call to call and sometimes equal copies,
// as plugins send them.
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
  auto owner = [&](const Zov::String& o) { return pick(4) ? o : Zov::String(o.str()); };

  constexpr int kSteps = 40000;  // one call a step
  int drops = 0;
  for (int step = 0; step < kSteps; ++step) {
    const auto ipt = static_cast<Acl::IptablesType>(pick(2));
    const int v = pick(3), c = pick(2);
    if (pick(200) == 0) {
      const bool stood = std::erase_if(model.rules, [&](const auto& rule) {
                           return rule.first.vrf == vrfs[v];
                         }) > 0;
      std::erase_if(model.staged,
                    [&](const auto& batch) { return std::get<2>(batch.first) == vrfs[v].str(); });
      model.finishes.erase(vrfs[v].str());
      ++drops;
      ASSERT_EQ(rules->vrfRulesDel(vrf(v)), stood) << "step " << step;
      ASSERT_TRUE(rules->rules() == model.rules) << "step " << step;
      continue;
    }
    const Batch batch{ipt, Acl::AclType::kControlPlane, vrfs[v].str(), chains[c].str()};
    const RuleKey key{ipt, Acl::AclType::kControlPlane, vrfs[v],
                      static_cast<Acl::AclDirection>(pick(2)), chains[c], owners[pick(2)],
                      // In "blue", more keys than the service keeps empty.
                      static_cast<unsigned>(v == 2 ? pick(40) : pick(3))};
    const int what = pick(10);
    if (what < 4) {
      // Every field of a registration counts, not just its text.
      Rule rule{texts[pick(2)], pick(8) ? Zov::String() : texts[0],
                pick(8) ? Zov::String() : texts[1], pick(8) == 0,
                pick(8) ? Acl::UniqueId() : Acl::UniqueId(1, 2)};
      rules->registerChainRule(key.iptablesType, key.aclType, vrf(v), key.direction, chain(c),
                               owner(key.owner), key.sequence, rule.text, rule.text2, rule.text3,
                               rule.flag, rule.uniqueId);
      model.staged[batch].insert_or_assign(key, rule);
    } else if (what < 7) {
      rules->unregisterChainRule(key.iptablesType, key.aclType, vrf(v), key.direction, chain(c),
                                 owner(key.owner), key.sequence);
      model.staged[batch].insert_or_assign(key, std::nullopt);
    } else {
      bool changed = false;
      for (auto& [staged, rule] : model.staged[batch]) {
        auto standing = model.rules.find(staged);
        if (!rule) {
          changed |= model.rules.erase(staged) > 0;
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
  EXPECT_EQ(rules->calls(), static_cast<std::uint64_t>(kSteps - drops));
  EXPECT_FALSE(model.rules.empty()) << "the run should leave rules standing";
  EXPECT_GT(drops, 100) << "the run should drop VRFs often";
}

}  // namespace
}  // namespace AclAgent

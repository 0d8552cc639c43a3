// The agent in live mode with --apply, fake-iptables.sh standing in for the
// iptables programs: `ready` means that the first refresh is in place, and a
// daemon keeps no log of its calls. Live mode follows the test's own network
// namespace (it only reads it) and an empty folder of namespaces, so no root
// is needed. The loop runs on the wall clock, as a live agent's does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "agent/host/Agent.h"
#include "tests/agent/WallClockFixture.h"
#include "tests/agent/backend/iptables/FakeIptables.h"
#include "tests/platform/PlatformTesting.h"

namespace AclAgent {
namespace {

using ::testing::HasSubstr;

class AgentLiveTest : public WallClockFixture {
 protected:
  void TearDown() override {
    agent_.reset();
    WallClockFixture::TearDown();
    EXPECT_EQ(loop_->workInFlight(), 0u);
  }

  // A live agent with the gateway on, so that VRF default must hold a rule
  // whatever the links.
  Agent& start() {
    const BackendOptions options = fake_.options();
    agent_ = std::make_unique<Agent>(std::vector<std::string>{MCASTDNS_ACL_PLUGIN_PATH}, options,
                                     errors_);
    agent_->stateDatabase().gatewayEnabledIs(true);
    agent_->stateDatabase().gatewaySettingIs(5353);
    agent_->readyListenerIs([this] { ++readies_; });
    agent_->liveIs({}, options.namespaces);
    return *agent_;
  }
  void modeIs(const std::string& what, const std::string& mode) { fake_.modeIs(what, mode); }

  FakeIptables fake_;
  const std::string& dir_ = fake_.dir();
  std::ostringstream errors_;
  std::unique_ptr<Agent> agent_;
  int readies_ = 0;
};

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

TEST_F(AgentLiveTest, AFirstRefreshThatCannotBeWrittenIsReportedAndReadyWaitsUntilItIsInPlace) {
  const std::string why = "Fatal: cannot open lock file /run/xtables.lock: Permission denied";
  modeIs("restore", "fail " + why);
  Agent& agent = start();
  const std::string notReady = "acl-agent: not ready: vrf \"default\": ";
  ASSERT_TRUE(runUntil([&] {
    return readies_ > 0 || errors_.str().find(notReady) != std::string::npos;
  })) << errors_.str();
  EXPECT_EQ(readies_, 0);
  EXPECT_FALSE(agent.ready());
  EXPECT_THAT(errors_.str(), HasSubstr(notReady + dir_ + "/restore failed: " + why + "\n"));

  // The retries go on; the first that succeeds makes the agent ready, and
  // the report was made once.
  modeIs("restore", "ok");
  ASSERT_TRUE(runUntil([&] { return readies_ > 0; })) << errors_.str();
  EXPECT_EQ(readies_, 1);
  EXPECT_TRUE(agent.notApplied().empty());
  EXPECT_EQ(occurrences(errors_.str(), "not ready"), 1u) << errors_.str();
}

TEST_F(AgentLiveTest, LiveModeKeepsNoCallLogAndShowCallsSaysSo) {
  Agent& agent = start();
  ASSERT_TRUE(runUntil([&] { return readies_ > 0; })) << errors_.str();
  EXPECT_GT(agent.ruleService().calls(), 0u);
  EXPECT_TRUE(agent.ruleService().unshownCalls().empty());
  std::ostringstream out;
  EXPECT_EQ(ZovTesting::whatOf<std::runtime_error>([&] {
              agent.run(Command{1, ShowCmd{ShowWhat::kCalls}}, out);
            }),
            "show calls: the call log is off in live mode");
  EXPECT_EQ(out.str(), "");
}

// A reload's configuration: what changed is written in one turn and the
// plugins refresh once for it; what did not change makes no refresh at all.
// The plugin refreshes 10 ms after a change, on a timer of the loop: turning
// the loop until a timer due later has fired has run any refresh due before.
TEST_F(AgentLiveTest, AChangedLiveConfigurationIsOneRefreshAndAnUnchangedOneNone) {
  Agent& agent = start();
  ASSERT_TRUE(runUntil([&] { return readies_ > 0; })) << errors_.str();
  // Each refresh of the plugin finishes VRF default twice: its multicast DNS
  // rule and its gateway rule.
  const auto refreshes = [&] { return agent.ruleService().finishes(L3::VrfName("default")) / 2; };
  const auto pastRefreshWindow = [&] { runFor(200'000'000); };
  pastRefreshWindow();
  const std::uint64_t before = refreshes();

  EXPECT_TRUE(agent.liveConfigIs(std::nullopt, {"v-*"}, 60'000'000'000));
  pastRefreshWindow();
  EXPECT_EQ(refreshes(), before + 1);

  EXPECT_FALSE(agent.liveConfigIs(std::nullopt, {"v-*"}, 60'000'000'000));
  pastRefreshWindow();
  EXPECT_EQ(refreshes(), before + 1);
  EXPECT_TRUE(runUntil([&] { return loop_->workInFlight() == 0; }));
}

}  // namespace
}  // namespace AclAgent

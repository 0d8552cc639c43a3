// The kernel's links, interfaces and VRFs as the state database holds them,
// and what the plugin makes of them, without a kernel: link messages are fed
// to KernelState by hand, on the virtual clock.
#include "agent/KernelState.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include "agent/Agent.h"

namespace AclAgent {
namespace {

constexpr unsigned kUp = IFF_UP | IFF_RUNNING | IFF_MULTICAST;
constexpr Pell::Nanoseconds kRefreshDelay = 10'000'000;

class KernelStateTest : public ::testing::Test {
 protected:
  KernelStateTest() {
    agent_.run(Command{1, LoadCmd{}}, out_);
    loop_->settle();
  }
  ~KernelStateTest() override { loop_->settle(); }

  std::string state() { return agent_.stateDatabase().stateText(); }
  std::string rules() { return agent_.ruleService().renderRules(); }
  // The finishes for `vrf` that changed what stands there.
  unsigned changes(const std::string& vrf) const {
    return changes_.count(vrf) ? changes_.at(vrf) : 0;
  }
  void watchFinishes() {
    agent_.ruleService().finishListenerIs([this](const L3::VrfName& vrf, bool changed) {
      ++finishes_[vrf.str()];
      if (changed) ++changes_[vrf.str()];
    });
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  Agent agent_{{MCASTDNS_ACL_PLUGIN_PATH}};
  KernelState kernel_{agent_.stateDatabase(), {"eth*", "v-*"}};
  std::ostringstream out_;
  std::map<std::string, unsigned> finishes_;
  std::map<std::string, unsigned> changes_;
};

TEST_F(KernelStateTest, AnInterfaceIsNamedByItsVrfAndItsLinkFollowsUpRunningMulticastAndTheGlobs) {
  kernel_.vrfIs("red");
  kernel_.linkIs("default", 1, {"lo", IFF_UP | IFF_RUNNING | IFF_LOOPBACK});
  kernel_.linkIs("default", 2, {"eth0", kUp});
  kernel_.linkIs("red", 2, {"eth0", IFF_UP | IFF_MULTICAST});  // not running
  kernel_.linkIs("red", 3, {"wlan0", kUp});                    // matches no glob
  EXPECT_EQ(state(),
            "config gateway-enabled false\nconfig gateway-setting 0\n"
            "link set \"eth0\"#0 1\nlink set \"red/eth0\"#0 0\nlink set \"red/wlan0\"#0 0\n"
            "intf set \"eth0\" \"default\"\nintf set \"red/eth0\" \"red\"\n"
            "intf set \"red/wlan0\" \"red\"\n"
            "vrf add global \"default\"\nvrf add global \"red\"\n");
}

// A message that changes nothing the database holds arms no refresh.
TEST_F(KernelStateTest, OnlyDifferencesAreWritten) {
  kernel_.linkIs("default", 2, {"eth0", kUp});
  loop_->settle();
  kernel_.linkIs("default", 2, {"eth0", kUp});
  kernel_.linkIs("default", 2, {"eth0", kUp | IFF_BROADCAST});  // a flag nobody reads
  kernel_.dumpBegin("default");
  kernel_.linkIs("default", 2, {"eth0", kUp});
  kernel_.dumpEnd("default");
  EXPECT_EQ(loop_->armedTasks(), 0u);
}

TEST_F(KernelStateTest, RenamesMovesAndVanishedNamespacesTakeTheirInterfacesWithThem) {
  kernel_.vrfIs("red");
  kernel_.vrfIs("blue");
  kernel_.linkIs("red", 5, {"v-a", kUp});
  loop_->advance(kRefreshDelay);
  EXPECT_NE(rules().find("vrf=\"red\""), std::string::npos);

  // Renamed: the old interface goes, the new one comes.
  kernel_.linkIs("red", 5, {"x-a", kUp});
  EXPECT_EQ(state().find("red/v-a"), std::string::npos);
  EXPECT_NE(state().find("link set \"red/x-a\"#0 0"), std::string::npos);
  // Moved to blue and renamed back into the globs.
  kernel_.linkDel("red", 5);
  kernel_.linkIs("blue", 9, {"v-a", kUp});
  loop_->advance(kRefreshDelay);
  EXPECT_EQ(rules().find("vrf=\"red\""), std::string::npos);
  EXPECT_NE(rules().find("vrf=\"blue\""), std::string::npos);

  // Blue's namespace went; a full dump of red that misses a link drops it.
  kernel_.linkIs("red", 6, {"v-b", kUp});
  kernel_.vrfDel("blue");
  kernel_.dumpBegin("red");
  kernel_.dumpEnd("red");
  EXPECT_EQ(state(),
            "config gateway-enabled false\nconfig gateway-setting 0\n"
            "vrf add global \"default\"\nvrf add global \"red\"\n");
}

// A thousand flaps before the refresh is due cost one refresh, and what
// stands changes at most once per VRF.
TEST_F(KernelStateTest, ABurstOfFlapsEndsInOneRefresh) {
  kernel_.vrfIs("red");
  kernel_.linkIs("red", 2, {"v-red", 0});
  loop_->settle();
  watchFinishes();
  for (int i = 0; i < 1000; ++i) {
    kernel_.linkIs("red", 2, {"v-red", i % 2 ? 0u : kUp});
    loop_->advance(kRefreshDelay / 1000 - 1);
  }
  kernel_.linkIs("red", 2, {"v-red", kUp});
  loop_->settle();
  EXPECT_EQ(finishes_["red"], 1u);
  EXPECT_EQ(changes("red"), 1u);
  EXPECT_EQ(changes("default"), 0u);
  EXPECT_NE(rules().find("vrf=\"red\""), std::string::npos);
  agent_.ruleService().finishListenerIs(nullptr);
}

}  // namespace
}  // namespace AclAgent

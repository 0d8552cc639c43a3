// The kernel's links, interfaces and VRFs as the state database holds them,
// without a kernel: link messages are fed to KernelState by hand, with the
// plugin loaded so that a needless write would arm its refresh.
#include "agent/live/KernelState.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include "agent/host/Agent.h"

namespace AclAgent {
namespace {

constexpr unsigned kUp = IFF_UP | IFF_RUNNING | IFF_MULTICAST;

class KernelStateTest : public ::testing::Test {
 protected:
  KernelStateTest() {
    agent_.run(Command{1, LoadCmd{}}, out_);
    loop_->settle();
  }
  ~KernelStateTest() override { loop_->settle(); }

  std::string state() { return agent_.stateDatabase().stateText(); }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  Agent agent_{{MCASTDNS_ACL_PLUGIN_PATH}};
  KernelState kernel_{agent_.stateDatabase(), {"eth*", "v-*"}};
  std::ostringstream out_;
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

// Renames, moves and namespaces that go are followed in live-kernel-test.sh;
// a full dump that misses a link is not something the kernel shows on demand.
TEST_F(KernelStateTest, LinksAFullDumpMissesAreWithdrawn) {
  kernel_.vrfIs("red");
  kernel_.linkIs("red", 6, {"v-b", kUp});
  kernel_.dumpBegin("red");
  kernel_.dumpEnd("red");
  EXPECT_EQ(state(),
            "config gateway-enabled false\nconfig gateway-setting 0\n"
            "vrf add global \"default\"\nvrf add global \"red\"\n");
}

}  // namespace
}  // namespace AclAgent

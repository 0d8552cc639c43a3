// A link monitor on the agent's own namespace, fed by hand the closing
// message of a dump the kernel marked interrupted. Churn makes the kernel
// mark dumps so (live-churn-kernel-test.sh), but a kernel that resumes a
// link dump by index skips no link, so a monitor that ignored the mark would
// go unseen there.
#include "agent/live/LinkMonitor.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>

namespace AclAgent {
namespace {

TEST(LinkMonitorTest, AnInterruptedDumpIsMadeAgainAndOnlyAWholeOneEnds) {
  Zov::Ptr<Pell::TaskSchedulerRoot> loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  int begun = 0;
  int ended = 0;
  LinkMonitor::Handlers handlers;
  handlers.dumpBegin = [&] { ++begun; };
  handlers.dumpEnd = [&] { ++ended; };
  LinkMonitor monitor(*loop, "", std::move(handlers));

  alignas(nlmsghdr) char buffer[NLMSG_SPACE(sizeof(int))] = {};
  auto* done = reinterpret_cast<nlmsghdr*>(buffer);
  done->nlmsg_len = NLMSG_LENGTH(sizeof(int));
  done->nlmsg_type = NLMSG_DONE;
  done->nlmsg_flags = NLM_F_MULTI | NLM_F_DUMP_INTR;
  done->nlmsg_seq = monitor.sequence();
  done->nlmsg_pid = monitor.portId();
  monitor.handleMessages(buffer, done->nlmsg_len);
  EXPECT_EQ(ended, 0) << "an interrupted dump must not end as a whole one";
  EXPECT_TRUE(monitor.dumping());

  // The kernel's own answers to the first dump come, then the second dump
  // is asked for and runs whole. The bound only keeps a failure from hanging.
  for (int i = 0; i < 300 && (monitor.dumps() < 2 || monitor.dumping()); ++i) {
    loop->pollFds(100'000'000);
  }
  EXPECT_EQ(monitor.dumps(), 2u);
  EXPECT_FALSE(monitor.dumping());
  EXPECT_EQ(begun, 2);
  EXPECT_EQ(ended, 1);
}

}  // namespace
}  // namespace AclAgent

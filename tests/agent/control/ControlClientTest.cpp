// `acl-agent ctl` against sockets where no agent answers: one that takes the
// connection and never answers, and one whose listen queue is full. Each
// wait ends at --timeout with exit 2 and says why.
#include "agent/control/ControlClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/agent/TestFolder.h"

namespace AclAgent {
namespace {

using ::testing::HasSubstr;

class ControlClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int fd : fds_) close(fd);
  }

  sockaddr_un address() const {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, path_.data(), path_.size());
    return a;
  }

  // A socket at the path that listens with `backlog` and never accepts.
  void listenNeverAccepting(int backlog) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    fds_.push_back(fd);
    const sockaddr_un a = address();
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(fd, backlog), 0);
  }

  // Runs `acl-agent ctl` with ARGS; its standard error in `err_`.
  int ctl(std::vector<std::string> args) {
    std::vector<char*> argv = argvOf(args);
    ::testing::internal::CaptureStderr();
    const int status = runControlClient(static_cast<int>(args.size()), argv.data());
    err_ = ::testing::internal::GetCapturedStderr();
    return status;
  }

  TestFolder folder_{"acl-ctl-test"};
  const std::string path_ = folder_.path() + "/control";
  std::vector<int> fds_;
  std::string err_;
};

TEST_F(ControlClientTest, AnAgentThatNeverAnswersIsNoAgent) {
  listenNeverAccepting(8);
  EXPECT_EQ(ctl({"--control", path_, "--timeout", "1", "show", "applied"}), 2);
  EXPECT_EQ(err_, "acl-agent ctl: the agent at \"" + path_ + "\" did not answer within 1 s\n");
}

TEST_F(ControlClientTest, AFullListenQueueIsNoAgent) {
  listenNeverAccepting(0);
  // The one connection the queue holds.
  const int first = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(first, 0);
  fds_.push_back(first);
  const sockaddr_un a = address();
  ASSERT_EQ(connect(first, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
  EXPECT_EQ(ctl({"--control", path_, "--timeout=1", "show", "applied"}), 2);
  EXPECT_THAT(err_, HasSubstr("no agent answers at \"" + path_ +
                              "\": it did not take the connection within 1 s"));
}

TEST_F(ControlClientTest, ATimeoutThatIsNotWholeSecondsIsAUsageError) {
  for (const char* bad : {"0", "1.5", "", "-1", "86401", "999999999999"}) {
    EXPECT_EQ(ctl({"--timeout", bad, "show", "applied"}), 2) << bad;
    EXPECT_THAT(err_, HasSubstr("not a whole number of seconds from 1 to 86400")) << bad;
  }
}

}  // namespace
}  // namespace AclAgent

// What the service manager hears: datagrams to a socket the test owns, at a
// path and at an abstract name (`@`), STATUS= only when it changes, a send
// that fails reported once, and WATCHDOG=1 from the loop at half the
// period. Nothing is sent without NOTIFY_SOCKET.
#include "agent/service/ServiceNotifier.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>

#include "tests/agent/WallClockFixture.h"

namespace AclAgent {
namespace {

class ServiceNotifierTest : public WallClockFixture {
 protected:
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
    WallClockFixture::TearDown();
  }

  // A datagram socket bound at `name` ("@..." abstract), which NOTIFY_SOCKET
  // names from now on.
  void listenAt(const std::string& name) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd_, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
      address.sun_path[0] = '\0';
    else
      path_ = name;
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0) << std::strerror(errno);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  // The next datagram, if one is waiting.
  std::optional<std::string> received() {
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0) return std::nullopt;
    return std::string(buffer, static_cast<std::size_t>(n));
  }

  std::ostringstream errors_;
  int fd_ = -1;
  std::string path_;
};

TEST_F(ServiceNotifierTest, DatagramsReachAPathAndAnAbstractName) {
  for (const std::string& name : {"/tmp/notify-test-" + std::to_string(getpid()),
                                  "@notify-test-" + std::to_string(getpid())}) {
    listenAt(name);
    ServiceNotifier notifier(loop_, errors_);
    EXPECT_TRUE(notifier.active());
    EXPECT_TRUE(notifier.send("RELOADING=1\nMONOTONIC_USEC=1"));
    EXPECT_EQ(received(), "RELOADING=1\nMONOTONIC_USEC=1") << name;
    notifier.statusIs("starting");
    notifier.statusIs("starting");
    notifier.statusIs("1 VRFs in place, 0 not");
    EXPECT_EQ(received(), "STATUS=starting") << name;
    EXPECT_EQ(received(), "STATUS=1 VRFs in place, 0 not") << name;
    EXPECT_EQ(received(), std::nullopt) << name;
    close(fd_);
    fd_ = -1;
    if (!path_.empty()) unlink(path_.c_str());
    path_.clear();
  }
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(ServiceNotifierTest, WithoutNotifySocketNothingIsSent) {
  ServiceNotifier notifier(loop_, errors_);
  EXPECT_FALSE(notifier.active());
  EXPECT_FALSE(notifier.send("READY=1"));
  EXPECT_EQ(notifier.watchdogPeriod(), 0);
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(ServiceNotifierTest, ASendThatFailsIsReportedOnce) {
  setenv("NOTIFY_SOCKET", "/nonexistent/notify", 1);
  ServiceNotifier notifier(loop_, errors_);
  EXPECT_FALSE(notifier.send("READY=1"));
  EXPECT_FALSE(notifier.send("STOPPING=1"));
  EXPECT_EQ(errors_.str(),
            "acl-agent: warning: cannot tell the service manager \"READY=1\": "
            "No such file or directory\n");
}

TEST_F(ServiceNotifierTest, TheWatchdogIsFedAtHalfThePeriodForThisProcessOnly) {
  listenAt("@notify-test-watchdog-" + std::to_string(getpid()));
  setenv("WATCHDOG_USEC", "40000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
  EXPECT_EQ(ServiceNotifier(loop_, errors_).watchdogPeriod(), 0);
  unsetenv("WATCHDOG_PID");

  ServiceNotifier notifier(loop_, errors_);
  EXPECT_EQ(notifier.watchdogPeriod(), 20'000'000);
  int fed = 0;
  EXPECT_TRUE(runUntil([&] {
    while (std::optional<std::string> datagram = received()) {
      EXPECT_EQ(*datagram, "WATCHDOG=1");
      ++fed;
    }
    return fed >= 3;
  }));
  EXPECT_GE(fed, 3);
  EXPECT_EQ(errors_.str(), "");
}

}  // namespace
}  // namespace AclAgent

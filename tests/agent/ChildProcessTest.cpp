// ChildProcess: what a child starts with, and a child that cannot run its
// program. Its output, its end, its timeout and the backend's use of it are
// tested through the iptables backend (IptablesBackendTest.cpp).
#include "agent/ChildProcess.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace AclAgent {
namespace {

using ::testing::Contains;
using ::testing::Not;

constexpr Pell::Nanoseconds kTimeout = 5'000'000'000;

// A field of /proc/<pid>/status as printed by `cat /proc/self/status`: a
// signal set, as a number.
std::uint64_t signalField(const std::string& status, const std::string& field) {
  std::istringstream lines(status);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(field + ":", 0) == 0)
      return std::stoull(line.substr(field.size() + 1), nullptr, 16);
  }
  ADD_FAILURE() << "no " << field << " in\n" << status;
  return 0;
}

std::string ownStatus() {
  std::ifstream in("/proc/self/status");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

constexpr std::uint64_t bit(int sig) {
  return std::uint64_t{1} << (sig - 1);
}

TEST(ChildProcessTest, TheChildGetsBackItsSignalsAndNoneOfTheAgentsDescriptors) {
  // As the live agent has it: SIGTERM blocked (it is read from a signalfd);
  // and a handler, and signals ignored.
  sigset_t term, mask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &term, &mask), 0);
  struct sigaction handler {
  }, usr1{}, pipe{}, usr2{};
  handler.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &handler, &usr1);
  handler.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &handler, &pipe);
  ::sigaction(SIGUSR2, &handler, &usr2);
  const int devNull = ::open("/dev/null", O_RDONLY);
  const int stray = ::fcntl(devNull, F_DUPFD, 100);  // not close-on-exec
  ::close(devNull);
  ASSERT_GE(stray, 100);
  const std::uint64_t ignored = signalField(ownStatus(), "SigIgn");

  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  std::optional<ChildResult> status;
  std::string error;
  auto child = ChildProcess::start(
      loop, {"cat", {"/proc/self/status"}, -1, ""}, kTimeout,
      [&](ChildResult result) { status = std::move(result); }, &error);
  ASSERT_TRUE(child) << error;
  ASSERT_TRUE(loop->settle());
  const ChildResult fds = ChildProcess::run({"ls", {"/proc/self/fd"}, -1, ""}, kTimeout);

  sigset_t now;
  ::pthread_sigmask(SIG_SETMASK, &mask, &now);
  ::sigaction(SIGUSR1, &usr1, nullptr);
  ::sigaction(SIGPIPE, &pipe, nullptr);
  ::sigaction(SIGUSR2, &usr2, nullptr);
  ::close(stray);

  // The agent's own mask is as it was.
  EXPECT_TRUE(sigismember(&now, SIGTERM));
  EXPECT_FALSE(sigismember(&now, SIGUSR1));
  ASSERT_TRUE(status && status->ok()) << (status ? status->err : "no end");
  EXPECT_EQ(signalField(status->out, "SigBlk"), 0u);
  // Ignored signals stay ignored, but for those a program expects on their
  // default action.
  const std::uint64_t takenBack =
      bit(SIGPIPE) | bit(SIGINT) | bit(SIGTERM) | bit(SIGHUP) | bit(SIGQUIT) | bit(SIGCHLD);
  EXPECT_EQ(signalField(status->out, "SigIgn"), ignored & ~takenBack);
  EXPECT_NE(ignored & bit(SIGUSR2), 0u);
  EXPECT_NE(ignored & bit(SIGPIPE), 0u);

  ASSERT_TRUE(fds.ok()) << fds.failure << fds.err;
  std::vector<std::string> open;
  std::istringstream lines(fds.out);
  for (std::string line; std::getline(lines, line);) open.push_back(line);
  EXPECT_THAT(open, Contains("2"));
  EXPECT_THAT(open, Not(Contains(std::to_string(stray))));
}

TEST(ChildProcessTest, AChildThatCannotRunItsProgramOrEnterItsNamespaceEndsSayingWhy) {
  char folder[] = "/tmp/acl-child-XXXXXX";
  ASSERT_NE(::mkdtemp(folder), nullptr);
  // Not executable, even by root.
  const std::string notProgram = std::string(folder) + "/not-a-program";
  std::ofstream(notProgram) << "#!/bin/sh\n";
  ::chmod(notProgram.c_str(), 0644);
  const int notNamespace = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(notNamespace, 0);

  struct Case {
    ChildCommand command;
    std::string failure;
  };
  const Case cases[] = {
      {{notProgram, {}, -1, ""}, "cannot run \"" + notProgram + "\": Permission denied"},
      {{"true", {}, notNamespace, ""}, "cannot enter the network namespace: Invalid argument"},
  };
  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  for (const Case& c : cases) {
    std::optional<ChildResult> ended;
    std::string error;
    auto child = ChildProcess::start(
        loop, c.command, kTimeout, [&](ChildResult result) { ended = std::move(result); }, &error);
    ASSERT_TRUE(child) << error;
    EXPECT_EQ(loop->workInFlight(), 1u);
    ASSERT_TRUE(loop->settle());
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->failure, c.failure);
    EXPECT_FALSE(ended->ok());
    EXPECT_EQ(loop->fdWatches(), 0u);

    EXPECT_EQ(ChildProcess::run(c.command, kTimeout).failure, c.failure);
  }
  ::close(notNamespace);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace AclAgent

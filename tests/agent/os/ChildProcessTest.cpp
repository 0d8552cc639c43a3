// ChildProcess: what a child starts with, and a child that cannot run its
// program. Its output, its end, its timeout and the backend's use of it are
// tested through the iptables backend (IptablesBackendTest.cpp).
#include "agent/os/ChildProcess.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <sstream>

namespace AclAgent {
namespace {

using ::testing::HasSubstr;
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

TEST(ChildProcessTest, TheChildGetsBackItsSignalsAndNoneOfTheAgentsDescriptors) {
  // As the live agent has it: SIGTERM blocked (it is read from a signalfd),
  // and signals ignored.
  sigset_t term, mask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &term, &mask), 0);
  struct sigaction ignore {
  }, pipe{}, usr2{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &pipe);
  ::sigaction(SIGUSR2, &ignore, &usr2);
  const int devNull = ::open("/dev/null", O_RDONLY);
  const int stray = ::fcntl(devNull, F_DUPFD, 100);  // not close-on-exec
  ::close(devNull);
  ASSERT_GE(stray, 100);

  // start() and run() launch a child alike.
  const ChildResult status = ChildProcess::run({"cat", {"/proc/self/status"}, -1, ""}, kTimeout);
  const ChildResult fds = ChildProcess::run({"ls", {"/proc/self/fd"}, -1, ""}, kTimeout);

  sigset_t now;
  ::pthread_sigmask(SIG_SETMASK, &mask, &now);
  ::sigaction(SIGPIPE, &pipe, nullptr);
  ::sigaction(SIGUSR2, &usr2, nullptr);
  ::close(stray);

  // The agent's own mask is as it was.
  EXPECT_TRUE(sigismember(&now, SIGTERM));
  EXPECT_FALSE(sigismember(&now, SIGUSR2));
  ASSERT_TRUE(status.ok()) << status.failure << status.err;
  EXPECT_EQ(signalField(status.out, "SigBlk"), 0u);
  // Ignored signals stay ignored, but for those a program expects on their
  // default action, such as SIGPIPE.
  const std::uint64_t childIgnores = signalField(status.out, "SigIgn");
  EXPECT_NE(childIgnores & (1u << (SIGUSR2 - 1)), 0u);
  EXPECT_EQ(childIgnores & (1u << (SIGPIPE - 1)), 0u);

  ASSERT_TRUE(fds.ok()) << fds.failure << fds.err;
  EXPECT_THAT("\n" + fds.out, HasSubstr("\n2\n"));
  EXPECT_THAT("\n" + fds.out, Not(HasSubstr("\n" + std::to_string(stray) + "\n")));
}

TEST(ChildProcessTest, AChildThatCannotRunItsProgramEndsSayingWhy) {
  // --remove-applied runs its children with run(); the backend's tests meet
  // the same through start(), a namespace that cannot be entered included.
  EXPECT_EQ(ChildProcess::run({"/dev/null", {}, -1, ""}, kTimeout).failure,
            "cannot run \"/dev/null\": Permission denied");
}

TEST(ChildProcessTest, WhatAChildPrintsIsKeptBounded) {
  const auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  ChildResult flooded;
  std::string error;
  auto child = ChildProcess::start(
      loop, {"yes", {}, -1, ""}, kTimeout, [&](ChildResult result) { flooded = std::move(result); },
      &error);
  ASSERT_TRUE(child) << error;
  ASSERT_TRUE(loop->settle());
  EXPECT_TRUE(flooded.outTooLong);
  EXPECT_FALSE(flooded.timedOut);
  EXPECT_EQ(flooded.out.size(), ChildProcess::kMaxOut);
  EXPECT_EQ(flooded.whyFailed("yes", kTimeout, ""), "yes printed more than 64 MiB and was killed");
  EXPECT_TRUE(ChildProcess::run({"yes", {}, -1, ""}, kTimeout).outTooLong);

  // Of standard error, the end, from a line's start.
  const ChildResult errors = ChildProcess::run({"sh", {"-c", "seq 1000000 >&2"}, -1, ""}, kTimeout);
  ASSERT_TRUE(errors.ok()) << errors.failure;
  EXPECT_LE(errors.err.size(), ChildProcess::kErrTail);
  EXPECT_GT(errors.err.size(), ChildProcess::kErrTail / 2);
  EXPECT_TRUE(errors.err.ends_with("\n999999\n1000000\n"));
  const std::size_t first = std::stoul(errors.err);
  EXPECT_TRUE(errors.err.starts_with(std::to_string(first) + "\n" + std::to_string(first + 1)));
}

}  // namespace
}  // namespace AclAgent

// The iptables backend's faults that the real programs cannot show on demand,
// with fake-iptables.sh standing in for iptables-save and iptables-restore, on
// the loop's virtual clock. What it does to the real kernel, rules that
// iptables-restore refuses included, is tested in IptablesKernelTest.cpp.
#include "agent/backend/Backend.h"
#include "tests/agent/backend/iptables/FakeIptables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace AclAgent {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using State = VrfStatus::State;

constexpr Pell::Nanoseconds kMs = 1'000'000;
const std::string kMdns = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT";
const std::string kGateway = "-p tcp --dport 8853 -j ACCEPT";
const std::string kApplyDefault = "acl-agent: apply vrf \"default\": ";

class IptablesBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    options_ = fake_.options();
    options_.childTimeout = 2'000 * kMs;
  }
  void TearDown() override {
    backend_.reset();
    EXPECT_EQ(loop_->workInFlight(), 0u);
    EXPECT_EQ(loop_->armedTasks(), 0u);
    EXPECT_EQ(loop_->fdWatches(), 0u);
  }

  Backend& backend() {
    if (!backend_) backend_ = makeBackend(loop_, options_, errors_);
    return *backend_;
  }
  void settle() { ASSERT_TRUE(loop_->settle()); }
  // VRF default is to hold `rules`; returns once the loop has settled.
  void rulesIs(const ChainRules& rules) {
    backend().vrfRulesIs("default", rules);
    settle();
  }
  // Moves the virtual clock on by `delay` and settles what became due.
  void advance(Pell::Nanoseconds delay) {
    loop_->advance(delay);
    settle();
  }
  // Runs the loop until no child runs, or fails, saying what it saw, once
  // `seconds` of real time have gone by: a child that is never killed must
  // fail the test, not hang it.
  void settleWithin(int seconds) {
    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec due{};
    due.it_value.tv_sec = seconds;
    ASSERT_EQ(::timerfd_settime(timer, 0, &due, nullptr), 0);
    bool late = false;
    {
      Pell::FdWatch deadline(*loop_, timer, [&] { late = true; });
      loop_->runUntil([&] { return late || loop_->workInFlight() == 0; });
    }
    ::close(timer);
    ASSERT_FALSE(late) << "a child still runs after " << seconds << " s; errors:\n"
                       << errors_.str() << "runs:\n"
                       << file("log");
    settle();
  }
  // How the fake's next runs of `what` ("save" or "restore") behave.
  void modeIs(const std::string& what, const std::string& mode) { fake_.modeIs(what, mode); }
  std::string file(const std::string& name) const { return fake_.file(name); }
  int runs(const std::string& what) const { return fake_.runs(what); }
  std::string restoreInput(int n) const { return file("restore." + std::to_string(n)); }
  VrfStatus status(const std::string& vrf) {
    for (const auto& s : backend().statuses()) {
      if (s.vrf == vrf) return s;
    }
    ADD_FAILURE() << "no VRF " << vrf;
    return {};
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  FakeIptables fake_;
  const std::string& dir_ = fake_.dir();
  BackendOptions options_;
  std::ostringstream errors_;
  std::unique_ptr<Backend> backend_;
};

TEST_F(IptablesBackendTest, FailedWritesAreRetriedWithADoublingDelayAndTheLatestRules) {
  const std::string why = "Fatal: can't open lock file /run/xtables.lock: Permission denied";
  const std::string failed = dir_ + "/restore failed: " + why;
  modeIs("restore", "fail " + why);
  rulesIs({{"INPUT", {kMdns}}});
  EXPECT_EQ(errors_.str(), kApplyDefault + failed + "\n");
  EXPECT_EQ(status("default").state, State::kWaiting);
  EXPECT_EQ(status("default").error, failed);

  // 100 ms, doubling, up to 30 s; nothing runs before the delay is up.
  int writes = 1;
  for (Pell::Nanoseconds delay :
       {100, 200, 400, 800, 1600, 3200, 6400, 12800, 25600, 30000, 30000}) {
    ASSERT_EQ(loop_->armedTasks(), 1u);
    EXPECT_EQ(loop_->nextDue() - loop_->now(), delay * kMs);
    advance(delay * kMs - 1);
    EXPECT_EQ(runs("restore"), writes);
    advance(1);
    EXPECT_EQ(runs("restore"), ++writes);
  }

  // New rules are tried at once; once the program works again the latest
  // rules stand, and the next failure starts again from 100 ms.
  rulesIs({{"INPUT", {kMdns, kGateway}}});
  EXPECT_EQ(runs("restore"), ++writes);
  modeIs("restore", "ok");
  advance(30'000 * kMs);
  EXPECT_EQ(status("default").state, State::kOk);
  EXPECT_THAT(restoreInput(runs("restore")), HasSubstr(kGateway));
  modeIs("restore", "fail " + why);
  rulesIs({{"INPUT", {kGateway}}});
  EXPECT_EQ(loop_->nextDue() - loop_->now(), 100 * kMs);
}

TEST_F(IptablesBackendTest, AChainWhoseOwnedChainWouldBeTooLongIsReportedOnceAndLeftOut) {
  const std::string longChain(20, 'C');  // its owned chain's name would be 29 bytes
  rulesIs({{"INPUT", {kMdns}}, {longChain, {kMdns}}});
  const std::string report = kApplyDefault + "chain \"" + longChain +
                             "\" cannot be applied: its owned chain \"ACLAGENT-" + longChain +
                             "\" would be 29 bytes, over iptables' limit of 28\n";
  EXPECT_EQ(errors_.str(), report);
  ASSERT_EQ(runs("restore"), 1);
  EXPECT_THAT(restoreInput(1), Not(HasSubstr(longChain)));
  EXPECT_EQ(status("default").state, State::kFailed);
  backend().resync();
  settle();
  EXPECT_EQ(errors_.str(), report);
}

TEST_F(IptablesBackendTest, ChildrenPastTheirTimeAreKilledAndTheReadBackRetried) {
  options_.childTimeout = 200 * kMs;
  modeIs("save", "hang");
  backend().vrfRulesIs("default", ChainRules{{"INPUT", {kMdns}}});
  settleWithin(20);
  EXPECT_EQ(errors_.str(),
            kApplyDefault + dir_ + "/save did not finish within 0.2 s and was killed\n");
  const pid_t hung = std::stoi(file("save.pid"));
  EXPECT_EQ(::kill(hung, 0), -1);  // killed and reaped
  EXPECT_EQ(errno, ESRCH);
  // What it started was killed with it: gone, or dead and not reaped yet
  // by whoever took it over.
  const std::string grandchild =
      "/proc/" + file("save.child").substr(0, file("save.child").find('\n'));
  std::string state;
  const auto goneOrDead = [&] {
    std::ifstream stat(grandchild + "/stat");
    std::string pid, name;
    return !(stat >> pid >> name >> state) || state == "Z";
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!goneOrDead() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(goneOrDead()) << grandchild << " is " << state;
  EXPECT_EQ(status("default").writes, 0u);

  modeIs("save", "ok");
  advance(100 * kMs);
  EXPECT_EQ(status("default").state, State::kOk);
  EXPECT_EQ(status("default").writes, 1u);

  // A backend that goes kills what it still runs: TearDown checks.
  modeIs("save", "hang");
  backend().resync();
  EXPECT_EQ(loop_->workInFlight(), 1u);
}

// What a resync repairs is tested against the real kernel.
TEST_F(IptablesBackendTest, TheResyncRunsEveryPeriodAndSettleDoesNotWaitForIt) {
  options_.resyncPeriod = 90'000 * kMs;
  rulesIs({{"INPUT", {kMdns}}});
  int becameIdle = 0;
  backend().idleListenerIs([&] { ++becameIdle; });
  advance(90'000 * kMs - 1);
  EXPECT_EQ(runs("save"), 2);  // the read-back, and the one that checks the write
  // While the resync reads a VRF back, it shows as it stood.
  modeIs("save", "slow 0.2");
  loop_->advance(1);
  EXPECT_FALSE(backend().idle());
  EXPECT_EQ(status("default").state, State::kOk);
  settle();
  EXPECT_TRUE(backend().idle());
  EXPECT_EQ(becameIdle, 1);
  EXPECT_EQ(runs("save"), 3);
  modeIs("save", "ok");
  advance(90'000 * kMs);
  EXPECT_EQ(runs("save"), 4);
  EXPECT_EQ(runs("restore"), 1);
}

TEST_F(IptablesBackendTest, MissingNamespacesWaitAndNamesThatCannotBeNamespacesFail) {
  const ChainRules rules{{"INPUT", {kMdns}}};
  backend().vrfRulesIs("red", rules);
  backend().vrfRulesIs("blue", ChainRules{});
  settle();
  // No rule has to stand where there is no namespace for it.
  EXPECT_EQ(status("blue").state, State::kOk);
  EXPECT_EQ(status("red").error, "no namespace");
  EXPECT_EQ(runs("save"), 0);
  EXPECT_EQ(errors_.str(), "");  // waiting is not an error

  // It is tried again as soon as the VRF is seen with its namespace there
  // (here a file that is not a namespace, which the child cannot enter).
  std::ofstream(dir_ + "/netns/red") << "";
  backend().vrfRulesIs("red", std::nullopt);
  settle();
  EXPECT_THAT(errors_.str(), StartsWith("acl-agent: apply vrf \"red\": cannot enter the network "
                                        "namespace: "));

  errors_.str("");
  for (int twice = 0; twice < 2; ++twice) {
    for (const char* name : {"", "..", "a/b"}) backend().vrfRulesIs(name, rules);
  }
  settle();
  EXPECT_EQ(errors_.str(),
            "acl-agent: apply vrf \"\": the namespace name is empty\n"
            "acl-agent: apply vrf \"..\": \"..\" is not a namespace name\n"
            "acl-agent: apply vrf \"a/b\": a namespace name cannot hold '/'\n");
  EXPECT_EQ(status("a/b").state, State::kFailed);
}

TEST_F(IptablesBackendTest, ProgramsAreLookedUpOnPathOnceAndAgainWhenMissingOrMoved) {
  // The programs by name, on a PATH whose first two folders do not hold them
  // yet.
  const std::string first = dir_ + "/bin1", second = dir_ + "/bin2";
  std::filesystem::create_directory(first);
  std::filesystem::create_directory(second);
  const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
  struct PathBack {
    std::string path;
    ~PathBack() { ::setenv("PATH", path.c_str(), 1); }
  } pathBack{path};
  ::setenv("PATH", (first + ":" + second + ":" + path).c_str(), 1);
  options_.iptablesSave = "acl-test-save";
  options_.iptablesRestore = "acl-test-restore";

  rulesIs({{"INPUT", {kMdns}}});
  EXPECT_EQ(errors_.str(), kApplyDefault + "cannot run \"acl-test-save\": not found on PATH\n");
  // Installed since: the retry finds them.
  std::filesystem::rename(dir_ + "/save", first + "/acl-test-save");
  std::filesystem::rename(dir_ + "/restore", first + "/acl-test-restore");
  advance(100 * kMs);
  EXPECT_EQ(status("default").state, State::kOk);

  // Moved to another folder on PATH: the file found before is gone, which
  // is reported, and the retry finds it where it is now.
  std::filesystem::rename(first + "/acl-test-restore", second + "/acl-test-restore");
  errors_.str("");
  rulesIs({{"INPUT", {kGateway}}});
  EXPECT_EQ(errors_.str(),
            kApplyDefault + "cannot run \"acl-test-restore\": No such file or directory\n");
  advance(100 * kMs);
  EXPECT_EQ(status("default").state, State::kOk);
  EXPECT_EQ(runs("restore"), 2);
  EXPECT_THAT(restoreInput(2), HasSubstr(kGateway));
  EXPECT_EQ(status("default").writes, 3u);  // the one that could not run included
}

TEST_F(IptablesBackendTest, AtMostMaxChildrenAndOneChildPerVrfWithItsLatestRules) {
  if (::geteuid() != 0) GTEST_SKIP() << "entering a network namespace (our own) needs root";
  options_.maxJobs = 2;
  modeIs("save", "slow 0.1");
  for (int i = 1; i <= 5; ++i) {
    ASSERT_EQ(::symlink("/proc/self/ns/net", (dir_ + "/netns/v" + std::to_string(i)).c_str()), 0);
    backend().vrfRulesIs(
        "v" + std::to_string(i),
        ChainRules{{"INPUT", {"-p tcp --dport " + std::to_string(i) + " -j ACCEPT"}}});
  }
  // The five share the fake's one table, so the read-back that checks one
  // write may find another's: only the jobs started are judged here.
  // v1 is being read back: its write, after that, has these rules.
  backend().vrfRulesIs("v1", ChainRules{{"INPUT", {"-p tcp --dport 1001 -j ACCEPT"}}});
  settle();

  int running = 0, most = 0;
  for (const char c : file("running")) {
    if (c == '+') most = std::max(most, ++running);
    if (c == '-') --running;
  }
  EXPECT_EQ(most, 2);
  EXPECT_EQ(runs("restore"), 5);
  std::string written;
  for (int n = 1; n <= 5; ++n) written += restoreInput(n);
  EXPECT_THAT(written, HasSubstr("--dport 1001 "));
  EXPECT_THAT(written, Not(HasSubstr("--dport 1 ")));
  for (const auto& s : backend().statuses()) EXPECT_EQ(s.writes, 1u) << s.vrf;
}

TEST_F(IptablesBackendTest, ANamespaceThatAppearsIsTheOnlyOneReadBack) {
  if (::geteuid() != 0) GTEST_SKIP() << "entering a network namespace (our own) needs root";
  for (const char* name : {"v1", "v2", "v3"}) {
    ASSERT_EQ(::symlink("/proc/self/ns/net", (dir_ + "/netns/" + name).c_str()), 0);
    backend().vrfRulesIs(name, ChainRules{});
  }
  settle();
  const int saves = runs("save");
  backend().vrfResync("v2");
  backend().vrfResync("unknown");  // not known yet: read back once it is
  settle();
  EXPECT_EQ(runs("save"), saves + 1);
}

TEST_F(IptablesBackendTest, AnUnreadableTableIsARetriedReadErrorAndAWriteWithoutEffectIsPaced) {
  modeIs("save", "incompatible");
  rulesIs({{"INPUT", {kMdns}}});
  EXPECT_EQ(errors_.str(), kApplyDefault + dir_ +
                               "/save cannot show the filter table: Table `filter' is "
                               "incompatible, use 'nft' tool.\n");
  EXPECT_EQ(runs("restore"), 0);
  EXPECT_EQ(status("default").state, State::kWaiting);

  // A restore that does nothing and exits 0: the read-back after it finds
  // the same drift, which is reported, and the write is retried with the
  // growing delay, not at each resync.
  modeIs("save", "ok");
  modeIs("restore", "noop");
  errors_.str("");
  advance(100 * kMs);
  const std::string noEffect =
      kApplyDefault + "the write did not take effect: chain \"ACLAGENT-INPUT\" is missing\n";
  EXPECT_EQ(errors_.str(), noEffect);
  EXPECT_EQ(runs("restore"), 1);
  EXPECT_EQ(status("default").state, State::kWaiting);
  EXPECT_EQ(loop_->nextDue() - loop_->now(), 200 * kMs);
  backend().resync();
  settle();
  EXPECT_EQ(runs("restore"), 1);
  advance(200 * kMs);
  EXPECT_EQ(runs("restore"), 2);
  EXPECT_EQ(errors_.str(), noEffect + noEffect);
  EXPECT_EQ(loop_->nextDue() - loop_->now(), 400 * kMs);

  modeIs("restore", "ok");
  advance(400 * kMs);
  EXPECT_EQ(status("default").state, State::kOk);
  EXPECT_EQ(runs("restore"), 3);
  EXPECT_EQ(errors_.str(), noEffect + noEffect);
}

TEST_F(IptablesBackendTest, AChangeOfRulesIsAWriteAndOnlyDriftIsARepair) {
  rulesIs({{"INPUT", {kMdns}}});
  rulesIs({{"INPUT", {kMdns, kGateway}}});
  rulesIs({});
  rulesIs({{"INPUT", {kGateway}}});
  EXPECT_EQ(status("default").writes, 4u);
  EXPECT_EQ(status("default").repairs, 0u);
  // The jump deleted behind the agent's back.
  std::string table = file("table");
  const std::string jump = "-A INPUT -j ACLAGENT-INPUT\n";
  ASSERT_NE(table.find(jump), std::string::npos) << table;
  table.erase(table.find(jump), jump.size());
  std::ofstream(dir_ + "/table") << table;
  backend().resync();
  settle();
  EXPECT_EQ(status("default").writes, 5u);
  EXPECT_EQ(status("default").repairs, 1u);
  EXPECT_EQ(status("default").state, State::kOk);
}

TEST_F(IptablesBackendTest, TheAgentsDescriptorsStayAsTheyWereAcrossWrites) {
  auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  rulesIs({{"INPUT", {kMdns}}});
  const auto before = descriptors();
  for (int i = 0; i < 20; ++i) rulesIs({{"INPUT", {i % 2 ? kMdns : kGateway}}});
  EXPECT_EQ(status("default").writes, 21u);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(IptablesBackendTest, AChildThatPrintsWithoutEndIsCutShort) {
  modeIs("save", "flood-out");
  backend().vrfRulesIs("default", ChainRules{{"INPUT", {kMdns}}});
  settleWithin(20);
  EXPECT_EQ(errors_.str(),
            kApplyDefault + dir_ + "/save printed more than 64 MiB and was killed\n");
  modeIs("save", "ok");
  modeIs("restore", "flood-err");
  errors_.str("");
  loop_->advance(100 * kMs);
  settleWithin(20);
  EXPECT_THAT(errors_.str(), HasSubstr("/restore did not finish within 2 s and was killed\n"));
}

}  // namespace
}  // namespace AclAgent

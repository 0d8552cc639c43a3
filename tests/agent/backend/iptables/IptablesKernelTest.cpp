// The iptables backend against the real kernel, with the real iptables-save
// and iptables-restore of one family (IPTABLES_FAMILY, nft or legacy). Run by
// iptables-kernel-test.sh as root inside private mount and network
// namespaces with their own /run: the test's own namespace is VRF default,
// and the VRF namespaces are made with `ip netns add`, each holding rules of
// someone else's that must survive everything byte for byte.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "tests/agent/kernel/KernelTestSupport.h"

namespace AclAgent {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class IptablesKernelTest : public KernelBackendTest {
 protected:
  void SetUp() override {
    if (!inPrivateNamespaces()) {
      GTEST_SKIP() << "runs only inside the private namespaces that iptables-kernel-test.sh makes";
    }
    const char* family = std::getenv("IPTABLES_FAMILY");
    family_ = family ? family : "nft";
    iptables_ = "iptables-" + family_;
    char folder[] = "/tmp/acl-kernel-XXXXXX";
    ASSERT_NE(::mkdtemp(folder), nullptr);
    dir_ = folder;
    // The real iptables-restore, each run counted.
    const std::string restore = dir_ + "/restore";
    std::ofstream(restore) << "#!/bin/sh\necho run >> '" << dir_ << "/restores'\nexec iptables-"
                           << family_ << "-restore \"$@\"\n";
    ::chmod(restore.c_str(), 0755);
    options_.iptablesRestore = restore;
    options_.iptablesSave = "iptables-" + family_ + "-save";
    options_.resyncPeriod = 0;
    // A child gets as long as the scripts' waits before it counts as hung: on a
    // loaded machine an iptables-restore can take seconds, and killing it
    // would show as a failed write and one write too many.
    const char* deadline = std::getenv("ACL_TEST_DEADLINE");
    const long seconds = deadline ? std::strtol(deadline, nullptr, 10) : 30;
    ASSERT_GT(seconds, 0) << "ACL_TEST_DEADLINE must be a whole number of seconds, not "
                          << deadline;
    options_.childTimeout = seconds * 1'000'000'000LL;
  }
  void TearDown() override {
    backend_.reset();
    if (dir_.empty()) return;
    shell("ip -all netns delete");
    iptables("",
             "-restore <<'EOF'\n*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n"
             ":OUTPUT ACCEPT [0:0]\nCOMMIT\nEOF");
    std::filesystem::remove_all(dir_);
  }

  Backend& backend() {
    if (!backend_) backend_ = makeBackend(loop_, options_, errors_);
    return *backend_;
  }
  // VRF `vrf` is to hold `rules`; returns once the loop has settled.
  void rulesIs(const std::string& vrf, const ChainRules& rules) {
    backend().vrfRulesIs(vrf, rules);
    settle();
  }
  int restores() { return std::stoi(shell("cat " + dir_ + "/restores 2>/dev/null | wc -l")); }

  std::string family_;
  std::string dir_;
};

TEST_F(IptablesKernelTest, RulesStandBehindOneJumpAtTheTopAndEachChangeIsOneWrite) {
  namespaceIs("red");
  const std::string redBefore = saved("red");
  const ChainRules both{{"INPUT", {kMdns, kGateway}}};
  backend().vrfRulesIs("red", both);
  backend().vrfRulesIs("default", ChainRules{{"INPUT", {kGateway}}});
  settle();
  EXPECT_EQ(restores(), 2);
  // In place, as the backend reads it back, with the jump first in INPUT.
  EXPECT_TRUE(holds("red", both));
  EXPECT_TRUE(holds("", ChainRules{{"INPUT", {kGateway}}}));

  // A change is one write of that VRF; with no rule left, jump and chain go.
  rulesIs("red", {{"INPUT", {kGateway}}});
  EXPECT_EQ(restores(), 3);
  EXPECT_TRUE(holds("red", {{"INPUT", {kGateway}}}));
  rulesIs("red", {});
  EXPECT_EQ(restores(), 4);
  EXPECT_EQ(saved("red"), redBefore);
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(IptablesKernelTest, EachKindOfDriftIsRepairedByOneWrite) {
  namespaceIs("red");
  rulesIs("red", {{"INPUT", {kMdns, kGateway}}});
  const std::string good = saved("red");
  const std::vector<std::pair<std::string, std::vector<std::string>>> drifts{
      {"jump deleted", {"-D INPUT -j ACLAGENT-INPUT"}},
      {"jump moved down", {"-D INPUT -j ACLAGENT-INPUT", "-I INPUT 2 -j ACLAGENT-INPUT"}},
      {"jump duplicated", {"-A INPUT -j ACLAGENT-INPUT"}},
      {"owned chain flushed", {"-F ACLAGENT-INPUT"}},
      {"owned rule deleted", {"-D ACLAGENT-INPUT 2"}},
      {"owned rule added", {"-I ACLAGENT-INPUT 1 -p tcp --dport 9 -j ACCEPT"}},
      {"owned rule replaced", {"-R ACLAGENT-INPUT 1 -p udp --dport 5353 -j DROP"}},
      {"owned chain deleted",
       {"-D INPUT -j ACLAGENT-INPUT", "-F ACLAGENT-INPUT", "-X ACLAGENT-INPUT"}},
  };
  int writes = 1;
  for (const auto& [drift, commands] : drifts) {
    for (const std::string& command : commands) iptables("red", " " + command);
    ASSERT_NE(saved("red"), good) << drift;
    backend().resync();
    settle();
    EXPECT_EQ(restores(), ++writes) << drift;
    EXPECT_EQ(status("red").repairs, static_cast<std::uint64_t>(writes - 1)) << drift;
    // Ours as it was, and someone else's untouched.
    EXPECT_EQ(saved("red"), good) << drift;
  }
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(IptablesKernelTest, RefusedRulesAreReportedOnceAndLeftOutAndTheRestStandsAtOnce) {
  namespaceIs("red");
  const std::string option = "-p udp --bogus 1 -j ACCEPT";
  const std::string target = "-p tcp --dport 2 -j NOSUCH";
  rulesIs("red", {{"INPUT", {kMdns, option, target, kGateway}}});
  // The real programs name a bad option at once and a missing target only at
  // COMMIT (nft) or at its line (legacy): each is blamed on its rule.
  const std::string report = "acl-agent: apply vrf \"red\": rule \"";
  const std::string errors = errors_.str();
  EXPECT_THAT(errors, StartsWith(report + option + "\" refused: unknown option \"--bogus\"\n" +
                                 report + target + "\" refused: "));
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 2) << errors;
  // The rest stands, at once, but not every rule: the VRF is not in place.
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns, kGateway}}}));
  EXPECT_EQ(restores(), 3);
  EXPECT_EQ(status("red").state, State::kFailed);
  EXPECT_EQ(status("red").rules, 4u);
  EXPECT_FALSE(notInPlace(backend().statuses()).empty());

  // A resync finds what can stand in place: no write, no second report.
  backend().resync();
  settle();
  EXPECT_EQ(restores(), 3);
  EXPECT_EQ(errors_.str(), errors);
  // Without the refused rules, what stands is all that must.
  rulesIs("red", {{"INPUT", {kMdns, kGateway}}});
  EXPECT_EQ(restores(), 3);
  EXPECT_EQ(status("red").state, State::kOk);
  EXPECT_TRUE(notInPlace(backend().statuses()).empty());
}

TEST_F(IptablesKernelTest, RemoveAppliedTakesAwayOnlyWhatTheAgentOwnsWhereTheTemplateReaches) {
  namespaceIs("vrf-red");
  namespaceIs("other");
  iptables("", " -A INPUT -s 10.9.9.9 -j DROP");
  const std::string redBefore = saved("vrf-red");
  const std::string ownBefore = saved("");
  const ChainRules rules{{"INPUT", {kMdns}}, {"OUTPUT", {kGateway}}};
  rulesIs("other", rules);  // template "%s"
  const std::string otherBefore = saved("other");
  backend_.reset();
  options_.namespaces = NamespaceMap("vrf-%s");
  backend().vrfRulesIs("red", rules);
  backend().vrfRulesIs("default", rules);
  settle();
  ASSERT_TRUE(holds("vrf-red", rules));
  backend_.reset();

  EXPECT_TRUE(removeApplied(options_, errors_));
  EXPECT_EQ(errors_.str(), "");
  EXPECT_EQ(saved("vrf-red"), redBefore);
  EXPECT_EQ(saved(""), ownBefore);
  EXPECT_EQ(saved("other"), otherBefore);  // not a name the template gives
  // Nothing left to remove: nothing is written.
  const int written = restores();
  EXPECT_TRUE(removeApplied(options_, errors_));
  EXPECT_EQ(restores(), written);
}

TEST_F(IptablesKernelTest, ForeignChainsNamedLikeOursAndJumpsToOursAreLeftAndTheDoorStillCloses) {
  namespaceIs("red");
  // Someone else's chain that shares the agent's prefix, jumped to from
  // OUTPUT, where the agent's rules go too.
  iptables("red", " -N ACLAGENT-LOG");
  iptables("red", " -A ACLAGENT-LOG -p tcp --dport 23 -j ACCEPT");
  iptables("red", " -A OUTPUT -j ACLAGENT-LOG");
  const ChainRules rules{{"INPUT", {kMdns}}, {"OUTPUT", {kGateway}}};
  rulesIs("red", rules);
  EXPECT_TRUE(holds("red", rules));
  EXPECT_EQ(errors_.str(), "");

  // Someone jumps to the agent's chain from FORWARD: withdrawing the rules
  // cannot delete the chain, but empties it to a RETURN that keeps it the
  // agent's, and removes the agent's jump.
  iptables("red", " -A FORWARD -j ACLAGENT-INPUT");
  rulesIs("red", {});
  const std::string after = saved("red");
  EXPECT_EQ(iptables("red", " -S ACLAGENT-INPUT"),
            "-N ACLAGENT-INPUT\n-A ACLAGENT-INPUT -m comment --comment \"acl-agent:kept\" -j "
            "RETURN\n");
  EXPECT_EQ(iptables("red", " -S INPUT").find("ACLAGENT"), std::string::npos) << after;
  EXPECT_NE(after.find("-A FORWARD -j ACLAGENT-INPUT\n"), std::string::npos) << after;
  EXPECT_NE(after.find("-A OUTPUT -j ACLAGENT-LOG\n"), std::string::npos) << after;
  EXPECT_NE(after.find("-A ACLAGENT-LOG -p tcp -m tcp --dport 23 -j ACCEPT\n"), std::string::npos)
      << after;
  EXPECT_EQ(errors_.str(),
            "acl-agent: apply vrf \"red\": chain \"ACLAGENT-INPUT\" is kept, holding only a "
            "RETURN of the agent's, while a rule of someone else's in chain \"FORWARD\" jumps to "
            "it\n");
  EXPECT_EQ(status("red").state, State::kOk);
  // Not written again, and not reported again.
  const int written = restores();
  backend().resync();
  settle();
  EXPECT_EQ(restores(), written);
  EXPECT_EQ(saved("red"), after);

  // --remove-applied leaves them too.
  backend_.reset();
  EXPECT_TRUE(removeApplied(options_, errors_));
  EXPECT_EQ(saved("red"), after);
  // Once that jump has gone, the agent's chain goes at the next read-back.
  iptables("red", " -D FORWARD -j ACLAGENT-INPUT");
  rulesIs("red", {});
  EXPECT_EQ(saved("red").find("ACLAGENT-INPUT"), std::string::npos) << saved("red");
  EXPECT_NE(saved("red").find("-A ACLAGENT-LOG -p tcp -m tcp --dport 23 -j ACCEPT\n"),
            std::string::npos);
}

TEST_F(IptablesKernelTest, AWriteHeldUpByTheXtablesLockSaysSoWhenKilled) {
  if (family_ != "legacy") GTEST_SKIP() << "only the legacy programs take the xtables lock";
  // Held by someone else for as long as the write may run.
  const int lock = ::open("/run/xtables.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  options_.childTimeout = 5'000'000'000;
  rulesIs("default", {{"INPUT", {kMdns}}});
  ::close(lock);
  EXPECT_EQ(errors_.str(), "acl-agent: apply vrf \"default\": " + dir_ +
                               "/restore did not finish within 5 s and was killed, waiting for a "
                               "lock on /run/xtables.lock\n");
  loop_->advance(100'000'000);
  settle();
  EXPECT_EQ(status("default").state, State::kOk);
}

TEST_F(IptablesKernelTest, AWriteThatTheReadBackDoesNotSeeIsReportedAndNotMadeAtEachResync) {
  // The save program of the other family never sees what the restore
  // program writes.
  options_.iptablesSave =
      std::string("iptables-") + (family_ == "nft" ? "legacy" : "nft") + "-save";
  rulesIs("default", {{"INPUT", {kMdns}}});
  EXPECT_THAT(errors_.str(), HasSubstr("acl-agent: apply vrf \"default\": the write did not take "
                                       "effect: chain \"ACLAGENT-INPUT\" is missing\n"));
  EXPECT_EQ(status("default").state, State::kWaiting);
  EXPECT_EQ(restores(), 1);
  backend().resync();
  settle();
  EXPECT_EQ(restores(), 1);
}

TEST_F(IptablesKernelTest, ATableTheSaveProgramCannotShowIsAReadErrorAndNothingIsWritten) {
  if (family_ != "nft") GTEST_SKIP() << "only the nf_tables programs meet native rules";
  if (std::system("command -v nft > /dev/null") != 0) GTEST_SKIP() << "nft is not installed";
  // A native rule the iptables programs cannot list: iptables-save says so
  // in place of the table, and exits 0.
  iptables("", " -A INPUT -p icmp -j ACCEPT");
  shell("nft add rule ip filter INPUT ct state established accept");
  rulesIs("default", {{"INPUT", {kMdns}}});
  EXPECT_THAT(errors_.str(), HasSubstr("cannot show the filter table: Table `filter' "
                                       "is incompatible"));
  EXPECT_EQ(restores(), 0);
  EXPECT_EQ(status("default").state, State::kWaiting);
  shell("nft flush chain ip filter INPUT");
}

}  // namespace
}  // namespace AclAgent

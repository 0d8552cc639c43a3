// Faults of the nft backend that the kernel will not show on demand, put at
// the netlink boundary by FaultyNftChannel while the real kernel does
// everything else: transactions refused whole, a rule the kernel refuses,
// and notifications lost to an overrun. The loop's clock is virtual, so the
// retries' delays are counted, not waited for.
#include "tests/agent/backend/nft/FaultyNftChannel.h"
#include "tests/agent/backend/nft/NftKernelFixture.h"

namespace AclAgent {
namespace {

constexpr Pell::Nanoseconds kMs = 1'000'000;

class NftFaultKernelTest : public NftKernelTest {
 protected:
  // The nft backend, its sockets on channels that show `faults_`.
  Backend& faultyBackend() {
    Backend& made = backend(Kind::kNft);
    table_->channelWrapIs(FaultyNftChannel::wrap(faults_));
    return made;
  }
  std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  std::shared_ptr<NftFaults> faults_ = std::make_shared<NftFaults>();
};

TEST_F(NftFaultKernelTest, ARefusedTransactionIsReportedAndRetriedLaterAndWhatStoodStands) {
  namespaceIs("red");
  faultyBackend().vrfRulesIs("red", ChainRules{{"INPUT", {kMdns}}});
  settle();
  const std::string before = saved("red");
  ASSERT_EQ(faults_->transactions, 1);

  faults_->refuseTransactions = 100;
  backend_->vrfRulesIs("red", ChainRules{{"INPUT", {kMdns, kGateway}}});
  settle();
  const std::string report = "acl-agent: apply vrf \"red\": nf_tables: Cannot allocate memory\n";
  EXPECT_EQ(errors_.str(), report);
  EXPECT_EQ(status("red").state, State::kWaiting);
  EXPECT_EQ(saved("red"), before);

  // Tried again after 100 ms, then 200, then 400; never sooner, and each
  // failure is reported while what stood before still stands.
  int transactions = 2;
  for (Pell::Nanoseconds delay : {100, 200, 400}) {
    ASSERT_EQ(loop_->nextDue() - loop_->now(), delay * kMs);
    loop_->advance(delay * kMs - 1);
    settle();
    EXPECT_EQ(faults_->transactions, transactions);
    loop_->advance(1);
    settle();
    EXPECT_EQ(faults_->transactions, ++transactions);
    EXPECT_EQ(saved("red"), before);
  }
  EXPECT_EQ(lines(errors_.str()), 4u);

  // Once the kernel takes it, the next retry writes it and the VRF is well.
  faults_->refuseTransactions = 0;
  loop_->advance(800 * kMs);
  settle();
  EXPECT_EQ(faults_->transactions, transactions + 1);
  EXPECT_EQ(status("red").state, State::kOk);
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns, kGateway}}}));
  EXPECT_EQ(faults_->refused, 4);
}

TEST_F(NftFaultKernelTest, AWriteThatLosesARaceIsMadeAgainSoonAndReportedOnlyWhenItKeepsLosing) {
  namespaceIs("red");
  faultyBackend().vrfRulesIs("red", ChainRules{{"INPUT", {kMdns}}});
  settle();
  // Someone else's change beats every write to the kernel from now on.
  faults_->transactionCode = ERESTART;
  faults_->refuseTransactions = 100;
  backend_->vrfRulesIs("red", ChainRules{{"INPUT", {kMdns, kGateway}}});
  settle();
  // Read back and written again after 1 ms, 2, 4... unreported, and shown
  // as being written, until the wait would pass a failure's first retry.
  for (Pell::Nanoseconds delay = 1; delay <= 64; delay *= 2) {
    EXPECT_EQ(status("red").state, State::kWriting);
    EXPECT_EQ(errors_.str(), "");
    ASSERT_EQ(loop_->nextDue() - loop_->now(), delay * kMs);
    loop_->advance(delay * kMs);
    settle();
  }
  EXPECT_EQ(faults_->transactions, 9);
  EXPECT_EQ(errors_.str(),
            "acl-agent: apply vrf \"red\": the ruleset changed between the read-back and the "
            "write\n");
  EXPECT_EQ(status("red").state, State::kWaiting);
  ASSERT_EQ(loop_->nextDue() - loop_->now(), 100 * kMs);
  faults_->refuseTransactions = 0;
  loop_->advance(100 * kMs);
  settle();
  EXPECT_EQ(status("red").state, State::kOk);
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns, kGateway}}}));
}

TEST_F(NftFaultKernelTest, ARuleTheKernelRefusesIsReportedOnceAndLeftOutAndTheRestIsWritten) {
  namespaceIs("red");
  const std::string port9 = "-p tcp --dport 9 -j ACCEPT";
  faults_->refuseMessageWith = ruleTag(kGateway);
  faultyBackend().vrfRulesIs("red", ChainRules{{"INPUT", {kMdns, kGateway, port9}}});
  settle();
  // The batch the kernel refused left nothing behind, and the next wrote
  // the rest.
  const std::string errors = errors_.str();
  EXPECT_EQ(errors, "acl-agent: apply vrf \"red\": rule \"" + kGateway +
                        "\" refused: nf_tables: Invalid argument\n");
  EXPECT_EQ(faults_->refused, 1);
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns, port9}}})) << saved("red");
  EXPECT_EQ(status("red").state, State::kFailed);
  EXPECT_EQ(status("red").writes, 2u);

  // A resync finds the rest in place: no write, no second report.
  backend_->resync();
  settle();
  EXPECT_EQ(status("red").writes, 2u);
  EXPECT_EQ(errors_.str(), errors);
  // No longer wanted, it is forgotten.
  backend_->vrfRulesIs("red", ChainRules{{"INPUT", {kMdns, port9}}});
  settle();
  EXPECT_EQ(status("red").state, State::kOk);
  EXPECT_EQ(errors_.str(), errors);
}

TEST_F(NftFaultKernelTest, LostNotificationsMeanAFullReadBackAndARepairWhenSomethingDrifted) {
  namespaceIs("red");
  const ChainRules rules{{"INPUT", {kMdns, kGateway}}};
  faultyBackend().vrfRulesIs("red", rules);
  settle();
  const std::string good = saved("red");
  const std::uint64_t reads = table_->reads();

  // Another table's change is not ours to read back...
  shell(in("red") + "nft add table ip elsewhere");
  loop_->pollFds(0);
  settle();
  EXPECT_EQ(table_->reads(), reads);
  // ... unless what the notifications said was lost: then all is read back,
  // and nothing written when nothing drifted.
  faults_->overrun = true;
  shell(in("red") + "nft add chain ip elsewhere c");
  EXPECT_TRUE(awaitLoop([&] { return !faults_->overrun && backend_->idle(); }));
  settle();
  EXPECT_EQ(table_->reads(), reads + 1);
  EXPECT_EQ(status("red").writes, 1u);

  // A flush of our chain whose notifications were lost is repaired all the
  // same.
  faults_->overrun = true;
  shell(in("red") + "iptables-nft -F ACLAGENT-INPUT");
  EXPECT_TRUE(awaitLoop([&] { return status("red").repairs == 1 && backend_->idle(); }));
  settle();
  EXPECT_EQ(saved("red"), good);
  EXPECT_EQ(status("red").writes, 2u);
  EXPECT_EQ(errors_.str(), "");
}

}  // namespace
}  // namespace AclAgent

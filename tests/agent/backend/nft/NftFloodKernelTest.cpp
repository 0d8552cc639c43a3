// A flood of someone else's transactions on table filter, in a namespace
// the nft backend writes, against the real kernel: the agent hears only the
// changes to its own chain, reads back at most once for each, writes only
// after a read-back that found its chain broken, does nothing in the other
// namespaces, and its rules stand at the end.
// What the flood cost is printed, for the record; it is never asserted.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "tests/agent/backend/nft/NftKernelFixture.h"

namespace AclAgent {
namespace {

constexpr int kTransactions = 1000;
// Every this many transactions, one flushes the agent's chain.
constexpr int kFlushEvery = 100;

double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST_F(NftKernelTest, AFloodOfSomeoneElsesChangesCostsBoundedWork) {
  const ChainRules rules{{"INPUT", {kMdns, kGateway}}};
  redAndBlueHold(rules);

  // One transaction a line (nft -i): a rule of someone else's added to its
  // own chain and that chain flushed again, and now and then a flush of the
  // agent's chain.
  const std::string script = ::testing::TempDir() + "flood.nft";
  {
    std::ofstream out(script);
    for (int i = 1; i <= kTransactions; ++i) {
      if (i % kFlushEvery == 0) {
        out << "flush chain ip filter ACLAGENT-INPUT\n";
      } else if (i % 2 == 1) {
        out << "add rule ip filter SOMEONE-ELSE tcp dport 23 accept\n";
      } else {
        out << "flush chain ip filter SOMEONE-ELSE\n";
      }
    }
  }
  const std::uint64_t reads = table_->reads();
  const std::uint64_t transactions = table_->transactions();
  const double cpu = cpuSeconds();
  FILE* flood = ::popen((in("red") + "nft -i < " + script + " 2>&1").c_str(), "r");
  ASSERT_NE(flood, nullptr);
  std::string said;
  bool ended = false;
  {
    // The loop runs while the flood does, as the agent's would.
    Pell::FdWatch output(*loop_, ::fileno(flood), [&] {
      char buffer[4096];
      const ssize_t n = ::read(::fileno(flood), buffer, sizeof buffer);
      if (n > 0) said.append(buffer, static_cast<std::size_t>(n));
      if (n == 0) ended = true;
    });
    EXPECT_TRUE(awaitLoop([&] { return ended; }, true));
  }
  EXPECT_EQ(::pclose(flood), 0) << said;
  // A read-back that the flood kept beating is made again after its delay.
  EXPECT_TRUE(awaitLoop([&] { return backend_->idle() && holds("red", rules); }, true));
  settle();
  const double spent = cpuSeconds() - cpu;
  const std::uint64_t readBacks = table_->reads() - reads;
  const std::uint64_t written = table_->transactions() - transactions;

  constexpr int kFlushes = kTransactions / kFlushEvery;
  std::cout << "flood of " << kTransactions << " transactions (" << kFlushes
            << " flushes of the agent's chain): " << readBacks << " read-backs ("
            << static_cast<double>(readBacks) / kTransactions << " a transaction), " << written
            << " writes, " << spent * 1e6 / kTransactions << " us of CPU a transaction\n";
  // Only the flushes of the agent's chain are heard, each as one change:
  // the rest of the flood is someone else's business, and the agent's own
  // writes do not wake it. So each read-back is for a flush heard or
  // follows a write (the check of one that succeeded, or the read made
  // again after one that a foreign transaction beat to the kernel), and
  // each write follows a read-back.
  EXPECT_LE(readBacks, static_cast<std::uint64_t>(kFlushes) + written);
  EXPECT_GE(written, 1u);
  EXPECT_LE(written, readBacks);
  EXPECT_TRUE(holds("red", rules));
  EXPECT_EQ(status("red").state, State::kOk) << errors_.str();
  EXPECT_EQ(status("blue").writes, 1u);
}

}  // namespace
}  // namespace AclAgent

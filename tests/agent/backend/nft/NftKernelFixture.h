// NftKernelTest: the fixture of the nft backend's real-kernel tests, run by
// nft-kernel-test.sh as root inside private mount and network namespaces
// with their own /run: the test's own namespace is VRF default, the VRF
// namespaces are made with `ip netns add`, and what iptables-save prints is
// the judge of sameness.
//
//   TEST_F(NftKernelTest, Something) {
//     namespaceIs("red");
//     backend(BackendOptions::Kind::kNft).vrfRulesIs("red", rules);
//     settle();
//     EXPECT_TRUE(holds("red", rules));
//   }
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>

#include "agent/backend/Backend.h"
#include "agent/backend/VrfApplier.h"
#include "agent/backend/iptables/IptablesText.h"
#include "agent/backend/nft/NftTable.h"

namespace AclAgent {

inline const std::string kMdns = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT";
inline const std::string kGateway = "-p tcp --dport 8853 -j ACCEPT";
inline const std::regex kCounters(R"(\[[0-9]+:[0-9]+\])");

inline std::string shell(const std::string& command) {
  FILE* pipe = ::popen(("exec 2>&1\n" + command).c_str(), "r");
  std::string out;
  char buffer[4096];
  for (std::size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    out.append(buffer, n);
  }
  const int status = pipe ? ::pclose(pipe) : -1;
  EXPECT_EQ(status, 0) << command << ":\n" << out;
  return out;
}

inline bool inPrivateNamespaces() {
  const char* outer = std::getenv("ACL_OUTER_NETNS");
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/self/ns/net", error);
  return outer && *outer && !error && own.string() != outer;
}

class NftKernelTest : public ::testing::Test {
 protected:
  using Kind = BackendOptions::Kind;
  using State = VrfStatus::State;

  void SetUp() override {
    if (!inPrivateNamespaces()) {
      GTEST_SKIP() << "runs only inside the private namespaces that nft-kernel-test.sh makes";
    }
    options_.resyncPeriod = 0;
    options_.iptablesRestore = "iptables-nft-restore";
    options_.iptablesSave = "iptables-nft-save";
  }
  void TearDown() override {
    backend_.reset();
    if (!inPrivateNamespaces()) return;
    shell("ip -all netns delete; nft flush ruleset");
  }

  // A backend of `kind`, the one before it gone.
  Backend& backend(Kind kind) {
    backend_.reset();
    options_.kind = kind;
    if (kind == Kind::kNft) {
      auto table = std::make_unique<NftTable>(loop_);
      table_ = table.get();
      backend_ = std::make_unique<VrfApplier>(loop_, std::move(table), options_, errors_);
    } else {
      table_ = nullptr;
      backend_ = makeBackend(loop_, options_, errors_);
    }
    return *backend_;
  }
  void settle() { ASSERT_TRUE(loop_->settle()); }
  VrfStatus status(const std::string& vrf) {
    for (const auto& s : backend_->statuses()) {
      if (s.vrf == vrf) return s;
    }
    ADD_FAILURE() << "no VRF " << vrf;
    return {};
  }
  std::string in(const std::string& netns) {
    return netns.empty() ? "" : "ip netns exec " + netns + " ";
  }
  // A VRF namespace holding rules of someone else's.
  void namespaceIs(const std::string& netns) {
    shell("ip netns add " + netns);
    shell(in(netns) +
          "iptables-nft-restore --noflush <<'EOF'\n*filter\n:INPUT DROP [0:0]\n"
          ":SOMEONE-ELSE - [0:0]\n-A INPUT -p icmp -j ACCEPT\n-A INPUT -j SOMEONE-ELSE\n"
          "-A SOMEONE-ELSE -p tcp --dport 22 -m comment --comment \"ssh access\" -j ACCEPT\n"
          "COMMIT\nEOF");
  }
  // The filter table as iptables-save prints it, without comment lines and
  // counters.
  std::string saved(const std::string& netns) {
    std::istringstream lines(shell(in(netns) + "iptables-nft-save -t filter"));
    std::string out;
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("#")) out += std::regex_replace(line, kCounters, "[0:0]") + "\n";
    }
    return out;
  }
  // Runs the loop's descriptor handlers, as the agent does between
  // commands (no resync, no task), until `done` holds; false when it still
  // does not after 30 s. With `timers`, the virtual clock also moves on as
  // the wall clock does, so that retries come when they are due.
  bool awaitLoop(const std::function<bool()>& done, bool timers = false) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      if (done()) return true;
      loop_->pollFds(10'000'000);
      if (timers) loop_->advance(10'000'000);
    }
    return done();
  }
  bool holds(const std::string& netns, const ChainRules& rules) {
    return inPlace(parseSave(shell(in(netns) + "iptables-nft-save -t filter")), rules);
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  BackendOptions options_;
  std::ostringstream errors_;
  std::unique_ptr<Backend> backend_;
  NftTable* table_ = nullptr;
};

}  // namespace AclAgent

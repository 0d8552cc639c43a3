// KernelTestSupport: what the backends' real-kernel gtest programs share. They
// run as root inside the private mount and network namespaces that their
// scripts make, with their own /run: the test's own namespace is VRF default,
// the VRF namespaces are made with `ip netns add`, and what iptables-save
// prints is the judge of sameness.
//
//   class MyKernelTest : public KernelBackendTest { ... };
//   TEST_F(MyKernelTest, Something) {
//     namespaceIs("red");
//     backend_ = makeBackend(loop_, options_, errors_);
//     backend_->vrfRulesIs("red", rules);
//     settle();
//     EXPECT_TRUE(holds("red", rules));
//   }
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>

#include "agent/backend/Backend.h"
#include "agent/backend/iptables/IptablesText.h"

namespace AclAgent {

inline const std::string kMdns = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT";
inline const std::string kGateway = "-p tcp --dport 8853 -j ACCEPT";

// Runs `command` with sh; its output, standard error included.
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

// Whether the test runs in another network namespace than the script that
// started it: never in the machine's own, whatever else the environment says.
inline bool inPrivateNamespaces() {
  const char* outer = std::getenv("ACL_OUTER_NETNS");
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/self/ns/net", error);
  return outer && *outer && !error && own.string() != outer;
}

// The prefix that runs a command in network namespace `netns` ("": ours).
inline std::string in(const std::string& netns) {
  return netns.empty() ? "" : "ip netns exec " + netns + " ";
}

class KernelBackendTest : public ::testing::Test {
 protected:
  using State = VrfStatus::State;

  void settle() { ASSERT_TRUE(loop_->settle()); }
  VrfStatus status(const std::string& vrf) {
    for (const auto& s : backend_->statuses()) {
      if (s.vrf == vrf) return s;
    }
    ADD_FAILURE() << "no VRF " << vrf;
    return {};
  }
  // Runs `iptables_` followed by `args` in network namespace `netns`.
  std::string iptables(const std::string& netns, const std::string& args) {
    return shell(in(netns) + iptables_ + args);
  }
  // A VRF namespace holding rules of someone else's.
  void namespaceIs(const std::string& netns) {
    shell("ip netns add " + netns);
    iptables(netns,
             "-restore --noflush <<'EOF'\n*filter\n:INPUT DROP [0:0]\n:SOMEONE-ELSE - [0:0]\n"
             "-A INPUT -p icmp -j ACCEPT\n-A INPUT -j SOMEONE-ELSE\n"
             "-A SOMEONE-ELSE -p tcp --dport 22 -m comment --comment \"ssh access\" -j ACCEPT\n"
             "COMMIT\nEOF");
  }
  // The filter table as iptables-save prints it, without comment lines and
  // counters.
  std::string saved(const std::string& netns) {
    static const std::regex counters(R"(\[[0-9]+:[0-9]+\])");
    std::istringstream lines(iptables(netns, "-save -t filter"));
    std::string out;
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("#")) out += std::regex_replace(line, counters, "[0:0]") + "\n";
    }
    return out;
  }
  // Whether `netns` holds `rules` in place, as the backend reads it back.
  bool holds(const std::string& netns, const ChainRules& rules) {
    return inPlace(parseSave(iptables(netns, "-save -t filter")), rules);
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  // The iptables programs that make the namespaces and judge them.
  std::string iptables_ = "iptables-nft";
  BackendOptions options_;
  std::ostringstream errors_;
  std::unique_ptr<Backend> backend_;
};

}  // namespace AclAgent

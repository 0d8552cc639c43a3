// The nft backend against the real kernel, beside the iptables backend with
// the real programs of the nf_tables family (NftKernelFixture.h).
#include "tests/agent/backend/nft/NftKernelFixture.h"

namespace AclAgent {
namespace {

TEST_F(NftKernelTest, EachRuleOfTheSubsetReadsBackAsIptablesRestoreWritesIt) {
  const std::vector<std::string> texts{
      kMdns,
      kGateway,
      "-p udp -m udp --sport 53 --dport 1000 -j ACCEPT",
      "-p tcp -m tcp --sport 80 -j DROP",
      "-s 10.1.2.0/23 -p icmp -j RETURN",
      "-d 10.0.0.0/8 -j DROP",
      "-s 1.2.3.4 -i eth0 -o eth+ -j ACCEPT",
      "-d 1.2.3.4/255.255.0.0 -p 17 --dport 7 -j ACCEPT",
      "-d 0.0.0.0/0 -p all -j ACCEPT",
      "--in-interface lo --protocol tcp --destination-port 9 --source 192.168.1.1/32 -j ACCEPT",
      "-m udp --dport 5353 -p udp -j ACCEPT",
  };
  for (std::size_t i = 0; i < texts.size(); ++i) {
    namespaceIs("ipt-" + std::to_string(i));
    namespaceIs("nft-" + std::to_string(i));
  }
  backend(Kind::kIptables);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    backend_->vrfRulesIs("ipt-" + std::to_string(i), ChainRules{{"INPUT", {texts[i]}}});
  }
  settle();
  backend(Kind::kNft);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    backend_->vrfRulesIs("nft-" + std::to_string(i), ChainRules{{"INPUT", {texts[i]}}});
  }
  settle();
  EXPECT_EQ(errors_.str(), "");
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::string written = saved("ipt-" + std::to_string(i));
    EXPECT_NE(written.find("acl-agent:"), std::string::npos) << texts[i] << "\n" << written;
    EXPECT_EQ(saved("nft-" + std::to_string(i)), written) << texts[i];
    // Native expressions only: a transaction that adds an xtables match
    // waits in the kernel for the release of what the one before it deleted.
    const std::string expressions = shell(
        in("nft-" + std::to_string(i)) + "nft --debug=netlink list chain ip filter ACLAGENT-INPUT");
    EXPECT_NE(expressions.find("[ immediate reg 0 "), std::string::npos) << expressions;
    EXPECT_EQ(expressions.find("[ match "), std::string::npos) << texts[i] << "\n" << expressions;
  }
}

TEST_F(NftKernelTest, ARestartWithTheOtherBackendAndTheSameStateWritesNothing) {
  namespaceIs("red");
  const ChainRules rules{{"INPUT", {kMdns, kGateway}}, {"OUTPUT", {kGateway}}};
  for (const auto& [first, second] :
       {std::pair{Kind::kIptables, Kind::kNft}, std::pair{Kind::kNft, Kind::kIptables}}) {
    backend(first).vrfRulesIs("red", rules);
    backend_->vrfRulesIs("default", rules);
    settle();
    ASSERT_EQ(status("red").writes, 1u);
    const std::string red = saved("red");
    const std::string own = saved("");
    backend(second).vrfRulesIs("red", rules);
    backend_->vrfRulesIs("default", rules);
    settle();
    EXPECT_EQ(status("red").writes, 0u);
    EXPECT_EQ(status("default").writes, 0u);
    EXPECT_EQ(status("red").state, State::kOk);
    EXPECT_EQ(saved("red"), red);
    EXPECT_EQ(saved(""), own);
    // And each takes away what the other wrote.
    backend_->vrfRulesIs("red", ChainRules{});
    backend_->vrfRulesIs("default", ChainRules{});
    settle();
    EXPECT_FALSE(holds("red", rules));
    EXPECT_EQ(saved("red").find("ACLAGENT"), std::string::npos);
  }
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, EachKindOfDriftIsRepairedByOneTransaction) {
  namespaceIs("red");
  backend(Kind::kNft).vrfRulesIs("red", ChainRules{{"INPUT", {kMdns, kGateway}}});
  settle();
  const std::string good = saved("red");
  const std::string ipt = in("red") + "iptables-nft ";
  const std::string nft = in("red") + "nft ";
  const std::vector<std::pair<std::string, std::vector<std::string>>> drifts{
      {"jump deleted", {ipt + "-D INPUT -j ACLAGENT-INPUT"}},
      {"jump moved down",
       {ipt + "-D INPUT -j ACLAGENT-INPUT", ipt + "-I INPUT 2 -j ACLAGENT-INPUT"}},
      {"jump duplicated", {ipt + "-A INPUT -j ACLAGENT-INPUT"}},
      {"owned chain flushed", {ipt + "-F ACLAGENT-INPUT"}},
      {"owned chain flushed natively", {nft + "flush chain ip filter ACLAGENT-INPUT"}},
      {"owned rule added natively", {nft + "add rule ip filter ACLAGENT-INPUT tcp dport 9 accept"}},
      {"owned chain deleted",
       {ipt + "-D INPUT -j ACLAGENT-INPUT", ipt + "-F ACLAGENT-INPUT", ipt + "-X ACLAGENT-INPUT"}},
  };
  std::uint64_t writes = 1;
  for (const auto& [drift, commands] : drifts) {
    for (const std::string& command : commands) shell(command);
    ASSERT_NE(saved("red"), good) << drift;
    backend_->resync();
    settle();
    EXPECT_EQ(status("red").writes, ++writes) << drift;
    EXPECT_EQ(status("red").repairs, writes - 1) << drift;
    EXPECT_EQ(saved("red"), good) << drift;
  }
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, SomeoneElsesEditIsRepairedAsItHappensAndOnlyWhereItHappened) {
  const ChainRules rules{{"INPUT", {kMdns, kGateway}}};
  redAndBlueHold(rules);
  const std::string good = saved("red");
  auto repaired = [&](std::uint64_t repairs) {
    return awaitLoop([&] {
      return status("red").repairs == repairs && backend_->idle() && holds("red", rules);
    });
  };
  const std::vector<std::string> edits{
      in("red") + "iptables-nft -F ACLAGENT-INPUT",
      in("red") + "iptables-nft -D INPUT -j ACLAGENT-INPUT",
      in("red") + "nft add rule ip filter ACLAGENT-INPUT tcp dport 9 accept",
  };
  std::uint64_t repairs = 0;
  for (const std::string& edit : edits) {
    shell(edit);
    EXPECT_TRUE(repaired(++repairs)) << edit << "\n" << saved("red");
    EXPECT_EQ(saved("red"), good) << edit;
  }
  // Someone else's change elsewhere in the table is read back, and not
  // written over; the agent's own writes never woke it, and blue was never
  // written again.
  shell(in("red") + "iptables-nft -A INPUT -p tcp --dport 23 -j ACCEPT");
  for (int i = 0; i < 5; ++i) loop_->pollFds(20'000'000);
  settle();
  EXPECT_EQ(status("red").repairs, repairs);
  EXPECT_EQ(status("red").writes, 1 + repairs);
  EXPECT_EQ(status("blue").writes, 1u);
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, ACommentKeptAsUserDataIsRecognisedAsTheTag) {
  // Our rules as someone would write them with nft: the comment is user data.
  shell(
      "nft add table ip filter; nft add chain ip filter INPUT '{ type filter hook input "
      "priority 0; policy accept; }'; nft add chain ip filter ACLAGENT-INPUT; nft add rule ip "
      "filter ACLAGENT-INPUT meta l4proto tcp tcp dport 8853 counter accept comment '\"" +
      ruleTag(kGateway) + "\"'; nft insert rule ip filter INPUT counter jump ACLAGENT-INPUT");
  backend(Kind::kNft).vrfRulesIs("default", ChainRules{{"INPUT", {kGateway}}});
  settle();
  EXPECT_EQ(status("default").writes, 0u);
  EXPECT_EQ(status("default").state, State::kOk);
  // And as a tag of the agent's, it goes when no rule must stand.
  backend_->vrfRulesIs("default", ChainRules{});
  settle();
  EXPECT_EQ(status("default").writes, 1u);
  EXPECT_EQ(saved("").find("ACLAGENT"), std::string::npos);
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, RulesOutsideTheSubsetAreReportedOnceAndLeftOutAndTheRestStands) {
  namespaceIs("red");
  const std::vector<std::string> outside{"-p sctp --dport 9 -j ACCEPT",
                                         "-m state --state NEW -j ACCEPT", "! -s 10.0.0.1 -j DROP",
                                         "-p tcp --dport 1:2 -j ACCEPT"};
  std::vector<std::string> texts{kMdns};
  texts.insert(texts.end(), outside.begin(), outside.end());
  texts.push_back(kGateway);
  backend(Kind::kNft).vrfRulesIs("red", ChainRules{{"INPUT", texts}});
  settle();
  const std::string errors = errors_.str();
  EXPECT_EQ(errors,
            "acl-agent: apply vrf \"red\": rule \"-p sctp --dport 9 -j ACCEPT\" cannot be written "
            "natively: protocol \"sctp\" is not supported\n"
            "acl-agent: apply vrf \"red\": rule \"-m state --state NEW -j ACCEPT\" cannot be "
            "written natively: match \"state\" is not supported\n"
            "acl-agent: apply vrf \"red\": rule \"! -s 10.0.0.1 -j DROP\" cannot be written "
            "natively: negation (\"!\") is not supported\n"
            "acl-agent: apply vrf \"red\": rule \"-p tcp --dport 1:2 -j ACCEPT\" cannot be "
            "written natively: port \"1:2\" is not one port number\n");
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns, kGateway}}}));
  EXPECT_EQ(status("red").writes, 1u);
  EXPECT_EQ(status("red").state, State::kFailed);
  // A resync finds what can stand in place: no write, no second report.
  backend_->resync();
  settle();
  EXPECT_EQ(status("red").writes, 1u);
  EXPECT_EQ(errors_.str(), errors);
}

TEST_F(NftKernelTest, ANamespaceMadeAgainGetsANewSocketAndAGoneOneKeepsNone) {
  namespaceIs("red");
  backend(Kind::kNft).vrfRulesIs("red", ChainRules{{"INPUT", {kMdns}}});
  backend_->vrfRulesIs("default", ChainRules{{"INPUT", {kMdns}}});
  settle();
  EXPECT_EQ(table_->sockets(), 2u);
  // Deleted and made again under the same name: written there anew.
  shell("ip netns delete red");
  namespaceIs("red");
  backend_->vrfResync("red");
  settle();
  EXPECT_TRUE(holds("red", {{"INPUT", {kMdns}}}));
  EXPECT_EQ(table_->sockets(), 2u);
  EXPECT_EQ(status("red").writes, 2u);
  // Gone: its socket is closed, and the namespace can go with it.
  shell("ip netns delete red");
  backend_->vrfResync("red");
  settle();
  EXPECT_EQ(status("red").state, State::kWaiting);
  EXPECT_EQ(table_->sockets(), 1u);
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, AConvergeOfManyVrfsTakesManyShortTurnsOfTheLoop) {
  // A job's end runs in the turn after the one that posted it, even when
  // it starts the next job: one turn writes no more VRFs than run at once,
  // and the loop hears links and clients in between.
  const ChainRules rules{{"INPUT", {kMdns}}};
  std::vector<std::string> vrfs;
  for (int i = 0; i < 8; ++i) {
    vrfs.push_back("v" + std::to_string(i));
    namespaceIs(vrfs.back());
  }
  options_.maxJobs = 2;
  backend(Kind::kNft);
  for (const std::string& vrf : vrfs) backend_->vrfRulesIs(vrf, rules);
  EXPECT_EQ(table_->transactions(), 0u);
  loop_->pollFds(0);
  EXPECT_EQ(table_->transactions(), 2u);
  settle();
  EXPECT_EQ(table_->transactions(), vrfs.size());
  for (const std::string& vrf : vrfs) EXPECT_TRUE(holds(vrf, rules)) << vrf;
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(NftKernelTest, AChainKeptForSomeoneElsesJumpGoesAsSoonAsThatJumpGoes) {
  namespaceIs("red");
  backend(Kind::kNft).vrfRulesIs("red", ChainRules{{"INPUT", {kMdns}}});
  settle();
  shell(in("red") + "iptables-nft -A FORWARD -j ACLAGENT-INPUT");
  backend_->vrfRulesIs("red", ChainRules{});
  settle();
  EXPECT_EQ(shell(in("red") + "iptables-nft -S ACLAGENT-INPUT"),
            "-N ACLAGENT-INPUT\n-A ACLAGENT-INPUT -m comment --comment \"acl-agent:kept\" -j "
            "RETURN\n");
  EXPECT_EQ(errors_.str(),
            "acl-agent: apply vrf \"red\": chain \"ACLAGENT-INPUT\" is kept, holding only a "
            "RETURN of the agent's, while a rule of someone else's in chain \"FORWARD\" jumps to "
            "it\n");
  // Each backend takes it as in place.
  for (const Kind kind : {Kind::kIptables, Kind::kNft}) {
    backend(kind).vrfRulesIs("red", ChainRules{});
    settle();
    EXPECT_EQ(status("red").writes, 0u) << saved("red");
  }
  // Someone else's jump goes: heard as it happens, and the chain goes.
  shell(in("red") + "iptables-nft -D FORWARD -j ACLAGENT-INPUT");
  EXPECT_TRUE(awaitLoop([&] {
    return backend_->idle() && saved("red").find("ACLAGENT") == std::string::npos;
  })) << saved("red");
  EXPECT_EQ(status("red").writes, 1u);
}

}  // namespace
}  // namespace AclAgent

// The subset of iptables syntax that the nft backend writes natively: what
// each accepted text means, and why each other text is refused rather than
// written with another meaning. That the expressions match what
// iptables-restore writes is shown against the kernel (NftKernelTest.cpp).
#include "agent/backend/nft/NftRule.h"

#include <gtest/gtest.h>

namespace AclAgent {
namespace {

// Why `text` is refused; "" when it is accepted, its meaning then in `rule`.
std::string refusal(const std::string& text, NftRule* rule = nullptr) {
  auto result = parseRule(text);
  if (auto* error = std::get_if<std::string>(&result)) return *error;
  if (rule) *rule = std::get<NftRule>(result);
  return "";
}

NftRule parsed(const std::string& text) {
  NftRule rule;
  EXPECT_EQ(refusal(text, &rule), "") << text;
  return rule;
}

TEST(NftRuleTest, TheSubsetMeansWhatIptablesReadsInIt) {
  const NftRule mdns = parsed("-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT");
  EXPECT_EQ(mdns.protocol, 17);
  EXPECT_EQ(mdns.destinationPort, 5353);
  EXPECT_FALSE(mdns.sourcePort);
  ASSERT_TRUE(mdns.destination);
  EXPECT_EQ(mdns.destination->address, (std::array<std::uint8_t, 4>{224, 0, 0, 251}));
  EXPECT_EQ(mdns.destination->length, 32u);
  EXPECT_EQ(mdns.verdict, NftRule::Verdict::kAccept);

  // Long option names and numbers are the same rule as the short ones.
  EXPECT_EQ(parsed("--protocol 6 -m tcp --destination-port 8853 --jump ACCEPT"),
            parsed("-p tcp --dport 8853 -j ACCEPT"));
  // A mask, as a length or dotted, leaves only the prefix; /0 matches all.
  const NftRule masked = parsed("-s 10.1.3.4/255.255.254.0 -d 0.0.0.0/0 -j DROP");
  ASSERT_TRUE(masked.source);
  EXPECT_EQ(masked.source->address, (std::array<std::uint8_t, 4>{10, 1, 2, 0}));
  EXPECT_EQ(masked.source->length, 23u);
  EXPECT_FALSE(masked.destination);
  EXPECT_EQ(parsed("-s 10.1.3.4/23 -j DROP"), parsed("-s 10.1.2.0/23 -j DROP"));
  const NftRule interfaces = parsed("-i eth0 -o veth+ -p all -j RETURN");
  EXPECT_EQ(interfaces.inInterface, "eth0");
  EXPECT_EQ(interfaces.outInterface, "veth+");
  EXPECT_FALSE(interfaces.protocol);
  EXPECT_EQ(interfaces.verdict, NftRule::Verdict::kReturn);
}

TEST(NftRuleTest, TextsOutsideTheSubsetAreRefusedWithTheReason) {
  const std::string notAnAddress = "\" is not one IPv4 address or prefix";
  const std::string needsPortMatch = "option \"--dport\" needs -p tcp or -p udp before it";
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"! -s 10.0.0.1 -j DROP", "negation (\"!\") is not supported"},
      {"-s ! 10.0.0.1 -j DROP", "negation (\"!\") is not supported"},
      {"-p sctp -j ACCEPT", "protocol \"sctp\" is not supported"},
      {"-m state --state NEW -j ACCEPT", "match \"state\" is not supported"},
      {"-p tcp --dport 1:2 -j ACCEPT", "port \"1:2\" is not one port number"},
      {"-p tcp --dport ssh -j ACCEPT", "port \"ssh\" is not one port number"},
      {"-s host.example -j ACCEPT", "address \"host.example" + notAnAddress},
      {"-s 10.0.0.0/255.0.255.0 -j ACCEPT", "address \"10.0.0.0/255.0.255.0" + notAnAddress},
      {"-d 1.1.1.1,2.2.2.2 -j ACCEPT", "address \"1.1.1.1,2.2.2.2" + notAnAddress},
      {"-i eth+0 -j ACCEPT", "interface \"eth+0\" is not supported"},
      {"-i averyveryverylongname -j ACCEPT",
       "interface \"averyveryverylongname\" is not supported"},
      // As iptables reads it, a port needs the tcp or udp match loaded first.
      {"--dport 53 -p udp -j ACCEPT", needsPortMatch},
      {"-p icmp --dport 53 -j ACCEPT", needsPortMatch},
      {"-p udp -m tcp --dport 53 -j ACCEPT", "match \"tcp\" needs the same -p"},
      {"-p tcp -p udp -j ACCEPT", "option \"-p\" is given twice"},
      {"-p tcp -j LOG", "target \"LOG\" is not supported"},
      {"-p tcp -j ACCEPT -j DROP", "option \"-j\" is given twice"},
      {"-p tcp", "a rule without -j is not supported"},
      {"-p tcp -j", "option \"-j\" has no value"},
      {"-g SOMEWHERE", "option \"-g\" is not supported"},
  };
  for (const auto& [text, reason] : refused) EXPECT_EQ(refusal(text), reason) << text;
}

}  // namespace
}  // namespace AclAgent

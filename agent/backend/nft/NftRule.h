// NftRule: a rule text of the plugin's (iptables syntax) as nf_tables
// expressions, built exactly as the nf_tables variant of iptables-restore
// builds them, so that `iptables-save` prints the same line whoever wrote
// the rule and either backend recognises the other's rules.
//
//   auto parsed = parseRule("-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT");
//   if (auto* rule = std::get_if<NftRule>(&parsed)) addExpressions(r, *rule, ruleTag(text));
//   else report(std::get<std::string>(parsed));   // outside the subset: never written
//
// The subset: `-p tcp|udp|icmp|all` (or their numbers), `-s`/`-d` with an
// optional prefix length or contiguous dotted mask, `-i`/`-o` (a trailing
// '+' matching a prefix), `--sport`/`--dport` with one port number after
// `-p tcp|udp` (with or without `-m tcp`/`-m udp`), and one of
// `-j ACCEPT|DROP|RETURN`. Anything else (negation, other matches, names,
// ranges, lists, a word given twice) is refused with the reason, rather
// than written with another meaning.
//
// Expressions, in iptables' order: input and output interface, protocol,
// source, destination, the ports, a counter, the verdict; the tag is the
// rule's comment, kept in its user data. iptables-save prints that comment
// after the rule's matches, where the iptables backend writes its comment
// match, so both print the same line.
//
// Threading: none; pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

struct nftnl_rule;

namespace AclAgent {

// What one rule text of the subset matches, and what it does then.
struct NftRule {
  // An IPv4 prefix: the address in network byte order, masked to `length`.
  struct Prefix {
    std::array<std::uint8_t, 4> address{};
    unsigned length = 32;
    bool operator==(const Prefix&) const = default;
  };
  enum class Verdict : std::uint8_t { kAccept, kDrop, kReturn };

  std::string inInterface;   // as written: empty for any, "eth+" for a prefix
  std::string outInterface;  // likewise
  std::optional<std::uint8_t> protocol;
  std::optional<Prefix> source;
  std::optional<Prefix> destination;
  std::optional<std::uint16_t> sourcePort;
  std::optional<std::uint16_t> destinationPort;
  Verdict verdict = Verdict::kAccept;

  bool operator==(const NftRule&) const = default;
};

// `text` as an `NftRule`, or why it is outside the subset.
std::variant<NftRule, std::string> parseRule(std::string_view text);

// Appends the rule's expressions to `rule`, with `tag` in a comment match.
// REQUIRES: `tag` is shorter than 256 bytes.
void addExpressions(nftnl_rule* rule, const NftRule& parsed, std::string_view tag);

// Appends a counter and a jump to `chain`: the rule `-j CHAIN` as
// iptables-restore writes it.
void addJump(nftnl_rule* rule, std::string_view chain);

}  // namespace AclAgent

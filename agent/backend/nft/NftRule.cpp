#include "agent/backend/nft/NftRule.h"

#include <arpa/inet.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/udata.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <netinet/in.h>

#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "agent/backend/iptables/IptablesText.h"
#include "agent/base/Text.h"

namespace AclAgent {
namespace {

// Where iptables loads each field from.
constexpr std::uint32_t kSourceOffset = 12;
constexpr std::uint32_t kDestinationOffset = 16;
// The longest interface name (IFNAMSIZ less its NUL).
constexpr std::size_t kMaxInterface = 15;
// The longest comment the kernel keeps with a rule, its NUL included
// (NFT_USERDATA_MAXLEN less the attribute's own header).
constexpr std::size_t kMaxComment = 254;

std::optional<unsigned> number(std::string_view text, unsigned max) {
  if (text.empty() || text.size() > 5) return std::nullopt;
  unsigned n = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    n = n * 10 + static_cast<unsigned>(c - '0');
  }
  if (n > max) return std::nullopt;
  return n;
}

std::optional<std::array<std::uint8_t, 4>> address(const std::string& text) {
  std::array<std::uint8_t, 4> bytes{};
  if (::inet_pton(AF_INET, text.c_str(), bytes.data()) != 1) return std::nullopt;
  return bytes;
}

// "ADDRESS", "ADDRESS/LENGTH" or "ADDRESS/DOTTED-MASK" with a contiguous mask.
std::optional<NftRule::Prefix> prefix(const std::string& text) {
  NftRule::Prefix p;
  const std::size_t slash = text.find('/');
  auto base = address(text.substr(0, slash));
  if (!base) return std::nullopt;
  if (slash != std::string::npos) {
    const std::string mask = text.substr(slash + 1);
    if (auto length = number(mask, 32)) {
      p.length = *length;
    } else if (auto dotted = address(mask)) {
      std::uint32_t bits = 0;
      for (std::uint8_t b : *dotted) bits = bits << 8 | b;
      const unsigned length = static_cast<unsigned>(__builtin_popcount(bits));
      if (length != 0 && bits != ~std::uint32_t{0} << (32 - length)) return std::nullopt;
      p.length = length;
    } else {
      return std::nullopt;
    }
  }
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned kept = p.length >= 8 * (i + 1) ? 8 : p.length > 8 * i ? p.length - 8 * i : 0;
    p.address[i] = static_cast<std::uint8_t>((*base)[i] & (0xff00u >> kept));
  }
  return p;
}

bool interfaceName(const std::string& name) {
  if (name.empty() || name.size() > kMaxInterface || name == "+") return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '/' || c == ':' || c == '!' || c == '"' || static_cast<unsigned char>(c) <= ' ' ||
        c == 0x7f || (c == '+' && i + 1 != name.size())) {
      return false;
    }
  }
  return true;
}

std::optional<std::uint8_t> protocol(const std::string& name) {
  if (name == "tcp" || name == "6") return IPPROTO_TCP;
  if (name == "udp" || name == "17") return IPPROTO_UDP;
  if (name == "icmp" || name == "1") return IPPROTO_ICMP;
  if (name == "all" || name == "0") return 0;
  return std::nullopt;
}

// One option of the text, its value, and what it sets.
class Parser {
 public:
  std::variant<NftRule, std::string> run(std::string_view text) {
    const std::vector<std::string> words = splitWords(text);
    bool verdict = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
      const std::string& option = words[i];
      if (option == "!") return std::string("negation (\"!\") is not supported");
      if (i + 1 >= words.size()) return "option " + quoteName(option) + " has no value";
      const std::string& value = words[++i];
      if (value == "!") return std::string("negation (\"!\") is not supported");
      std::optional<std::string> fault;
      if (option == "-p" || option == "--protocol") {
        fault = once(option, seenProtocol_);
        auto p = protocol(value);
        if (!p) return "protocol " + quoteName(value) + " is not supported";
        if (*p != 0) rule_.protocol = *p;
      } else if (option == "-s" || option == "--source" || option == "--src" || option == "-d" ||
                 option == "--destination" || option == "--dst") {
        const bool source = option == "-s" || option == "--source" || option == "--src";
        std::optional<NftRule::Prefix>& field = source ? rule_.source : rule_.destination;
        bool& seen = source ? seenSource_ : seenDestination_;
        fault = once(option, seen);
        field = prefix(value);
        if (!field) return "address " + quoteName(value) + " is not one IPv4 address or prefix";
        if (field->length == 0) field.reset();
      } else if (option == "-i" || option == "--in-interface" || option == "-o" ||
                 option == "--out-interface") {
        const bool in = option == "-i" || option == "--in-interface";
        std::string& field = in ? rule_.inInterface : rule_.outInterface;
        if (!field.empty()) return "option " + quoteName(option) + " is given twice";
        if (!interfaceName(value)) return "interface " + quoteName(value) + " is not supported";
        field = value;
      } else if (option == "-m" || option == "--match") {
        if (value != "tcp" && value != "udp")
          return "match " + quoteName(value) + " is not supported";
        fault = once(option, seenMatch_);
        match_ = value == "tcp" ? IPPROTO_TCP : IPPROTO_UDP;
      } else if (option == "--dport" || option == "--destination-port" || option == "--sport" ||
                 option == "--source-port") {
        const bool destination = option == "--dport" || option == "--destination-port";
        std::optional<std::uint16_t>& field =
            destination ? rule_.destinationPort : rule_.sourcePort;
        if (field) return "option " + quoteName(option) + " is given twice";
        // As iptables reads it, a port belongs to the tcp or udp match that
        // `-p` or `-m` loaded before it.
        const bool loaded =
            match_ != 0 || rule_.protocol == IPPROTO_TCP || rule_.protocol == IPPROTO_UDP;
        if (!loaded) return "option " + quoteName(option) + " needs -p tcp or -p udp before it";
        auto port = number(value, 65535);
        if (!port) return "port " + quoteName(value) + " is not one port number";
        field = static_cast<std::uint16_t>(*port);
      } else if (option == "-j" || option == "--jump") {
        if (verdict) return "option " + quoteName(option) + " is given twice";
        verdict = true;
        if (value == "ACCEPT") {
          rule_.verdict = NftRule::Verdict::kAccept;
        } else if (value == "DROP") {
          rule_.verdict = NftRule::Verdict::kDrop;
        } else if (value == "RETURN") {
          rule_.verdict = NftRule::Verdict::kReturn;
        } else {
          return "target " + quoteName(value) + " is not supported";
        }
      } else {
        return "option " + quoteName(option) + " is not supported";
      }
      if (fault) return *fault;
    }
    if (!verdict) return std::string("a rule without -j is not supported");
    if (match_ != 0 && rule_.protocol != match_) {
      return std::string("match \"") + (match_ == IPPROTO_TCP ? "tcp" : "udp") +
             "\" needs the same -p";
    }
    if (match_ != 0 && !rule_.sourcePort && !rule_.destinationPort) {
      return std::string("a tcp or udp match without a port is not supported");
    }
    return rule_;
  }

 private:
  static std::optional<std::string> once(const std::string& option, bool& seen) {
    if (std::exchange(seen, true)) return "option " + quoteName(option) + " is given twice";
    return std::nullopt;
  }

  NftRule rule_;
  std::uint8_t match_ = 0;
  bool seenProtocol_ = false;
  bool seenSource_ = false;
  bool seenDestination_ = false;
  bool seenMatch_ = false;
};

void add(nftnl_rule* rule, nftnl_expr* expr) {
  nftnl_rule_add_expr(rule, expr);
}

void meta(nftnl_rule* rule, std::uint32_t key) {
  nftnl_expr* e = nftnl_expr_alloc("meta");
  nftnl_expr_set_u32(e, NFTNL_EXPR_META_KEY, key);
  nftnl_expr_set_u32(e, NFTNL_EXPR_META_DREG, NFT_REG_1);
  add(rule, e);
}

void payload(nftnl_rule* rule, std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
  nftnl_expr* e = nftnl_expr_alloc("payload");
  nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_BASE, base);
  nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
  nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_LEN, length);
  nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
  add(rule, e);
}

void equal(nftnl_rule* rule, const void* data, std::uint32_t length) {
  nftnl_expr* e = nftnl_expr_alloc("cmp");
  nftnl_expr_set_u32(e, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
  nftnl_expr_set_u32(e, NFTNL_EXPR_CMP_OP, NFT_CMP_EQ);
  nftnl_expr_set(e, NFTNL_EXPR_CMP_DATA, data, length);
  add(rule, e);
}

// iptables compares a plain name with its NUL, and a name ending in '+'
// without it, as a prefix.
void interface(nftnl_rule* rule, std::uint32_t key, const std::string& name) {
  if (name.empty()) return;
  meta(rule, key);
  if (name.back() == '+') {
    equal(rule, name.data(), static_cast<std::uint32_t>(name.size() - 1));
  } else {
    equal(rule, name.c_str(), static_cast<std::uint32_t>(name.size() + 1));
  }
}

// Whole bytes of a prefix are loaded and compared alone; a prefix that ends
// inside a byte loads all four and masks them first.
void address(nftnl_rule* rule, std::uint32_t offset, const NftRule::Prefix& p) {
  if (p.length % 8 == 0) {
    payload(rule, NFT_PAYLOAD_NETWORK_HEADER, offset, p.length / 8);
    equal(rule, p.address.data(), p.length / 8);
    return;
  }
  payload(rule, NFT_PAYLOAD_NETWORK_HEADER, offset, 4);
  const std::uint32_t bits = ~std::uint32_t{0} << (32 - p.length);
  const std::uint32_t mask = htonl(bits);
  const std::uint32_t zero = 0;
  nftnl_expr* e = nftnl_expr_alloc("bitwise");
  nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
  nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
  nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_LEN, 4);
  nftnl_expr_set(e, NFTNL_EXPR_BITWISE_MASK, &mask, 4);
  nftnl_expr_set(e, NFTNL_EXPR_BITWISE_XOR, &zero, 4);
  add(rule, e);
  equal(rule, p.address.data(), 4);
}

// The tag is kept as the rule's comment in its user data, where
// iptables-save reads it as "-m comment --comment" after the rule's other
// matches. Not as an xtables comment match: the kernel makes every
// transaction that adds one wait until what the transaction before it
// deleted is released, about one RCU grace period (10-20 ms here).
void comment(nftnl_rule* rule, std::string_view tag) {
  const std::string text(tag.substr(0, kMaxComment - 1));
  nftnl_udata_buf* data = nftnl_udata_buf_alloc(kMaxComment + 2);
  if (!data) throw std::bad_alloc();
  nftnl_udata_put_strz(data, NFTNL_UDATA_RULE_COMMENT, text.c_str());
  nftnl_rule_set_data(rule, NFTNL_RULE_USERDATA, nftnl_udata_buf_data(data),
                      nftnl_udata_buf_len(data));
  nftnl_udata_buf_free(data);
}

// Both ports are compared at once, as iptables does.
void ports(nftnl_rule* rule, const NftRule& parsed) {
  std::uint8_t data[4];
  const std::uint16_t source = htons(parsed.sourcePort.value_or(0));
  const std::uint16_t destination = htons(parsed.destinationPort.value_or(0));
  std::memcpy(data, &source, 2);
  std::memcpy(data + 2, &destination, 2);
  if (parsed.sourcePort && parsed.destinationPort) {
    payload(rule, NFT_PAYLOAD_TRANSPORT_HEADER, 0, 4);
    equal(rule, data, 4);
  } else if (parsed.sourcePort) {
    payload(rule, NFT_PAYLOAD_TRANSPORT_HEADER, 0, 2);
    equal(rule, data, 2);
  } else if (parsed.destinationPort) {
    payload(rule, NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2);
    equal(rule, data + 2, 2);
  }
}

void counter(nftnl_rule* rule) {
  add(rule, nftnl_expr_alloc("counter"));
}

void verdict(nftnl_rule* rule, std::uint32_t code, const char* chain) {
  nftnl_expr* e = nftnl_expr_alloc("immediate");
  nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
  nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_VERDICT, code);
  if (chain) nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, chain);
  add(rule, e);
}

}  // namespace

std::variant<NftRule, std::string> parseRule(std::string_view text) {
  return Parser().run(text);
}

void addExpressions(nftnl_rule* rule, const NftRule& parsed, std::string_view tag) {
  interface(rule, NFT_META_IIFNAME, parsed.inInterface);
  interface(rule, NFT_META_OIFNAME, parsed.outInterface);
  if (parsed.protocol) {
    meta(rule, NFT_META_L4PROTO);
    equal(rule, &*parsed.protocol, 1);
  }
  if (parsed.source) address(rule, kSourceOffset, *parsed.source);
  if (parsed.destination) address(rule, kDestinationOffset, *parsed.destination);
  ports(rule, parsed);
  counter(rule);
  switch (parsed.verdict) {
    case NftRule::Verdict::kAccept:
      verdict(rule, NF_ACCEPT, nullptr);
      break;
    case NftRule::Verdict::kDrop:
      verdict(rule, NF_DROP, nullptr);
      break;
    case NftRule::Verdict::kReturn:
      verdict(rule, static_cast<std::uint32_t>(NFT_RETURN), nullptr);
      break;
  }
  comment(rule, tag);
}

void addJump(nftnl_rule* rule, std::string_view chain) {
  counter(rule);
  verdict(rule, static_cast<std::uint32_t>(NFT_JUMP), std::string(chain).c_str());
}

}  // namespace AclAgent

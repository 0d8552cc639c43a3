#include "agent/backend/nft/NftRuleset.h"

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/expr.h>
#include <libnftnl/gen.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "agent/base/Text.h"

namespace AclAgent {
namespace {

constexpr const char* kTable = "filter";
// A read that keeps meeting changes gives up after this many tries.
constexpr int kReadTries = 8;
constexpr std::string_view kTagStart = "acl-agent:";

struct Free {
  void operator()(nftnl_rule* r) const { nftnl_rule_free(r); }
  void operator()(nftnl_chain* c) const { nftnl_chain_free(c); }
  void operator()(nftnl_table* t) const { nftnl_table_free(t); }
  void operator()(nftnl_gen* g) const { nftnl_gen_free(g); }
  void operator()(nftnl_expr_iter* i) const { nftnl_expr_iter_destroy(i); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

Owned<nftnl_rule> newRule(const std::string& chain) {
  Owned<nftnl_rule> rule(nftnl_rule_alloc());
  nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_IPV4);
  nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, kTable);
  if (!chain.empty()) nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain.c_str());
  return rule;
}

Owned<nftnl_chain> newChain(const std::string& name) {
  Owned<nftnl_chain> chain(nftnl_chain_alloc());
  nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, NFPROTO_IPV4);
  nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, kTable);
  nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
  return chain;
}

int commentOf(const nftnl_udata* attribute, void* data) {
  if (nftnl_udata_type(attribute) == NFTNL_UDATA_RULE_COMMENT) {
    const auto* text = static_cast<const char*>(nftnl_udata_get(attribute));
    *static_cast<std::string*>(data) = std::string(text, strnlen(text, nftnl_udata_len(attribute)));
  }
  return 0;
}

// What the decisions need of one rule as the kernel holds it.
SavedRule savedRule(const nftnl_rule* rule) {
  SavedRule saved;
  std::string comment;
  std::uint32_t length = 0;
  if (const void* data = nftnl_rule_get_data(rule, NFTNL_RULE_USERDATA, &length)) {
    nftnl_udata_parse(data, length, commentOf, &comment);
  }
  bool onlyJump = comment.empty();
  std::string verdictWord;
  Owned<nftnl_expr_iter> iter(nftnl_expr_iter_create(rule));
  for (nftnl_expr* e = nftnl_expr_iter_next(iter.get()); e; e = nftnl_expr_iter_next(iter.get())) {
    const std::string name = nftnl_expr_get_str(e, NFTNL_EXPR_NAME);
    if (name == "counter") continue;
    if (name == "immediate" && nftnl_expr_is_set(e, NFTNL_EXPR_IMM_CHAIN)) {
      const auto code = static_cast<std::int32_t>(nftnl_expr_get_u32(e, NFTNL_EXPR_IMM_VERDICT));
      if (code == NFT_JUMP || code == NFT_GOTO) {
        saved.target = nftnl_expr_get_str(e, NFTNL_EXPR_IMM_CHAIN);
        verdictWord = code == NFT_JUMP ? "-j" : "-g";
        continue;
      }
    }
    onlyJump = false;
    if (name == "match" && std::strcmp(nftnl_expr_get_str(e, NFTNL_EXPR_MT_NAME), "comment") == 0) {
      std::uint32_t size = 0;
      const auto* info = static_cast<const char*>(nftnl_expr_get(e, NFTNL_EXPR_MT_INFO, &size));
      if (info) comment = std::string(info, strnlen(info, size));
    }
  }
  if (comment.starts_with(kTagStart)) saved.tag = comment;
  // A rule that is nothing but the jump is what iptables-save lists as
  // "-j CHAIN"; any other rule never reads as that plain jump.
  if (onlyJump && !saved.target.empty()) {
    saved.words = {verdictWord, saved.target};
  } else {
    saved.words = {"(native)"};
  }
  saved.spec = saved.words.front() + (saved.words.size() > 1 ? " " + saved.words[1] : "");
  return saved;
}

}  // namespace

std::optional<std::string> readGeneration(NftSocket& socket, std::uint32_t* generation) {
  char buffer[MNL_SOCKET_BUFFER_SIZE];
  nlmsghdr* request =
      nftnl_nlmsg_build_hdr(buffer, NFT_MSG_GETGEN, AF_UNSPEC, NLM_F_ACK, socket.nextSeq());
  bool found = false;
  std::string error;
  const bool ok = socket.dump(
      request,
      [&](const nlmsghdr* message) {
        Owned<nftnl_gen> gen(nftnl_gen_alloc());
        if (nftnl_gen_nlmsg_parse(message, gen.get()) >= 0) {
          *generation = nftnl_gen_get_u32(gen.get(), NFTNL_GEN_ID);
          found = true;
        }
      },
      &error);
  if (!ok) return "cannot read the ruleset's generation: " + error;
  if (!found) return std::string("nf_tables did not tell the ruleset's generation");
  return std::nullopt;
}

namespace {

// One dump of the chains and rules of table filter; `*changed` when the
// ruleset changed while it was listed.
std::optional<std::string> readOnce(NftSocket& socket, NftRuleset* ruleset, bool* changed) {
  char buffer[MNL_SOCKET_BUFFER_SIZE];
  std::string error;
  int code = 0;
  nlmsghdr* request =
      nftnl_nlmsg_build_hdr(buffer, NFT_MSG_GETTABLE, NFPROTO_IPV4, NLM_F_ACK, socket.nextSeq());
  Owned<nftnl_table> table(nftnl_table_alloc());
  nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTable);
  nftnl_table_nlmsg_build_payload(request, table.get());
  ruleset->table = socket.dump(
      request, [](const nlmsghdr*) {}, &error, &code);
  if (!ruleset->table) {
    if (code == ENOENT) return std::nullopt;
    return "cannot read table filter: " + error;
  }
  request =
      nftnl_nlmsg_build_hdr(buffer, NFT_MSG_GETCHAIN, NFPROTO_IPV4, NLM_F_DUMP, socket.nextSeq());
  bool ok = socket.dump(
      request,
      [&](const nlmsghdr* message) {
        Owned<nftnl_chain> chain(nftnl_chain_alloc());
        if (nftnl_chain_nlmsg_parse(message, chain.get()) < 0) return;
        if (std::strcmp(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TABLE), kTable) != 0) return;
        const std::string name = nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_NAME);
        ruleset->saved.chains[name];
        ruleset->handles[name];
      },
      &error, &code);
  *changed = code == EINTR;
  if (!ok && !*changed) return "cannot read the chains of table filter: " + error;
  if (*changed) return std::nullopt;
  request =
      nftnl_nlmsg_build_hdr(buffer, NFT_MSG_GETRULE, NFPROTO_IPV4, NLM_F_DUMP, socket.nextSeq());
  Owned<nftnl_rule> filter = newRule({});
  nftnl_rule_nlmsg_build_payload(request, filter.get());
  ok = socket.dump(
      request,
      [&](const nlmsghdr* message) {
        Owned<nftnl_rule> rule(nftnl_rule_alloc());
        if (nftnl_rule_nlmsg_parse(message, rule.get()) < 0) return;
        if (std::strcmp(nftnl_rule_get_str(rule.get(), NFTNL_RULE_TABLE), kTable) != 0) return;
        const std::string chain = nftnl_rule_get_str(rule.get(), NFTNL_RULE_CHAIN);
        ruleset->saved.chains[chain].push_back(savedRule(rule.get()));
        ruleset->handles[chain].push_back(nftnl_rule_get_u64(rule.get(), NFTNL_RULE_HANDLE));
      },
      &error, &code);
  *changed = code == EINTR;
  if (!ok && !*changed) return "cannot read the rules of table filter: " + error;
  return std::nullopt;
}

}  // namespace

std::optional<std::string> readRuleset(NftSocket& socket, NftRuleset* ruleset) {
  for (int tries = 0; tries < kReadTries; ++tries) {
    *ruleset = NftRuleset();
    std::uint32_t after = 0;
    if (auto error = readGeneration(socket, &ruleset->generation)) return error;
    bool changed = false;
    if (auto error = readOnce(socket, ruleset, &changed)) return error;
    if (changed) continue;
    if (auto error = readGeneration(socket, &after)) return error;
    if (after == ruleset->generation) return std::nullopt;
  }
  return "the ruleset kept changing while it was read (" + std::to_string(kReadTries) + " tries)";
}

namespace {

// One transaction being made, and what each of its messages stands for.
class Transaction {
 public:
  Transaction(NftSocket& socket, std::uint32_t generation)
      : socket_(socket), batch_(socket.nextSeq(), generation) {}

  void table() {
    Owned<nftnl_table> table(nftnl_table_alloc());
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_IPV4);
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTable);
    add(NFT_MSG_NEWTABLE, NLM_F_CREATE, {},
        [&](nlmsghdr* m) { nftnl_table_nlmsg_build_payload(m, table.get()); });
  }
  // A chain of the table; a built-in one is made as iptables makes it, a
  // base chain on its hook with policy accept.
  void newChain(const std::string& name, RestoreLine what) {
    Owned<nftnl_chain> chain = AclAgent::newChain(name);
    if (auto hook = builtinHook(name)) {
      nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, *hook);
      nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, 0);
      nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
      nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    }
    add(NFT_MSG_NEWCHAIN, NLM_F_CREATE, std::move(what),
        [&](nlmsghdr* m) { nftnl_chain_nlmsg_build_payload(m, chain.get()); });
  }
  void deleteChain(const std::string& name) {
    Owned<nftnl_chain> chain = AclAgent::newChain(name);
    add(NFT_MSG_DELCHAIN, 0, {},
        [&](nlmsghdr* m) { nftnl_chain_nlmsg_build_payload(m, chain.get()); });
  }
  // Every rule of `chain` goes.
  void flush(const std::string& chain) { deleteRule(chain, std::nullopt); }
  void deleteRule(const std::string& chain, std::optional<std::uint64_t> handle) {
    Owned<nftnl_rule> rule = newRule(chain);
    if (handle) nftnl_rule_set_u64(rule.get(), NFTNL_RULE_HANDLE, *handle);
    add(NFT_MSG_DELRULE, 0, {},
        [&](nlmsghdr* m) { nftnl_rule_nlmsg_build_payload(m, rule.get()); });
  }
  void appendRule(const std::string& owned, const NftRule& parsed, const std::string& chain,
                  const std::string& text) {
    Owned<nftnl_rule> rule = newRule(owned);
    addExpressions(rule.get(), parsed, ruleTag(text));
    add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, {RestoreLine::Kind::kRule, chain, text},
        [&](nlmsghdr* m) { nftnl_rule_nlmsg_build_payload(m, rule.get()); });
  }
  // The RETURN that keeps `owned` the agent's while someone else's rule
  // jumps to it.
  void keptMarker(const std::string& owned) {
    static const NftRule kReturn = std::get<NftRule>(parseRule("-j RETURN"));
    Owned<nftnl_rule> rule = newRule(owned);
    addExpressions(rule.get(), kReturn, kKeptTag);
    add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, {},
        [&](nlmsghdr* m) { nftnl_rule_nlmsg_build_payload(m, rule.get()); });
  }
  void jumpOnTop(const std::string& chain, const std::string& owned) {
    Owned<nftnl_rule> rule = newRule(chain);
    addJump(rule.get(), owned);
    add(NFT_MSG_NEWRULE, NLM_F_CREATE, {RestoreLine::Kind::kChain, chain, {}},
        [&](nlmsghdr* m) { nftnl_rule_nlmsg_build_payload(m, rule.get()); });
  }

  KernelTable::WriteResult commit() {
    KernelTable::WriteResult result;
    if (batch_.empty()) return result;
    batch_.end();
    const NftSocket::Outcome outcome = socket_.commit(batch_);
    if (outcome.error.empty()) return result;
    if (outcome.code == ERESTART) {
      result.error = "the ruleset changed between the read-back and the write";
      result.raced = true;
      return result;
    }
    result.error = "nf_tables: " + outcome.error;
    if (!outcome.refusedSeq) return result;
    auto it = lines_.find(*outcome.refusedSeq);
    if (it == lines_.end() || it->second.kind == RestoreLine::Kind::kOther) return result;
    result.refused = KernelTable::WriteResult::Refusal{it->second.chain, std::nullopt};
    if (it->second.kind == RestoreLine::Kind::kRule) result.refused->rule = it->second.rule;
    return result;
  }

 private:
  static std::optional<std::uint32_t> builtinHook(const std::string& chain) {
    if (chain == "INPUT") return NF_INET_LOCAL_IN;
    if (chain == "FORWARD") return NF_INET_FORWARD;
    if (chain == "OUTPUT") return NF_INET_LOCAL_OUT;
    return std::nullopt;
  }

  void add(std::uint16_t type, std::uint16_t flags, RestoreLine what,
           const std::function<void(nlmsghdr*)>& build) {
    lines_[batch_.add(type, flags, build)] = std::move(what);
  }

  NftSocket& socket_;
  NftBatch batch_;
  std::map<std::uint32_t, RestoreLine> lines_;
};

}  // namespace

KernelTable::WriteResult writeRuleset(NftSocket& socket, const NftRuleset& from,
                                      const ChainRules& to, const ParsedRule& parsed) {
  const SavedTable& saved = from.saved;
  Transaction transaction(socket, from.generation);
  const std::vector<SavedRule> noRules;
  const std::vector<std::uint64_t> noHandles;
  auto rulesOf = [&](const std::string& chain) -> const std::vector<SavedRule>& {
    auto it = saved.chains.find(chain);
    return it == saved.chains.end() ? noRules : it->second;
  };
  auto handlesOf = [&](const std::string& chain) -> const std::vector<std::uint64_t>& {
    auto it = from.handles.find(chain);
    return it == from.handles.end() ? noHandles : it->second;
  };
  auto plainJump = [](const SavedRule& rule, const std::string& owned) {
    return rule.words.size() == 2 && rule.words[0] == "-j" && rule.words[1] == owned;
  };
  const bool adds =
      std::any_of(to.begin(), to.end(), [](const auto& c) { return !c.second.empty(); });
  if (adds && !from.table) transaction.table();
  // The chains rules are for come first, as in restoreInput.
  for (const auto& [chain, rules] : to) {
    if (!rules.empty() && !saved.chains.contains(chain)) {
      transaction.newChain(chain, {RestoreLine::Kind::kChain, chain, {}});
    }
  }
  for (const auto& [chain, rules] : to) {
    if (rules.empty()) continue;
    const std::string owned = ownedChain(chain);
    if (saved.chains.contains(owned)) {
      transaction.flush(owned);
    } else {
      transaction.newChain(owned, {RestoreLine::Kind::kChain, chain, {}});
    }
    for (const std::string& text : rules) {
      transaction.appendRule(owned, *parsed(text), chain, text);
    }
    const std::vector<SavedRule>& inChain = rulesOf(chain);
    std::vector<std::size_t> jumps;
    for (std::size_t i = 0; i < inChain.size(); ++i) {
      if (inChain[i].target == owned) jumps.push_back(i);
    }
    if (jumps.size() == 1 && jumps.front() == 0 && plainJump(inChain.front(), owned)) continue;
    for (std::size_t i : jumps) transaction.deleteRule(chain, handlesOf(chain)[i]);
    transaction.jumpOnTop(chain, owned);
  }
  // The agent's chains that go, as restoreInput decides.
  std::vector<std::string> notes;
  for (const std::string& name : chainsGoing(saved, to)) {
    const std::string chain = name.substr(kOwnedPrefix.size());
    const std::vector<SavedRule>& inChain = rulesOf(chain);
    for (std::size_t i = 0; i < inChain.size(); ++i) {
      if (inChain[i].target == name) transaction.deleteRule(chain, handlesOf(chain)[i]);
    }
    transaction.flush(name);
    const std::vector<std::string> others = jumpsFromOthers(saved, to, name);
    if (others.empty()) {
      transaction.deleteChain(name);
      continue;
    }
    transaction.keptMarker(name);
    notes.push_back(keptNote(name, others));
  }
  KernelTable::WriteResult result = transaction.commit();
  if (result.error.empty()) result.warnings = std::move(notes);
  return result;
}

}  // namespace AclAgent

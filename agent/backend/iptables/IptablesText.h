// IptablesText: the text side of the iptables backend. What the backend
// reads back is `iptables-save -t filter` output, what it writes is
// `iptables-restore --noflush` input, and what goes wrong comes back as the
// restore program's standard error: all three are plain text, handled here
// by pure functions so that every decision can be checked without a kernel.
//
//   SavedTable saved = parseSave(saveOutput);
//   if (!inPlace(saved, wanted)) {
//     RestoreInput input = restoreInput(saved, wanted);
//     ...                                     // run iptables-restore on input.text
//     if (auto blame = blamedLine(input, restoreErrors)) ...  // leave that out, write again
//   }
//
// The rules of kernel chain C stand in the owned chain `ownedChain(C)`, each
// tagged with a comment match holding `ruleTag(text)`, written after the
// rule's own options; C holds one plain jump to it, as its first rule.
// Read-back compares tags only, so it never depends on how the kernel writes
// a rule back. A chain whose name starts with `kOwnedPrefix` is the agent's
// only as `agentsChain` says; one of the agent's that should not stand is
// removed with its jumps, or, where someone else's rule jumps to it and the
// kernel would refuse to delete it, kept holding only a RETURN tagged
// `kKeptTag`, which keeps it recognisably the agent's until that rule goes.
//
// Threading: none; pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/base/ChainRules.h"

namespace AclAgent {

constexpr std::string_view kOwnedPrefix = "ACLAGENT-";
// The tag of the one rule, a plain RETURN, that an owned chain holds while
// someone else's rule keeps it from being deleted.
constexpr std::string_view kKeptTag = "acl-agent:kept";
// The longest chain name iptables takes.
constexpr std::size_t kMaxChainName = 28;
// Messages from the restore program are cut to this many bytes.
constexpr std::size_t kErrorBytes = 200;

// `kOwnedPrefix` + `chain`.
std::string ownedChain(std::string_view chain);
// Why the rules of `chain` cannot be given an owned chain (its owned name
// would be too long, or it is named like an owned chain itself); nothing
// when they can.
std::optional<std::string> chainFault(std::string_view chain);
// "acl-agent:" and 16 hexadecimal digits of a hash of `text`.
std::string ruleTag(std::string_view text);

// One rule as iptables-save lists it after "-A CHAIN ".
struct SavedRule {
  std::string spec;
  std::vector<std::string> words;  // `spec` split as iptables reads it
  std::string target;              // of -j or -g; empty when none
  std::string tag;                 // our comment tag; empty when none
};

// The filter table as read back: every chain, in the order listed, with its
// rules in order.
struct SavedTable {
  std::map<std::string, std::vector<SavedRule>> chains;
};

// The `*filter` table of iptables-save output; lines it does not know are
// skipped.
SavedTable parseSave(std::string_view output);
// What iptables-save printed in place of the filter table when it cannot
// show it (an nft table holding what the iptables programs cannot list,
// "# Table `filter' is incompatible, use 'nft' tool."), with status 0;
// nothing when it showed it.
std::optional<std::string> unreadableTable(std::string_view output);
// Whether iptables-save's standard error says that the other family's tables
// (legacy beside nft) hold rules too.
bool otherFamilyPresent(std::string_view saveErrors);
// Splits a rule as iptables-restore does: words separated by spaces, double
// quotes grouping (with \" and \\ inside them).
std::vector<std::string> splitWords(std::string_view spec);

// Whether `name`, a chain of `saved` named like an owned chain, is one the
// agent made; a chain named so that is not is someone else's and is never
// touched. REQUIRES: no chain of `wanted` is named like an owned chain.
bool agentsChain(const SavedTable& saved, const ChainRules& wanted, const std::string& name);
// The agent's chains in `saved` that must go to make `wanted` stand (their
// chain has no rule now), in the table's order; one already kept as it
// should be while someone else's rule jumps to it is not among them.
std::vector<std::string> chainsGoing(const SavedTable& saved, const ChainRules& wanted);
// The chains of someone else's in `saved` with a rule that jumps to `name`,
// one of the agent's chains, in the table's order: they keep it from being
// deleted.
std::vector<std::string> jumpsFromOthers(const SavedTable& saved, const ChainRules& wanted,
                                         const std::string& name);
// What a write says of an agent's chain that it keeps for `others`
// (`jumpsFromOthers`).
std::string keptNote(const std::string& name, const std::vector<std::string>& others);

// Whether `saved` holds exactly `wanted`: for each chain with rules, its
// owned chain holds just their tags, in order, and the chain's first rule is
// the plain jump to it, with no other jump to it in the chain; and no other
// chain of the agent's stands.
bool inPlace(const SavedTable& saved, const ChainRules& wanted);
// The first way in which `saved` does not hold `wanted` exactly, for a
// message; nothing when it does (`inPlace`).
std::optional<std::string> drift(const SavedTable& saved, const ChainRules& wanted);

// One line of restore input and what it stands for.
struct RestoreLine {
  enum class Kind : std::uint8_t { kOther, kChain, kRule };
  Kind kind = Kind::kOther;
  std::string chain;  // the kernel chain, for kChain and kRule
  std::string rule;   // the rule text, for kRule
};

struct RestoreInput {
  std::string text;
  std::vector<RestoreLine> lines;  // line N is lines[N - 1]
  // What it leaves undone on purpose, for the operator: a chain of the
  // agent's kept because someone else's rule jumps to it.
  std::vector<std::string> notes;
};

// One `--noflush` input with one COMMIT that turns `saved` into `wanted`:
// each chain with rules gets its owned chain declared (which empties it) and
// filled, and its jump put alone at the top; every other chain of the
// agent's loses its jumps and goes, or is emptied to its `kKeptTag` RETURN
// and stays (with a note) while a rule of someone else's jumps to it, since
// deleting it would fail the whole input and leave its rules standing. Nothing else is named.
// Chains that `chainFault` refuses must not be in `wanted`.
RestoreInput restoreInput(const SavedTable& saved, const ChainRules& wanted);

// The input line that a restore program's standard error names ("Error
// occurred at line: N", "line N failed", "line N: ..."), if any.
std::optional<std::size_t> failingLine(std::string_view errors);
// What to leave out after a failed restore of `input`: the rule (or, for a
// chain's own lines, the chain) that the errors name. A failure at COMMIT that
// names a missing chain is put on the first rule that jumps to it. Nothing
// when the errors name no rule or chain of ours.
std::optional<RestoreLine> blamedLine(const RestoreInput& input, std::string_view errors);
// The errors as one readable line: the program's name, the "Error occurred"
// and "Try ..." lines and control bytes dropped, lines joined by "; ", cut to
// `kErrorBytes`.
std::string errorSummary(std::string_view errors);

}  // namespace AclAgent

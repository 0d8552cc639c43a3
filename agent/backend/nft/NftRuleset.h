// NftRuleset: the agent's part of table `filter` of family ip, read back and
// written over nf_tables netlink, with the same decisions as the iptables
// backend's text (IptablesText.h): the same owned chains, the one plain jump
// at the top of each chain, the same tags, and the same rules for telling
// the agent's chains from someone else's.
//
//   NftRuleset now;
//   if (auto error = readRuleset(socket, &now)) ...;
//   if (!inPlace(now.saved, wanted)) {
//     KernelTable::WriteResult result = writeRuleset(socket, now, wanted, parsedRule);
//   }
//
// A read is one consistent view: chains and rules are dumped between two
// readings of the ruleset's generation, again when it moved. A rule is seen
// as iptables-save would list it as far as the decisions need: its target,
// its tag (from the comment match iptables-restore writes, or from the
// comment that a rule written natively keeps as user data), and whether it
// is nothing but a jump. A write is one transaction made against the
// generation read, so a change by someone else in between makes the kernel
// refuse it whole, and it is read back and decided again.
//
// Threading: the event thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/backend/KernelTable.h"
#include "agent/backend/iptables/IptablesText.h"
#include "agent/backend/nft/NftRule.h"
#include "agent/backend/nft/NftSocket.h"

namespace AclAgent {

struct NftRuleset {
  bool table = false;  // whether table filter of family ip exists
  std::uint32_t generation = 0;
  SavedTable saved;
  // The handle of each rule of `saved`, chain by chain, in the same order.
  std::map<std::string, std::vector<std::uint64_t>> handles;
};

// The ruleset's generation, which every change moves; the reason when it
// could not be read (no nf_tables in the kernel, no right to use it).
std::optional<std::string> readGeneration(NftSocket& socket, std::uint32_t* generation);

// Reads table filter back into `*ruleset`; the reason when it could not.
std::optional<std::string> readRuleset(NftSocket& socket, NftRuleset* ruleset);

// The expressions of a rule text, or null when it cannot be expressed (the
// caller leaves such rules out of `to`).
using ParsedRule = std::function<const NftRule*(const std::string& text)>;

// Turns `from` into `to` in one transaction, as `restoreInput` would.
// REQUIRES: every rule of `to` is one that `parsed` expresses, and no chain
// of `to` is refused by `chainFault`.
KernelTable::WriteResult writeRuleset(NftSocket& socket, const NftRuleset& from,
                                      const ChainRules& to, const ParsedRule& parsed);

}  // namespace AclAgent

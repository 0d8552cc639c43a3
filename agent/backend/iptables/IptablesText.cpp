#include "agent/backend/iptables/IptablesText.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "agent/base/Text.h"

namespace AclAgent {
namespace {

// The jump that stands alone at the top of a chain: nothing but "-j OWNED".
bool plainJump(const SavedRule& rule, std::string_view owned) {
  return rule.words.size() == 2 && rule.words[0] == "-j" && rule.words[1] == owned;
}

std::string targetOf(const std::vector<std::string>& words) {
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& w = words[i];
    if (w == "-j" || w == "--jump" || w == "-g" || w == "--goto") return words[i + 1];
  }
  return {};
}

std::string tagOf(const std::vector<std::string>& words) {
  constexpr std::string_view kTagStart = "acl-agent:";
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "--comment" && words[i + 1].starts_with(kTagStart)) return words[i + 1];
  }
  return {};
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

// The number written at `pos` in `text`, if digits start there.
std::optional<std::size_t> numberAt(std::string_view text, std::size_t pos) {
  std::size_t n = 0;
  std::size_t digits = 0;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && digits < 9; ++pos, ++digits) {
    n = n * 10 + static_cast<std::size_t>(text[pos] - '0');
  }
  if (digits == 0) return std::nullopt;
  return n;
}

// Drops a leading "iptables-nft-restore v1.8.9 (nf_tables): " or
// "iptables-restore: ": the program's name says nothing the reader needs.
std::string_view withoutProgramName(std::string_view line) {
  const std::size_t colon = line.find(": ");
  if (colon == std::string_view::npos) return line;
  std::string_view head = line.substr(0, colon);
  head = head.substr(0, head.find(' '));
  if (head.ends_with("-restore") || head.ends_with("-save")) return line.substr(colon + 2);
  return line;
}

}  // namespace

std::string ownedChain(std::string_view chain) {
  return std::string(kOwnedPrefix) + std::string(chain);
}

std::optional<std::string> chainFault(std::string_view chain) {
  if (chain.starts_with(kOwnedPrefix)) {
    return "chain \"" + std::string(chain) + "\" is named like the agent's own chains (\"" +
           std::string(kOwnedPrefix) + "...\")";
  }
  const std::string owned = ownedChain(chain);
  if (owned.size() > kMaxChainName) {
    return "chain \"" + std::string(chain) + "\" cannot be applied: its owned chain \"" + owned +
           "\" would be " + std::to_string(owned.size()) + " bytes, over iptables' limit of " +
           std::to_string(kMaxChainName);
  }
  return std::nullopt;
}

std::string ruleTag(std::string_view text) {
  // FNV-1a, 64 bits: stable across builds and machines, which a restarted
  // agent needs to recognise its own rules.
  std::uint64_t hash = 14695981039346656037ull;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return std::string("acl-agent:") + hex;
}

std::vector<std::string> splitWords(std::string_view spec) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  bool quoted = false;
  for (std::size_t i = 0; i < spec.size(); ++i) {
    const char c = spec[i];
    if (quoted) {
      if (c == '\\' && i + 1 < spec.size() && (spec[i + 1] == '"' || spec[i + 1] == '\\')) {
        word += spec[++i];
      } else if (c == '"') {
        quoted = false;
      } else {
        word += c;
      }
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      inWord = true;
      if (c == '"') {
        quoted = true;
      } else {
        word += c;
      }
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

SavedTable parseSave(std::string_view output) {
  SavedTable table;
  bool inFilter = false;
  for (std::string_view line : linesOf(output)) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.starts_with("*")) {
      inFilter = line == "*filter";
    } else if (line == "COMMIT") {
      inFilter = false;
    } else if (!inFilter) {
      continue;
    } else if (line.starts_with(":")) {
      table.chains[std::string(line.substr(1, line.find(' ') - 1))];
    } else if (line.starts_with("-A ")) {
      line.remove_prefix(3);
      const std::size_t space = line.find(' ');
      std::vector<SavedRule>& rules = table.chains[std::string(line.substr(0, space))];
      SavedRule rule;
      if (space != std::string_view::npos) rule.spec = line.substr(space + 1);
      rule.words = splitWords(rule.spec);
      rule.target = targetOf(rule.words);
      rule.tag = tagOf(rule.words);
      rules.push_back(std::move(rule));
    }
  }
  return table;
}

bool otherFamilyPresent(std::string_view saveErrors) {
  return saveErrors.find("iptables-legacy tables present") != std::string_view::npos;
}

std::optional<std::string> unreadableTable(std::string_view output) {
  for (std::string_view line : linesOf(output)) {
    if (line.starts_with("# Table `filter'")) return std::string(line.substr(2));
  }
  return std::nullopt;
}

bool inPlace(const SavedTable& saved, const ChainRules& wanted) {
  return !drift(saved, wanted);
}

std::optional<std::string> drift(const SavedTable& saved, const ChainRules& wanted) {
  for (const auto& [chain, rules] : wanted) {
    if (rules.empty()) continue;
    const std::string owned = ownedChain(chain);
    auto ownedRules = saved.chains.find(owned);
    if (ownedRules == saved.chains.end()) return "chain " + quoteName(owned) + " is missing";
    if (ownedRules->second.size() != rules.size()) {
      return "chain " + quoteName(owned) + " holds " + std::to_string(ownedRules->second.size()) +
             " rules, not " + std::to_string(rules.size());
    }
    for (std::size_t i = 0; i < rules.size(); ++i) {
      if (ownedRules->second[i].tag != ruleTag(rules[i])) {
        return "rule " + std::to_string(i + 1) + " of chain " + quoteName(owned) +
               " is not the agent's rule " + quoteName(rules[i]);
      }
    }
    auto kernelChain = saved.chains.find(chain);
    if (kernelChain == saved.chains.end() || kernelChain->second.empty() ||
        !plainJump(kernelChain->second.front(), owned)) {
      return "chain " + quoteName(chain) + " does not start with the jump to " + quoteName(owned);
    }
    const std::vector<SavedRule>& inChain = kernelChain->second;
    for (std::size_t i = 1; i < inChain.size(); ++i) {
      if (inChain[i].target == owned) {
        return "chain " + quoteName(chain) + " jumps to " + quoteName(owned) + " more than once";
      }
    }
  }
  if (const std::vector<std::string> going = chainsGoing(saved, wanted); !going.empty()) {
    return "chain " + quoteName(going.front()) + " stands with no rule of the agent's to hold";
  }
  return std::nullopt;
}

// The rule: the owned chain of a chain that has rules now is the agent's
// (the name is the agent's to take); any other chain so named is the
// agent's when it holds a rule with the agent's tag, or when it is empty
// and its kernel chain holds the agent's plain jump to it (the agent's,
// flushed by someone). The tag is a hash only the agent writes, so someone
// else's chain never holds one; and one rule of ours is enough, rather than
// every rule, so that a rule someone added into the agent's chain does not
// keep the agent's ACCEPT standing once it must go. A chain of the agent's
// kept while someone else's rule jumps to it holds its tagged RETURN, so it
// stays the agent's, and goes once that rule has gone. Everything else (a
// chain of its own rules, an empty chain nothing of ours jumps to) is not
// touched.
bool agentsChain(const SavedTable& saved, const ChainRules& wanted, const std::string& name) {
  if (!name.starts_with(kOwnedPrefix)) return false;
  const std::string chain = name.substr(kOwnedPrefix.size());
  if (auto it = wanted.find(chain); it != wanted.end() && !it->second.empty()) return true;
  auto held = saved.chains.find(name);
  if (held == saved.chains.end()) return false;
  if (!held->second.empty()) {
    return std::any_of(held->second.begin(), held->second.end(),
                       [](const SavedRule& rule) { return !rule.tag.empty(); });
  }
  auto kernelChain = saved.chains.find(chain);
  return kernelChain != saved.chains.end() &&
         std::any_of(kernelChain->second.begin(), kernelChain->second.end(),
                     [&](const SavedRule& rule) { return plainJump(rule, name); });
}

std::vector<std::string> jumpsFromOthers(const SavedTable& saved, const ChainRules& wanted,
                                         const std::string& name) {
  const std::string chain = name.substr(kOwnedPrefix.size());
  std::vector<std::string> others;
  for (const auto& [other, rules] : saved.chains) {
    if (other == chain || agentsChain(saved, wanted, other)) continue;
    if (std::any_of(rules.begin(), rules.end(),
                    [&](const SavedRule& rule) { return rule.target == name; })) {
      others.push_back(other);
    }
  }
  return others;
}

std::string keptNote(const std::string& name, const std::vector<std::string>& others) {
  std::string names;
  for (const std::string& other : others) names += (names.empty() ? "" : ", ") + quoteName(other);
  return "chain " + quoteName(name) +
         " is kept, holding only a RETURN of the agent's, while a rule of someone else's in "
         "chain " +
         names + " jumps to it";
}

std::vector<std::string> chainsGoing(const SavedTable& saved, const ChainRules& wanted) {
  std::vector<std::string> going;
  for (const auto& entry : saved.chains) {
    const std::string& name = entry.first;
    const std::vector<SavedRule>& rules = entry.second;
    if (!agentsChain(saved, wanted, name)) continue;
    const std::string chain = name.substr(kOwnedPrefix.size());
    if (auto stands = wanted.find(chain); stands != wanted.end() && !stands->second.empty()) {
      continue;
    }
    // Kept as it should be: just the marker, no jump of the agent's to it,
    // and someone else's rule still jumping to it.
    auto kernelChain = saved.chains.find(chain);
    const bool kept =
        rules.size() == 1 && rules.front().tag == kKeptTag &&
        (kernelChain == saved.chains.end() ||
         std::none_of(kernelChain->second.begin(), kernelChain->second.end(),
                      [&name](const SavedRule& rule) { return rule.target == name; })) &&
        !jumpsFromOthers(saved, wanted, name).empty();
    if (!kept) going.push_back(name);
  }
  return going;
}

RestoreInput restoreInput(const SavedTable& saved, const ChainRules& wanted) {
  RestoreInput input;
  auto add = [&](std::string line, RestoreLine what) {
    input.text += line;
    input.text += '\n';
    input.lines.push_back(std::move(what));
  };
  const std::vector<SavedRule> none;
  auto rulesOf = [&](const std::string& chain) -> const std::vector<SavedRule>& {
    auto it = saved.chains.find(chain);
    return it == saved.chains.end() ? none : it->second;
  };
  using Kind = RestoreLine::Kind;

  add("*filter", {});
  // A chain of someone else's that does not exist yet must, for the jump;
  // one that exists is never declared, which would empty it. They come
  // first, since any owned chain's rules may jump to them and both restore
  // programs refuse a jump to a chain declared after it.
  for (const auto& [chain, rules] : wanted) {
    if (!rules.empty() && !isBuiltinChain(chain) && !saved.chains.contains(chain)) {
      add(":" + chain + " - [0:0]", {Kind::kChain, chain, {}});
    }
  }
  for (const auto& [chain, rules] : wanted) {
    if (rules.empty()) continue;
    const std::string owned = ownedChain(chain);
    add(":" + owned + " - [0:0]", {Kind::kChain, chain, {}});
    for (const std::string& text : rules) {
      // The comment comes last, so that iptables-save prints it after the
      // rule's own matches, as it prints the nft backend's comment.
      add("-A " + owned + " " + text + " -m comment --comment \"" + ruleTag(text) + "\"",
          {Kind::kRule, chain, text});
    }
    const std::vector<SavedRule>& inChain = rulesOf(chain);
    std::vector<const SavedRule*> jumps;
    for (const SavedRule& rule : inChain) {
      if (rule.target == owned) jumps.push_back(&rule);
    }
    const bool alone =
        jumps.size() == 1 && jumps.front() == &inChain.front() && plainJump(inChain.front(), owned);
    if (alone) continue;
    // Each -D removes the first rule that matches its spec, so deleting every
    // jump and inserting one at the top is right whatever the duplicates.
    for (const SavedRule* jump : jumps) add("-D " + chain + " " + jump->spec, {});
    add("-I " + chain + " 1 -j " + owned, {Kind::kChain, chain, {}});
  }
  // The agent's chains that go; rules in them jump nowhere afterwards.
  for (const std::string& name : chainsGoing(saved, wanted)) {
    const std::string chain = name.substr(kOwnedPrefix.size());
    for (const SavedRule& rule : rulesOf(chain)) {
      if (rule.target == name) add("-D " + chain + " " + rule.spec, {});
    }
    // Declaring empties it, which -X needs; it is declared whatever holds it.
    add(":" + name + " - [0:0]", {});
    const std::vector<std::string> others = jumpsFromOthers(saved, wanted, name);
    if (others.empty()) {
      add("-X " + name, {});
      continue;
    }
    add("-A " + name + " -m comment --comment \"" + std::string(kKeptTag) + "\" -j RETURN", {});
    input.notes.push_back(keptNote(name, others));
  }
  add("COMMIT", {});
  return input;
}

std::optional<std::size_t> failingLine(std::string_view errors) {
  constexpr std::string_view kOccurred = "Error occurred at line: ";
  if (const std::size_t at = errors.find(kOccurred); at != std::string_view::npos) {
    return numberAt(errors, at + kOccurred.size());
  }
  // "line N failed" (legacy and nft) and "line N: RULE_APPEND failed (...)"
  // (nft, at commit).
  for (std::size_t at = errors.find("line "); at != std::string_view::npos;
       at = errors.find("line ", at + 1)) {
    std::size_t end = at + 5;
    auto n = numberAt(errors, end);
    if (!n) continue;
    while (end < errors.size() && errors[end] >= '0' && errors[end] <= '9') ++end;
    const std::string_view rest = errors.substr(end);
    if (rest.starts_with(" failed") || rest.starts_with(":")) return n;
  }
  return std::nullopt;
}

std::optional<RestoreLine> blamedLine(const RestoreInput& input, std::string_view errors) {
  if (auto n = failingLine(errors); n && *n >= 1 && *n <= input.lines.size()) {
    const RestoreLine& line = input.lines[*n - 1];
    if (line.kind != RestoreLine::Kind::kOther) return line;
  }
  // iptables-nft-restore finds a missing jump target only at COMMIT.
  constexpr std::string_view kChain = "Chain '";
  const std::size_t at = errors.find(kChain);
  if (at == std::string_view::npos) return std::nullopt;
  const std::size_t start = at + kChain.size();
  const std::size_t end = errors.find('\'', start);
  if (end == std::string_view::npos || !errors.substr(end).starts_with("' does not exist")) {
    return std::nullopt;
  }
  const std::string missing(errors.substr(start, end - start));
  for (const RestoreLine& line : input.lines) {
    if (line.kind == RestoreLine::Kind::kRule && targetOf(splitWords(line.rule)) == missing) {
      return line;
    }
  }
  return std::nullopt;
}

std::string errorSummary(std::string_view errors) {
  std::string summary;
  for (std::string_view line : linesOf(errors)) {
    if (line.starts_with("Error occurred at line") || line.starts_with("Try `")) continue;
    line = withoutProgramName(line);
    std::string clean;
    for (const char c : line) clean += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c;
    while (!clean.empty() && clean.back() == ' ') clean.pop_back();
    if (clean.empty()) continue;
    if (!summary.empty()) summary += "; ";
    summary += clean;
  }
  if (summary.size() > kErrorBytes) summary = summary.substr(0, kErrorBytes - 3) + "...";
  return summary;
}

}  // namespace AclAgent

// RestoreModel: what `iptables-restore --noflush` does to the filter table,
// for the lines the iptables backend writes, so that restore input can be
// judged by what it does rather than by its bytes. It is as strict as the
// stricter of the two real programs: a jump names a chain that stands at its
// line (legacy checks there; nf_tables at COMMIT), -D a rule that stands, -X
// an empty chain that no rule jumps to. A refused line leaves the table as
// it was before the input.
//
//   RestoreModel table;
//   table.restore(saveOutput);  // iptables-save output loads as input
//   if (auto error = table.restore(input.text)) ...
//   SavedTable after = parseSave(table.save());
#pragma once

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backend/iptables/IptablesText.h"

namespace AclAgent {

class RestoreModel {
 public:
  // "line N: WHAT" for the first line refused; nothing when all committed.
  std::optional<std::string> restore(std::string_view input) {
    std::vector<Chain> next = chains_;
    bool inTable = false;
    for (std::size_t n = 1; !input.empty(); ++n) {
      const std::string_view line = input.substr(0, input.find('\n'));
      input.remove_prefix(std::min(input.size(), line.size() + 1));
      std::optional<std::string> fault;
      if (line == "COMMIT" && inTable) {
        chains_ = next;
        inTable = false;
      } else if (inTable) {
        fault = apply(next, line);
      } else if (line == "*filter") {
        inTable = true;
      } else if (!line.empty() && !line.starts_with("#")) {
        fault = "expected *filter";
      }
      if (fault) return "line " + std::to_string(n) + ": " + *fault;
    }
    return inTable ? std::optional<std::string>("no COMMIT") : std::nullopt;
  }

  // The table as iptables-save prints it.
  std::string save() const {
    std::string text = "*filter\n";
    for (const Chain& c : chains_) text += ":" + c.name + " " + c.policy + " [0:0]\n";
    for (const Chain& c : chains_) {
      for (const std::string& rule : c.rules) text += "-A " + c.name + " " + rule + "\n";
    }
    return text + "COMMIT\n";
  }

 private:
  struct Chain {
    std::string name;
    std::string policy;  // "-" for a user chain
    std::vector<std::string> rules;
  };

  static bool builtin(std::string_view name) {
    return name == "INPUT" || name == "FORWARD" || name == "OUTPUT";
  }
  static Chain* find(std::vector<Chain>& chains, std::string_view name) {
    auto it = std::find_if(chains.begin(), chains.end(), [&](auto& c) { return c.name == name; });
    return it == chains.end() ? nullptr : &*it;
  }
  static std::string targetOf(std::string_view rule) {
    const std::vector<std::string> words = splitWords(rule);
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
      if (words[i] == "-j" || words[i] == "-g") return words[i + 1];
    }
    return {};
  }

  static std::optional<std::string> apply(std::vector<Chain>& chains, std::string_view line) {
    const std::vector<std::string> words = splitWords(line);
    if (words.size() < 2) return "unknown line";
    Chain* chain = find(chains, words[0].starts_with(":") ? words[0].substr(1) : words[1]);
    if (line.starts_with(":")) {
      const std::string name = words[0].substr(1);
      if (name.empty() || name.size() > 28) return "bad chain name";
      if (chain && builtin(name)) {
        if (words[1] != "-") chain->policy = words[1];
      } else if (words[1] != "-") {
        return "a policy on user chain " + name;
      } else if (chain) {
        chain->rules.clear();
      } else {
        chains.push_back({name, "-", {}});
      }
      return std::nullopt;
    }
    if (!chain) return "no chain " + words[1];
    // The rule is what follows the chain, and for -I its position.
    std::string_view rule =
        line.substr(std::min(line.size(), words[0].size() + words[1].size() + 2));
    std::size_t at = chain->rules.size();
    if (words[0] == "-I") {
      // A position that is not a number reads as 0, which is refused too.
      at = std::strtoul(words.size() > 2 ? words[2].c_str() : "", nullptr, 10) - 1;
      if (at > chain->rules.size()) return "index of insertion too big";
      rule.remove_prefix(std::min(rule.size(), words[2].size() + 1));
    }
    if (words[0] == "-A" || words[0] == "-I") {
      const std::string target = targetOf(rule);
      const bool verdict = target.empty() || target == "ACCEPT" || target == "DROP" ||
                           target == "RETURN" || target == "REJECT" || target == "LOG";
      if (!verdict && (builtin(target) || !find(chains, target))) return "no target " + target;
      chain->rules.insert(chain->rules.begin() + static_cast<std::ptrdiff_t>(at),
                          std::string(rule));
    } else if (words[0] == "-D") {
      auto it = std::find(chain->rules.begin(), chain->rules.end(), rule);
      if (it == chain->rules.end()) return "no such rule";
      chain->rules.erase(it);
    } else if (words[0] == "-F") {
      chain->rules.clear();
    } else if (words[0] == "-X") {
      if (builtin(chain->name) || !chain->rules.empty()) return "cannot delete " + chain->name;
      for (const Chain& c : chains) {
        for (const std::string& r : c.rules) {
          if (targetOf(r) == chain->name) return chain->name + " is jumped to from " + c.name;
        }
      }
      chains.erase(chains.begin() + (chain - chains.data()));
    } else {
      return "unknown command";
    }
    return std::nullopt;
  }

  std::vector<Chain> chains_{
      {"INPUT", "ACCEPT", {}}, {"FORWARD", "ACCEPT", {}}, {"OUTPUT", "ACCEPT", {}}};
};

}  // namespace AclAgent

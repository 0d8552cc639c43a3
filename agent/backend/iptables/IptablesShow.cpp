#include "agent/backend/iptables/IptablesShow.h"

#include <string_view>
#include <tuple>

#include "agent/base/ChainRules.h"
#include "agent/base/Text.h"

namespace AclAgent {

std::string renderIptables(const std::map<RuleKey, Rule>& rules) {
  // The standing rules again, in output order: VRF, table (ipt, acl), chain,
  // then owner, sequence number and direction within the chain.
  using Placement = std::tuple<L3::VrfName, Acl::IptablesType, Acl::AclType, Zov::String,
                               Zov::String, unsigned int, Acl::AclDirection>;
  std::map<Placement, std::pair<const RuleKey*, const Rule*>> placed;
  for (const auto& [key, rule] : rules) {
    placed.emplace(Placement{key.vrf, key.iptablesType, key.aclType, key.chain, key.owner,
                             key.sequence, key.direction},
                   std::pair{&key, &rule});
  }

  std::string out;
  const RuleKey* block = nullptr;  // the first rule of the open block
  const RuleKey* chain = nullptr;  // the first rule of the current chain
  auto closeBlock = [&] {
    if (block) out += "COMMIT\n";
  };
  for (const auto& [placement, entry] : placed) {
    const auto& [key, rule] = entry;
    if (!block || block->vrf != key->vrf || block->iptablesType != key->iptablesType ||
        block->aclType != key->aclType) {
      closeBlock();
      block = key;
      chain = nullptr;
      out += "# vrf " + quoteName(key->vrf.view());
      if (key->iptablesType != Acl::IptablesType::kIptables ||
          key->aclType != Acl::AclType::kControlPlane) {
        out += " ipt=" + std::to_string(static_cast<unsigned>(key->iptablesType)) +
               " acl=" + std::to_string(static_cast<unsigned>(key->aclType));
      }
      out += "\n*filter\n";
    }
    const std::string_view chainName = key->chain.view();
    const char* fault = chainNameFault(chainName);
    const bool newChain = !chain || chain->chain != key->chain;
    chain = key;
    if (newChain && !fault && !isBuiltinChain(chainName)) {
      out += ':';
      out += chainName;
      out += " - [0:0]\n";
    }

    std::string_view text = rule->text.view();
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (!fault) fault = ruleTextFault(text);
    if (fault) {
      out += "# not restorable: " + ruleKeyText(*key) + " rule=" + quoteName(rule->text.view()) +
             " (" + fault + ")\n";
      continue;
    }
    out += "-A ";
    out += chainName;
    if (!text.empty()) {
      out += ' ';
      out += text;
    }
    out += '\n';
  }
  closeBlock();
  return out;
}

}  // namespace AclAgent

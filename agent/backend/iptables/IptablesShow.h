// `show iptables`: what stands in the rule service, as the restore input of
// each VRF's tables.
//
//   std::cout << renderIptables(ruleService.rules());
//
// Per VRF, in bytewise order of its name, a comment line naming the VRF and a
// `*filter` ... `COMMIT` block that `iptables-restore --noflush` accepts,
// holding the VRF's rules of iptables type 0 and ACL type 0, chains in
// bytewise order and each chain's rules in order of owner, sequence number
// (then direction). Rules of any other iptables or ACL type get a block of
// their own after it, headed `# vrf "NAME" ipt=I acl=A`, for the restore
// program of that table. A chain other than INPUT, FORWARD and OUTPUT is
// declared (":NAME - [0:0]") before its rules. A rule whose text cannot stand
// as one line or whose chain name cannot be named on one is not restorable:
// it is left out and a comment line in its place says which rule and why.
// Nothing at all when no rule stands.
//
// Threading: none; a pure function.
#pragma once

#include <map>
#include <string>

#include "agent/host/RuleService.h"

namespace AclAgent {

std::string renderIptables(const std::map<RuleKey, Rule>& rules);

}  // namespace AclAgent

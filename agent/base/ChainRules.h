// ChainRules: what must stand in one VRF, as the rule service hands it to a
// kernel backend, and what can stand there at all.
//
//   ChainRules rules{{"INPUT", {"-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT"}}};
//
// Rule texts are in iptables syntax, one line each: a text or chain name that
// could not be written as one rule line is never part of them.
//
// Threading: none; values and pure functions.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace AclAgent {

// Each chain, in bytewise order, with its rule texts (without their final
// newline) in order.
using ChainRules = std::map<std::string, std::vector<std::string>>;

// Chains every filter table has; any other must be declared before use.
bool isBuiltinChain(std::string_view chain);
// Why `chain` cannot be named on a rule line, or null when it can.
const char* chainNameFault(std::string_view chain);
// Why `text` (its one trailing newline already taken off) cannot stand as the
// rest of one rule line, or null when it can. A tab separates words there
// like a space does.
const char* ruleTextFault(std::string_view text);

}  // namespace AclAgent

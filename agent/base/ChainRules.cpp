#include "agent/base/ChainRules.h"

namespace AclAgent {
namespace {

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

bool isBuiltinChain(std::string_view chain) {
  return chain == "INPUT" || chain == "FORWARD" || chain == "OUTPUT";
}

const char* chainNameFault(std::string_view chain) {
  if (chain.empty()) return "the chain name is empty";
  for (char c : chain) {
    if (c == ' ' || isControl(c)) return "the chain name holds white space or control bytes";
  }
  return nullptr;
}

const char* ruleTextFault(std::string_view text) {
  for (char c : text) {
    if (c == '\n') return "the rule text has a line break before its end";
    if (c != '\t' && isControl(c)) return "the rule text holds control bytes";
  }
  return nullptr;
}

}  // namespace AclAgent

#include "agent/base/Text.h"

#include "platform/Zov.h"

namespace AclAgent {

std::string quoteName(std::string_view text) {
  return Zov::quotedText(text);
}

std::string shownName(std::string_view text) {
  if (text.size() <= kShownBytes) return quoteName(text);
  return quoteName(text.substr(0, kShownBytes)) + "... (" + std::to_string(text.size()) + " bytes)";
}

std::string shownText(std::string_view text) {
  if (text.size() <= kShownBytes) return std::string(text);
  return std::string(text.substr(0, kShownBytes)) + "... (" + std::to_string(text.size()) +
         " bytes)";
}

}  // namespace AclAgent

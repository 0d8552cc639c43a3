// How the agent shows texts: double-quoted as the scenario language writes
// names (so that anything printed reads back as the same name), and cut to a
// readable length in messages.
//
//   quoteName("red \"east\"")        // "red \"east\""
//   shownName(std::string(300, 'x'))  // "xxx...x"... (300 bytes)
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace AclAgent {

// `text` double-quoted with the escapes \" \\ \n \t, and \xHH for every other
// byte outside printable ASCII. The scenario parser reads it back as `text`.
std::string quoteName(std::string_view text);

// Texts in messages are cut to this many bytes.
constexpr std::size_t kShownBytes = 40;
// `quoteName(text)` for a message: a text over `kShownBytes` shows its start
// and its length, as in "abc"... (150 bytes).
std::string shownName(std::string_view text);
// The same for a text shown as written, without quotes.
std::string shownText(std::string_view text);

}  // namespace AclAgent

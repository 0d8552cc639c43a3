// Feeds any text to the scenario parser and checks what it returns: a
// scenario that does not parse keeps no command; every error and every
// command names a line of the text, in order; and every command, written back
// as a line, parses to the same command.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "agent/base/Text.h"
#include "agent/scenario/Scenario.h"

namespace {

using namespace AclAgent;
using AclAgentFuzz::check;
using AclAgentFuzz::kFile;

// Lines end in "\n"; a last line without one counts as well.
unsigned lineCount(std::string_view text) {
  unsigned lines = 0;
  for (char c : text) lines += c == '\n';
  if (!text.empty() && text.back() != '\n') ++lines;
  return lines;
}

// Errors and commands name lines of the text, in order.
void checkLine(unsigned line, unsigned& previous, unsigned lines, const std::string& what) {
  check(line > previous && line <= lines, what + " on line " + std::to_string(line) +
                                              " after line " + std::to_string(previous) + " of " +
                                              std::to_string(lines));
  previous = line;
}

void checkErrors(const ParsedScenario& parsed, unsigned lines) {
  check(parsed.commands.empty(), "a scenario that does not parse kept " +
                                     std::to_string(parsed.commands.size()) + " commands");
  unsigned previous = 0;
  for (const ParseError& e : parsed.errors) {
    check(e.file == kFile && !e.message.empty(), "error " + quoteName(e.text()));
    checkLine(e.line, previous, lines, "error " + e.text());
  }
}

void checkCommands(const ParsedScenario& parsed, unsigned lines) {
  unsigned previous = 0;
  for (const Command& command : parsed.commands) {
    const std::string line = AclAgentFuzz::commandText(command.args);
    checkLine(command.line, previous, lines, "command " + quoteName(line));
    const ParsedLine again = parseLine(line, kFile, command.line);
    check(again.command && *again.command == command,
          "written back as " + quoteName(line) + ", line " + std::to_string(command.line) +
              (again.error ? " does not parse: " + again.error->text()
                           : " parses to another command"));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ParsedScenario parsed = parseScenario(text, kFile);
  const unsigned lines = lineCount(text);
  if (parsed.ok()) {
    checkCommands(parsed, lines);
  } else {
    checkErrors(parsed, lines);
  }
  return 0;
}

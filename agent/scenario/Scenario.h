// Scenario: the language in which `acl-agent` is driven, turned into typed
// commands.
//
// A scenario is one command a line. `parseScenario` reads a whole file before
// any of it runs: it yields every command with its line number, or, when any
// line does not parse, every error and no commands. `parseLine` reads one line
// the same way, for the interactive mode.
//
//   ParsedScenario parsed = parseScenario(text, "startup.scn");
//   if (!parsed.ok()) {
//     for (const ParseError& e : parsed.errors) std::cerr << e.text() << '\n';
//     return 2;
//   }
//   for (const Command& c : parsed.commands) std::visit(runner, c.args);
//
// Lexical rules:
// - Tokens are separated by white space. A token is bare (a run of non-white
//   characters) or a double-quoted string with the escapes \" \\ \n \t \xHH;
//   "" is the empty name. A quote inside a bare token is an error, and so is
//   anything but white space after a closing quote, except a link index.
// - `#` at the start of a token (first on the line or after white space)
//   starts a comment that runs to the end of the line; when it swallows an
//   argument, the error says so. A `#` inside quotes is text:
//   `intf set "a #b" red` names the interface "a #b".
// - A link is INTF or INTF#N. In a bare token the last `#` separates the index;
//   a quoted interface name takes the index right after its closing quote
//   ("Ethernet 1"#2). Interface names that contain `#` must be quoted, in
//   `intf` commands too, where a bare `e1#2` is refused rather than read as a
//   name when `link` reads it as link 2 of e1. A `#` inside a bare VRF name is
//   text.
// - `echo` prints the rest of its line as written, from the character after
//   the first separator: spacing and quotes are kept, escapes are not decoded.
//   A comment on an echo line is dropped by the same rule (a `#` starting a
//   word outside quotes), together with the white space before it.
// - Numbers are unsigned decimals. Durations are a decimal number (with an
//   optional fraction) and a unit, ns, us, ms or s, rounded to the nearest
//   nanosecond.
// Names are kept as the raw bytes written: a VRF name over 100 bytes parses,
// and is refused when the command runs. Messages show at most `kShownBytes`
// of a value, with its length.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/base/Text.h"
#include "agent/host/StateDatabase.h"

namespace AclAgent {

// The commands, one struct each.
struct GatewayEnabledCmd {
  bool enabled;
  friend bool operator==(const GatewayEnabledCmd&, const GatewayEnabledCmd&) = default;
};
struct GatewaySettingCmd {
  std::uint16_t setting;
  friend bool operator==(const GatewaySettingCmd&, const GatewaySettingCmd&) = default;
};
struct LinkSetCmd {
  LinkName link;
  std::uint8_t state;
  friend bool operator==(const LinkSetCmd&, const LinkSetCmd&) = default;
};
struct LinkReplaceCmd {
  LinkName link;
  std::uint8_t state;
  friend bool operator==(const LinkReplaceCmd&, const LinkReplaceCmd&) = default;
};
struct LinkDelCmd {
  LinkName link;
  friend bool operator==(const LinkDelCmd&, const LinkDelCmd&) = default;
};
struct IntfSetCmd {
  std::string intf;
  std::string vrf;
  friend bool operator==(const IntfSetCmd&, const IntfSetCmd&) = default;
};
struct IntfReplaceCmd {
  std::string intf;
  std::string vrf;
  friend bool operator==(const IntfReplaceCmd&, const IntfReplaceCmd&) = default;
};
struct IntfDelCmd {
  std::string intf;
  friend bool operator==(const IntfDelCmd&, const IntfDelCmd&) = default;
};
struct VrfAddCmd {
  VrfView view;
  std::string name;
  friend bool operator==(const VrfAddCmd&, const VrfAddCmd&) = default;
};
struct VrfDelCmd {
  VrfView view;
  std::string name;
  friend bool operator==(const VrfDelCmd&, const VrfDelCmd&) = default;
};
struct OmitCmd {
  StatePath path;
  friend bool operator==(const OmitCmd&, const OmitCmd&) = default;
};
struct RecreateCmd {
  StatePath path;
  friend bool operator==(const RecreateCmd&, const RecreateCmd&) = default;
};
struct LoadCmd {
  friend bool operator==(const LoadCmd&, const LoadCmd&) = default;
};
struct UnloadCmd {
  friend bool operator==(const UnloadCmd&, const UnloadCmd&) = default;
};
struct RemountCmd {
  Korvel::MountStatus status;
  friend bool operator==(const RemountCmd&, const RemountCmd&) = default;
};
struct AdvanceCmd {
  std::int64_t nanoseconds;
  friend bool operator==(const AdvanceCmd&, const AdvanceCmd&) = default;
};
struct SettleCmd {
  friend bool operator==(const SettleCmd&, const SettleCmd&) = default;
};
struct EchoCmd {
  std::string text;
  friend bool operator==(const EchoCmd&, const EchoCmd&) = default;
};

// `resync`: reads every VRF's namespace back and repairs what drifted (with
// --apply only).
struct ResyncCmd {
  friend bool operator==(const ResyncCmd&, const ResyncCmd&) = default;
};

// `clear calls`: sets the calls made so far aside without printing them, so
// that the next `show calls` shows only what follows.
struct ClearCallsCmd {
  friend bool operator==(const ClearCallsCmd&, const ClearCallsCmd&) = default;
};

// What `show` asks for. To add one, add a value here and its word to the
// table in Scenario.cpp.
enum class ShowWhat : std::uint8_t {
  kCalls,
  kRules,
  kIptables,
  kState,
  kTypes,
  kPlugin,
  kSm,
  kWatchers,
  kApplied,
};
struct ShowCmd {
  ShowWhat what;
  friend bool operator==(const ShowCmd&, const ShowCmd&) = default;
};
// The word that names `what` in a scenario.
std::string_view showWord(ShowWhat what);
// Every show word, for help texts: "calls, rules, ...".
std::string showWordList();

using CommandArgs = std::variant<GatewayEnabledCmd, GatewaySettingCmd, LinkSetCmd, LinkReplaceCmd,
                                 LinkDelCmd, IntfSetCmd, IntfReplaceCmd, IntfDelCmd, VrfAddCmd,
                                 VrfDelCmd, OmitCmd, RecreateCmd, LoadCmd, UnloadCmd, RemountCmd,
                                 AdvanceCmd, SettleCmd, EchoCmd, ShowCmd, ClearCallsCmd, ResyncCmd>;

// The words that name the command in a scenario, without its arguments:
// "link set", "config gateway-setting", "show".
std::string_view commandWords(const CommandArgs& args);

struct Command {
  unsigned line = 0;  // 1-based line in its file
  CommandArgs args;
  friend bool operator==(const Command&, const Command&) = default;
};

struct ParseError {
  std::string file;  // "-" for standard input
  unsigned line = 0;
  std::string message;

  // "FILE:LINE: error: MESSAGE".
  std::string text() const;
};

struct ParsedScenario {
  std::vector<Command> commands;  // empty when there are errors
  std::vector<ParseError> errors;
  bool ok() const { return errors.empty(); }
};

// One line of a scenario: a command, nothing (blank or comment) or an error.
struct ParsedLine {
  std::optional<Command> command;
  std::optional<ParseError> error;
};
ParsedLine parseLine(std::string_view line, const std::string& file, unsigned lineNumber);

// Parses a scenario line by line, calling `each` with every line that holds a
// command or an error, in order; stops early, returning false, when `each`
// returns false. Lines end in "\n" (a "\r" before it is dropped); a last
// line without one counts as well. A UTF-8 byte-order mark at the start of
// `text` is skipped. Nothing is kept between lines, so a caller that keeps
// nothing either (it checks a file, then parses it again to run it) needs no
// memory beyond the text itself.
bool parseEachLine(std::string_view text, const std::string& file,
                   const std::function<bool(ParsedLine&)>& each);

// Parses a whole scenario into its commands, or every error and no command.
ParsedScenario parseScenario(std::string_view text, const std::string& file);

// The words of `line` as the lexical rules above read them: bare tokens and
// quoted strings (decoded), up to a comment. Returns what is wrong with the
// line, if anything; a quoted word followed by `#` is wrong here, as no
// link is read. For lines of options, such as a configuration file's.
std::optional<std::string> splitWords(std::string_view line, std::vector<std::string>& words);

// `text` without a UTF-8 byte-order mark at its start.
std::string_view withoutByteOrderMark(std::string_view text);

}  // namespace AclAgent

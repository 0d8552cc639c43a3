#include "agent/scenario/Scenario.h"

#include "agent/base/Overloaded.h"

#include <cstdio>
#include <functional>
#include <limits>

namespace AclAgent {
namespace {

struct ShowEntry {
  ShowWhat what;
  std::string_view word;
};
// Every show word; the one place to extend.
constexpr ShowEntry kShowWords[] = {
    {ShowWhat::kCalls, "calls"},
    {ShowWhat::kRules, "rules"},
    {ShowWhat::kIptables, "iptables"},
    {ShowWhat::kState, "state"},
    {ShowWhat::kTypes, "types"},
    {ShowWhat::kPlugin, "plugin"},
    {ShowWhat::kSm, "sm"},
    {ShowWhat::kWatchers, "watchers"},
    {ShowWhat::kApplied, "applied"},
};

// Raised inside the parser; becomes a `ParseError` for the line.
struct SyntaxError {
  std::string message;
};

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct Token {
  std::string text;  // decoded
  bool quoted = false;
  // A quoted name followed at once by `#`: the raw text after the `#`.
  std::optional<std::string> index;
  std::size_t end = 0;  // offset just past the token in its line
};

// Reads the quoted string that starts at `line[pos]` and leaves `pos` just
// past its closing quote.
std::string readQuoted(std::string_view line, std::size_t& pos) {
  std::string text;
  ++pos;
  while (true) {
    if (pos >= line.size()) throw SyntaxError{"unterminated string"};
    const char c = line[pos++];
    if (c == '"') return text;
    if (c != '\\') {
      text += c;
      continue;
    }
    if (pos >= line.size()) throw SyntaxError{"unterminated string"};
    const char e = line[pos++];
    switch (e) {
      case '"':
      case '\\':
        text += e;
        break;
      case 'n':
        text += '\n';
        break;
      case 't':
        text += '\t';
        break;
      case 'x': {
        const int high = pos < line.size() ? hexValue(line[pos]) : -1;
        const int low = pos + 1 < line.size() ? hexValue(line[pos + 1]) : -1;
        if (high < 0 || low < 0) {
          const std::size_t digits = high < 0 ? 0 : 1;
          throw SyntaxError{"bad escape \\x" + std::string(line.substr(pos, digits)) +
                            " (expected two hex digits after \\x)"};
        }
        text += static_cast<char>(high * 16 + low);
        pos += 2;
        break;
      }
      default: {
        const bool printable = e > ' ' && e < 0x7f;
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(e));
        throw SyntaxError{"bad escape \\" + (printable ? std::string(1, e) : std::string(hex))};
      }
    }
  }
}

std::size_t bareEnd(std::string_view line, std::size_t pos) {
  while (pos < line.size() && !isSpace(line[pos])) ++pos;
  return pos;
}

// Reads the token at `line[pos]` (not white space, not a comment).
Token readToken(std::string_view line, std::size_t pos) {
  Token token;
  if (line[pos] == '"') {
    token.quoted = true;
    token.text = readQuoted(line, pos);
    if (pos < line.size() && line[pos] == '#') {
      const std::size_t end = bareEnd(line, pos);
      token.index = std::string(line.substr(pos + 1, end - pos - 1));
      pos = end;
    } else if (pos < line.size() && !isSpace(line[pos])) {
      throw SyntaxError{"unexpected " + shownName(line.substr(pos, bareEnd(line, pos) - pos)) +
                        " after the closing quote of " + shownName(token.text)};
    }
    token.end = pos;
    return token;
  }
  const std::size_t end = bareEnd(line, pos);
  token.text = std::string(line.substr(pos, end - pos));
  if (token.text.find('"') != std::string::npos) {
    throw SyntaxError{"unexpected '\"' inside " + shownName(token.text) +
                      " (a quoted name must stand as a token of its own)"};
  }
  token.end = end;
  return token;
}

std::size_t skipSpace(std::string_view line, std::size_t pos) {
  while (pos < line.size() && isSpace(line[pos])) ++pos;
  return pos;
}

// The text of an echo line after the first separator, without its comment and
// the white space before it.
std::string echoText(std::string_view rest) {
  bool inQuote = false;
  bool wordStart = true;
  std::size_t cut = rest.size();
  for (std::size_t i = 0; i < rest.size(); ++i) {
    const char c = rest[i];
    if (inQuote) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inQuote = false;
      }
    } else if (isSpace(c)) {
      wordStart = true;
    } else {
      if (wordStart && c == '#') {
        cut = i;
        break;
      }
      if (wordStart && c == '"') inQuote = true;
      wordStart = false;
    }
  }
  if (inQuote) throw SyntaxError{"unterminated string"};
  std::string_view text = rest.substr(0, cut);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return std::string(text);
}

// Parses an unsigned decimal no greater than `max`; `what` names the value in
// messages ("link state").
std::uint64_t parseNumber(const std::string& text, std::uint64_t max, const std::string& what,
                          const std::string& context = "") {
  const std::string range = "0.." + std::to_string(max);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    throw SyntaxError{"bad " + what + " " + shownName(text) + context + " (expected a number " +
                      range + ")"};
  }
  std::uint64_t value = 0;
  for (char c : text) {
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > max) {
      throw SyntaxError{what + " " + shownText(text) + " is out of range " + range};
    }
  }
  return value;
}

// Parses a duration into nanoseconds, rounded to the nearest.
std::int64_t parseDuration(const std::string& text) {
  constexpr std::string_view kUnits = "ns, us, ms or s";
  std::size_t i = 0;
  while (i < text.size() && isDigit(text[i])) ++i;
  const std::string whole = text.substr(0, i);
  std::string fraction;
  if (i < text.size() && text[i] == '.') {
    const std::size_t start = ++i;
    while (i < text.size() && isDigit(text[i])) ++i;
    fraction = text.substr(start, i - start);
    if (fraction.empty()) i = std::string::npos;
  }
  if (whole.empty() || i == std::string::npos) {
    throw SyntaxError{"bad duration " + shownName(text) +
                      " (expected a number and a unit: " + std::string(kUnits) + ")"};
  }
  const std::string unit = text.substr(i);
  std::size_t zeros;
  if (unit == "ns") {
    zeros = 0;
  } else if (unit == "us") {
    zeros = 3;
  } else if (unit == "ms") {
    zeros = 6;
  } else if (unit == "s") {
    zeros = 9;
  } else if (unit.empty()) {
    throw SyntaxError{"missing unit in duration " + shownName(text) + " (expected " +
                      std::string(kUnits) + ")"};
  } else {
    throw SyntaxError{"unknown unit " + shownName(unit) + " in duration " + shownName(text) +
                      " (expected " + std::string(kUnits) + ")"};
  }
  // Shift the decimal point `zeros` places right, exactly, then round on the
  // first digit that falls behind it.
  const std::size_t taken = std::min(zeros, fraction.size());
  std::string digits = whole + fraction.substr(0, taken);
  digits.append(zeros - taken, '0');
  const bool roundUp = fraction.size() > zeros && fraction[zeros] >= '5';
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  const SyntaxError tooLong{"duration " + shownName(text) + " is too long (the longest is " +
                            std::to_string(kMax) + "ns, about 292 years)"};
  std::uint64_t ns = 0;
  for (char c : digits) {
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (ns > (kMax - digit) / 10) throw tooLong;
    ns = ns * 10 + digit;
  }
  if (roundUp && ns++ == kMax) throw tooLong;
  return static_cast<std::int64_t>(ns);
}

// The arguments of one command, read from its line one token at a time, so
// that a line of a million words costs no more than its first surplus one.
class Args {
 public:
  // `start`: where the command's name begins in `line`.
  Args(std::string_view line, std::size_t start) : line_(line), start_(start), pos_(start) {
    first_ = take("command");
  }

  // The command's name, as the first token.
  const Token& command() const { return first_; }

  bool more() {
    pos_ = skipSpace(line_, pos_);
    return pos_ < line_.size() && line_[pos_] != '#';
  }

  // The next token's text; `what` names it when it is missing.
  std::string word(const std::string& what) {
    const Token& token = take(what);
    if (token.index) {
      throw SyntaxError{"unexpected link index after " + shownName(token.text) +
                        " (only a link takes one)"};
    }
    return token.text;
  }

  // An interface name: a bare `#` would read as a link index in a link, so a
  // bare name that holds one is refused rather than read another way here.
  std::string intfName() {
    std::string name = word("interface name");
    if (!last_.quoted && name.find('#') != std::string::npos) {
      throw SyntaxError{"interface name " + shownName(name) +
                        " holds '#', which in a link starts its index; quote the name (" +
                        shownName(name) + ") to keep the '#' in it"};
    }
    return name;
  }

  LinkName link() {
    const Token& token = take("interface name");
    LinkName name;
    std::optional<std::string> index = token.index;
    name.intf = token.text;
    if (!token.quoted) {
      const std::size_t hash = token.text.rfind('#');
      if (hash != std::string::npos) {
        name.intf = token.text.substr(0, hash);
        index = token.text.substr(hash + 1);
      }
    }
    if (index) {
      // The link as written, for messages.
      const std::string shown =
          token.quoted ? shownName(token.text) + "#" + shownText(*index) : shownName(token.text);
      if (index->empty()) throw SyntaxError{"missing link index after '#' in " + shown};
      name.index = static_cast<std::uint32_t>(parseNumber(
          *index, std::numeric_limits<std::uint32_t>::max(), "link index", " in " + shown));
    }
    return name;
  }

  // The words read so far, as written: "link del Ethernet1".
  std::string consumed() const { return shownText(line_.substr(start_, last_.end - start_)); }

  void end() {
    if (!more()) return;
    const Token extra = readToken(line_, pos_);
    throw SyntaxError{"unexpected argument " + shownName(extra.text) + " after " + consumed()};
  }

 private:
  const Token& take(const std::string& what) {
    if (!more()) {
      std::string message = "missing " + what;
      if (pos_ < line_.size()) {
        // A word that starts with '#' starts a comment, which can swallow an
        // argument meant to be a name: say so.
        message += " (" + shownName(line_.substr(pos_)) +
                   " is a comment: quote a name that starts with '#')";
      }
      throw SyntaxError{std::move(message)};
    }
    last_ = readToken(line_, pos_);
    pos_ = last_.end;
    return last_;
  }

  std::string_view line_;
  std::size_t start_;
  std::size_t pos_;
  Token first_;
  Token last_;
};

// "a, b or c".
std::string choiceList(std::initializer_list<std::string_view> choices) {
  std::string list;
  std::size_t i = 0;
  for (std::string_view choice : choices) {
    if (i > 0) list += i + 1 == choices.size() ? " or " : ", ";
    list += choice;
    ++i;
  }
  return list;
}

// The keyword that follows a command (`set` in `link set`), one of `choices`;
// `what` names it in messages ("link operation").
std::string keyword(Args& args, const std::string& what,
                    std::initializer_list<std::string_view> choices) {
  const std::string expected = " (expected " + choiceList(choices) + ")";
  if (!args.more()) throw SyntaxError{"missing " + what + expected};
  const std::string word = args.word(what);
  for (std::string_view choice : choices) {
    if (word == choice) return word;
  }
  throw SyntaxError{"unknown " + what + " " + shownName(word) + expected};
}

StatePath path(Args& args) {
  const std::string expected = " (expected one of " + statePathList() + ")";
  if (!args.more()) throw SyntaxError{"missing path" + expected};
  const std::string word = args.word("path");
  if (auto p = statePathNamed(word)) return *p;
  throw SyntaxError{"unknown path " + shownName(word) + expected};
}

// One parser a command; each reads its arguments from `args`.
using CommandParser = CommandArgs (*)(Args& args);

CommandArgs parseConfig(Args& args) {
  if (keyword(args, "config setting", {"gateway-enabled", "gateway-setting"}) ==
      "gateway-setting") {
    return GatewaySettingCmd{static_cast<std::uint16_t>(
        parseNumber(args.word("gateway setting"), 65535, "gateway setting"))};
  }
  if (!args.more()) throw SyntaxError{"missing value for gateway-enabled (expected true or false)"};
  const std::string value = args.word("value");
  if (value != "true" && value != "false") {
    throw SyntaxError{"bad value " + shownName(value) +
                      " for gateway-enabled (expected true or false)"};
  }
  return GatewayEnabledCmd{value == "true"};
}

CommandArgs parseLink(Args& args) {
  const std::string op = keyword(args, "link operation", {"set", "replace", "del"});
  LinkName link = args.link();
  if (op == "del") return LinkDelCmd{std::move(link)};
  const auto state =
      static_cast<std::uint8_t>(parseNumber(args.word("link state"), 255, "link state"));
  if (op == "set") return LinkSetCmd{std::move(link), state};
  return LinkReplaceCmd{std::move(link), state};
}

CommandArgs parseIntf(Args& args) {
  const std::string op = keyword(args, "intf operation", {"set", "replace", "del"});
  std::string intf = args.intfName();
  if (op == "del") return IntfDelCmd{std::move(intf)};
  if (op == "set") return IntfSetCmd{std::move(intf), args.word("VRF name")};
  return IntfReplaceCmd{std::move(intf), args.word("VRF name")};
}

CommandArgs parseVrf(Args& args) {
  const std::string op = keyword(args, "vrf operation", {"add", "del"});
  const VrfView view = keyword(args, "VRF view", {"global", "local"}) == "global" ? VrfView::kGlobal
                                                                                  : VrfView::kLocal;
  if (op == "add") return VrfAddCmd{view, args.word("VRF name")};
  return VrfDelCmd{view, args.word("VRF name")};
}

CommandArgs parseRemount(Args& args) {
  if (!args.more()) return RemountCmd{Korvel::MountStatus::kSuccess};
  const std::string word = args.word("mount status");
  if (word == "failed") return RemountCmd{Korvel::MountStatus::kFailed};
  if (word != "ok") {
    throw SyntaxError{"bad mount status " + shownName(word) + " (expected ok or failed)"};
  }
  return RemountCmd{Korvel::MountStatus::kSuccess};
}

CommandArgs parseAdvance(Args& args) {
  if (!args.more()) throw SyntaxError{"missing duration (for example 10ms)"};
  return AdvanceCmd{parseDuration(args.word("duration"))};
}

CommandArgs parseClear(Args& args) {
  if (!args.more()) throw SyntaxError{"missing what to clear (expected calls)"};
  const std::string word = args.word("what to clear");
  if (word != "calls") throw SyntaxError{"cannot clear " + shownName(word) + " (expected calls)"};
  return ClearCallsCmd{};
}

CommandArgs parseShow(Args& args) {
  const std::string expected = " (expected " + showWordList() + ")";
  if (!args.more()) throw SyntaxError{"missing show word" + expected};
  const std::string word = args.word("show word");
  for (const ShowEntry& entry : kShowWords) {
    if (entry.word == word) return ShowCmd{entry.what};
  }
  throw SyntaxError{"unknown show word " + shownName(word) + expected};
}

struct CommandEntry {
  std::string_view name;
  CommandParser parse;
};
// Every command but echo, whose line is not split into tokens.
constexpr CommandEntry kCommands[] = {
    {"config", parseConfig},
    {"link", parseLink},
    {"intf", parseIntf},
    {"vrf", parseVrf},
    {"omit", [](Args& args) -> CommandArgs { return OmitCmd{path(args)}; }},
    {"recreate", [](Args& args) -> CommandArgs { return RecreateCmd{path(args)}; }},
    {"load", [](Args&) -> CommandArgs { return LoadCmd{}; }},
    {"unload", [](Args&) -> CommandArgs { return UnloadCmd{}; }},
    {"remount", parseRemount},
    {"advance", parseAdvance},
    {"settle", [](Args&) -> CommandArgs { return SettleCmd{}; }},
    {"resync", [](Args&) -> CommandArgs { return ResyncCmd{}; }},
    {"clear", parseClear},
    {"show", parseShow},
};

CommandArgs parseCommand(std::string_view line, std::size_t start) {
  Args args(line, start);
  const Token& name = args.command();
  if (!name.index) {
    for (const CommandEntry& entry : kCommands) {
      if (entry.name != name.text) continue;
      CommandArgs result = entry.parse(args);
      args.end();
      return result;
    }
  }
  throw SyntaxError{"unknown command " +
                    shownName(name.index ? name.text + "#" + *name.index : name.text)};
}

}  // namespace

std::string_view showWord(ShowWhat what) {
  for (const ShowEntry& entry : kShowWords) {
    if (entry.what == what) return entry.word;
  }
  return "?";
}

std::string showWordList() {
  std::string list;
  const std::size_t n = std::size(kShowWords);
  for (std::size_t i = 0; i < n; ++i) {
    if (i > 0) list += i + 1 == n ? " or " : ", ";
    list += kShowWords[i].word;
  }
  return list;
}

std::string ParseError::text() const {
  return file + ":" + std::to_string(line) + ": error: " + message;
}

ParsedLine parseLine(std::string_view line, const std::string& file, unsigned lineNumber) {
  ParsedLine parsed;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  try {
    const std::size_t start = skipSpace(line, 0);
    if (start >= line.size() || line[start] == '#') return parsed;
    // An echo line is not split into tokens: its text is printed as written.
    const Token first = readToken(line, start);
    if (first.text == "echo" && !first.index) {
      std::size_t rest = first.end;
      if (rest < line.size()) ++rest;  // the first separator
      parsed.command = Command{lineNumber, EchoCmd{echoText(line.substr(rest))}};
      return parsed;
    }
    parsed.command = Command{lineNumber, parseCommand(line, start)};
  } catch (const SyntaxError& e) {
    parsed.error = ParseError{file, lineNumber, e.message};
  }
  return parsed;
}

std::optional<std::string> splitWords(std::string_view line, std::vector<std::string>& words) {
  try {
    for (std::size_t pos = skipSpace(line, 0); pos < line.size(); pos = skipSpace(line, pos)) {
      if (line[pos] == '#') break;
      Token token = readToken(line, pos);
      if (token.index) {
        throw SyntaxError{"unexpected " + shownName("#" + *token.index) +
                          " after the closing quote of " + shownName(token.text)};
      }
      words.push_back(std::move(token.text));
      pos = token.end;
    }
  } catch (const SyntaxError& e) {
    return e.message;
  }
  return std::nullopt;
}

std::string_view withoutByteOrderMark(std::string_view text) {
  constexpr std::string_view kMark = "\xef\xbb\xbf";
  if (text.substr(0, kMark.size()) == kMark) text.remove_prefix(kMark.size());
  return text;
}

bool parseEachLine(std::string_view text, const std::string& file,
                   const std::function<bool(ParsedLine&)>& each) {
  text = withoutByteOrderMark(text);
  unsigned lineNumber = 0;
  while (!text.empty()) {
    const std::size_t newline = text.find('\n');
    const std::string_view line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    ParsedLine result = parseLine(line, file, ++lineNumber);
    if ((result.command || result.error) && !each(result)) return false;
  }
  return true;
}

ParsedScenario parseScenario(std::string_view text, const std::string& file) {
  ParsedScenario parsed;
  parseEachLine(text, file, [&](ParsedLine& line) {
    if (line.error) parsed.errors.push_back(std::move(*line.error));
    // Once a line has failed, no command is kept.
    if (line.command && parsed.ok()) parsed.commands.push_back(std::move(*line.command));
    return true;
  });
  if (!parsed.ok()) parsed.commands.clear();
  return parsed;
}

std::string_view commandWords(const CommandArgs& args) {
  return std::visit(Overloaded{
                        [](const GatewayEnabledCmd&) { return "config gateway-enabled"; },
                        [](const GatewaySettingCmd&) { return "config gateway-setting"; },
                        [](const LinkSetCmd&) { return "link set"; },
                        [](const LinkReplaceCmd&) { return "link replace"; },
                        [](const LinkDelCmd&) { return "link del"; },
                        [](const IntfSetCmd&) { return "intf set"; },
                        [](const IntfReplaceCmd&) { return "intf replace"; },
                        [](const IntfDelCmd&) { return "intf del"; },
                        [](const VrfAddCmd&) { return "vrf add"; },
                        [](const VrfDelCmd&) { return "vrf del"; },
                        [](const OmitCmd&) { return "omit"; },
                        [](const RecreateCmd&) { return "recreate"; },
                        [](const LoadCmd&) { return "load"; },
                        [](const UnloadCmd&) { return "unload"; },
                        [](const RemountCmd&) { return "remount"; },
                        [](const AdvanceCmd&) { return "advance"; },
                        [](const SettleCmd&) { return "settle"; },
                        [](const EchoCmd&) { return "echo"; },
                        [](const ShowCmd&) { return "show"; },
                        [](const ClearCallsCmd&) { return "clear calls"; },
                        [](const ResyncCmd&) { return "resync"; },
                    },
                    args);
}

}  // namespace AclAgent

#include "agent/Scenario.h"

#include <cstdio>
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
      throw SyntaxError{"unexpected " + quoteName(line.substr(pos, bareEnd(line, pos) - pos)) +
                        " after the closing quote of " + quoteName(token.text)};
    }
    token.end = pos;
    return token;
  }
  const std::size_t end = bareEnd(line, pos);
  token.text = std::string(line.substr(pos, end - pos));
  if (token.text.find('"') != std::string::npos) {
    throw SyntaxError{"unexpected '\"' inside " + quoteName(token.text) +
                      " (a quoted name must stand as a token of its own)"};
  }
  token.end = end;
  return token;
}

std::size_t skipSpace(std::string_view line, std::size_t pos) {
  while (pos < line.size() && isSpace(line[pos])) ++pos;
  return pos;
}

std::vector<Token> tokenize(std::string_view line, std::size_t pos) {
  std::vector<Token> tokens;
  while (true) {
    pos = skipSpace(line, pos);
    if (pos >= line.size() || line[pos] == '#') return tokens;
    tokens.push_back(readToken(line, pos));
    pos = tokens.back().end;
  }
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
    throw SyntaxError{"bad " + what + " " + quoteName(text) + context + " (expected a number " +
                      range + ")"};
  }
  std::uint64_t value = 0;
  for (char c : text) {
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > max) throw SyntaxError{what + " " + text + " is out of range " + range};
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
    throw SyntaxError{"bad duration " + quoteName(text) +
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
    throw SyntaxError{"missing unit in duration " + quoteName(text) + " (expected " +
                      std::string(kUnits) + ")"};
  } else {
    throw SyntaxError{"unknown unit " + quoteName(unit) + " in duration " + quoteName(text) +
                      " (expected " + std::string(kUnits) + ")"};
  }
  // Shift the decimal point `zeros` places right, exactly, then round on the
  // first digit that falls behind it.
  const std::size_t taken = std::min(zeros, fraction.size());
  std::string digits = whole + fraction.substr(0, taken);
  digits.append(zeros - taken, '0');
  const bool roundUp = fraction.size() > zeros && fraction[zeros] >= '5';
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  const SyntaxError tooLong{"duration " + quoteName(text) + " is too long"};
  std::uint64_t ns = 0;
  for (char c : digits) {
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (ns > (kMax - digit) / 10) throw tooLong;
    ns = ns * 10 + digit;
  }
  if (roundUp && ns++ == kMax) throw tooLong;
  return static_cast<std::int64_t>(ns);
}

// The arguments of one command, taken in order.
class Args {
 public:
  Args(const std::vector<Token>& tokens, std::string command)
      : tokens_(tokens), command_(std::move(command)) {}

  bool more() const { return next_ < tokens_.size(); }

  // The next token's text; `what` names it when it is missing.
  const std::string& word(const std::string& what) {
    const Token& token = take(what);
    if (token.index) {
      throw SyntaxError{"unexpected link index after " + quoteName(token.text) + " in " + command_};
    }
    return token.text;
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
          token.quoted ? quoteName(token.text) + "#" + *index : quoteName(token.text);
      if (index->empty()) throw SyntaxError{"missing link index after '#' in " + shown};
      name.index = static_cast<std::uint32_t>(parseNumber(
          *index, std::numeric_limits<std::uint32_t>::max(), "link index", " in " + shown));
    }
    return name;
  }

  void extend(const std::string& word) { command_ += " " + word; }

  void end() const {
    if (more()) {
      throw SyntaxError{"unexpected argument " + quoteName(tokens_[next_].text) + " after " +
                        command_};
    }
  }

 private:
  const Token& take(const std::string& what) {
    if (!more()) throw SyntaxError{"missing " + what};
    return tokens_[next_++];
  }

  const std::vector<Token>& tokens_;
  std::size_t next_ = 1;
  std::string command_;
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
  const std::string& word = args.word(what);
  for (std::string_view choice : choices) {
    if (word == choice) {
      args.extend(word);
      return word;
    }
  }
  throw SyntaxError{"unknown " + what + " " + quoteName(word) + expected};
}

StatePath path(Args& args) {
  const std::string expected = " (expected one of " + statePathList() + ")";
  if (!args.more()) throw SyntaxError{"missing path" + expected};
  const std::string& word = args.word("path");
  if (auto p = statePathNamed(word)) return *p;
  throw SyntaxError{"unknown path " + quoteName(word) + expected};
}

CommandArgs parseCommand(const std::vector<Token>& tokens) {
  const std::string& name = tokens[0].text;
  if (tokens[0].index) {
    throw SyntaxError{"unknown command " + quoteName(name + "#" + *tokens[0].index)};
  }
  Args args(tokens, name);
  CommandArgs result;
  if (name == "config") {
    const std::string setting =
        keyword(args, "config setting", {"gateway-enabled", "gateway-setting"});
    if (setting == "gateway-enabled") {
      if (!args.more())
        throw SyntaxError{"missing value for gateway-enabled (expected true or false)"};
      const std::string& value = args.word("value");
      if (value != "true" && value != "false") {
        throw SyntaxError{"bad value " + quoteName(value) +
                          " for gateway-enabled (expected true or false)"};
      }
      result = GatewayEnabledCmd{value == "true"};
    } else {
      result = GatewaySettingCmd{static_cast<std::uint16_t>(
          parseNumber(args.word("gateway setting"), 65535, "gateway setting"))};
    }
  } else if (name == "link") {
    const std::string op = keyword(args, "link operation", {"set", "replace", "del"});
    LinkName link = args.link();
    if (op == "del") {
      result = LinkDelCmd{std::move(link)};
    } else {
      const auto state =
          static_cast<std::uint8_t>(parseNumber(args.word("link state"), 255, "link state"));
      if (op == "set") {
        result = LinkSetCmd{std::move(link), state};
      } else {
        result = LinkReplaceCmd{std::move(link), state};
      }
    }
  } else if (name == "intf") {
    const std::string op = keyword(args, "intf operation", {"set", "replace", "del"});
    std::string intf = args.word("interface name");
    if (op == "del") {
      result = IntfDelCmd{std::move(intf)};
    } else if (op == "set") {
      result = IntfSetCmd{std::move(intf), args.word("VRF name")};
    } else {
      result = IntfReplaceCmd{std::move(intf), args.word("VRF name")};
    }
  } else if (name == "vrf") {
    const std::string op = keyword(args, "vrf operation", {"add", "del"});
    const VrfView view = keyword(args, "VRF view", {"global", "local"}) == "global"
                             ? VrfView::kGlobal
                             : VrfView::kLocal;
    if (op == "add") {
      result = VrfAddCmd{view, args.word("VRF name")};
    } else {
      result = VrfDelCmd{view, args.word("VRF name")};
    }
  } else if (name == "omit") {
    result = OmitCmd{path(args)};
  } else if (name == "recreate") {
    result = RecreateCmd{path(args)};
  } else if (name == "load") {
    result = LoadCmd{};
  } else if (name == "unload") {
    result = UnloadCmd{};
  } else if (name == "remount") {
    Korvel::MountStatus status = Korvel::MountStatus::kSuccess;
    if (args.more()) {
      const std::string& word = args.word("mount status");
      if (word == "failed") {
        status = Korvel::MountStatus::kFailed;
      } else if (word != "ok") {
        throw SyntaxError{"bad mount status " + quoteName(word) + " (expected ok or failed)"};
      }
    }
    result = RemountCmd{status};
  } else if (name == "advance") {
    if (!args.more()) throw SyntaxError{"missing duration (for example 10ms)"};
    result = AdvanceCmd{parseDuration(args.word("duration"))};
  } else if (name == "settle") {
    result = SettleCmd{};
  } else if (name == "clear") {
    if (!args.more()) throw SyntaxError{"missing what to clear (expected calls)"};
    const std::string& word = args.word("what to clear");
    if (word != "calls") throw SyntaxError{"cannot clear " + quoteName(word) + " (expected calls)"};
    result = ClearCallsCmd{};
  } else if (name == "show") {
    const std::string expected = " (expected " + showWordList() + ")";
    if (!args.more()) throw SyntaxError{"missing show word" + expected};
    const std::string& word = args.word("show word");
    const ShowEntry* found = nullptr;
    for (const ShowEntry& entry : kShowWords) {
      if (entry.word == word) found = &entry;
    }
    if (!found) throw SyntaxError{"unknown show word " + quoteName(word) + expected};
    args.extend(word);
    result = ShowCmd{found->what};
  } else {
    throw SyntaxError{"unknown command " + quoteName(name)};
  }
  args.end();
  return result;
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

std::string quoteName(std::string_view text) {
  return Zov::quotedText(text);
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
    parsed.command = Command{lineNumber, parseCommand(tokenize(line, start))};
  } catch (const SyntaxError& e) {
    parsed.error = ParseError{file, lineNumber, e.message};
  }
  return parsed;
}

ParsedScenario parseScenario(std::string_view text, const std::string& file) {
  ParsedScenario parsed;
  unsigned lineNumber = 0;
  while (!text.empty()) {
    const std::size_t newline = text.find('\n');
    const std::string_view line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    ParsedLine result = parseLine(line, file, ++lineNumber);
    if (result.error) parsed.errors.push_back(std::move(*result.error));
    if (result.command) parsed.commands.push_back(std::move(*result.command));
  }
  if (!parsed.ok()) parsed.commands.clear();
  return parsed;
}

}  // namespace AclAgent

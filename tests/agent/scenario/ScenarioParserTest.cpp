// The scenario language: commands, names and quoting, comments, durations and
// the errors of lines that do not parse.
#include <gtest/gtest.h>

#include <algorithm>

#include "agent/scenario/Scenario.h"

// Heap use is counted through the sanitizer's allocation hooks, so only the
// AddressSanitizer build has it (ACL_HEAP_PEAK).
#if defined(__SANITIZE_ADDRESS__)
#define ACL_HEAP_PEAK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ACL_HEAP_PEAK 1
#endif
#endif

#ifdef ACL_HEAP_PEAK
// The sanitizer runtime's allocation interface (GCC installs no header for it).
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*onAlloc)(const volatile void*, std::size_t),
                                              void (*onFree)(const volatile void*));
std::size_t __sanitizer_get_allocated_size(const volatile void* p);
}

namespace {
long long heapHeld = 0;
long long heapPeak = 0;

// The most heap held at once while `run` runs, above what was held before.
template <class Run>
long long peakBytes(Run run) {
  heapHeld = heapPeak = 0;
  __sanitizer_install_malloc_and_free_hooks(
      [](const volatile void*, std::size_t size) {
        heapHeld += static_cast<long long>(size);
        heapPeak = std::max(heapPeak, heapHeld);
      },
      [](const volatile void* p) {
        heapHeld -= static_cast<long long>(__sanitizer_get_allocated_size(p));
      });
  run();
  __sanitizer_install_malloc_and_free_hooks(nullptr, nullptr);
  return heapPeak;
}
}  // namespace
#endif

namespace AclAgent {
namespace {

using Korvel::MountStatus;

// The command on a line that must parse.
CommandArgs parsed(const std::string& line) {
  ParsedLine result = parseLine(line, "t.scn", 1);
  EXPECT_FALSE(result.error) << line << ": " << result.error->text();
  EXPECT_TRUE(result.command) << line;
  return result.command ? result.command->args : CommandArgs{LoadCmd{}};
}

// The formatted error of a one-line scenario that must not parse.
std::string errorOf(const std::string& line) {
  ParsedLine result = parseLine(line, "t.scn", 7);
  EXPECT_FALSE(result.command) << line;
  return result.error ? result.error->text() : "(parsed)";
}

// The golden scenarios run every command; these are the forms they do not use.
TEST(ScenarioParserTest, CommandsAtTheEdgesOfTheirForms) {
  const std::vector<std::pair<std::string, CommandArgs>> cases = {
      {"link set Ethernet1#4294967295 255", LinkSetCmd{{"Ethernet1", 4294967295u}, 255}},
      {"link del a#b#3", LinkDelCmd{{"a#b", 3}}},
      {"vrf del global red", VrfDelCmd{VrfView::kGlobal, "red"}},
      {"remount ok", RemountCmd{MountStatus::kSuccess}},
      {"  \tlink\t set  a   7  ", LinkSetCmd{{"a", 0}, 7}},
      {R"(vrf add local "\x00x")", VrfAddCmd{VrfView::kLocal, std::string("\0x", 2)}},
  };
  for (const auto& [line, expected] : cases) {
    EXPECT_TRUE(parsed(line) == expected) << line;
  }
}

TEST(ScenarioParserTest, Comments) {
  EXPECT_TRUE((parsed(R"(intf set "a #b" red#x # c)") == CommandArgs{IntfSetCmd{"a #b", "red#x"}}));
  // A comment that cuts a command short leaves it incomplete, and the error
  // says where the comment began.
  EXPECT_EQ(errorOf("link set Ethernet1 #2 1"),
            R"(t.scn:7: error: missing link state ("#2 1" is a comment: quote a name that )"
            R"(starts with '#'))");
  EXPECT_TRUE((parsed(R"(link set "#3" 1)") == CommandArgs{LinkSetCmd{{"#3", 0}, 1}}));

  for (const char* line : {"", "   \t", "# note", "   # note \"unterminated"}) {
    ParsedLine result = parseLine(line, "t.scn", 1);
    EXPECT_FALSE(result.command || result.error) << line;
  }
}

TEST(ScenarioParserTest, EchoKeepsTheLineAsWritten) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"echo\ttab", "tab"},
      {"echo", ""},
      {"echo a#b \"c # d\" \\x41 # e", "a#b \"c # d\" \\x41"},
      {"echo \"say \\\"#\\\"\" #", "\"say \\\"#\\\"\""},
      {"echo it's 5\" tall", "it's 5\" tall"},
      {"  echo  x\r", " x"},
  };
  for (const auto& [line, text] : cases) {
    EXPECT_TRUE(parsed(line) == CommandArgs{EchoCmd{text}}) << line;
  }
  EXPECT_EQ(errorOf("echo \"open # quote"), "t.scn:7: error: unterminated string");
}

TEST(ScenarioParserTest, DurationsRoundToTheNearestNanosecond) {
  const std::vector<std::pair<std::string, std::int64_t>> cases = {
      {"0.0000000014999s", 1},
      {"1.0005us", 1001},
      {"9223372036.854775807s", 9223372036854775807},
  };
  for (const auto& [text, ns] : cases) {
    EXPECT_TRUE(parsed("advance " + text) == CommandArgs{AdvanceCmd{ns}}) << text;
  }
}

// More errors, each as the agent prints it, are in the golden case parse-error.
TEST(ScenarioParserTest, ErrorsNameWhatWasWrong) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"link", "missing link operation (expected set, replace or del)"},
      {"link set a#4294967296 1", "link index 4294967296 is out of range 0..4294967295"},
      {"link set a# 1", R"(missing link index after '#' in "a#")"},
      {R"(link set "a b"#x 1)",
       R"(bad link index "x" in "a b"#x (expected a number 0..4294967295))"},
      {"link del a 1", R"(unexpected argument "1" after link del a)"},
      {"config gateway-enabled yes",
       R"(bad value "yes" for gateway-enabled (expected true or false))"},
      {"intf set a", "missing VRF name"},
      {R"(intf set "a"#1 red)", R"(unexpected link index after "a" (only a link takes one))"},
      // A bare '#' means a link index in a link; an interface name does not
      // quietly read it another way.
      {"intf set e1#2 red",
       R"(interface name "e1#2" holds '#', which in a link starts its index; quote the name )"
       R"(("e1#2") to keep the '#' in it)"},
      {"recreate cell/0/ip/vrf/status/local",
       R"(unknown path "cell/0/ip/vrf/status/local" (expected one of mdns/config, mdns/status, l3/intf/status, ip/vrf/status/global, ip/vrf/status/local))"},
      {"load now", R"(unexpected argument "now" after load)"},
      {"advance", "missing duration (for example 10ms)"},
      {"advance 1m", R"(unknown unit "m" in duration "1m" (expected ns, us, ms or s))"},
      {"advance 1.s", R"(bad duration "1.s" (expected a number and a unit: ns, us, ms or s))"},
      {"advance -1s", R"(bad duration "-1s" (expected a number and a unit: ns, us, ms or s))"},
      {"advance 9223372036854775808ns",
       R"(duration "9223372036854775808ns" is too long (the longest is 9223372036854775807ns, )"
       R"(about 292 years))"},
      {"advance 9223372036.8547758075s",
       R"(duration "9223372036.8547758075s" is too long (the longest is )"
       R"(9223372036854775807ns, about 292 years))"},
      {R"(intf set "abc\" red)", "unterminated string"},
      {R"(intf set "a\qb" red)", R"(bad escape \q)"},
      {R"(intf set "a\x4" red)", R"(bad escape \x4 (expected two hex digits after \x))"},
      {R"(intf set "a"b red)", R"(unexpected "b" after the closing quote of "a")"},
  };
  for (const auto& [line, message] : cases) {
    EXPECT_EQ(errorOf(line), "t.scn:7: error: " + message) << line;
  }
}

TEST(ScenarioParserTest, LongValuesAreCutInMessages) {
  const std::string name(300, 'n');
  EXPECT_EQ(errorOf("vrf add global " + name + " extra"),
            "t.scn:7: error: unexpected argument \"extra\" after vrf add global " +
                std::string(kShownBytes - 15, 'n') + "... (315 bytes)");
  EXPECT_EQ(errorOf("show " + name),
            "t.scn:7: error: unknown show word \"" + std::string(kShownBytes, 'n') +
                "\"... (300 bytes) (expected calls, rules, iptables, state, types, plugin, sm, "
                "watchers or applied)");
}

// A line of millions of words is read only as far as its first surplus
// one, and a file checked line by line keeps nothing of the lines it read.
TEST(ScenarioParserTest, ParsingCostsLittleMoreThanTheText) {
#ifndef ACL_HEAP_PEAK
  GTEST_SKIP() << "heap measurement needs AddressSanitizer";
#else
  std::string line = "load";
  for (int i = 0; i < 3'000'000; ++i) line += " x";
  EXPECT_LT(peakBytes([&] {
              EXPECT_EQ(errorOf(line), R"(t.scn:7: error: unexpected argument "x" after load)");
            }),
            4096);
  std::string file;
  for (int i = 0; i < 200'000; ++i) file += "link set Ethernet" + std::to_string(i) + " 1\n";
  unsigned commands = 0;
  EXPECT_LT(peakBytes([&] {
              parseEachLine(file, "big.scn", [&](ParsedLine& parsed) {
                commands += parsed.command.has_value();
                return true;
              });
            }),
            4096);
  EXPECT_EQ(commands, 200'000u);
#endif
}

// A byte-order mark opens a file written by some editors; it is not text, and
// elsewhere it is no mark.
TEST(ScenarioParserTest, AByteOrderMarkOnlyOpensAFile) {
  ParsedScenario parsed = parseScenario("\xef\xbb\xbfload\n\xef\xbb\xbfload\n", "m.scn");
  ASSERT_EQ(parsed.errors.size(), 1u);
  EXPECT_EQ(parsed.errors[0].line, 2u);
}

}  // namespace
}  // namespace AclAgent

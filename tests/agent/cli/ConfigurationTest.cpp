// The configuration file: its lines, how they meet the command line (the
// command line wins, option by option), and reading it again for a running
// agent.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "agent/cli/CommandLine.h"
#include "tests/agent/TestFolder.h"

namespace AclAgent {
namespace {

class ConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override { std::ofstream(plugin_) << ""; }

  void write(const std::string& text) { std::ofstream(file_, std::ios::trunc) << text; }
  // Parses `args` (after the program's name); the exit status when it stops.
  std::optional<int> parse(std::vector<std::string> args, CommandLine& line) {
    args.insert(args.begin(), "acl-agent");
    std::vector<char*> argv = argvOf(args);
    std::streambuf* saved = std::cerr.rdbuf(errors_.rdbuf());
    auto status =
        parseCommandLine(static_cast<int>(args.size()), argv.data(), plugin_, "test", line);
    std::cerr.rdbuf(saved);
    return status;
  }

  TestFolder folder_{"config-test"};
  const std::string dir_ = folder_.path();
  const std::string file_ = dir_ + "/agent.conf";
  const std::string plugin_ = dir_ + "/plugin.so";
  std::ostringstream errors_;
};

TEST(ConfigurationParseTest, OptionsCommentsAndQuotes) {
  std::vector<GivenOption> options;
  EXPECT_EQ(parseConfiguration("# the agent\n\napply\nnetns \"vrf-%s\"  # named so\r\n"
                               "mdns-intf \"eth *\"\nmdns-intf v-*\n",
                               "f", options),
            std::nullopt);
  ASSERT_EQ(options.size(), 4u);
  EXPECT_EQ(options[0].name, "apply");
  EXPECT_FALSE(options[0].value);
  EXPECT_EQ(options[1].value, "vrf-%s");
  EXPECT_EQ(options[1].line, 4u);
  EXPECT_EQ(options[2].value, "eth *");
  EXPECT_EQ(options[3].value, "v-*");
}

TEST(ConfigurationParseTest, WrongLinesNameFileAndLineAndAddNothing) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"apply\nfrobnicate\n", "f:2: error: unknown option \"frobnicate\""},
      {"--apply\n", "f:1: error: options are written without their leading \"--\": \"--apply\""},
      {"netns\n", "f:1: error: netns wants one value, got 0"},
      {"netns a b\n", "f:1: error: netns wants one value, got 2"},
      {"apply yes\n", "f:1: error: apply takes no value, got \"yes\""},
      {"config other.conf\n", "f:1: error: config cannot be given in a configuration file"},
      {"netns \"vrf-%s\n", "f:1: error: unterminated string"},
  };
  for (const auto& [text, error] : cases) {
    std::vector<GivenOption> options;
    EXPECT_EQ(parseConfiguration(text, "f", options), error) << text;
    EXPECT_TRUE(options.empty()) << text;
  }
}

TEST_F(ConfigurationTest, CommandLineWinsOptionByOption) {
  write("live\napply\nmdns-intf \"v-*\"\nmdns-intf \"w-*\"\ngateway-setting 5353\nresync 60\n");
  CommandLine line;
  EXPECT_EQ(parse({"--config", file_, "--mdns-intf", "eth*", "--resync", "5"}, line), std::nullopt)
      << errors_.str();
  EXPECT_TRUE(line.live);
  EXPECT_TRUE(line.apply);
  EXPECT_EQ(line.mdnsGlobs, std::vector<std::string>{"eth*"});
  EXPECT_EQ(line.gatewaySetting, 5353);
  EXPECT_EQ(line.backend.resyncPeriod, 5'000'000'000);
}

TEST_F(ConfigurationTest, BadValueInTheFileIsAUsageErrorNamingItsLine) {
  write("apply\ngateway-setting 70000\n");
  CommandLine line;
  EXPECT_EQ(parse({"--config", file_}, line), kExitUsage);
  EXPECT_EQ(errors_.str(), file_ +
                               ":2: error: gateway-setting wants a number 0..65535, got "
                               "\"70000\"\n");
  CommandLine missing;
  errors_.str("");
  EXPECT_EQ(parse({"--config", dir_ + "/none.conf"}, missing), kExitUsage);
  EXPECT_EQ(errors_.str(), "acl-agent: cannot read configuration \"" + dir_ +
                               "/none.conf\": No such file or directory\n");
}

TEST_F(ConfigurationTest, ReloadReadsTheFileAsTheWholeConfiguration) {
  write("live\ngateway-setting 5353\nmdns-intf \"v-*\"\n");
  CommandLine running;
  ASSERT_EQ(parse({"--config", file_, "--resync", "7"}, running), std::nullopt);
  // The gateway goes back to off once the file no longer says it; the
  // command line's resync stays.
  write("live\nmdns-intf \"x-*\"\n");
  CommandLine next;
  EXPECT_EQ(reloadConfiguration(running, next), std::nullopt);
  EXPECT_FALSE(next.gatewaySetting);
  EXPECT_EQ(next.mdnsGlobs, std::vector<std::string>{"x-*"});
  EXPECT_EQ(next.backend.resyncPeriod, 7'000'000'000);
  EXPECT_EQ(next.plugins, running.plugins);
  // A file that no longer parses leaves `next` as it was.
  write("live\ngateway-setting soon\n");
  CommandLine untouched = next;
  EXPECT_EQ(reloadConfiguration(running, untouched),
            file_ + ":2: error: gateway-setting wants a number 0..65535, got \"soon\"");
  EXPECT_EQ(untouched.mdnsGlobs, next.mdnsGlobs);
}

}  // namespace
}  // namespace AclAgent

// CommandLine: acl-agent's options, read from argv and, with --config, from a
// configuration file.
//
//   CommandLine line;
//   if (std::optional<int> status = parseCommandLine(argc, argv, defaultPlugin, line)) {
//     return *status;  // help, version or a usage error, already printed
//   }
//   enableTraces(line);
//
// Usage errors go to standard error with one usage line; --help and
// --version print to standard output. Plugin paths are checked here, so a
// missing plugin is a usage error before anything runs.
//
// A configuration file holds one option a line, as on the command line
// without the leading `--` (`apply`, `netns "vrf-%s"`); words are read as the
// scenario language reads them (bare, or double-quoted with C escapes), and
// `#` starts a comment. An option given on the command line wins over the
// file's: the file's values of that option are left out (for a repeatable
// option, all of them). A line that is wrong is reported as
// `FILE:LINE: error: MESSAGE`. `reloadConfiguration` reads the file again
// for a running agent, keeping what the command line gave.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/backend/Backend.h"

namespace AclAgent {

// One option as given: its name without `--`, and its value when it takes one.
struct GivenOption {
  std::string name;
  std::optional<std::string> value;
  unsigned line = 0;  // in the configuration file; 0 on the command line
};

struct TraceOption {
  std::string name;          // the trace handle's name
  std::string spec;          // the option as given, NAME/LEVELS
  std::uint16_t levels = 0;  // one bit per level
  friend bool operator==(const TraceOption&, const TraceOption&) = default;
};

struct CommandLine {
  std::vector<std::string> plugins;
  std::vector<TraceOption> traces;
  bool realtime = false;
  // -i: standard input runs line by line as it arrives, even from a pipe.
  bool interactive = false;
  // --apply, with the backend's options (also those of --remove-applied).
  bool apply = false;
  bool removeApplied = false;
  BackendOptions backend;
  // --live: state from the kernel, on the wall clock, until a signal.
  bool live = false;
  std::vector<std::string> mdnsGlobs;           // --mdns-intf, repeatable
  std::optional<std::uint16_t> gatewaySetting;  // --gateway-setting
  std::optional<std::string> control;           // --control: the control socket
  std::vector<std::string> scenarios;           // "-" for standard input

  // --config, and the options the command line gave (they win over the
  // file's, at start and at each reload).
  std::optional<std::string> configFile;
  std::vector<GivenOption> given;
  std::string defaultPlugin;
};

// The exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitCommandFailed = 1;
constexpr int kExitUsage = 2;

// Reads argv into `line`, and the --config file when one is given. Returns
// the exit status when the program must stop at once: help, version, or a
// usage error (reported). `defaultPlugin` is used when no --plugin is given.
std::optional<int> parseCommandLine(int argc, char** argv, const std::string& defaultPlugin,
                                    const std::string& version, CommandLine& line);

// Enables the trace levels that `line` asks for.
void enableTraces(const CommandLine& line);

// The options that `running` would have if it started now: its command line
// and its configuration file as the file now stands. Returns the
// `FILE:LINE: error: MESSAGE` (or the file's read error) when the file does
// not parse, and then `next` is left as it was.
// REQUIRES: `running.configFile` is set.
std::optional<std::string> reloadConfiguration(const CommandLine& running, CommandLine& next);

// Reads the options of configuration file text `text` (named `file` in
// messages) into `options`; returns the first wrong line's
// `FILE:LINE: error: MESSAGE`, and then adds nothing. Values are checked when
// the options are put together, not here.
std::optional<std::string> parseConfiguration(std::string_view text, const std::string& file,
                                              std::vector<GivenOption>& options);

}  // namespace AclAgent

// CommandLine: acl-agent's options, read from argv.
//
//   CommandLine line;
//   if (std::optional<int> status = parseCommandLine(argc, argv, defaultPlugin, line)) {
//     return *status;  // help, version or a usage error, already printed
//   }
//
// Usage errors go to standard error with one usage line; --help and
// --version print to standard output. Plugin paths are checked here, so a
// missing plugin is a usage error before anything runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/backend/Backend.h"

namespace AclAgent {

struct CommandLine {
  std::vector<std::string> plugins;
  // The handle name of each --trace, with the option as given.
  std::vector<std::pair<std::string, std::string>> traces;
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
  std::vector<std::string> scenarios;           // "-" for standard input
};

// The exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitCommandFailed = 1;
constexpr int kExitUsage = 2;

// Reads argv into `line`, enabling the trace levels asked for. Returns the
// exit status when the program must stop at once: help, version, or a usage
// error (reported). `defaultPlugin` is used when no --plugin is given.
std::optional<int> parseCommandLine(int argc, char** argv, const std::string& defaultPlugin,
                                    const std::string& version, CommandLine& line);

}  // namespace AclAgent

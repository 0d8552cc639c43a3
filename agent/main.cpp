// acl-agent: hosts ACL plugins the way a device's ACL agent does, and runs
// them against scenarios that play the other agents' state changes.
#include <editline/readline.h>
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "agent/Agent.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitCommandFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: acl-agent [OPTIONS] [SCENARIO ...]\n"
    "\n"
    "Loads ACL plugins into a reference ACL agent and runs scenarios against\n"
    "them. Each SCENARIO is a file, run in the order given; '-' or none reads\n"
    "standard input (interactively on a terminal).\n"
    "\n"
    "options:\n"
    "  --plugin PATH        plugin shared object to load (repeatable; default:\n"
    "                       the multicast DNS plugin built beside acl-agent)\n"
    "  --trace NAME/LEVELS  enable trace levels on a trace handle, e.g.\n"
    "                       McastDnsAclPlugin/0,8 or McastDnsAclPlugin/0-15\n"
    "  --realtime           run the event loop on the wall clock\n"
    "  --help               print this help\n"
    "  --version            print the version\n";

// The plugin built beside the program, in the build tree or an install tree.
std::string defaultPlugin() {
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  std::string dir = n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : std::string("./x");
  dir.resize(dir.rfind('/'));
  for (const char* relative :
       {ACL_AGENT_PLUGIN_RELATIVE, "../lib/acl-agent/McastDnsAclPlugin.so"}) {
    const std::string path = dir + "/" + relative;
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return dir + "/" + ACL_AGENT_PLUGIN_RELATIVE;
}

// Parses one decimal level, the whole of `text`.
bool parseLevel(std::string_view text, unsigned& level) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, level);
  return ec == std::errc() && ptr == end;
}

// "NAME/LEVELS", LEVELS a comma-separated list of levels and ranges (0-15).
bool applyTrace(const std::string& spec, std::string& error) {
  const auto slash = spec.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == spec.size()) {
    error = "--trace wants NAME/LEVELS, got \"" + spec + "\"";
    return false;
  }
  std::uint16_t levels = 0;
  std::istringstream list(spec.substr(slash + 1));
  for (std::string item; std::getline(list, item, ',');) {
    const auto dash = item.find('-');
    unsigned first = 0;
    unsigned last = 0;
    const bool ok = dash == std::string::npos
                        ? parseLevel(item, first) && parseLevel(item, last)
                        : parseLevel(std::string_view(item).substr(0, dash), first) &&
                              parseLevel(std::string_view(item).substr(dash + 1), last);
    if (!ok || first > last || last > 15) {
      error = "--trace: bad level \"" + item + "\" (levels are 0 to 15, e.g. 0,8 or 0-15)";
      return false;
    }
    for (unsigned level = first; level <= last; ++level) levels |= 1u << level;
  }
  Zov::TraceHandle::levelsByNameIs(spec.substr(0, slash), levels);
  return true;
}

struct Source {
  std::string name;  // "-" for standard input
  std::string text;
};

// Runs the commands of one parsed scenario; false when one failed. A plugin
// that cannot be loaded ends everything with the usage status.
bool runCommands(AclAgent::Agent& agent, const std::string& file,
                 const std::vector<AclAgent::Command>& commands, int& status) {
  bool ok = true;
  for (const AclAgent::Command& command : commands) {
    try {
      agent.run(command, std::cout);
    } catch (const AclAgent::PluginLoadError& e) {
      std::cout.flush();
      std::cerr << file << ":" << command.line << ": error: " << e.what() << "\n";
      status = kExitUsage;
      return false;
    } catch (const std::exception& e) {
      std::cout.flush();
      std::cerr << file << ":" << command.line << ": error: " << e.what() << "\n";
      ok = false;
    }
  }
  std::cout.flush();
  return ok;
}

// Reads commands from the terminal, one line at a time, with line editing.
int interactive(AclAgent::Agent& agent) {
  int status = kExitOk;
  unsigned lineNumber = 0;
  while (char* raw = readline("acl-agent> ")) {
    std::string line(raw);
    std::free(raw);
    ++lineNumber;
    if (!line.empty()) add_history(line.c_str());
    AclAgent::ParsedLine parsed = AclAgent::parseLine(line, "-", lineNumber);
    if (parsed.error) {
      std::cerr << parsed.error->text() << "\n";
      continue;
    }
    if (!parsed.command) continue;
    int loadStatus = kExitOk;
    if (!runCommands(agent, "-", {*parsed.command}, loadStatus)) {
      status = loadStatus == kExitUsage ? kExitUsage : kExitCommandFailed;
    }
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {
      {"plugin", required_argument, nullptr, 'p'}, {"trace", required_argument, nullptr, 't'},
      {"realtime", no_argument, nullptr, 'r'},     {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0},
  };
  std::vector<std::string> plugins;
  bool realtime = false;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    std::string error;
    switch (c) {
      case 'p':
        plugins.emplace_back(optarg);
        break;
      case 't':
        if (!applyTrace(optarg, error)) {
          std::cerr << "acl-agent: " << error << "\n" << kUsage;
          return kExitUsage;
        }
        break;
      case 'r':
        realtime = true;
        break;
      case 'h':
        std::cout << kUsage;
        return kExitOk;
      case 'v':
        std::cout << "acl-agent " << ACL_AGENT_VERSION << "\n";
        return kExitOk;
      default:
        std::cerr << "acl-agent: unknown or incomplete option \"" << argv[optind - 1] << "\"\n"
                  << kUsage;
        return kExitUsage;
    }
  }
  if (plugins.empty()) plugins.push_back(defaultPlugin());

  std::vector<std::string> names(argv + optind, argv + argc);
  if (names.empty()) names.push_back("-");
  const bool terminal = names.size() == 1 && names[0] == "-" && isatty(STDIN_FILENO);

  // Every file is read and parsed before anything runs.
  std::vector<Source> sources;
  std::vector<std::vector<AclAgent::Command>> parsed;
  if (!terminal) {
    bool parseFailed = false;
    for (const std::string& name : names) {
      Source source{name, {}};
      if (name == "-") {
        source.text.assign(std::istreambuf_iterator<char>(std::cin), {});
      } else {
        std::ifstream in(name, std::ios::binary);
        if (!in) {
          std::cerr << "acl-agent: cannot read scenario \"" << name << "\"\n";
          return kExitUsage;
        }
        source.text.assign(std::istreambuf_iterator<char>(in), {});
      }
      AclAgent::ParsedScenario scenario = AclAgent::parseScenario(source.text, name);
      for (const AclAgent::ParseError& e : scenario.errors) std::cerr << e.text() << "\n";
      parseFailed |= !scenario.ok();
      parsed.push_back(std::move(scenario.commands));
      sources.push_back(std::move(source));
    }
    if (parseFailed) return kExitUsage;
  }

  AclAgent::Agent agent(plugins);
  if (realtime) Pell::TaskSchedulerRoot::findOrCreateScheduler()->wallClockIs(true);
  if (terminal) return interactive(agent);

  int status = kExitOk;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    if (!runCommands(agent, sources[i].name, parsed[i], status)) {
      if (status == kExitUsage) return status;
      status = kExitCommandFailed;
    }
  }
  return status;
}

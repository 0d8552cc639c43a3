// acl-agent: hosts ACL plugins the way a device's ACL agent does, and runs
// them against scenarios that play the other agents' state changes.
//
// `main` reads the command line (`parseOptions`), reads and checks every
// scenario file before anything runs, then runs them (`Runner`).
#include <editline/readline.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>

#include "agent/Agent.h"
#include "agent/Output.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitCommandFailed = 1;
constexpr int kExitUsage = 2;

const char kUsageLine[] = "usage: acl-agent [OPTIONS] [SCENARIO ...] (--help lists them)\n";

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

struct Options {
  std::vector<std::string> plugins;
  // The handle name of each --trace, with the option as given.
  std::vector<std::pair<std::string, std::string>> traces;
  bool realtime = false;
  std::vector<std::string> scenarios;
};

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
// Returns the handle's name, or nothing with `error` set.
std::optional<std::string> applyTrace(const std::string& spec, std::string& error) {
  const auto slash = spec.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == spec.size()) {
    error = "--trace wants NAME/LEVELS, got " + AclAgent::shownName(spec);
    return std::nullopt;
  }
  std::uint16_t levels = 0;
  std::string_view list = std::string_view(spec).substr(slash + 1);
  while (true) {
    const std::size_t comma = list.find(',');
    const std::string_view item = list.substr(0, comma);
    const auto dash = item.find('-');
    unsigned first = 0;
    unsigned last = 0;
    const bool ok =
        dash == std::string_view::npos
            ? parseLevel(item, first) && parseLevel(item, last)
            : parseLevel(item.substr(0, dash), first) && parseLevel(item.substr(dash + 1), last);
    if (!ok || first > last || last > 15) {
      error = "--trace: bad level " + AclAgent::shownName(item) + " in " +
              AclAgent::shownName(spec) + " (levels are 0 to 15, e.g. 0,8 or 0-15)";
      return std::nullopt;
    }
    for (unsigned level = first; level <= last; ++level) levels |= 1u << level;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  std::string name = spec.substr(0, slash);
  Zov::TraceHandle::levelsByNameIs(name, levels);
  return name;
}

// A --plugin value is a file path, as everywhere else on the command line:
// a name without a slash is a file in the current directory, not one on the
// dynamic loader's search path. Returns what is wrong with it, if anything.
std::optional<std::string> checkPlugin(std::string& path) {
  if (path.empty()) return "--plugin wants the path of a shared object, got \"\"";
  if (path.find('/') == std::string::npos) path = "./" + path;
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) {
    return "cannot read plugin " + AclAgent::shownName(path) + ": " + std::strerror(errno);
  }
  if (S_ISDIR(st.st_mode)) return "plugin " + AclAgent::shownName(path) + " is a directory";
  return std::nullopt;
}

// Reads the command line into `options`. Returns the exit status when the
// program must stop at once: help, version, or a usage error (reported).
std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  static const option kOptions[] = {
      {"plugin", required_argument, nullptr, 'p'}, {"trace", required_argument, nullptr, 't'},
      {"realtime", no_argument, nullptr, 'r'},     {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0},
  };
  const auto usageError = [](const std::string& message) {
    std::cerr << "acl-agent: " << message << "\n" << kUsageLine;
    return kExitUsage;
  };
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    std::string error;
    switch (c) {
      case 'p':
        options.plugins.emplace_back(optarg);
        break;
      case 't':
        if (auto name = applyTrace(optarg, error)) {
          options.traces.emplace_back(std::move(*name), optarg);
        } else {
          return usageError(error);
        }
        break;
      case 'r':
        options.realtime = true;
        break;
      case 'h':
        std::cout << kUsage;
        return kExitOk;
      case 'v':
        std::cout << "acl-agent " << ACL_AGENT_VERSION << "\n";
        return kExitOk;
      default:
        return usageError("unknown or incomplete option " + AclAgent::shownName(argv[optind - 1]));
    }
  }
  if (options.plugins.empty()) options.plugins.push_back(defaultPlugin());
  for (std::string& plugin : options.plugins) {
    if (auto error = checkPlugin(plugin)) {
      std::cerr << "acl-agent: " << *error << "\n";
      return kExitUsage;
    }
  }
  options.scenarios.assign(argv + optind, argv + argc);
  if (options.scenarios.empty()) options.scenarios.push_back("-");
  return std::nullopt;
}

// Reads all of `fd` into `text`; returns the error number of a failed read,
// or 0.
int readAll(int fd, std::string& text) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    text.reserve(static_cast<std::size_t>(st.st_size));
  }
  char buffer[65536];
  while (true) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
}

// Reads the scenario `name` ("-": standard input). Returns what went wrong,
// if anything.
std::optional<std::string> readScenario(const std::string& name, std::string& text) {
  int error = 0;
  if (name == "-") {
    error = readAll(STDIN_FILENO, text);
  } else {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      error = errno;
    } else {
      error = readAll(fd, text);
      close(fd);
    }
  }
  if (error == 0) return std::nullopt;
  return "cannot read scenario " + AclAgent::shownName(name) + ": " + std::strerror(error);
}

// A standard stream that whoever started the program closed keeps its
// number, held by /dev/null opened the wrong way round: no file opened later
// can take its place, and using the stream fails as it should.
void holdClosedStandardStreams() {
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

// Runs commands against the agent and keeps the exit status. What a command
// prints is written out when it ends.
class Runner {
 public:
  explicit Runner(AclAgent::Agent& agent) : agent_(agent) {}

  // Runs one command of `file`; false when the run must end.
  bool run(const std::string& file, const AclAgent::Command& command) {
    try {
      agent_.run(command, out_);
    } catch (const AclAgent::PluginLoadError& e) {
      report(file, command.line, e.what());
      status_ = kExitUsage;
      return false;
    } catch (const std::exception& e) {
      report(file, command.line, AclAgent::commandErrorText(e));
      status_ = std::max(status_, kExitCommandFailed);
    }
    return outputWritten();
  }

  // Runs a scenario that has been checked; false when the run must end.
  bool runScenario(const std::string& file, std::string_view text) {
    return AclAgent::parseEachLine(text, file, [&](AclAgent::ParsedLine& line) {
      return !line.command || run(file, *line.command);
    });
  }

  // Reads commands from the terminal, one line at a time, with line editing.
  // A line that does not parse, or whose plugin cannot be loaded, is
  // reported and the session goes on.
  void runTerminal() {
    unsigned lineNumber = 0;
    while (char* raw = readline("acl-agent> ")) {
      std::string line(raw);
      std::free(raw);
      if (!line.empty()) add_history(line.c_str());
      std::string_view text = line;
      if (++lineNumber == 1) text = AclAgent::withoutByteOrderMark(text);
      AclAgent::ParsedLine parsed = AclAgent::parseLine(text, "-", lineNumber);
      if (parsed.error) std::cerr << parsed.error->text() << "\n";
      if (parsed.command) run("-", *parsed.command);
      if (outputFailed_) return;
    }
  }

  int status() const { return status_; }

 private:
  void report(const std::string& file, unsigned line, const std::string& message) {
    out_.flush();
    std::cerr << file << ":" << line << ": error: " << message << "\n";
  }

  // Whether everything printed so far went out; reports it when not.
  bool outputWritten() {
    if (outputFailed_) return false;
    if (out_.flush() && !output_.error()) return true;
    outputFailed_ = true;
    status_ = std::max(status_, kExitCommandFailed);
    std::cerr << "acl-agent: cannot write to standard output: " << std::strerror(output_.error())
              << "\n";
    return false;
  }

  AclAgent::Agent& agent_;
  AclAgent::FdOutput output_{STDOUT_FILENO};
  std::ostream out_{&output_};
  int status_ = kExitOk;
  bool outputFailed_ = false;  // reported; nothing more is written
};

// A --trace that named a handle no code made is most likely a typing error.
void reportUnusedTraces(const Options& options) {
  const std::vector<std::string> made = Zov::TraceHandle::namesMade();
  for (const auto& [name, spec] : options.traces) {
    if (std::find(made.begin(), made.end(), name) != made.end()) continue;
    std::string known;
    for (const std::string& m : made) known += (known.empty() ? "" : ", ") + m;
    std::cerr << "acl-agent: warning: --trace " << AclAgent::shownText(spec)
              << ": no trace handle named " << AclAgent::shownName(name)
              << " was made during the run"
              << (known.empty() ? std::string() : " (handles made: " + known + ")") << "\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  holdClosedStandardStreams();
  Options options;
  if (std::optional<int> status = parseOptions(argc, argv, options)) return *status;

  const bool terminal =
      options.scenarios.size() == 1 && options.scenarios[0] == "-" && isatty(STDIN_FILENO);

  // Every file is read and checked before anything runs; a file's commands
  // are parsed again as they run, so a scenario costs its text and no more.
  std::vector<std::pair<std::string, std::string>> sources;
  if (!terminal) {
    bool parseFailed = false;
    for (const std::string& name : options.scenarios) {
      std::string text;
      if (auto error = readScenario(name, text)) {
        std::cerr << "acl-agent: " << *error << "\n";
        return kExitUsage;
      }
      AclAgent::parseEachLine(text, name, [&](AclAgent::ParsedLine& line) {
        if (line.error) std::cerr << line.error->text() << "\n";
        parseFailed |= line.error.has_value();
        return true;
      });
      sources.emplace_back(name, std::move(text));
    }
    if (parseFailed) return kExitUsage;
  }

  AclAgent::Agent agent(options.plugins);
  if (options.realtime) Pell::TaskSchedulerRoot::findOrCreateScheduler()->wallClockIs(true);
  Runner runner(agent);
  if (terminal) {
    runner.runTerminal();
  } else {
    for (const auto& [name, text] : sources) {
      if (!runner.runScenario(name, text)) break;
    }
  }
  reportUnusedTraces(options);
  return runner.status();
}

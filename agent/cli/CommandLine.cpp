// acl-agent's command line.
#include "agent/cli/CommandLine.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

#include "agent/base/Text.h"
#include "agent/scenario/Scenario.h"
#include "platform/Zov.h"

namespace AclAgent {
namespace {

// A configuration file is a few lines; one far larger is not one.
constexpr std::size_t kMaxConfigurationBytes = 1 << 20;

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
    "  -i, --interactive    run each line of standard input as it arrives, even\n"
    "                       from a pipe; a line that fails is reported and the\n"
    "                       session goes on\n"
    "  --realtime           run the event loop on the wall clock\n"
    "  --apply              put the rules in place in the kernel, one network\n"
    "                       namespace per VRF\n"
    "  --backend nft|iptables|auto\n"
    "                       how --apply writes: nf_tables from the agent's own\n"
    "                       process, or iptables-restore; auto (the default):\n"
    "                       nft where the kernel has nf_tables and iptables is\n"
    "                       its nf_tables variant, unless the iptables\n"
    "                       programs are named\n"
    "  --netns TEMPLATE     the namespace of a VRF other than default, %s\n"
    "                       standing for its name and %% for a %\n"
    "                       (default: %s)\n"
    "  --resync SECONDS     read the kernel back and repair drift this often\n"
    "                       (default: 90)\n"
    "  --iptables-restore PATH, --iptables-save PATH\n"
    "                       the programs that write and read the rules\n"
    "                       (default: those on PATH)\n"
    "  --remove-applied     remove the agent's chains and jumps from its own\n"
    "                       namespace and every one --netns reaches, and exit\n"
    "  --live               take links, interfaces and VRFs from the kernel as\n"
    "                       they change, on the wall clock, until SIGINT or\n"
    "                       SIGTERM; standard input runs as with -i\n"
    "  --mdns-intf GLOB     live: only links whose name matches may want the\n"
    "                       rule (repeatable; default: every interface)\n"
    "  --gateway-setting N  live: enable the gateway with setting N\n"
    "  --control PATH       live: the control socket that `acl-agent ctl` asks\n"
    "                       (default: $RUNTIME_DIRECTORY/control, else\n"
    "                       /run/acl-agent/control)\n"
    "  --config FILE        read options from FILE, one a line without the\n"
    "                       leading --; the command line wins; SIGHUP reads\n"
    "                       it again\n"
    "  --help               print this help\n"
    "  --version            print the version\n"
    "\n"
    "       acl-agent ctl [--control PATH] [WORD...]\n"
    "\n"
    "Runs the words as one command in the running live agent, or each line of\n"
    "standard input when there are none, and prints what it prints.\n";

// Parses one decimal level, the whole of `text`.
bool parseLevel(std::string_view text, unsigned& level) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, level);
  return ec == std::errc() && ptr == end;
}

// "NAME/LEVELS", LEVELS a comma-separated list of levels and ranges (0-15).
// Returns the handle's name and sets `levels`, or returns nothing with `error`
// set (to follow the option's name).
std::optional<std::string> parseTrace(const std::string& spec, std::uint16_t& levels,
                                      std::string& error) {
  const auto slash = spec.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == spec.size()) {
    error = " wants NAME/LEVELS, got " + shownName(spec);
    return std::nullopt;
  }
  levels = 0;
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
      error = ": bad level " + shownName(item) + " in " + shownName(spec) +
              " (levels are 0 to 15, e.g. 0,8 or 0-15)";
      return std::nullopt;
    }
    for (unsigned level = first; level <= last; ++level) levels |= 1u << level;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return spec.substr(0, slash);
}

// A --plugin value is a file path, as everywhere else on the command line:
// a name without a slash is a file in the current directory, not one on the
// dynamic loader's search path. Returns what is wrong with it, if anything.
std::optional<std::string> checkPlugin(std::string& path) {
  if (path.empty()) return "--plugin wants the path of a shared object, got \"\"";
  if (path.find('/') == std::string::npos) path = "./" + path;
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) {
    return "cannot read plugin " + shownName(path) + ": " + std::strerror(errno);
  }
  if (S_ISDIR(st.st_mode)) return "plugin " + shownName(path) + " is a directory";
  return std::nullopt;
}

// A number of seconds, with an optional fraction: "90", "0.5".
bool parseSeconds(const std::string& text, Pell::Nanoseconds& ns) {
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos ||
      text.front() == '.' || text.back() == '.' || text.find('.') != text.rfind('.')) {
    return false;
  }
  const double seconds = std::strtod(text.c_str(), nullptr);
  if (seconds > 1e9) return false;
  ns = Pell::nanoseconds(seconds);
  return true;
}

// The options, as the command line and a configuration file name them.
struct OptionSpec {
  std::string_view name;
  bool hasValue;
};
constexpr OptionSpec kOptionSpecs[] = {
    {"plugin", true},        {"trace", true},           {"realtime", false},
    {"interactive", false},  {"apply", false},          {"backend", true},
    {"netns", true},         {"resync", true},          {"iptables-restore", true},
    {"iptables-save", true}, {"remove-applied", false}, {"live", false},
    {"mdns-intf", true},     {"gateway-setting", true}, {"control", true},
    {"config", true},        {"help", false},           {"version", false},
};

const OptionSpec* findOption(std::string_view name) {
  for (const OptionSpec& spec : kOptionSpecs) {
    if (spec.name == name) return &spec;
  }
  return nullptr;
}

// Puts option `given` into `options`; returns what is wrong with its value.
// `shown` names the option in messages ("--netns", or "netns" in a file).
std::optional<std::string> applyOption(const GivenOption& given, CommandLine& options) {
  const std::string shown = (given.line ? "" : "--") + given.name;
  const std::string value = given.value.value_or("");
  const std::string& name = given.name;
  if (name == "plugin") {
    options.plugins.push_back(value);
  } else if (name == "trace") {
    std::string error;
    std::uint16_t levels = 0;
    auto handle = parseTrace(value, levels, error);
    if (!handle) return shown + error;
    options.traces.push_back(TraceOption{*handle, value, levels});
  } else if (name == "realtime") {
    options.realtime = true;
  } else if (name == "interactive") {
    options.interactive = true;
  } else if (name == "apply") {
    options.apply = true;
  } else if (name == "backend") {
    using Kind = BackendOptions::Kind;
    if (value == "nft") {
      options.backend.kind = Kind::kNft;
    } else if (value == "iptables") {
      options.backend.kind = Kind::kIptables;
    } else if (value == "auto") {
      options.backend.kind = Kind::kAuto;
    } else {
      return shown + " wants nft, iptables or auto, got " + shownName(value);
    }
  } else if (name == "netns") {
    if (auto fault = NamespaceMap::templateFault(value)) return shown + ": " + *fault;
    options.backend.namespaces = NamespaceMap(value, options.backend.namespaces.dir());
  } else if (name == "resync") {
    if (!parseSeconds(value, options.backend.resyncPeriod)) {
      return shown + " wants a number of seconds, got " + shownName(value);
    }
  } else if (name == "iptables-restore") {
    options.backend.iptablesRestore = value;
    options.backend.iptablesNamed = true;
  } else if (name == "iptables-save") {
    options.backend.iptablesSave = value;
    options.backend.iptablesNamed = true;
  } else if (name == "remove-applied") {
    options.removeApplied = true;
  } else if (name == "live") {
    options.live = options.realtime = options.interactive = true;
  } else if (name == "mdns-intf") {
    options.mdnsGlobs.push_back(value);
  } else if (name == "gateway-setting") {
    unsigned setting = 0;
    auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), setting);
    if (ec != std::errc() || end != value.data() + value.size() || setting > 65535) {
      return shown + " wants a number 0..65535, got " + shownName(value);
    }
    options.gatewaySetting = static_cast<std::uint16_t>(setting);
  } else if (name == "control") {
    if (value.empty()) return shown + " wants the path of a socket, got \"\"";
    options.control = value;
  }
  return std::nullopt;
}

// The options of the file (`fileOptions`, read from `file`) and of the
// command line (`given`) in `options`, the command line's winning; returns
// the first error, as `FILE:LINE: error: MESSAGE` for the file's.
std::optional<std::string> mergeOptions(const std::vector<GivenOption>& fileOptions,
                                        const std::string& file,
                                        const std::vector<GivenOption>& given,
                                        CommandLine& options) {
  std::set<std::string> onCommandLine;
  for (const GivenOption& option : given) onCommandLine.insert(option.name);
  for (const GivenOption& option : fileOptions) {
    if (onCommandLine.count(option.name)) continue;
    if (auto error = applyOption(option, options)) {
      return file + ":" + std::to_string(option.line) + ": error: " + *error;
    }
  }
  for (const GivenOption& option : given) {
    if (auto error = applyOption(option, options)) return *error;
  }
  return std::nullopt;
}

// Reads the configuration file `file` into `options`; returns what went wrong.
std::optional<std::string> readConfiguration(const std::string& file,
                                             std::vector<GivenOption>& options) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  std::string text;
  int error = fd < 0 ? errno : 0;
  if (fd >= 0) {
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) error = EISDIR;
    char buffer[16384];
    while (error == 0) {
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n == 0) break;
      if (n < 0) {
        if (errno != EINTR) error = errno;
        continue;
      }
      text.append(buffer, static_cast<std::size_t>(n));
      if (text.size() > kMaxConfigurationBytes) error = EFBIG;
    }
    close(fd);
  }
  if (error) {
    return "cannot read configuration " + shownName(file) + ": " + std::strerror(error);
  }
  return parseConfiguration(text, file, options);
}

// A plugin path as the command line takes it: a bare name is a file here.
void pluginPathsAsFiles(CommandLine& options) {
  if (options.plugins.empty()) options.plugins.push_back(options.defaultPlugin);
  for (std::string& path : options.plugins) {
    if (!path.empty() && path.find('/') == std::string::npos) path = "./" + path;
  }
}

}  // namespace

std::optional<std::string> parseConfiguration(std::string_view text, const std::string& file,
                                              std::vector<GivenOption>& options) {
  std::vector<GivenOption> read;
  text = withoutByteOrderMark(text);
  unsigned lineNumber = 0;
  while (!text.empty()) {
    ++lineNumber;
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::vector<std::string> words;
    std::optional<std::string> error = splitWords(line, words);
    if (!error && !words.empty()) {
      const OptionSpec* spec = findOption(words[0]);
      if (words[0].rfind("--", 0) == 0 && findOption(words[0].substr(2))) {
        error = "options are written without their leading \"--\": " + shownName(words[0]);
      } else if (!spec) {
        error = "unknown option " + shownName(words[0]);
      } else if (spec->name == "config" || spec->name == "help" || spec->name == "version") {
        error = std::string(spec->name) + " cannot be given in a configuration file";
      } else if (spec->hasValue && words.size() != 2) {
        error =
            std::string(spec->name) + " wants one value, got " + std::to_string(words.size() - 1);
      } else if (!spec->hasValue && words.size() != 1) {
        error = std::string(spec->name) + " takes no value, got " + shownName(words[1]);
      } else {
        read.push_back(GivenOption{
            words[0], spec->hasValue ? std::optional(words[1]) : std::nullopt, lineNumber});
      }
    }
    if (error) return file + ":" + std::to_string(lineNumber) + ": error: " + *error;
  }
  options.insert(options.end(), read.begin(), read.end());
  return std::nullopt;
}

void enableTraces(const CommandLine& line) {
  for (const TraceOption& trace : line.traces) {
    Zov::TraceHandle::levelsByNameIs(trace.name, trace.levels);
  }
}

std::optional<std::string> reloadConfiguration(const CommandLine& running, CommandLine& next) {
  std::vector<GivenOption> fileOptions;
  if (auto error = readConfiguration(*running.configFile, fileOptions)) return error;
  CommandLine reloaded;
  reloaded.configFile = running.configFile;
  reloaded.given = running.given;
  reloaded.defaultPlugin = running.defaultPlugin;
  reloaded.scenarios = running.scenarios;
  if (auto error = mergeOptions(fileOptions, *running.configFile, running.given, reloaded)) {
    return error;
  }
  pluginPathsAsFiles(reloaded);
  next = std::move(reloaded);
  return std::nullopt;
}

std::optional<int> parseCommandLine(int argc, char** argv, const std::string& defaultPlugin,
                                    const std::string& version, CommandLine& options) {
  std::vector<option> longOptions;
  for (std::size_t i = 0; i < std::size(kOptionSpecs); ++i) {
    longOptions.push_back(option{kOptionSpecs[i].name.data(),
                                 kOptionSpecs[i].hasValue ? required_argument : no_argument,
                                 nullptr, static_cast<int>(256 + i)});
  }
  longOptions.push_back(option{nullptr, 0, nullptr, 0});
  const auto usageError = [](const std::string& message) {
    std::cerr << "acl-agent: " << message << "\n" << kUsageLine;
    return kExitUsage;
  };
  options.defaultPlugin = defaultPlugin;
  // Each option's value is checked as it comes, so that the first one wrong
  // is the one reported; they are put together once the file is read.
  CommandLine checked;
  opterr = 0;
  optind = 1;
  for (int c; (c = getopt_long(argc, argv, "i", longOptions.data(), nullptr)) != -1;) {
    if (c == 'i') c = 256 + static_cast<int>(findOption("interactive") - kOptionSpecs);
    if (c < 256) return usageError("unknown or incomplete option " + shownName(argv[optind - 1]));
    const OptionSpec& spec = kOptionSpecs[c - 256];
    if (spec.name == "help") {
      std::cout << kUsage;
      return kExitOk;
    }
    if (spec.name == "version") {
      std::cout << "acl-agent " << version << "\n";
      return kExitOk;
    }
    if (spec.name == "config") {
      options.configFile = optarg;
      continue;
    }
    GivenOption given{std::string(spec.name),
                      spec.hasValue ? std::optional<std::string>(optarg) : std::nullopt, 0};
    if (auto error = applyOption(given, checked)) return usageError(*error);
    options.given.push_back(std::move(given));
  }
  std::vector<GivenOption> fileOptions;
  if (options.configFile) {
    if (auto error = readConfiguration(*options.configFile, fileOptions)) {
      // A file's own errors name it; one that cannot be read is the program's.
      std::cerr << (error->rfind("cannot read", 0) == 0 ? "acl-agent: " : "") << *error << "\n";
      return kExitUsage;
    }
  }
  if (auto error =
          mergeOptions(fileOptions, options.configFile.value_or(""), options.given, options)) {
    std::cerr << *error << "\n";
    return kExitUsage;
  }
  if (options.plugins.empty()) options.plugins.push_back(defaultPlugin);
  // Removing what was applied loads no plugin.
  for (std::string& plugin : options.plugins) {
    if (options.removeApplied) break;
    if (auto error = checkPlugin(plugin)) {
      std::cerr << "acl-agent: " << *error << "\n";
      return kExitUsage;
    }
  }

  options.scenarios.assign(argv + optind, argv + argc);
  if (options.live && !options.scenarios.empty()) {
    return usageError("--live reads its commands from standard input, not from " +
                      shownName(options.scenarios[0]));
  }
  if (options.scenarios.empty()) options.scenarios.push_back("-");
  return std::nullopt;
}

}  // namespace AclAgent

// acl-agent's command line.
#include "agent/cli/CommandLine.h"

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "agent/base/Text.h"
#include "platform/Zov.h"

namespace AclAgent {
namespace {

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
    "  --help               print this help\n"
    "  --version            print the version\n";

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
    error = "--trace wants NAME/LEVELS, got " + shownName(spec);
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
      error = "--trace: bad level " + shownName(item) + " in " + shownName(spec) +
              " (levels are 0 to 15, e.g. 0,8 or 0-15)";
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

}  // namespace

std::optional<int> parseCommandLine(int argc, char** argv, const std::string& defaultPlugin,
                                    const std::string& version, CommandLine& options) {
  enum : int {
    kPlugin = 256,
    kTrace,
    kRealtime,
    kHelp,
    kVersion,
    kApply,
    kNetns,
    kResync,
    kIptablesRestore,
    kIptablesSave,
    kRemoveApplied,
    kLive,
    kMdnsIntf,
    kGatewaySetting,
    kBackend,
  };
  static const option kOptions[] = {
      {"plugin", required_argument, nullptr, kPlugin},
      {"trace", required_argument, nullptr, kTrace},
      {"realtime", no_argument, nullptr, kRealtime},
      {"interactive", no_argument, nullptr, 'i'},
      {"apply", no_argument, nullptr, kApply},
      {"backend", required_argument, nullptr, kBackend},
      {"netns", required_argument, nullptr, kNetns},
      {"resync", required_argument, nullptr, kResync},
      {"iptables-restore", required_argument, nullptr, kIptablesRestore},
      {"iptables-save", required_argument, nullptr, kIptablesSave},
      {"remove-applied", no_argument, nullptr, kRemoveApplied},
      {"live", no_argument, nullptr, kLive},
      {"mdns-intf", required_argument, nullptr, kMdnsIntf},
      {"gateway-setting", required_argument, nullptr, kGatewaySetting},
      {"help", no_argument, nullptr, kHelp},
      {"version", no_argument, nullptr, kVersion},
      {nullptr, 0, nullptr, 0},
  };
  const auto usageError = [](const std::string& message) {
    std::cerr << "acl-agent: " << message << "\n" << kUsageLine;
    return kExitUsage;
  };
  opterr = 0;
  optind = 1;
  for (int c; (c = getopt_long(argc, argv, "i", kOptions, nullptr)) != -1;) {
    std::string error;
    switch (c) {
      case kPlugin:
        options.plugins.emplace_back(optarg);
        break;
      case kTrace:
        if (auto name = applyTrace(optarg, error)) {
          options.traces.emplace_back(std::move(*name), optarg);
        } else {
          return usageError(error);
        }
        break;
      case kRealtime:
        options.realtime = true;
        break;
      case 'i':
        options.interactive = true;
        break;
      case kApply:
        options.apply = true;
        break;
      case kBackend: {
        const std::string_view kind = optarg;
        using Kind = BackendOptions::Kind;
        if (kind == "nft") {
          options.backend.kind = Kind::kNft;
        } else if (kind == "iptables") {
          options.backend.kind = Kind::kIptables;
        } else if (kind == "auto") {
          options.backend.kind = Kind::kAuto;
        } else {
          return usageError("--backend wants nft, iptables or auto, got " + shownName(optarg));
        }
        break;
      }
      case kNetns:
        if (auto fault = NamespaceMap::templateFault(optarg))
          return usageError("--netns: " + *fault);
        options.backend.namespaces = NamespaceMap(optarg, options.backend.namespaces.dir());
        break;
      case kResync:
        if (!parseSeconds(optarg, options.backend.resyncPeriod)) {
          return usageError("--resync wants a number of seconds, got " + shownName(optarg));
        }
        break;
      case kIptablesRestore:
        options.backend.iptablesRestore = optarg;
        options.backend.iptablesNamed = true;
        break;
      case kIptablesSave:
        options.backend.iptablesSave = optarg;
        options.backend.iptablesNamed = true;
        break;
      case kRemoveApplied:
        options.removeApplied = true;
        break;
      case kLive:
        options.live = options.realtime = options.interactive = true;
        break;
      case kMdnsIntf:
        options.mdnsGlobs.emplace_back(optarg);
        break;
      case kGatewaySetting: {
        unsigned setting = 0;
        const std::string_view text = optarg;
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), setting);
        if (ec != std::errc() || end != text.data() + text.size() || setting > 65535) {
          return usageError("--gateway-setting wants a number 0..65535, got " + shownName(optarg));
        }
        options.gatewaySetting = static_cast<std::uint16_t>(setting);
        break;
      }
      case kHelp:
        std::cout << kUsage;
        return kExitOk;
      case kVersion:
        std::cout << "acl-agent " << version << "\n";
        return kExitOk;
      default:
        return usageError("unknown or incomplete option " + shownName(argv[optind - 1]));
    }
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

// acl-agent: hosts ACL plugins the way a device's ACL agent does, and runs
// them against scenarios that play the other agents' state changes.
//
// `main` reads the command line (CommandLine.h), reads and checks every
// scenario file before anything runs, then runs them (Runner.h); standard
// input on a terminal or with -i runs line by line as it arrives. A live
// agent runs as a daemon (LiveDaemon.h); `acl-agent ctl` is the control
// socket's client (ControlClient.h).
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "agent/cli/CommandLine.h"
#include "agent/cli/Runner.h"
#include "agent/control/ControlClient.h"
#include "agent/host/Agent.h"
#include "agent/service/JournalStream.h"
#include "agent/service/LiveDaemon.h"

namespace {

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

// A live agent holds a socket for each namespace it follows, and each write
// of --apply pipes to a child: the soft limit on descriptors, often 1,024,
// would end what one machine's namespaces need. The hard limit is the
// administrator's to set; the soft one is raised to it. (The event loop polls
// with ppoll, which takes descriptors of any number.)
void raiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  // Only the soft limit moves, within the hard one: this cannot fail.
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A --trace that named a handle no code made is most likely a typing error.
void reportUnusedTraces(const AclAgent::CommandLine& options) {
  const std::vector<std::string> made = Zov::TraceHandle::namesMade();
  for (const AclAgent::TraceOption& trace : options.traces) {
    const std::string& name = trace.name;
    const std::string& spec = trace.spec;
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
  // Output to a pipe whose reader has gone fails its write, which is
  // reported, rather than ending the program unheard. Children get the
  // default action back as they start.
  signal(SIGPIPE, SIG_IGN);
  holdClosedStandardStreams();
  // A scenario file named ctl is given as ./ctl.
  if (argc >= 2 && std::string_view(argv[1]) == "ctl") {
    return AclAgent::runControlClient(argc - 2, argv + 2);
  }
  raiseDescriptorLimit();
  AclAgent::JournalStream journal(AclAgent::standardErrorIsJournal());
  AclAgent::CommandLine options;
  if (std::optional<int> status =
          AclAgent::parseCommandLine(argc, argv, defaultPlugin(), ACL_AGENT_VERSION, options)) {
    return *status;
  }
  AclAgent::enableTraces(options);
  if (options.apply && options.live) {
    // A daemon's log says which backend writes, and why (`show applied`
    // says it too).
    std::string why;
    const bool nft =
        AclAgent::chosenKind(options.backend, &why) == AclAgent::BackendOptions::Kind::kNft;
    std::cerr << AclAgent::kInfo << "acl-agent: backend " << (nft ? "nft" : "iptables") << ": "
              << why << "\n";
  }
  if (options.removeApplied) {
    return AclAgent::removeApplied(options.backend, std::cerr) ? AclAgent::kExitOk
                                                               : AclAgent::kExitCommandFailed;
  }

  // Standard input alone, on a terminal or with -i, runs line by line.
  const bool terminal = isatty(STDIN_FILENO);
  const bool lineByLine =
      options.scenarios == std::vector<std::string>{"-"} && (terminal || options.interactive);

  // Every file is read and checked before anything runs; a file's commands
  // are parsed again as they run, so a scenario costs its text and no more.
  std::vector<std::pair<std::string, std::string>> sources;
  if (!lineByLine) {
    bool parseFailed = false;
    for (const std::string& name : options.scenarios) {
      std::string text;
      if (auto error = readScenario(name, text)) {
        std::cerr << "acl-agent: " << *error << "\n";
        return AclAgent::kExitUsage;
      }
      AclAgent::parseEachLine(text, name, [&](AclAgent::ParsedLine& line) {
        if (line.error) std::cerr << line.error->text() << "\n";
        parseFailed |= line.error.has_value();
        return true;
      });
      sources.emplace_back(name, std::move(text));
    }
    if (parseFailed) return AclAgent::kExitUsage;
  }

  auto loop = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  AclAgent::Agent agent(options.plugins,
                        options.apply ? std::optional(options.backend) : std::nullopt);
  if (options.realtime) loop->wallClockIs(true);
  AclAgent::Runner runner(agent);
  if (options.live) {
    const int status = AclAgent::runLive(options, agent, runner, loop);
    reportUnusedTraces(options);
    return status;
  }
  if (lineByLine) {
    if (const int error = runner.runLines(*loop, terminal)) runner.readFailed(error);
    agent.drain();
  } else {
    for (const auto& [name, text] : sources) {
      const bool goOn = runner.runScenario(name, text);
      agent.drain();
      if (!goOn) break;
    }
  }
  reportUnusedTraces(options);
  return runner.finish();
}

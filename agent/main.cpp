// acl-agent: hosts ACL plugins the way a device's ACL agent does, and runs
// them against scenarios that play the other agents' state changes.
//
// `main` reads the command line (CommandLine.h), reads and checks every
// scenario file before anything runs, then runs them (`Runner`); standard
// input on a terminal or with -i runs line by line as it arrives.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include "agent/cli/CommandLine.h"
#include "agent/cli/LineInput.h"
#include "agent/cli/Output.h"
#include "agent/host/Agent.h"

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

// Runs commands against the agent and keeps the exit status. What a command
// prints is written out when it ends.
class Runner {
 public:
  explicit Runner(AclAgent::Agent& agent) : agent_(agent) {}

  // Runs one command of `file`; false when the run must end.
  bool run(const std::string& file, const AclAgent::Command& command) {
    return attempt(file, command.line, [&] { agent_.run(command, out_); });
  }

  // Runs `work` for line `line` of `file`, reporting what it raises; false
  // when the run must end.
  template <class Work>
  bool attempt(const std::string& file, unsigned line, Work&& work) {
    try {
      work();
    } catch (const AclAgent::PluginLoadError& e) {
      report(file, line, e.what());
      status_ = AclAgent::kExitUsage;
      return false;
    } catch (const std::exception& e) {
      report(file, line, AclAgent::commandErrorText(e));
      status_ = std::max(status_, AclAgent::kExitCommandFailed);
    }
    return outputWritten();
  }

  // Runs a scenario that has been checked; false when the run must end.
  bool runScenario(const std::string& file, std::string_view text) {
    return AclAgent::parseEachLine(text, file, [&](AclAgent::ParsedLine& line) {
      return !line.command || run(file, *line.command);
    });
  }

  // Runs standard input line by line as it arrives, until its end, a read
  // that fails or output that cannot be written (`outputFailed()`). A line
  // that does not parse, or whose plugin cannot be loaded, is reported and
  // the session goes on. Returns the error number of a failed read, or 0;
  // the caller reports it.
  int runLines(Pell::TaskSchedulerRoot& loop, bool terminal, const bool* stop = nullptr) {
    AclAgent::LineInput input(loop, terminal, stop);
    unsigned lineNumber = 0;
    while (std::optional<std::string> line = input.next()) {
      std::string_view text = *line;
      if (++lineNumber == 1) text = AclAgent::withoutByteOrderMark(text);
      AclAgent::ParsedLine parsed = AclAgent::parseLine(text, "-", lineNumber);
      if (parsed.error) std::cerr << parsed.error->text() << "\n";
      if (parsed.command) run("-", *parsed.command);
      if (outputFailed_) return 0;
    }
    return input.error();
  }

  // A scenario on standard input that could not be read.
  void readFailed(int error) {
    std::cerr << "acl-agent: cannot read scenario \"-\": " << std::strerror(error) << "\n";
    status_ = std::max(status_, AclAgent::kExitUsage);
  }

  // Ends the run: with --apply, a VRF whose rules are not in place fails it,
  // and is named.
  int finish() {
    const std::vector<AclAgent::VrfStatus> missing = agent_.notApplied();
    for (const auto& vrf : missing) {
      std::cerr << "acl-agent: apply vrf " << AclAgent::quoteName(vrf.vrf)
                << ": not in place at the end"
                << (vrf.error.empty() ? std::string() : ": " + vrf.error) << "\n";
    }
    if (!missing.empty()) status_ = std::max(status_, AclAgent::kExitCommandFailed);
    return status_;
  }

  int status() const { return status_; }

  // The output of the run, for lines the program prints itself; they go out
  // at `outputWritten()`.
  std::ostream& out() { return out_; }
  bool outputFailed() const { return outputFailed_; }

  // Whether everything printed so far went out; reports it when not.
  bool outputWritten() {
    if (outputFailed_) return false;
    if (out_.flush() && !output_.error()) return true;
    outputFailed_ = true;
    status_ = std::max(status_, AclAgent::kExitCommandFailed);
    std::cerr << "acl-agent: cannot write to standard output: " << std::strerror(output_.error())
              << "\n";
    return false;
  }

 private:
  void report(const std::string& file, unsigned line, const std::string& message) {
    out_.flush();
    std::cerr << file << ":" << line << ": error: " << message << "\n";
  }

  AclAgent::Agent& agent_;
  AclAgent::FdOutput output_{STDOUT_FILENO};
  std::ostream out_{&output_};
  int status_ = AclAgent::kExitOk;
  bool outputFailed_ = false;  // reported; nothing more is written
};

// Ends the wait of a live agent when SIGINT or SIGTERM arrives: the signals
// are taken off their default action and read from a descriptor the loop
// watches.
class StopSignals {
 public:
  explicit StopSignals(Pell::TaskSchedulerRoot& loop) {
    // A signal its starter had ignored (as a shell does for background jobs)
    // would be dropped rather than read: take both back first.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
    fd_ = signalfd(-1, &signals_, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    watch_ = Pell::FdWatch(loop, fd_, [this] {
      signalfd_siginfo info;
      while (read(fd_, &info, sizeof info) == sizeof info) stopped_ = true;
    });
  }
  ~StopSignals() {
    watch_.reset();
    close(fd_);
    sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
  }
  const bool* stopped() const { return &stopped_; }

 private:
  sigset_t signals_;
  int fd_ = -1;
  Pell::FdWatch watch_;
  bool stopped_ = false;
};

// `acl-agent --live`: the agent publishes the kernel's state, loads the
// plugins and says when it is ready; then standard input runs as it arrives,
// until a signal, or until standard output cannot be written: a daemon that
// can no longer say what it was asked stops, as a scenario does.
int runLive(const AclAgent::CommandLine& options, AclAgent::Agent& agent, Runner& runner,
            const Zov::Ptr<Pell::TaskSchedulerRoot>& loop) {
  StopSignals signals(*loop);
  AclAgent::StateDatabase& db = agent.stateDatabase();
  db.gatewayEnabledIs(options.gatewaySetting.has_value());
  db.gatewaySettingIs(options.gatewaySetting.value_or(0));
  agent.readyListenerIs([&] {
    runner.out() << "ready\n";
    runner.outputWritten();
  });
  agent.liveIs(options.mdnsGlobs, options.backend.namespaces);
  // The plugins load on a task of the loop: what their loading raises comes
  // out here.
  const bool started = runner.attempt(
      "--live", 0, [&] { loop->runUntil([&] { return agent.ready() || *signals.stopped(); }); });
  if (!started) return runner.status();
  if (const int error = runner.runLines(*loop, isatty(STDIN_FILENO), signals.stopped())) {
    // Said once: the agent goes on without commands, as at their end.
    std::cerr << "acl-agent: commands are not read: "
              << (error == EBADF
                      ? std::string("standard input is closed")
                      : std::string("cannot read standard input: ") + std::strerror(error))
              << "\n";
  }
  if (runner.outputFailed()) return runner.status();
  // The end of standard input does not stop a live agent.
  loop->runUntil([&] { return *signals.stopped(); });
  return AclAgent::kExitOk;
}

// A --trace that named a handle no code made is most likely a typing error.
void reportUnusedTraces(const AclAgent::CommandLine& options) {
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
  raiseDescriptorLimit();
  // Output to a pipe whose reader has gone fails its write, which is
  // reported, rather than ending the program unheard. Children get the
  // default action back as they start.
  signal(SIGPIPE, SIG_IGN);
  holdClosedStandardStreams();
  AclAgent::CommandLine options;
  if (std::optional<int> status =
          AclAgent::parseCommandLine(argc, argv, defaultPlugin(), ACL_AGENT_VERSION, options)) {
    return *status;
  }
  if (options.apply && !options.removeApplied) {
    // Chosen once, and said, before anything is written.
    std::string why;
    options.backend.kind = AclAgent::chosenKind(options.backend, &why);
    std::cerr << "acl-agent: backend "
              << (options.backend.kind == AclAgent::BackendOptions::Kind::kNft ? "nft" : "iptables")
              << ": " << why << std::endl;
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
  Runner runner(agent);
  if (options.live) {
    const int status = runLive(options, agent, runner, loop);
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

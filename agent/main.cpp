// acl-agent: hosts ACL plugins the way a device's ACL agent does, and runs
// them against scenarios that play the other agents' state changes.
//
// `main` reads the command line (CommandLine.h), reads and checks every
// scenario file before anything runs, then runs them (`Runner`); standard
// input on a terminal or with -i runs line by line as it arrives. A live
// agent also answers its control socket (ControlServer.h), reads its
// configuration again at SIGHUP and tells the service manager how it is
// (ServiceNotifier.h); `acl-agent ctl` is the control socket's client.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>

#include "agent/cli/CommandLine.h"
#include "agent/cli/LineInput.h"
#include "agent/cli/Output.h"
#include "agent/control/ControlClient.h"
#include "agent/control/ControlServer.h"
#include "agent/host/Agent.h"
#include "agent/service/JournalStream.h"
#include "agent/service/ServiceNotifier.h"

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

  // Runs one command of `file`; false when the run must end. The control
  // socket's lines wait meanwhile.
  bool run(const std::string& file, const AclAgent::Command& command) {
    if (control_) control_->holdIs(true);
    const bool goOn = attempt(file, command.line, [&] { agent_.run(command, out_); });
    if (control_) control_->holdIs(false);
    return goOn;
  }

  void controlIs(AclAgent::ControlServer* control) { control_ = control; }

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
  AclAgent::ControlServer* control_ = nullptr;
  AclAgent::FdOutput output_{STDOUT_FILENO};
  std::ostream out_{&output_};
  int status_ = AclAgent::kExitOk;
  bool outputFailed_ = false;  // reported; nothing more is written
};

// Ends the wait of a live agent when SIGINT or SIGTERM arrives, and calls
// `reload` at each SIGHUP: the signals are taken off their default action
// and read from a descriptor the loop watches.
class StopSignals {
 public:
  StopSignals(Pell::TaskSchedulerRoot& loop, std::function<void()> reload)
      : reload_(std::move(reload)) {
    // A signal its starter had ignored (as a shell does for background jobs)
    // would be dropped rather than read: take them back first.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
    fd_ = signalfd(-1, &signals_, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    watch_ = Pell::FdWatch(loop, fd_, [this] {
      signalfd_siginfo info;
      while (read(fd_, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP) {
          reload_();
        } else {
          stopped_ = true;
        }
      }
    });
  }
  ~StopSignals() {
    watch_.reset();
    close(fd_);
    sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
  }
  const bool* stopped() const { return &stopped_; }

 private:
  std::function<void()> reload_;
  sigset_t signals_;
  int fd_ = -1;
  Pell::FdWatch watch_;
  bool stopped_ = false;
};

// A line from the control socket, run as a line of standard input runs in
// live mode: the same parse, the same command, the same refusals.
AclAgent::ControlAnswer answerLine(AclAgent::Agent& agent, std::string_view line) {
  AclAgent::ParsedLine parsed = AclAgent::parseLine(line, "ctl", 1);
  if (parsed.error) return {true, "", parsed.error->message};
  if (!parsed.command) return {};
  std::ostringstream out;
  try {
    agent.run(*parsed.command, out);
  } catch (const std::exception& e) {
    return {true, out.str(), AclAgent::commandErrorText(e)};
  }
  return {false, out.str(), ""};
}

// The service manager's one line on the VRFs.
std::string statusLine(const AclAgent::Agent& agent, bool apply) {
  if (!apply) return "ready; nothing is applied (no --apply)";
  const std::vector<AclAgent::VrfStatus> all = agent.applied();
  const std::vector<AclAgent::VrfStatus> missing = AclAgent::notInPlace(all);
  std::string line = std::to_string(all.size() - missing.size()) + " VRFs in place, " +
                     std::to_string(missing.size()) + " not";
  for (std::size_t i = 0; i < missing.size() && i < 3; ++i) {
    line += (i == 0 ? ": " : ", ") + AclAgent::shownName(missing[i].vrf);
  }
  if (missing.size() > 3) line += ", ...";
  return line;
}

// What a reload of the configuration cannot change; each named once.
std::vector<std::string> needRestart(const AclAgent::CommandLine& running,
                                     const AclAgent::CommandLine& next) {
  std::vector<std::string> names;
  const auto check = [&](bool same, const char* name) {
    if (!same) names.push_back(name);
  };
  check(running.plugins == next.plugins, "plugin");
  check(running.traces == next.traces, "trace");
  check(running.apply == next.apply, "apply");
  check(running.live == next.live && running.realtime == next.realtime &&
            running.interactive == next.interactive,
        "live, realtime or interactive");
  check(running.removeApplied == next.removeApplied, "remove-applied");
  check(running.backend.namespaces.netnsTemplate() == next.backend.namespaces.netnsTemplate(),
        "netns");
  check(running.backend.kind == next.backend.kind, "backend");
  check(running.backend.iptablesRestore == next.backend.iptablesRestore, "iptables-restore");
  check(running.backend.iptablesSave == next.backend.iptablesSave, "iptables-save");
  check(running.control == next.control, "control");
  return names;
}

std::string monotonicMicroseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000);
}

// `acl-agent --live`: the agent publishes the kernel's state, loads the
// plugins and says when it is ready; then standard input and the control
// socket run as they arrive, until a signal, or until standard output
// cannot be written: a daemon that can no longer say what it was asked
// stops, as a scenario does.
int runLive(const AclAgent::CommandLine& options, AclAgent::Agent& agent, Runner& runner,
            const Zov::Ptr<Pell::TaskSchedulerRoot>& loop) {
  AclAgent::ServiceNotifier notifier(loop, std::cerr);
  // What runs now; a reload changes what can change while running.
  AclAgent::CommandLine running = options;
  const auto reload = [&] {
    notifier.send("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds());
    AclAgent::CommandLine next;
    if (!running.configFile) {
      std::cerr << AclAgent::kWarning
                << "acl-agent: reload: there is no --config file to read again\n";
    } else if (auto error = AclAgent::reloadConfiguration(running, next)) {
      std::cerr << "acl-agent: reload refused, nothing changed: " << *error << "\n";
    } else {
      for (const std::string& name : needRestart(running, next)) {
        std::cerr << "acl-agent: warning: reload: " << name
                  << " needs a restart; it stays as it was\n";
      }
      const bool changed =
          agent.liveConfigIs(next.gatewaySetting, next.mdnsGlobs, next.backend.resyncPeriod);
      running.gatewaySetting = next.gatewaySetting;
      running.mdnsGlobs = next.mdnsGlobs;
      running.backend.resyncPeriod = next.backend.resyncPeriod;
      std::cerr << AclAgent::kInfo << "acl-agent: reload: "
                << (changed ? "configuration changed" : "nothing to change") << "\n";
    }
    notifier.send("READY=1");
  };
  StopSignals signals(*loop, reload);
  std::unique_ptr<AclAgent::ControlServer> control;
  try {
    control = std::make_unique<AclAgent::ControlServer>(
        loop,
        AclAgent::ControlServerOptions{
            .path = options.control.value_or(AclAgent::defaultControlPath())},
        [&](std::string_view line) { return answerLine(agent, line); });
  } catch (const std::runtime_error& e) {
    std::cerr << "acl-agent: " << e.what() << "\n";
    return AclAgent::kExitCommandFailed;
  }
  // Commands wait until the agent is ready, as standard input's do.
  control->holdIs(true);
  runner.controlIs(control.get());
  AclAgent::StateDatabase& db = agent.stateDatabase();
  db.gatewayEnabledIs(options.gatewaySetting.has_value());
  db.gatewaySettingIs(options.gatewaySetting.value_or(0));
  notifier.statusIs("starting");
  agent.readyListenerIs([&] {
    runner.out() << "ready\n";
    runner.outputWritten();
    notifier.send("READY=1");
    notifier.statusIs(statusLine(agent, options.apply));
    control->holdIs(false);
  });
  agent.appliedListenerIs([&] {
    if (agent.ready()) notifier.statusIs(statusLine(agent, options.apply));
  });
  agent.liveIs(options.mdnsGlobs, options.backend.namespaces);
  const auto stop = [&](int status) {
    notifier.send("STOPPING=1");
    runner.controlIs(nullptr);
    agent.readyListenerIs(nullptr);
    agent.appliedListenerIs(nullptr);
    return status;
  };
  // The plugins load on a task of the loop: what their loading raises comes
  // out here.
  const bool started = runner.attempt(
      "--live", 0, [&] { loop->runUntil([&] { return agent.ready() || *signals.stopped(); }); });
  if (!started) return stop(runner.status());
  if (const int error = runner.runLines(*loop, isatty(STDIN_FILENO), signals.stopped())) {
    // Said once: the agent goes on without commands, as at their end.
    std::cerr << "acl-agent: commands are not read: "
              << (error == EBADF
                      ? std::string("standard input is closed")
                      : std::string("cannot read standard input: ") + std::strerror(error))
              << "\n";
  }
  if (runner.outputFailed()) return stop(runner.status());
  // The end of standard input does not stop a live agent.
  loop->runUntil([&] { return *signals.stopped(); });
  return stop(AclAgent::kExitOk);
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

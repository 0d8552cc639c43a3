#include "agent/service/LiveDaemon.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/backend/Backend.h"
#include "agent/base/Text.h"
#include "agent/control/ControlServer.h"
#include "agent/scenario/Scenario.h"
#include "agent/service/JournalStream.h"
#include "agent/service/ServiceNotifier.h"

namespace AclAgent {
namespace {

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

}  // namespace

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

}  // namespace AclAgent

// Agent: the reference ACL agent that `acl-agent` runs. It owns the event
// loop, the state database with the published entities, the rule service
// that plugins talk to, the plugin host, and, as asked, the kernel backend
// that puts what stands in place and the live state source; `run` carries
// out one scenario command against them.
//
//   AclAgent::Agent agent({"/path/McastDnsAclPlugin.so"});
//   agent.run(command, std::cout);   // raises on a command that fails
//
// Live, the kernel publishes links, interfaces and VRFs instead of the
// scenario, and the agent says when it is ready:
//
//   agent.readyListenerIs([] { std::cout << "ready\n"; });
//   agent.liveIs({"eth*"}, NamespaceMap("%s"));   // loads the plugins once the kernel is read
//   loop->runUntil([&] { return stopped; });
//
// A command that fails raises an exception whose text says what went wrong
// (`commandErrorText` makes the message that reports it); what the command
// did before it failed stands. `PluginLoadError` means a plugin could not be
// loaded at all, which ends a scenario; nothing of that `load` stays loaded.
//
// Threading: the event thread only.
#pragma once

#include <iostream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/backend/Backend.h"
#include "agent/host/PluginHost.h"
#include "agent/host/RuleService.h"
#include "agent/host/StateDatabase.h"
#include "agent/live/LiveMode.h"
#include "agent/scenario/Scenario.h"
#include "platform/Pell.h"

namespace AclAgent {

// The message that reports an error a command raised: the error's own text
// and, for a text over a length limit (a VRF name of more than 100 bytes),
// the start of that text, its length and the limit.
std::string commandErrorText(const std::exception& e);

class Agent {
 public:
  // With `apply`, what stands is also put in place in the kernel. The
  // backend and live mode report their errors to `errors`.
  explicit Agent(std::vector<std::string> pluginPaths,
                 std::optional<BackendOptions> apply = std::nullopt,
                 std::ostream& errors = std::cerr);
  // Unloads the plugins before the services they hold go.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Carries out `command`, writing what it prints to `out`.
  void run(const Command& command, std::ostream& out);

  // Waits until the kernel backend has no child process in flight: the end
  // of a scenario. Nothing to wait for without --apply.
  void drain() { scheduler_->drain(); }
  // With --apply, the VRFs whose rules must stand and are not in place.
  std::vector<VrfStatus> notApplied() const;
  // With --apply, every VRF the backend knows, as `show applied` shows them.
  std::vector<VrfStatus> applied() const;

  // Live mode: the kernel's links, interfaces and VRFs (in `namespaces`) are
  // published from now on, and commands that publish them are refused. Once
  // every namespace has been read, the plugins are loaded, as `load` does,
  // on a task of the loop; a `PluginLoadError` comes out of the loop call
  // that ran it. The gateway stays as the configuration says. The call log
  // is off from now on: a daemon never shows its calls, and `show calls`
  // says so. When a VRF's namespace goes, every rule of that VRF is dropped
  // from the rule service and the backend is told that none must stand there.
  // REQUIRES: live mode is not on yet.
  void liveIs(std::vector<std::string> mdnsGlobs, NamespaceMap namespaces);
  // Called once, when the plugins' first refresh after `liveIs` has run and,
  // with --apply, is in place: every VRF whose rules must stand has them,
  // but those that never can (`VrfStatus::State::kFailed`, reported by the
  // backend). When the backend first goes idle with some VRF not in place,
  // each is reported once to the error stream as
  // `acl-agent: not ready: vrf "NAME": ERROR`, and the call waits until
  // they are, as the backend's retries and read-backs put them.
  void readyListenerIs(std::function<void()> listener) { readyListener_ = std::move(listener); }
  bool ready() const { return start_ == Start::kReady; }

  // What can change while a live agent runs: the configuration's gateway
  // (enabled with a setting, or off), the globs of the links that may want
  // the rule, and the backend's resync period. Everything is written in one
  // turn of the loop, so that the plugins refresh once for it all; a value
  // that does not change notifies nobody. Returns whether anything changed.
  // REQUIRES: live mode is on.
  bool liveConfigIs(std::optional<std::uint16_t> gatewaySetting, std::vector<std::string> mdnsGlobs,
                    Pell::Nanoseconds resyncPeriod);
  // Called each time the backend has nothing left to do; one listener.
  void appliedListenerIs(std::function<void()> listener) { appliedListener_ = std::move(listener); }

  StateDatabase& stateDatabase() { return db_; }
  RuleService& ruleService() { return *rules_; }
  PluginHost& pluginHost() { return host_; }

 private:
  void load();
  void unload();
  void show(ShowWhat what, std::ostream& out);
  void runCommand(const Command& command, std::ostream& out);
  // A finish named `vrf`: the backend learns what stands there, and live
  // mode's first refresh may be over.
  void handleFinish(const L3::VrfName& vrf, bool changed);
  void checkReady();
  // Live mode: VRF `vrf`'s namespace went, and every rule of it with it.
  void vrfGone(const std::string& vrf);

  std::vector<std::string> pluginPaths_;
  std::ostream& errors_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  StateDatabase db_;
  Zov::Ptr<RuleService> rules_;
  PluginHost host_;
  std::unique_ptr<Backend> backend_;
  std::unique_ptr<LiveMode> live_;

  // Live mode's start: the load once the kernel is read, then the check,
  // after the task that made the first refresh, that it has been applied;
  // kNotInPlace once it was found not to be, until it is.
  enum class Start : std::uint8_t { kIdle, kReading, kRefreshing, kApplying, kNotInPlace, kReady };
  Start start_ = Start::kIdle;
  std::function<void()> readyListener_;
  std::function<void()> appliedListener_;
  std::vector<std::string> mdnsGlobs_;
  Pell::Nanoseconds resyncPeriod_ = 0;
  std::unique_ptr<Pell::BackgroundTimer> startTask_;
};

}  // namespace AclAgent

// Agent: the reference ACL agent that `acl-agent` runs. It owns the event
// loop, the state database with the published entities, the rule service
// that plugins talk to, and the plugin host; `run` carries out one scenario
// command against them.
//
//   AclAgent::Agent agent({"/path/McastDnsAclPlugin.so"});
//   agent.run(command, std::cout);   // raises on a command that fails
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

#include "agent/backend/iptables/IptablesBackend.h"
#include "agent/host/PluginHost.h"
#include "agent/host/RuleService.h"
#include "agent/scenario/Scenario.h"
#include "agent/host/StateDatabase.h"
#include "platform/Pell.h"

namespace AclAgent {

// The message that reports an error a command raised: the error's own text
// and, for a text over a length limit (a VRF name of more than 100 bytes),
// the start of that text, its length and the limit.
std::string commandErrorText(const std::exception& e);

class Agent {
 public:
  // With `apply`, what stands is also put in place in the kernel, and the
  // backend reports its errors to `errors`.
  explicit Agent(std::vector<std::string> pluginPaths,
                 std::optional<IptablesBackendOptions> apply = std::nullopt,
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
  // False when, with --apply, some VRF's rules are not in place.
  bool applied() const { return !backend_ || backend_->allInPlace(); }
  // In live mode the kernel owns links, interfaces and VRFs: commands that
  // publish them are refused.
  void kernelOwnsStateIs(bool owns) { kernelOwnsState_ = owns; }
  // Reads every VRF back and repairs what is not in place (with --apply).
  void reapply() {
    if (backend_) backend_->resync();
  }

  // With --apply, the VRFs whose rules must stand and are not in place.
  std::vector<IptablesBackend::VrfStatus> notApplied() const;

  StateDatabase& stateDatabase() { return db_; }
  RuleService& ruleService() { return *rules_; }
  PluginHost& pluginHost() { return host_; }

 private:
  void load();
  void unload();
  void show(ShowWhat what, std::ostream& out);

  std::vector<std::string> pluginPaths_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  StateDatabase db_;
  Zov::Ptr<RuleService> rules_;
  PluginHost host_;
  std::unique_ptr<IptablesBackend> backend_;
  bool kernelOwnsState_ = false;
};

}  // namespace AclAgent

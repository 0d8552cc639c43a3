// PublishedModel: a plain model of what a scenario publishes, of what the
// multicast DNS plugin sees of it, and of the rules that must stand.
//
// The plugin works on the entities it found when its mounts completed; a
// `recreate` after that gives the state database a new entity the plugin
// does not see until the next completion. The model keeps the same split: a
// content per published path, and the contents bound when mounts completed.
//
// Every refresh decides every VRF its inputs name (a VRF with an up link on
// one of its interfaces needs the rule, every other one listed and "default"
// do not) and the gateway rule; a VRF that later leaves every input keeps its
// last decision. So the rules that stand are the decisions of all refreshes,
// the latest winning, and the model needs to know only when refreshes ran
// (the rule service's calls went up: `refreshed()`). After `settle`, every
// change the plugin reads must have been followed by a refresh: `refreshDue()`.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "agent/Scenario.h"

namespace AclAgentFuzz {

class PublishedModel {
 public:
  PublishedModel();

  // Whether the agent must refuse `args` in the model's present state: a
  // write to an omitted path, a VRF name over 100 bytes (in any command),
  // `omit` while loaded, `recreate` of an omitted path.
  bool mustFail(const AclAgent::CommandArgs& args) const;
  // Whether the plugin may raise while it reacts to `args`: a `link replace`
  // under a key that it watches, since it does not watch a second entity
  // under one key (a reinstantiation error). The write stands all the same.
  bool mayBeRefusedByPlugin(const AclAgent::CommandArgs& args) const;
  // Carries over a command that the agent ran: without raising, or raising
  // as `mayBeRefusedByPlugin` allows (`refused`).
  void ran(const AclAgent::CommandArgs& args, bool refused = false);
  // The rule service received calls during the last command.
  void refreshed();

  // Mounts have completed and the plugin has not been unloaded since.
  bool running() const { return running_; }
  // Something the plugin reads changed, or a new state machine started, and
  // no refresh has run since.
  bool refreshDue() const { return refreshDue_; }

  // `show rules` as it must read.
  std::string rulesText() const;

 private:
  // What one published entity holds; each path uses its own part.
  struct Content {
    bool gatewayEnabled = false;
    std::uint16_t gatewaySetting = 0;
    std::map<std::pair<std::string, std::uint32_t>, std::uint8_t> links;
    std::map<std::string, std::string> intfVrf;
    std::set<std::string> vrfs;
    friend bool operator==(const Content&, const Content&) = default;
  };
  using Contents = std::array<std::shared_ptr<Content>, AclAgent::kStatePaths.size()>;

  void publish(const AclAgent::CommandArgs& args, Content& content);
  // Mount completion: the plugin takes the present entities.
  void bind();
  // The loop runs the completion that `load` made due, if any.
  void completionRuns();

  Contents current_;  // null: omitted
  Contents bound_;    // what the running plugin reads; null: absent
  // Links whose new entity the plugin refused: it goes on watching the old
  // one, so changes under these keys start nothing until the key is deleted
  // or a new state machine watches afresh.
  std::set<std::pair<std::string, std::uint32_t>> unwatched_;
  bool loaded_ = false;
  bool completionDue_ = false;
  bool running_ = false;
  bool refreshDue_ = false;
  // The decisions in force: per VRF whether the multicast DNS rule stands,
  // and whether the gateway rule stands in "default".
  std::map<std::string, bool> mdnsRule_;
  bool gatewayRule_ = false;
};

}  // namespace AclAgentFuzz

// Runs any scenario that parses against a real agent with the multicast DNS
// plugin loaded from the build tree, one agent per input. Commands that fail
// are expected (a failing command reports and the run goes on); memory
// errors, undefined behaviour, leaks and hangs are what this looks for, and
// after every command the rules that stand must be those a plain model of
// the published state gives (PublishedModel below).
//
// The scheduler, the plugin loader and the allocation records live as long
// as the process; after each input no task may be left armed, no plugin
// registered, and every allocation record must count what it counted before.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "FuzzSupport.h"
#include "agent/base/Overloaded.h"
#include "agent/base/Text.h"
#include "agent/host/Agent.h"
#include "platform/Acl.h"
#include "platform/Pell.h"

namespace {

using namespace AclAgent;
using AclAgentFuzz::check;
using AclAgentFuzz::fail;

// Inputs with more commands are skipped, so that one input stays quick.
constexpr std::size_t kMaxCommands = 400;
// The clock of the process's scheduler moves on from one input to the next;
// each input may move it this far (10 s), its `advance` commands cut to fit.
constexpr Pell::Nanoseconds kClockBudget = 10'000'000'000;

constexpr std::size_t kMaxVrfName = 100;
const std::string kDefaultVrf = "default";
const std::string kRuleFields = " dir=0 chain=\"INPUT\" owner=\"McastDnsAclPlugin\" seq=";
const std::string kMdnsRule = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n";
const std::string kGatewayRule = "-p tcp --dport 8853 -j ACCEPT\n";

std::size_t slot(StatePath path) {
  return static_cast<std::size_t>(path);
}

StatePath vrfPath(VrfView view) {
  return view == VrfView::kGlobal ? StatePath::kVrfStatusGlobal : StatePath::kVrfStatusLocal;
}

template <class... Cmd>
bool isOneOf(const CommandArgs& args) {
  return (std::holds_alternative<Cmd>(args) || ...);
}

// The path a publishing command writes to.
std::optional<StatePath> pathWritten(const CommandArgs& args) {
  if (isOneOf<GatewayEnabledCmd, GatewaySettingCmd>(args)) return StatePath::kMdnsConfig;
  if (isOneOf<LinkSetCmd, LinkReplaceCmd, LinkDelCmd>(args)) return StatePath::kMdnsStatus;
  if (isOneOf<IntfSetCmd, IntfReplaceCmd, IntfDelCmd>(args)) return StatePath::kL3IntfStatus;
  if (const auto* c = std::get_if<VrfAddCmd>(&args)) return vrfPath(c->view);
  if (const auto* c = std::get_if<VrfDelCmd>(&args)) return vrfPath(c->view);
  return std::nullopt;
}

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
class PublishedModel {
 public:
  PublishedModel() {
    for (auto& content : current_) content = std::make_shared<Content>();
  }

  // Whether the agent must refuse `args` in the model's present state: a
  // write to an omitted path, a VRF name over 100 bytes (in any command),
  // `omit` while loaded, `recreate` of an omitted path.
  bool mustFail(const CommandArgs& args) const {
    if (const auto path = pathWritten(args); path && !current_[slot(*path)]) return true;
    if (std::holds_alternative<OmitCmd>(args)) return loaded_;
    // The agent under test applies nothing to the kernel.
    if (std::holds_alternative<ResyncCmd>(args)) return true;
    if (const auto* c = std::get_if<RecreateCmd>(&args)) return !current_[slot(c->path)];
    if (const auto* c = std::get_if<IntfSetCmd>(&args)) return c->vrf.size() > kMaxVrfName;
    if (const auto* c = std::get_if<IntfReplaceCmd>(&args)) return c->vrf.size() > kMaxVrfName;
    if (const auto* c = std::get_if<VrfAddCmd>(&args)) return c->name.size() > kMaxVrfName;
    if (const auto* c = std::get_if<VrfDelCmd>(&args)) return c->name.size() > kMaxVrfName;
    return false;
  }

  // Whether the plugin may raise while it reacts to `args`: a `link replace`
  // under a key that it watches, since it does not watch a second entity
  // under one key (a reinstantiation error). The write stands all the same.
  bool mayBeRefusedByPlugin(const CommandArgs& args) const {
    const auto* c = std::get_if<LinkReplaceCmd>(&args);
    const std::size_t status = slot(StatePath::kMdnsStatus);
    return c && running_ && current_[status] && current_[status] == bound_[status] &&
           current_[status]->links.contains({c->link.intf, c->link.index});
  }

  // Carries over a command that the agent ran: without raising, or raising
  // as `mayBeRefusedByPlugin` allows (`refused`).
  void ran(const CommandArgs& args, bool refused = false) {
    if (const auto path = pathWritten(args)) {
      std::shared_ptr<Content>& content = current_[slot(*path)];
      const Content before = *content;
      publish(args, *content);
      // The plugin hears changes of what it mounted, except of the VRF lists,
      // which it reads only when it refreshes, and of links it refused.
      bool heard = running_ && content == bound_[slot(*path)] &&
                   *path != StatePath::kVrfStatusGlobal && *path != StatePath::kVrfStatusLocal;
      if (const auto* c = std::get_if<LinkReplaceCmd>(&args)) {
        if (refused) unwatched_.insert({c->link.intf, c->link.index});
        heard = heard && !unwatched_.contains({c->link.intf, c->link.index});
      } else if (const auto* c = std::get_if<LinkSetCmd>(&args)) {
        heard = heard && !unwatched_.contains({c->link.intf, c->link.index});
      } else if (const auto* c = std::get_if<LinkDelCmd>(&args); c && heard) {
        unwatched_.erase({c->link.intf, c->link.index});
      }
      if (heard && !(before == *content)) refreshDue_ = true;
      return;
    }
    std::visit(Overloaded{
                   [&](const OmitCmd& c) { current_[slot(c.path)] = nullptr; },
                   [&](const RecreateCmd& c) {
                     auto& content = current_[slot(c.path)];
                     content = std::make_shared<Content>(*content);
                   },
                   [&](const LoadCmd&) {
                     loaded_ = true;
                     completionDue_ = true;
                   },
                   [&](const UnloadCmd&) {
                     loaded_ = completionDue_ = running_ = refreshDue_ = false;
                     bound_ = {};
                     unwatched_.clear();
                   },
                   [&](const RemountCmd&) {
                     if (loaded_) bind();
                   },
                   // The completion that `load` made due runs on the loop; a
                   // `remount` before it does not take its place.
                   [&](const AdvanceCmd&) { completionRuns(); },
                   [&](const SettleCmd&) { completionRuns(); },
                   [](const auto&) {},
               },
               args);
  }

  // The rule service received calls during the last command.
  void refreshed() {
    refreshDue_ = false;
    const Content none;
    auto input = [&](StatePath path) -> const Content& {
      const auto& content = bound_[slot(path)];
      return content ? *content : none;
    };
    std::map<std::string, bool> table;
    const Content& intfs = input(StatePath::kL3IntfStatus);
    for (const auto& [link, state] : input(StatePath::kMdnsStatus).links) {
      const auto intf = intfs.intfVrf.find(link.first);
      if (state == 1 && intf != intfs.intfVrf.end()) table[intf->second] = true;
    }
    for (StatePath path : {StatePath::kVrfStatusGlobal, StatePath::kVrfStatusLocal}) {
      for (const std::string& vrf : input(path).vrfs) table.emplace(vrf, false);
    }
    table.emplace(kDefaultVrf, false);
    for (const auto& [vrf, needed] : table) mdnsRule_[vrf] = needed;
    const Content& config = input(StatePath::kMdnsConfig);
    gatewayRule_ = config.gatewayEnabled && config.gatewaySetting != 0;
  }

  // Mounts have completed and the plugin has not been unloaded since.
  bool running() const { return running_; }
  // Something the plugin reads changed, or a new state machine started, and
  // no refresh has run since.
  bool refreshDue() const { return refreshDue_; }

  // `show rules` as it must read.
  std::string rulesText() const {
    // In the service's order: by VRF, then sequence number.
    std::map<std::pair<std::string, unsigned>, const std::string*> rules;
    for (const auto& [vrf, stands] : mdnsRule_) {
      if (stands) rules[{vrf, 0}] = &kMdnsRule;
    }
    if (gatewayRule_) rules[{kDefaultVrf, 1}] = &kGatewayRule;
    std::string text;
    for (const auto& [key, rule] : rules) {
      text += "rule ipt=0 acl=0 vrf=" + quoteName(key.first) + kRuleFields +
              std::to_string(key.second) + " rule=" + quoteName(*rule) + "\n";
    }
    return text.empty() ? "no rules\n" : text;
  }

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
  using Contents = std::array<std::shared_ptr<Content>, kStatePaths.size()>;

  void publish(const CommandArgs& args, Content& content) {
    std::visit(Overloaded{
                   [&](const GatewayEnabledCmd& c) { content.gatewayEnabled = c.enabled; },
                   [&](const GatewaySettingCmd& c) { content.gatewaySetting = c.setting; },
                   [&](const LinkSetCmd& c) {
                     content.links[{c.link.intf, c.link.index}] = c.state;
                   },
                   [&](const LinkReplaceCmd& c) {
                     content.links[{c.link.intf, c.link.index}] = c.state;
                   },
                   [&](const LinkDelCmd& c) {
                     content.links.erase({c.link.intf, c.link.index});
                   },
                   [&](const IntfSetCmd& c) { content.intfVrf[c.intf] = c.vrf; },
                   [&](const IntfReplaceCmd& c) { content.intfVrf[c.intf] = c.vrf; },
                   [&](const IntfDelCmd& c) { content.intfVrf.erase(c.intf); },
                   [&](const VrfAddCmd& c) { content.vrfs.insert(c.name); },
                   [&](const VrfDelCmd& c) { content.vrfs.erase(c.name); },
                   [](const auto&) {},
               },
               args);
  }

  // Mount completion: the plugin takes the present entities.
  void bind() {
    // A completion that finds the same entities keeps the state machine.
    if (running_ && bound_ == current_) return;
    bound_ = current_;
    unwatched_.clear();
    running_ = true;
    refreshDue_ = true;  // the new state machine's first refresh
  }

  // The loop runs the completion that `load` made due, if any.
  void completionRuns() {
    if (!completionDue_) return;
    completionDue_ = false;
    bind();
  }

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

// What the process-wide parts hold between inputs.
class Leftovers {
 public:
  Leftovers() : scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
    for (const Zov::AllocTrackTypeInfo* record : Zov::AllocTrackTypeInfo::all()) {
      live_[record] = record->liveObjects();
    }
  }

  void check() const {
    AclAgentFuzz::check(
        scheduler_->armedTasks() == 0,
        std::to_string(scheduler_->armedTasks()) + " tasks left armed after the agent has gone");
    AclAgentFuzz::check(Acl::DefaultPluginLoader()->registrations().empty(),
                        "plugin registrations left after the agent has gone");
    for (const Zov::AllocTrackTypeInfo* record : Zov::AllocTrackTypeInfo::all()) {
      const auto before = live_.find(record);
      const std::uint64_t was = before == live_.end() ? 0 : before->second;
      AclAgentFuzz::check(record->liveObjects() == was,
                          std::string(record->typeName()) + ": " +
                              std::to_string(record->liveObjects()) + " live objects, " +
                              std::to_string(was) + " before the input");
    }
  }

 private:
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  std::map<const Zov::AllocTrackTypeInfo*, std::uint64_t> live_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ParsedScenario parsed = parseScenario(text, AclAgentFuzz::kFile);
  if (!parsed.ok() || parsed.commands.size() > kMaxCommands) return 0;
  const Leftovers leftovers;
  {
    Agent agent({MCASTDNS_ACL_PLUGIN_PATH});
    PublishedModel model;
    std::ostream out(nullptr);  // no buffer: what commands print goes nowhere
    Pell::Nanoseconds clockLeft = kClockBudget;
    // Whatever the scenario left due runs before the agent goes.
    const unsigned last = parsed.commands.empty() ? 0 : parsed.commands.back().line;
    parsed.commands.push_back(Command{last + 1, SettleCmd{}});
    // Each command runs, and the rules are checked against the model after it.
    for (Command& command : parsed.commands) {
      if (auto* advance = std::get_if<AdvanceCmd>(&command.args)) {
        advance->nanoseconds = std::min(advance->nanoseconds, clockLeft);
        clockLeft -= advance->nanoseconds;
      }
      const std::string where = "line " + std::to_string(command.line) + " (" +
                                AclAgentFuzz::commandText(command.args) + ")";
      const std::string stateBefore = agent.stateDatabase().stateText();
      const std::uint64_t callsBefore = agent.ruleService().calls();
      const bool mustFail = model.mustFail(command.args);
      const bool mayBeRefused = model.mayBeRefusedByPlugin(command.args);
      bool failed = false;
      try {
        agent.run(command, out);
      } catch (const PluginLoadError& e) {
        fail(where + ": the plugin built beside the target cannot be loaded: " + e.what());
      } catch (const std::exception& e) {
        failed = true;
        // Refused by the agent: nothing changed. Refused by the plugin as it
        // reacted: the write stands.
        check(mustFail || mayBeRefused, where + " raised: " + e.what());
        check(!mustFail || agent.stateDatabase().stateText() == stateBefore,
              where + " was refused and changed the published state: " + e.what());
      }
      check(failed || !mustFail, where + " ran, yet must be refused");
      if (!mustFail) model.ran(command.args, failed);
      if (agent.ruleService().calls() != callsBefore) {
        check(model.running(), where + ": the rule service was called while no plugin runs");
        model.refreshed();
      }
      if (std::holds_alternative<SettleCmd>(command.args)) {
        check(!model.refreshDue(), where + ": a change the plugin reads was never refreshed");
      }
      const std::string rules = agent.ruleService().renderRules();
      check(rules == model.rulesText(),
            where + ": show rules gives\n" + rules + "where the model gives\n" + model.rulesText());
    }
  }
  leftovers.check();
  return 0;
}

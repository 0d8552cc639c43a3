// Runs any scenario that parses against a real agent with the multicast DNS
// plugin loaded from the build tree, one agent per input. Commands that fail
// are expected (a failing command reports and the run goes on); memory
// errors, undefined behaviour, leaks and hangs are what this looks for, and
// after every command the rules that stand must be those a plain model of
// the published state gives (PublishedModel.h).
//
// The scheduler, the plugin loader and the allocation records live as long
// as the process; after each input no task may be left armed, no plugin
// registered, and every allocation record must count what it counted before.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>

#include "CommandText.h"
#include "FuzzCheck.h"
#include "PublishedModel.h"
#include "agent/Agent.h"
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

const std::string kPlugin = MCASTDNS_ACL_PLUGIN_PATH;

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

// Runs the commands and checks the rules against the model after each.
class Run {
 public:
  Run() : agent_({kPlugin}), out_(nullptr) {}

  void command(Command command) {
    if (auto* advance = std::get_if<AdvanceCmd>(&command.args)) {
      advance->nanoseconds = std::min(advance->nanoseconds, clockLeft_);
      clockLeft_ -= advance->nanoseconds;
    }
    const std::string text = "line " + std::to_string(command.line) + " (" +
                             AclAgentFuzz::commandText(command.args) + ")";
    const std::string stateBefore = agent_.stateDatabase().stateText();
    const std::uint64_t callsBefore = agent_.ruleService().calls();
    const bool mustFail = model_.mustFail(command.args);
    const bool mayBeRefused = model_.mayBeRefusedByPlugin(command.args);
    bool failed = false;
    try {
      agent_.run(command, out_);
    } catch (const PluginLoadError& e) {
      fail(text + ": the plugin built beside the target cannot be loaded: " + e.what());
    } catch (const std::exception& e) {
      failed = true;
      // Refused by the agent: nothing changed. Refused by the plugin as it
      // reacted: the write stands.
      check(mustFail || mayBeRefused, text + " raised: " + e.what());
      check(!mustFail || agent_.stateDatabase().stateText() == stateBefore,
            text + " was refused and changed the published state: " + e.what());
    }
    check(failed || !mustFail, text + " ran, yet must be refused");
    if (!mustFail) model_.ran(command.args, failed);
    if (agent_.ruleService().calls() != callsBefore) {
      check(model_.running(), text + ": the rule service was called while no plugin runs");
      model_.refreshed();
    }
    if (std::holds_alternative<SettleCmd>(command.args)) {
      check(!model_.refreshDue(), text + ": a change the plugin reads was never refreshed");
    }
    const std::string rules = agent_.ruleService().renderRules();
    check(rules == model_.rulesText(),
          text + ": show rules gives\n" + rules + "where the model gives\n" + model_.rulesText());
  }

 private:
  Agent agent_;
  AclAgentFuzz::PublishedModel model_;
  std::ostream out_;  // no buffer: what commands print goes nowhere
  Pell::Nanoseconds clockLeft_ = kClockBudget;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ParsedScenario parsed = parseScenario(text, AclAgentFuzz::kFile);
  if (!parsed.ok() || parsed.commands.size() > kMaxCommands) return 0;
  const Leftovers leftovers;
  {
    Run run;
    const unsigned last = parsed.commands.empty() ? 0 : parsed.commands.back().line;
    for (Command& command : parsed.commands) run.command(std::move(command));
    // Whatever the scenario left due runs before the agent goes.
    run.command(Command{last + 1, SettleCmd{}});
  }
  leftovers.check();
  return 0;
}

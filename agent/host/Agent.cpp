#include "agent/host/Agent.h"

#include <algorithm>
#include <sstream>

#include "agent/base/Overloaded.h"
#include "agent/host/PluginView.h"

namespace AclAgent {

std::string commandErrorText(const std::exception& e) {
  std::string text = e.what();
  if (const auto* range = dynamic_cast<const Zov::RangeException*>(&e); range && range->limit()) {
    text += ": " + quoteName(range->value());
    if (range->length() > range->value().size()) text += "...";
    text += " is " + std::to_string(range->length()) + " bytes, over the limit of " +
            std::to_string(range->limit());
  }
  return text;
}

Agent::Agent(std::vector<std::string> pluginPaths, std::optional<IptablesBackendOptions> apply,
             std::ostream& errors)
    : pluginPaths_(std::move(pluginPaths)),
      scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()),
      rules_(new RuleService(db_.entityManager())) {
  if (!apply) return;
  backend_ = std::make_unique<IptablesBackend>(scheduler_, std::move(*apply), errors);
  // Every rule that stands came through a finish that changed its VRF, so a
  // VRF first seen unchanged has none.
  rules_->finishListenerIs([this](const L3::VrfName& vrf, bool changed) {
    backend_->vrfSeen(vrf.str(), changed ? std::optional(rules_->vrfRules(vrf)) : std::nullopt);
  });
}

Agent::~Agent() {
  rules_->finishListenerIs(nullptr);
  try {
    host_.unloadAll();
  } catch (const std::exception&) {
    // An object that stays mapped at exit is of no consequence any more.
  }
}

std::vector<IptablesBackend::VrfStatus> Agent::notApplied() const {
  std::vector<IptablesBackend::VrfStatus> missing;
  if (!backend_) return missing;
  for (IptablesBackend::VrfStatus& status : backend_->statuses()) {
    if (status.rules > 0 && status.state != IptablesBackend::State::kOk) {
      missing.push_back(std::move(status));
    }
  }
  return missing;
}

void Agent::load() {
  if (!host_.loaded()) host_.loadAll(pluginPaths_);
  db_.loadedIs(true);
  host_.runInitCallers(rules_.ptr());
}

void Agent::unload() {
  host_.unloadAll();
  db_.loadedIs(false);
}

void Agent::show(ShowWhat what, std::ostream& out) {
  switch (what) {
    case ShowWhat::kCalls:
      out << rules_->renderCalls();
      return;
    case ShowWhat::kRules:
      out << rules_->renderRules();
      return;
    case ShowWhat::kIptables:
      out << rules_->renderIptables();
      return;
    case ShowWhat::kState:
      out << db_.stateText();
      return;
    case ShowWhat::kTypes:
      out << typesText();
      return;
    case ShowWhat::kPlugin:
      out << pluginText();
      return;
    case ShowWhat::kSm:
      out << smText();
      return;
    case ShowWhat::kWatchers:
      out << watchersText();
      return;
    case ShowWhat::kApplied:
      out << (backend_ ? backend_->appliedText() : "nothing is applied (run with --apply)\n");
      return;
  }
}

namespace {
// Whether `args` publishes links, interfaces or VRFs, and its words if so.
const char* publishesKernelState(const CommandArgs& args) {
  return std::visit(Overloaded{
                        [](const LinkSetCmd&) { return "link set"; },
                        [](const LinkReplaceCmd&) { return "link replace"; },
                        [](const LinkDelCmd&) { return "link del"; },
                        [](const IntfSetCmd&) { return "intf set"; },
                        [](const IntfReplaceCmd&) { return "intf replace"; },
                        [](const IntfDelCmd&) { return "intf del"; },
                        [](const VrfAddCmd&) { return "vrf add"; },
                        [](const VrfDelCmd&) { return "vrf del"; },
                        [](const OmitCmd&) { return "omit"; },
                        [](const RecreateCmd&) { return "recreate"; },
                        [](const auto&) -> const char* { return nullptr; },
                    },
                    args);
}
}  // namespace

void Agent::run(const Command& command, std::ostream& out) {
  if (const char* words = kernelOwnsState_ ? publishesKernelState(command.args) : nullptr) {
    throw std::runtime_error(std::string(words) +
                             " is refused: in live mode the kernel owns links, interfaces and "
                             "VRFs");
  }
  std::visit(Overloaded{
                 [&](const GatewayEnabledCmd& c) { db_.gatewayEnabledIs(c.enabled); },
                 [&](const GatewaySettingCmd& c) { db_.gatewaySettingIs(c.setting); },
                 [&](const LinkSetCmd& c) { db_.linkStateIs(c.link, c.state); },
                 [&](const LinkReplaceCmd& c) { db_.linkStatusIs(c.link, c.state); },
                 [&](const LinkDelCmd& c) { db_.linkStatusDel(c.link); },
                 [&](const IntfSetCmd& c) { db_.intfVrfIs(c.intf, c.vrf); },
                 [&](const IntfReplaceCmd& c) { db_.intfStatusIs(c.intf, c.vrf); },
                 [&](const IntfDelCmd& c) { db_.intfStatusDel(c.intf); },
                 [&](const VrfAddCmd& c) { db_.vrfIs(c.view, c.name); },
                 [&](const VrfDelCmd& c) { db_.vrfDel(c.view, c.name); },
                 [&](const OmitCmd& c) { db_.entityDel(c.path); },
                 [&](const RecreateCmd& c) { db_.entityCopyIs(c.path); },
                 [&](const LoadCmd&) { load(); },
                 [&](const UnloadCmd&) { unload(); },
                 [&](const RemountCmd& c) { db_.entityManager()->mountsCompleteIs(c.status); },
                 [&](const AdvanceCmd& c) { scheduler_->advance(c.nanoseconds); },
                 [&](const SettleCmd&) {
                   if (!scheduler_->settle()) {
                     throw std::runtime_error("settle gave up: a task keeps arming itself");
                   }
                 },
                 [&](const EchoCmd& c) { out << c.text << "\n"; },
                 [&](const ShowCmd& c) { show(c.what, out); },
                 [&](const ClearCallsCmd&) { rules_->renderCalls(); },
                 [&](const ResyncCmd&) {
                   if (!backend_) {
                     throw std::runtime_error("nothing to resync: acl-agent runs without --apply");
                   }
                   backend_->resync();
                 },
             },
             command.args);
}

}  // namespace AclAgent

#include "agent/host/Agent.h"

#include <algorithm>
#include <sstream>

#include "agent/backend/iptables/IptablesShow.h"
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

Agent::Agent(std::vector<std::string> pluginPaths, std::optional<BackendOptions> apply,
             std::ostream& errors)
    : pluginPaths_(std::move(pluginPaths)),
      errors_(errors),
      scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()),
      rules_(new RuleService(db_.entityManager())) {
  if (apply) {
    backend_ = makeBackend(scheduler_, *apply, errors_);
    resyncPeriod_ = apply->resyncPeriod;
    backend_->idleListenerIs([this] {
      checkReady();
      if (appliedListener_) appliedListener_();
    });
  }
  rules_->finishListenerIs(
      [this](const L3::VrfName& vrf, bool changed) { handleFinish(vrf, changed); });
}

Agent::~Agent() {
  rules_->finishListenerIs(nullptr);
  // The sources go before the database they write to.
  live_.reset();
  try {
    host_.unloadAll();
  } catch (const std::exception&) {
    // An object that stays mapped at exit is of no consequence any more.
  }
}

std::vector<VrfStatus> Agent::notApplied() const {
  return backend_ ? notInPlace(backend_->statuses()) : std::vector<VrfStatus>();
}

std::vector<VrfStatus> Agent::applied() const {
  return backend_ ? backend_->statuses() : std::vector<VrfStatus>();
}

void Agent::handleFinish(const L3::VrfName& vrf, bool changed) {
  // Every rule that stands came through a finish that changed its VRF, so a
  // VRF first seen unchanged has none.
  if (backend_) {
    backend_->vrfRulesIs(vrf.str(), changed ? std::optional(rules_->vrfRules(vrf)) : std::nullopt);
  }
  if (start_ == Start::kRefreshing) {
    // The rest of the refresh runs first: the check is a task of its own.
    start_ = Start::kApplying;
    startTask_->armIn(0);
  }
}

void Agent::checkReady() {
  if (start_ != Start::kApplying && start_ != Start::kNotInPlace) return;
  if (startTask_->armed() || (backend_ && !backend_->idle())) return;
  // A VRF that can never be applied was reported when the backend found it;
  // waiting for it would keep the agent from ever being ready.
  std::vector<VrfStatus> missing = notApplied();
  std::erase_if(missing,
                [](const VrfStatus& vrf) { return vrf.state == VrfStatus::State::kFailed; });
  if (!missing.empty()) {
    if (start_ == Start::kApplying) {
      for (const VrfStatus& vrf : missing) {
        errors_ << "acl-agent: not ready: vrf " << quoteName(vrf.vrf)
                << (vrf.error.empty() ? std::string() : ": " + vrf.error) << "\n";
      }
    }
    start_ = Start::kNotInPlace;
    return;
  }
  start_ = Start::kReady;
  if (readyListener_) readyListener_();
}

void Agent::liveIs(std::vector<std::string> mdnsGlobs, NamespaceMap namespaces) {
  if (live_) throw std::logic_error("live mode is on already");
  startTask_ = std::make_unique<Pell::BackgroundTimer>(scheduler_, "liveStartTask", [this] {
    if (start_ == Start::kReading) {
      start_ = Start::kRefreshing;
      load();
    } else {
      checkReady();
    }
  });
  start_ = Start::kReading;
  mdnsGlobs_ = mdnsGlobs;
  rules_->callLogIs(false);
  LiveOptions options{
      .mdnsGlobs = std::move(mdnsGlobs),
      .namespaceAppeared =
          [this](const std::string& vrf) {
            if (backend_) backend_->vrfResync(vrf);
          },
      .namespaceGone = [this](const std::string& vrf) { vrfGone(vrf); },
      .dumped = [this] { startTask_->armIn(0); },
      .descriptorsPerNamespace = 1 + (backend_ ? backend_->descriptorsPerVrf() : 0)};
  live_ = std::make_unique<LiveMode>(scheduler_, db_, std::move(options), std::move(namespaces),
                                     errors_);
}

bool Agent::liveConfigIs(std::optional<std::uint16_t> gatewaySetting,
                         std::vector<std::string> mdnsGlobs, Pell::Nanoseconds resyncPeriod) {
  if (!live_) throw std::logic_error("live mode is off");
  bool changed = false;
  const Zov::Ptr<McastDns::Config> config = db_.config();
  if (!config || config->gatewayEnabled() != gatewaySetting.has_value() ||
      config->gatewaySetting() != gatewaySetting.value_or(0)) {
    db_.gatewayEnabledIs(gatewaySetting.has_value());
    db_.gatewaySettingIs(gatewaySetting.value_or(0));
    changed = true;
  }
  if (mdnsGlobs != mdnsGlobs_) {
    mdnsGlobs_ = mdnsGlobs;
    live_->mdnsGlobsIs(std::move(mdnsGlobs));
    changed = true;
  }
  if (backend_ && resyncPeriod != resyncPeriod_) {
    resyncPeriod_ = resyncPeriod;
    backend_->resyncPeriodIs(resyncPeriod);
    changed = true;
  }
  return changed;
}

void Agent::vrfGone(const std::string& vrf) {
  // The plugin says nothing more of a VRF it no longer knows, so what it
  // left standing there is dropped here: a namespace made again under the
  // same name starts with no rule, until the plugin's refresh decides.
  if (rules_->vrfRulesDel(L3::VrfName(vrf)) && backend_) backend_->vrfRulesIs(vrf, ChainRules());
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
      if (live_) throw std::runtime_error("show calls: the call log is off in live mode");
      out << rules_->renderCalls();
      return;
    case ShowWhat::kRules:
      out << rules_->renderRules();
      return;
    case ShowWhat::kIptables:
      out << renderIptables(rules_->rules());
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
      out << (backend_ ? appliedText(backend_->statuses())
                       : "nothing is applied (run with --apply)\n");
      return;
  }
}

void Agent::run(const Command& command, std::ostream& out) {
  try {
    runCommand(command, out);
  } catch (const ClaimedPathException& e) {
    throw std::runtime_error(std::string(commandWords(command.args)) + " is refused: " + e.what());
  }
}

void Agent::runCommand(const Command& command, std::ostream& out) {
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

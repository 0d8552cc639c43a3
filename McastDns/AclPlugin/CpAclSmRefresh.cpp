// The refresh: the one place where the plugin decides and speaks. It
// recomputes every decision from the mounted state and sends all of them,
// changed or not; the service keeps repeats harmless.
#include <unordered_map>

#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "McastDns/AclPlugin/PluginTrace.h"

namespace McastDns {

namespace {
// The fixed parts of every rule this plugin hands out.
struct RuleKeyTexts {
  Zov::String chain{"INPUT"};
  Zov::String owner{"McastDnsAclPlugin"};
  Zov::String empty;
};
const RuleKeyTexts& ruleKeyTexts() {
  static const RuleKeyTexts texts;
  return texts;
}

constexpr Acl::IptablesType kIptablesType = Acl::IptablesType::kIptables;
constexpr Acl::AclType kAclType = Acl::AclType::kControlPlane;
constexpr Acl::AclDirection kDirection = Acl::AclDirection::kIn;
constexpr unsigned kMdnsSequence = 0;
constexpr unsigned kGatewaySequence = 1;

// Registers `rule` under sequence `sequence` in `vrf` when it is wanted and
// withdraws it otherwise, then finishes that VRF's batch.
void decideRule(Acl::PluginContext& context, const L3::VrfName& vrf, unsigned sequence,
                const Zov::String& rule, bool wanted) {
  const RuleKeyTexts& texts = ruleKeyTexts();
  if (wanted) {
    context.registerChainRule(kIptablesType, kAclType, vrf, kDirection, texts.chain, texts.owner,
                              sequence, rule, texts.empty, texts.empty, false, Acl::UniqueId());
  } else {
    context.unregisterChainRule(kIptablesType, kAclType, vrf, kDirection, texts.chain, texts.owner,
                                sequence);
  }
  context.finishRegistration(kIptablesType, kAclType, vrf, texts.chain);
}
}  // namespace

void CpAclSm::handleRefreshAcls(bool force) {
  MCASTDNS_TRACE(kTraceHandler, "handleRefreshAcls")
      << "void McastDns::CpAclSm::handleRefreshAcls(bool)";
  if (!initialized_) return;
  if (!dirtyAcl_ && !force) return;

  // true: the VRF needs the rule; false: it is known and must not have it.
  // Room for every known VRF and "default" up front spares the rehashes; the
  // order the VRFs are then visited in carries no meaning.
  std::unordered_map<L3::VrfName, bool, ZovHash<L3::VrfName>> vrfs;
  vrfs.reserve(1 + (allVrfStatusGlobal_ ? allVrfStatusGlobal_->vrf().size() : 0) +
               (allVrfStatusLocal_ ? allVrfStatusLocal_->vrf().size() : 0));

  const Status* links = status();
  const L3::Intf::StatusDir* intfDir = intfStatusDir();
  if (links && intfDir) {
    for (const auto& [key, link] : links->linkStatus()) {
      // Testing the state first spares the interface lookup for links that
      // are not up; the outcome is the same.
      if (link->state() != LinkStatus::kStateUp) continue;
      if (const L3::Intf::Status* intf = intfDir->intfStatus(key.intfId)) vrfs[intf->vrf()] = true;
    }
  }
  if (allVrfStatusGlobal_) {
    for (const auto& entry : allVrfStatusGlobal_->vrf()) vrfs.try_emplace(entry.first, false);
  }
  if (allVrfStatusLocal_) {
    for (const auto& entry : allVrfStatusLocal_->vrf()) vrfs.try_emplace(entry.first, false);
  }
  vrfs.try_emplace(L3::VrfName::defaultVrf(), false);

  if (Acl::PluginContext* context = context_.ptr()) {
    for (const auto& [vrf, needed] : vrfs) {
      decideRule(*context, vrf, kMdnsSequence, mdnsIptRule_, needed);
    }
    const Config* configuration = config();
    decideRule(
        *context, L3::VrfName::defaultVrf(), kGatewaySequence, mdnsGwIptRule_,
        configuration && configuration->gatewayEnabled() && configuration->gatewaySetting() != 0);
  }

  if (Pell::TimerTask* task = force ? timerTask() : nullptr) task->stopTimerTask();
  dirtyAcl_ = false;
}

}  // namespace McastDns

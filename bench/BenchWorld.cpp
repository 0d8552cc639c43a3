#include "bench/BenchWorld.h"

#include "platform/Cell.h"

namespace bench {

Zov::Ptr<Korvel::EntityManager> NoopContext::entityManager() const {
  return entityManager_;
}

void NoopContext::registerChainRule(Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection,
                                    const Zov::String&, const Zov::String&, unsigned int,
                                    const Zov::String&, const Zov::String&, const Zov::String&,
                                    bool, const Acl::UniqueId&) {
  ++registers_;
}

void NoopContext::unregisterChainRule(Acl::IptablesType, Acl::AclType, L3::VrfName,
                                      Acl::AclDirection, const Zov::String&, const Zov::String&,
                                      unsigned int) {
  ++unregisters_;
}

void NoopContext::finishRegistration(Acl::IptablesType, Acl::AclType, L3::VrfName,
                                     const Zov::String&) {
  ++finishes_;
}

World::World(int linkCount, int vrfCount)
    : config(new McastDns::Config("config")),
      status(new McastDns::Status("status")),
      intfDir(new L3::Intf::StatusDir("intf")),
      vrfGlobal(new Ip::AllVrfStatusGlobal("global")),
      vrfLocal(new Ip::AllVrfStatusLocal("local")) {
  config->gatewayEnabledIs(true);
  config->gatewaySettingIs(1);
  std::vector<L3::VrfName> vrfs;
  for (int j = 0; j < vrfCount; ++j) {
    vrfs.push_back(vrfName(j));
    vrfGlobal->vrfIs(vrfs.back());
  }
  links.reserve(linkCount);
  for (int i = 0; i < linkCount; ++i) {
    const Dovix::IntfId id{Zov::String(intfName(i))};
    intfDir->intfStatusIs(
        Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(id, vrfs[i % vrfCount])));
    links.emplace_back(new McastDns::LinkStatus(McastDns::IntfKey{id, 0}, 1));
    status->linkStatusIs(links.back());
  }
}

Zov::Ptr<McastDns::CpAclSm> World::stateMachine(const Zov::Ptr<Acl::PluginContext>& context) const {
  return McastDns::CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, config, status, intfDir,
                                      vrfGlobal, vrfLocal, context);
}

Zov::Ptr<Korvel::EntityManager> World::entityManager() const {
  Zov::Ptr<Korvel::EntityManager> manager(new Korvel::EntityManager);
  manager->entityIs("mdns/config", config);
  manager->entityIs("mdns/status", status);
  manager->entityIs("l3/intf/status", intfDir);
  manager->entityIs("ip/vrf/status/global", vrfGlobal);
  manager->entityIs(Cell::path("ip/vrf/status/local", 0), vrfLocal);
  return manager;
}

FloorState::FloorState(const World& world) {
  for (const auto& [key, link] : world.status->linkStatus()) linkState.emplace(key, link->state());
  for (const auto& [id, intf] : world.intfDir->intfStatus()) intfVrf.emplace(id, intf->vrf());
  for (const auto& entry : world.vrfGlobal->vrf()) knownVrfs.push_back(entry.first);
  for (const auto& entry : world.vrfLocal->vrf()) knownVrfs.push_back(entry.first);
  gatewayEnabled = world.config->gatewayEnabled();
  gatewaySetting = world.config->gatewaySetting();
}

namespace {
constexpr auto kIpt = Acl::IptablesType::kIptables;
constexpr auto kAcl = Acl::AclType::kControlPlane;
constexpr auto kIn = Acl::AclDirection::kIn;
}  // namespace

[[gnu::noipa]] void floorRefresh(const FloorState& s, Acl::PluginContext& context) {
  std::unordered_map<L3::VrfName, bool, McastDns::ZovHash<L3::VrfName>> vrfs;
  for (const auto& [key, state] : s.linkState) {
    auto intf = s.intfVrf.find(key.intfId);
    if (intf != s.intfVrf.end() && state == McastDns::LinkStatus::kStateUp)
      vrfs[intf->second] = true;
  }
  for (const auto& vrf : s.knownVrfs) vrfs.try_emplace(vrf, false);
  vrfs.try_emplace(s.defaultVrf, false);
  for (const auto& [vrf, needed] : vrfs) {
    if (needed) {
      context.registerChainRule(kIpt, kAcl, vrf, kIn, s.chain, s.owner, 0, s.mdnsRule, s.empty,
                                s.empty, false, Acl::UniqueId());
    } else {
      context.unregisterChainRule(kIpt, kAcl, vrf, kIn, s.chain, s.owner, 0);
    }
    context.finishRegistration(kIpt, kAcl, vrf, s.chain);
  }
  if (s.gatewayEnabled && s.gatewaySetting != 0) {
    context.registerChainRule(kIpt, kAcl, s.defaultVrf, kIn, s.chain, s.owner, 1, s.gatewayRule,
                              s.empty, s.empty, false, Acl::UniqueId());
  } else {
    context.unregisterChainRule(kIpt, kAcl, s.defaultVrf, kIn, s.chain, s.owner, 1);
  }
  context.finishRegistration(kIpt, kAcl, s.defaultVrf, s.chain);
}

void releaseStateMachine(Zov::Ptr<McastDns::CpAclSm>& sm) {
  sm = nullptr;
  Pell::TaskSchedulerRoot::findOrCreateScheduler()->settle();
}

void runRefreshTimer() {
  Pell::TaskSchedulerRoot::findOrCreateScheduler()->advance(
      Pell::nanoseconds(McastDns::CpAclSm::refreshAclsDelay()));
}

}  // namespace bench

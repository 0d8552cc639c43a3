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

void releaseStateMachine(Zov::Ptr<McastDns::CpAclSm>& sm) {
  sm = nullptr;
  Pell::TaskSchedulerRoot::findOrCreateScheduler()->settle();
}

void runRefreshTimer() {
  Pell::TaskSchedulerRoot::findOrCreateScheduler()->advance(
      Pell::nanoseconds(McastDns::CpAclSm::refreshAclsDelay()));
}

}  // namespace bench

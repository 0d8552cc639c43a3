#include "McastDns/AclPlugin/McastDnsAclPlugin.h"

#include <string>

#include "McastDns/AclPlugin/PluginTrace.h"
#include "McastDns/AclPlugin/PluginTypes.h"
#include "platform/Cell.h"

namespace McastDns {

namespace {

// What the plugin mounts, in the order it asks for it. The local VRF status
// lives under the cell, so its path is computed (the same way for the mount
// and for the lookup).
constexpr const char* kConfigPath = "mdns/config";
constexpr const char* kStatusPath = "mdns/status";
constexpr const char* kIntfStatusPath = "l3/intf/status";
constexpr const char* kVrfGlobalPath = "ip/vrf/status/global";
constexpr const char* kVrfLocalCellPath = "ip/vrf/status/local";
constexpr const char* kMountFlags = "r";

Zov::String vrfLocalPath() {
  return Cell::path(kVrfLocalCellPath, 0);
}

}  // namespace

// --- AclPlugin ------------------------------------------------------------------

Zov::Ptr<AclPlugin> AclPlugin::AclPluginIs(const Zov::String& name) {
  Zov::Ptr<AclPlugin> plugin(new AclPlugin(name));
  plugin->hasNotificationActiveIs(true);
  return plugin;
}

Zov::Ptr<AclPlugin> aclPluginFactory(const Zov::String& name) {
  return AclPlugin::AclPluginIs(name);
}

AclPlugin::AclPlugin(const Zov::String& name) : Korvel::Mounter(name) {}

Zov::FwkType AclPlugin::fwkType() const {
  return fwkTypeOf(kAclPluginType);
}

AclPlugin::~AclPlugin() {
  // The state machine is switched off before it goes, so that nothing it
  // still watches can reach it half torn down.
  cpAclSmDel();
}

void AclPlugin::contextIs(const Zov::Ptr<Acl::PluginContext>& context) {
  if (context == context_) return;
  context_ = context;
  notifieeList()->visit(kContext);
}

void AclPlugin::init(const Zov::Ptr<Acl::PluginContext>& context) {
  MCASTDNS_TRACE(kTraceHandler, "init") << "void McastDns::AclPlugin::init(const Ptr&)";
  if (!context) Zov::throwMutatorArgNullPointerException("context", fwkType(), kInit);
  const Zov::Ptr<Korvel::EntityManager> entityManager = context->entityManager();
  if (!entityManager) {
    Zov::throwMutatorArgNullPointerException("context->entityManager()", fwkType(), kInit);
  }
  contextIs(context);
  const Zov::Ptr<Korvel::MountGroup> group =
      entityManager->getMountGroup(Zov::Ptr<Korvel::Mounter>(this));
  const struct {
    Zov::String path;
    const char* typeName;
  } mounts[] = {
      {kConfigPath, "McastDns::Config"},         {kStatusPath, "McastDns::Status"},
      {kIntfStatusPath, "L3::Intf::StatusDir"},  {kVrfGlobalPath, "Ip::AllVrfStatusGlobal"},
      {vrfLocalPath(), "Ip::AllVrfStatusLocal"},
  };
  for (const auto& row : mounts) {
    Korvel::Mount mount(row.path, row.typeName);
    mount.flags.valIs(0);
    mount.filter = Korvel::MountFilter(false);
    mount.handleFlags(kMountFlags);
    group->doMount(mount);
  }
  group->doClose(false, "", Zov::Seconds(0));
}

void AclPlugin::doMountsComplete(Korvel::MountStatus,
                                 const Zov::Ptr<Korvel::EntityManager>& entityManager) {
  MCASTDNS_TRACE(kTraceHandler, "doMountsComplete")
      << "virtual void McastDns::AclPlugin::doMountsComplete(Korvel::MountStatus, const Ptr&)";
  // A path that holds nothing, or something of another type, gives none; the
  // state machine copes with absent inputs, so they are passed on as they are.
  cpAclSmIs(Dovix::AddressFamily::kIpv4,
            Zov::ptrCast<const Config>(entityManager->getEntity(kConfigPath)),
            Zov::ptrCast<const Status>(entityManager->getEntity(kStatusPath)),
            Zov::ptrCast<const L3::Intf::StatusDir>(entityManager->getEntity(kIntfStatusPath)),
            Zov::ptrCast<const Ip::AllVrfStatusGlobal>(entityManager->getEntity(kVrfGlobalPath)),
            Zov::ptrCast<const Ip::AllVrfStatusLocal>(entityManager->getEntity(vrfLocalPath())),
            context_);
}

Zov::Ptr<CpAclSm> AclPlugin::cpAclSmIs(
    Dovix::AddressFamily af, const Zov::Ptr<const Config>& config,
    const Zov::Ptr<const Status>& status,
    const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
    const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
    const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zov::Ptr<Acl::PluginContext>& context) {
  // The same objects, not merely equal ones: a state machine watches the
  // entities it was built over, so a new entity under a path needs a new one.
  if (cpAclSm_ && cpAclSm_->af() == af && cpAclSm_->mcastDnsConfig() == config &&
      cpAclSm_->mcastDnsStatus() == status && cpAclSm_->l3IntfStatusDir() == l3IntfStatusDir &&
      cpAclSm_->allVrfStatusGlobal() == allVrfStatusGlobal &&
      cpAclSm_->allVrfStatusLocal() == allVrfStatusLocal && cpAclSm_->context() == context) {
    return cpAclSm_;
  }
  Zov::Ptr<CpAclSm> created = CpAclSm::CpAclSmIs(af, config, status, l3IntfStatusDir,
                                                 allVrfStatusGlobal, allVrfStatusLocal, context);
  // The old state machine is dropped as it stands; its own teardown silences
  // it, and it is gone before anyone hears 388.
  cpAclSm_ = created;
  notifieeList()->visit(kCpAclSm);
  created->hasNotificationActiveIs(true);
  return created;
}

Zov::Ptr<CpAclSm> AclPlugin::cpAclSmDel() {
  Zov::Ptr<CpAclSm> removed = std::exchange(cpAclSm_, nullptr);
  if (!removed) return nullptr;
  notifieeList()->visit(kCpAclSm);
  removed->hasNotificationActiveIs(false);
  return removed;
}

// --- McastDnsAclPlugin ------------------------------------------------------------

McastDnsAclPlugin::McastDnsAclPlugin() {
  const std::string name(kName);
  const std::string pluginVersion;
  const std::string description;
  Plugin::Loader<Acl::PluginContext>* loader = Acl::DefaultPluginLoader();
  Plugin::LoaderInitCaller* caller = loader->initCallerNodeIs(initCaller());
  Plugin::Impl::LoaderImpl::registerPlugin(loader->kind(), name, loader->version(), pluginVersion,
                                           description, caller);
}

McastDnsAclPlugin::~McastDnsAclPlugin() = default;

void McastDnsAclPlugin::init(Acl::PluginContext* context) {
  MCASTDNS_TRACE(kTraceInit, "init")
      << "virtual void McastDns::McastDnsAclPlugin::init(Acl::PluginContext*)"
      << "Loading McastDns Acl Plugin";
  if (!context) {
    Zov::throwMutatorArgNullPointerException("context", fwkTypeOf(kAclPluginType),
                                             AclPlugin::kInit);
  }
  // The earlier root entity, if any, goes here: its state machine with it.
  aclPlugin_ = AclPlugin::AclPluginIs("McastDns");
  aclPlugin_->init(Zov::Ptr<Acl::PluginContext>(context));
}

}  // namespace McastDns

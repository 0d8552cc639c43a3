// The state machine's frame: construction, its reactors, the notification
// switch, the zombie protocol, the refresh task and teardown. The refresh is
// in CpAclSmRefresh.cpp, the interface handlers in CpAclSmSweeps.cpp.
#include "McastDns/AclPlugin/CpAclSm.h"

#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "McastDns/AclPlugin/PluginTrace.h"
#include "McastDns/AclPlugin/PluginTypes.h"

namespace McastDns {

namespace {
const Zov::String& initialMdnsIptRule() {
  static const Zov::String rule("-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n");
  return rule;
}
const Zov::String& initialMdnsGwIptRule() {
  static const Zov::String rule("-p tcp --dport 8853 -j ACCEPT\n");
  return rule;
}
}  // namespace

// --- creation ------------------------------------------------------------------

Zov::Ptr<CpAclSm> CpAclSm::CpAclSmIs(
    Dovix::AddressFamily af, const Zov::Ptr<const Config>& mcastDnsConfig,
    const Zov::Ptr<const Status>& mcastDnsStatus,
    const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
    const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
    const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zov::Ptr<Acl::PluginContext>& context) {
  Zov::Ptr<CpAclSm> sm(new CpAclSm(af, mcastDnsConfig, mcastDnsStatus, l3IntfStatusDir,
                                   allVrfStatusGlobal, allVrfStatusLocal, context));
  sm->hasNotificationActiveIs(true);
  return sm;
}

Zov::Ptr<CpAclSm> cpAclSmFactory(Dovix::AddressFamily af,
                                 const Zov::Ptr<const Config>& mcastDnsConfig,
                                 const Zov::Ptr<const Status>& mcastDnsStatus,
                                 const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
                                 const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
                                 const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
                                 const Zov::Ptr<Acl::PluginContext>& context) {
  return CpAclSm::CpAclSmIs(af, mcastDnsConfig, mcastDnsStatus, l3IntfStatusDir, allVrfStatusGlobal,
                            allVrfStatusLocal, context);
}

namespace {
// Builds the reactor of one watched input, or none for an absent input.
template <class Reactor, class Notifier>
Zov::Ptr<Reactor> inputReactor(const Zov::Ptr<const Notifier>& notifier, CpAclSm* owner) {
  if (!notifier) return nullptr;
  Zov::Ptr<Reactor> reactor(new Reactor(notifier, owner));
  reactor->hasNotificationActiveIs(true);
  return reactor;
}
}  // namespace

CpAclSm::CpAclSm(Dovix::AddressFamily af, const Zov::Ptr<const Config>& mcastDnsConfig,
                 const Zov::Ptr<const Status>& mcastDnsStatus,
                 const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
                 const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
                 const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
                 const Zov::Ptr<Acl::PluginContext>& context)
    : af_(af),
      zovMcastDnsConfig_(inputReactor<ZovMcastDnsConfig>(mcastDnsConfig, this)),
      zovMcastDnsStatus_(inputReactor<ZovMcastDnsStatus>(mcastDnsStatus, this)),
      zovL3IntfStatusDir_(inputReactor<ZovL3IntfStatusDir>(l3IntfStatusDir, this)),
      allVrfStatusGlobal_(allVrfStatusGlobal),
      allVrfStatusLocal_(allVrfStatusLocal),
      context_(context),
      mdnsIptRule_(initialMdnsIptRule()),
      mdnsGwIptRule_(initialMdnsGwIptRule()),
      scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
  handleInitialized();
}

Zov::FwkType CpAclSm::fwkType() const {
  return fwkTypeOf(kCpAclSmType);
}

// --- attributes -------------------------------------------------------------------

Zov::Ptr<const Config> CpAclSm::mcastDnsConfig() const {
  return Zov::Ptr<const Config>(config());
}

Zov::Ptr<const Status> CpAclSm::mcastDnsStatus() const {
  return Zov::Ptr<const Status>(status());
}

Zov::Ptr<const L3::Intf::StatusDir> CpAclSm::l3IntfStatusDir() const {
  return Zov::Ptr<const L3::Intf::StatusDir>(intfStatusDir());
}

Zov::Ptr<Pell::TimerTask> CpAclSm::refreshAclsTask() const {
  return Zov::Ptr<Pell::TimerTask>(timerTask());
}

// --- notification and zombies -----------------------------------------------------

void CpAclSm::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  PtrInterface::hasNotificationActiveIs(active);
  if (zovMcastDnsConfig_) zovMcastDnsConfig_->hasNotificationActiveIs(active);
  if (zovMcastDnsStatus_) zovMcastDnsStatus_->hasNotificationActiveIs(active);
  if (zovL3IntfStatusDir_) zovL3IntfStatusDir_->hasNotificationActiveIs(active);
  if (refreshAclsTask_) refreshAclsTask_->hasNotificationActiveIs(active);
  l3IntfStatusAclSm_.forEachMember(
      [active](const Zov::Ptr<L3IntfStatusAclSm>& w) { w->hasNotificationActiveIs(active); });
  linkStatusAclSm_.forEachMember(
      [active](const Zov::Ptr<LinkStatusAclSm>& w) { w->hasNotificationActiveIs(active); });
}

void CpAclSm::zovDoZombieReactors(bool zombie) {
  if (zombie == zovMarkedForDeletion()) return;
  zombieStateIs(zovMcastDnsConfig_, zombie);
  zombieStateIs(zovMcastDnsStatus_, zombie);
  zombieStateIs(zovL3IntfStatusDir_, zombie);
  zombieStateIs(refreshAclsTask_, zombie);
  zovMarkedForDeletionIs(zombie);
}

CpAclSm::~CpAclSm() {
  zovDoZombieReactors(true);
  detach(zovMcastDnsConfig_);
  detach(zovMcastDnsStatus_);
  detach(zovL3IntfStatusDir_);
  detach(refreshAclsTask_);
  refreshAclsTaskDel();
  // A watcher that someone else still holds outlives its collection: cut its
  // link to this object before the object goes.
  l3IntfStatusAclSm_.forEachMember(
      [](const Zov::Ptr<L3IntfStatusAclSm>& watcher) { watcher->parentIs(nullptr); });
  linkStatusAclSm_.forEachMember(
      [](const Zov::Ptr<LinkStatusAclSm>& watcher) { watcher->parentIs(nullptr); });
  l3IntfStatusAclSm_.memberDelAll();
  linkStatusAclSm_.memberDelAll();
  // The rest, the collections' storage first, goes in the reverse order of
  // the members' declaration.
}

// --- the refresh task -----------------------------------------------------------------

Zov::Ptr<Pell::TimerTask> CpAclSm::refreshAclsTaskIs(
    const Zov::Ptr<Pell::TaskScheduler>& taskScheduler, Pell::TaskPriority taskPriority,
    const Zov::String& taskName) {
  if (Pell::TimerTask* task = timerTask(); task && task->taskScheduler() == taskScheduler &&
                                           task->taskPriority() == taskPriority &&
                                           task->taskName() == taskName) {
    return Zov::Ptr<Pell::TimerTask>(task);
  }
  Zov::Ptr<ZovRefreshAclsTask> reactor(
      new ZovRefreshAclsTask(this, taskScheduler, taskPriority, taskName));
  reactor->hasNotificationActiveIs(true);
  Zov::Ptr<ZovRefreshAclsTask> old = std::exchange(refreshAclsTask_, reactor);
  reactor->zovDoZombieReactors(zovMarkedForDeletion());
  zombieStateIs(old, true);
  handleRefreshAcls(false);
  detach(old);
  Zov::Ptr<Pell::TimerTask> task(reactor->timerTask());
  task->hasNotificationActiveIs(true);
  return task;
}

Zov::Ptr<Pell::TimerTask> CpAclSm::refreshAclsTaskDel() {
  Zov::Ptr<ZovRefreshAclsTask> reactor = std::move(refreshAclsTask_);
  if (!reactor) return nullptr;
  reactor->zovDoZombieReactors(true);
  reactor->ownerIs(nullptr);
  reactor->hasNotificationActiveIs(false);
  return Zov::Ptr<Pell::TimerTask>(reactor->timerTask());
}

void CpAclSm::handleInitialized() {
  MCASTDNS_TRACE(kTraceHandler, "handleInitialized")
      << "void McastDns::CpAclSm::handleInitialized()";
  refreshAclsTaskIs(scheduler_, kRefreshTaskPriority, kRefreshTaskName);
  initialized_ = true;
  handleL3IntfStatus();
  handleLinkStatus();
  handleRefreshAcls(true);
}

void CpAclSm::zov_handleRefreshAclsTask_taskRun() {
  handleRefreshAcls(false);
}

// --- the watcher collections -------------------------------------------------------------

namespace {
// The `...AclSmIs` of both collections: the watcher of `entity`, created when
// its key is free.
template <class Watcher, class Map>
Zov::Ptr<Watcher> watcherIs(CpAclSm* sm, Map& map,
                            const Zov::Ptr<const typename Watcher::Entity>& entity,
                            const char* argumentName, Zov::AttributeId collectionId) {
  if (!entity) Zov::throwMutatorArgNullPointerException(argumentName, sm->fwkType(), collectionId);
  const auto key = Watcher::Watch::keyOf(*entity);
  if (Watcher* held = map.find(key)) {
    if (held->watchedEntity() == entity.ptr()) return Zov::Ptr<Watcher>(held);
    Zov::Impl::throwMutatorReinstantiating(fwkTypeOf(Watcher::Watch::kType), Watcher::kWatched,
                                           entity.ptr(), held->watchedEntity());
  }
  Zov::Ptr<Watcher> watcher = Watcher::create(entity, sm);
  map.newMember(watcher);
  watcher->hasNotificationActiveIs(true);
  return watcher;
}
}  // namespace

Zov::Ptr<L3IntfStatusAclSm> CpAclSm::l3IntfStatusAclSm(Dovix::IntfId intfId) const {
  return Zov::Ptr<L3IntfStatusAclSm>(l3IntfStatusAclSm_.find(intfId));
}

Zov::Ptr<L3IntfStatusAclSm> CpAclSm::l3IntfStatusAclSmIs(
    const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus) {
  return watcherIs<L3IntfStatusAclSm>(this, l3IntfStatusAclSm_, l3IntfStatus, "l3IntfStatus",
                                      kL3IntfStatusAclSm);
}

Zov::Ptr<L3IntfStatusAclSm> CpAclSm::l3IntfStatusAclSmDel(Dovix::IntfId intfId) {
  return l3IntfStatusAclSm_.deleteMember(intfId);
}

void CpAclSm::l3IntfStatusAclSmDelAll() {
  l3IntfStatusAclSm_.memberDelAll();
}

Zov::Ptr<LinkStatusAclSm> CpAclSm::linkStatusAclSm(const IntfKey& intfKey) const {
  return Zov::Ptr<LinkStatusAclSm>(linkStatusAclSm_.find(intfKey));
}

Zov::Ptr<LinkStatusAclSm> CpAclSm::linkStatusAclSmIs(const Zov::Ptr<const LinkStatus>& linkStatus) {
  return watcherIs<LinkStatusAclSm>(this, linkStatusAclSm_, linkStatus, "linkStatus",
                                    kLinkStatusAclSm);
}

Zov::Ptr<LinkStatusAclSm> CpAclSm::linkStatusAclSmDel(const IntfKey& intfKey) {
  return linkStatusAclSm_.deleteMember(intfKey);
}

void CpAclSm::linkStatusAclSmDelAll() {
  linkStatusAclSm_.memberDelAll();
}

}  // namespace McastDns

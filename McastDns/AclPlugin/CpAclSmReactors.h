// The reactors of `CpAclSm`: one on each watched input (configuration,
// status, interface status directory) and one on the refresh timer task.
// What they share (the owner pointer, the zombie state, re-pointing) is in
// Reactor.h; each adds only the attributes it acts on and the handler it calls.
#pragma once

#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/Reactor.h"

namespace McastDns {

class CpAclSm::ZovMcastDnsConfig : public Reactor<CpAclSm, Config> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovMcastDnsConfig")

 public:
  ZovMcastDnsConfig(const Zov::Ptr<const Config>& notifier, CpAclSm* owner)
      : Reactor(owner, notifier.ptr()) {}
  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id != Config::kGatewayEnabled && id != Config::kGatewaySetting) return;
    if (CpAclSm* owner = liveOwner()) owner->handleLinkChange();
  }
  // A new configuration may change the gateway decision.
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) {
    repoint(notifier, &CpAclSm::handleLinkChange);
  }
};

class CpAclSm::ZovMcastDnsStatus : public Reactor<CpAclSm, Status> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovMcastDnsStatus")

 public:
  ZovMcastDnsStatus(const Zov::Ptr<const Status>& notifier, CpAclSm* owner)
      : Reactor(owner, notifier.ptr()) {}
  void onAttribute(Zov::AttributeId id, const void* key) override {
    if (id != Status::kLinkStatus) return;
    if (CpAclSm* owner = liveOwner()) owner->handleLinkStatus(*static_cast<const IntfKey*>(key));
  }
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) { repoint(notifier); }
};

class CpAclSm::ZovL3IntfStatusDir : public Reactor<CpAclSm, L3::Intf::StatusDir> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovL3IntfStatusDir")

 public:
  ZovL3IntfStatusDir(const Zov::Ptr<const L3::Intf::StatusDir>& notifier, CpAclSm* owner)
      : Reactor(owner, notifier.ptr()) {}
  void onAttribute(Zov::AttributeId id, const void* key) override {
    if (id != L3::Intf::StatusDir::kIntfStatus) return;
    if (CpAclSm* owner = liveOwner()) {
      owner->handleL3IntfStatus(*static_cast<const Dovix::IntfId*>(key));
    }
  }
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) { repoint(notifier); }
};

// Owns the refresh timer task: it creates the task itself, and the task's run
// (attribute 130) becomes `handleRefreshAcls(false)`.
class CpAclSm::ZovRefreshAclsTask : public Reactor<CpAclSm, Pell::TimerTask> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovRefreshAclsTask")

 public:
  ZovRefreshAclsTask(CpAclSm* owner, const Zov::Ptr<Pell::TaskScheduler>& taskScheduler,
                     Pell::TaskPriority taskPriority, const Zov::String& taskName)
      : Reactor(owner) {
    refreshAclsTaskIs(taskScheduler, taskPriority, taskName);
  }

  // Makes a new timer task and attaches to it.
  Zov::Ptr<Pell::TimerTask> refreshAclsTaskIs(const Zov::Ptr<Pell::TaskScheduler>& taskScheduler,
                                              Pell::TaskPriority taskPriority,
                                              const Zov::String& taskName) {
    Zov::Ptr<Pell::TimerTask> task(new Pell::TimerTask(taskScheduler, taskPriority, taskName));
    task->Zov::PtrInterface::hasNotificationActiveIs(true);
    NotifieeConst::notifierIs(task.ptr());
    return task;
  }

  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id != Pell::TimerTask::kRun) return;
    if (CpAclSm* owner = liveOwner()) owner->handleRefreshAcls(false);
  }

  // The reactor holds the task it made; arming and stopping it are changes.
  Pell::TimerTask* timerTask() const { return const_cast<Pell::TimerTask*>(entity()); }
};

inline const Config* CpAclSm::config() const {
  return entityOf(zovMcastDnsConfig_);
}
inline const Status* CpAclSm::status() const {
  return entityOf(zovMcastDnsStatus_);
}
inline const L3::Intf::StatusDir* CpAclSm::intfStatusDir() const {
  return entityOf(zovL3IntfStatusDir_);
}
inline Pell::TimerTask* CpAclSm::timerTask() const {
  return refreshAclsTask_ ? refreshAclsTask_->timerTask() : nullptr;
}

}  // namespace McastDns

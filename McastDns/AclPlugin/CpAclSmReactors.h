// The reactors of `CpAclSm`: one on each watched input (configuration,
// status, interface status directory) and one on the refresh timer task.
// Each holds its notifier counted and its owner by a plain pointer that the
// owner clears when it goes; a reactor marked for deletion forwards nothing.
#pragma once

#include "McastDns/AclPlugin/CpAclSm.h"

namespace McastDns {

// What the three input reactors share.
template <class Notifier>
class CpAclSmInputReactor : public Zov::PtrInterface::NotifieeConst {
 public:
  CpAclSmInputReactor(const Zov::Ptr<const Notifier>& notifier, CpAclSm* owner) : owner_(owner) {
    NotifieeConst::notifierIs(notifier.ptr());
    isRegisteredNotifieeIs(true);
  }
  ~CpAclSmInputReactor() override { zovDoZombieReactors(true); }

  void zovDoZombieReactors(bool zombie) override {
    if (zombie == zovMarkedForDeletion()) return;
    if (notifier()) hasNotificationActiveIs(!zombie);
    zovMarkedForDeletionIs(zombie);
  }

  const Notifier* entity() const { return static_cast<const Notifier*>(notifier()); }
  void ownerIs(CpAclSm* owner) { owner_ = owner; }

 protected:
  // Re-points the reactor; anything but a `Notifier` counts as none. True
  // when it moved to a new notifier while live.
  bool repoint(const Zov::Ptr<const Zov::PtrInterface>& notifier) {
    const Notifier* entity = dynamic_cast<const Notifier*>(notifier.ptr());
    if (entity == this->entity()) return false;
    NotifieeConst::notifierIs(entity);
    isRegisteredNotifieeIs(true);
    return entity && !zovMarkedForDeletion() && owner_;
  }
  bool live() const { return !zovMarkedForDeletion() && owner_; }

  CpAclSm* owner_;
};

class CpAclSm::ZovMcastDnsConfig : public CpAclSmInputReactor<Config> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovMcastDnsConfig")

 public:
  using CpAclSmInputReactor::CpAclSmInputReactor;
  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id != Config::kGatewayEnabled && id != Config::kGatewaySetting) return;
    if (live()) owner_->handleLinkChange();
  }
  // A new configuration may change the gateway decision.
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) {
    if (repoint(notifier)) owner_->handleLinkChange();
  }
};

class CpAclSm::ZovMcastDnsStatus : public CpAclSmInputReactor<Status> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovMcastDnsStatus")

 public:
  using CpAclSmInputReactor::CpAclSmInputReactor;
  void onAttribute(Zov::AttributeId id, const void* key) override {
    if (id != Status::kLinkStatus) return;
    if (live()) owner_->handleLinkStatus(*static_cast<const IntfKey*>(key));
  }
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) { repoint(notifier); }
};

class CpAclSm::ZovL3IntfStatusDir : public CpAclSmInputReactor<L3::Intf::StatusDir> {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovL3IntfStatusDir")

 public:
  using CpAclSmInputReactor::CpAclSmInputReactor;
  void onAttribute(Zov::AttributeId id, const void* key) override {
    if (id != L3::Intf::StatusDir::kIntfStatus) return;
    if (live()) owner_->handleL3IntfStatus(*static_cast<const Dovix::IntfId*>(key));
  }
  void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) { repoint(notifier); }
};

// Owns the refresh timer task: it creates the task itself, and the task's run
// (attribute 130) becomes `handleRefreshAcls(false)`.
class CpAclSm::ZovRefreshAclsTask : public Zov::PtrInterface::NotifieeConst {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm::ZovRefreshAclsTask")

 public:
  ZovRefreshAclsTask(CpAclSm* owner, const Zov::Ptr<Pell::TaskScheduler>& taskScheduler,
                     Pell::TaskPriority taskPriority, const Zov::String& taskName)
      : owner_(owner) {
    isRegisteredNotifieeIs(true);
    refreshAclsTaskIs(taskScheduler, taskPriority, taskName);
  }
  ~ZovRefreshAclsTask() override { zovDoZombieReactors(true); }

  // Makes a new timer task and attaches to it.
  Zov::Ptr<Pell::TimerTask> refreshAclsTaskIs(const Zov::Ptr<Pell::TaskScheduler>& taskScheduler,
                                              Pell::TaskPriority taskPriority,
                                              const Zov::String& taskName) {
    Zov::Ptr<Pell::TimerTask> task(new Pell::TimerTask(taskScheduler, taskPriority, taskName));
    task->Zov::PtrInterface::hasNotificationActiveIs(true);
    notifierIs(task.ptr());
    return task;
  }

  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id != Pell::TimerTask::kRun || zovMarkedForDeletion() || !owner_) return;
    owner_->handleRefreshAcls(false);
  }
  void zovDoZombieReactors(bool zombie) override {
    if (zombie == zovMarkedForDeletion()) return;
    if (notifier()) hasNotificationActiveIs(!zombie);
    zovMarkedForDeletionIs(zombie);
  }

  Pell::TimerTask* timerTask() const {
    return const_cast<Pell::TimerTask*>(static_cast<const Pell::TimerTask*>(notifier()));
  }
  void ownerIs(CpAclSm* owner) { owner_ = owner; }

 private:
  CpAclSm* owner_;
};

}  // namespace McastDns

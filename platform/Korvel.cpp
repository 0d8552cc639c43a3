// Reference implementation of the state database client: an in-process
// entity manager whose mount completion comes from the event loop.
#include "platform/Korvel.h"

#include <algorithm>
#include <unordered_map>

namespace Korvel {
namespace {
std::unordered_map<std::uint64_t, Mounter*>& liveMounters() {
  static std::unordered_map<std::uint64_t, Mounter*> mounters;
  return mounters;
}
std::uint64_t nextMounterId = 0;
}  // namespace

const char* mountStatusName(MountStatus status) {
  return status == MountStatus::kSuccess ? "ok" : "failed";
}

void Mount::handleFlags(const Zov::String& text) {
  unsigned val = flags.val();
  for (char c : text.view()) {
    switch (c) {
      case 'r':
        val |= AllMountFlags::kRead;
        break;
      case 'w':
        val |= AllMountFlags::kWrite;
        break;
      case 'c':
        val |= AllMountFlags::kCreate;
        break;
      default: {
        const std::string message = "unknown mount flag '" + std::string(1, c) + "' in \"" +
                                    text.str() + "\" for " + path.str();
        throw Zov::RangeException(message);
      }
    }
  }
  flags.valIs(val);
}

Mounter::Mounter(const Zov::String& name) : Entity(name), mounterId_(++nextMounterId) {
  liveMounters().emplace(mounterId_, this);
}

Mounter::~Mounter() {
  liveMounters().erase(mounterId_);
}

Mounter* Mounter::find(std::uint64_t mounterId) {
  auto it = liveMounters().find(mounterId);
  return it == liveMounters().end() ? nullptr : it->second;
}

std::vector<Mounter*> Mounter::all() {
  std::vector<Mounter*> mounters;
  for (const auto& [id, mounter] : liveMounters()) mounters.push_back(mounter);
  std::sort(mounters.begin(), mounters.end(),
            [](Mounter* a, Mounter* b) { return a->mounterId() < b->mounterId(); });
  return mounters;
}

void Mounter::doKorvelMountsComplete(MountStatus status,
                                     const Zov::Ptr<EntityManager>& entityManager) {
  handleMountStatus(status);
  doMountsComplete(status, entityManager);
}

void MountGroup::doClose(bool, const Zov::String&, Zov::Seconds) {
  ++closes_;
  if (manager_) manager_->completionDue(mounterId_);
}

// Runs the due completions when the manager's completion task fires.
class EntityManager::CompletionReactor : public Zov::PtrInterface::NotifieeConst {
  ZOV_TRACKED_ALLOCATION("Korvel::EntityManager::CompletionReactor")

 public:
  explicit CompletionReactor(EntityManager* owner) : owner_(owner) {}
  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id == Pell::TimerTask::kRun && owner_) owner_->runPending();
  }
  EntityManager* owner_;
};

EntityManager::EntityManager()
    : completionTask_(new Pell::TimerTask(Pell::TaskSchedulerRoot::findOrCreateScheduler(),
                                          Pell::TaskPriority(0), "mountCompletion")),
      completionReactor_(new CompletionReactor(this)) {
  completionTask_->hasNotificationActiveIs(true);
  completionReactor_->notifierIs(completionTask_.ptr());
  completionReactor_->isRegisteredNotifieeIs(true);
  completionReactor_->hasNotificationActiveIs(true);
}

EntityManager::~EntityManager() {
  completionReactor_->owner_ = nullptr;
  completionTask_->stopTimerTask();
  for (auto& [id, group] : groups_) group->manager_ = nullptr;
}

Zov::Ptr<MountGroup> EntityManager::getMountGroup(const Zov::Ptr<Mounter>& mounter) {
  Zov::Ptr<MountGroup>& group = groups_[mounter->mounterId()];
  if (!group) group = new MountGroup(this, mounter->mounterId());
  return group;
}

Zov::Ptr<Zov::Entity> EntityManager::getEntity(const Zov::String& path) const {
  auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second;
}

void EntityManager::entityIs(const Zov::String& path, const Zov::Ptr<Zov::Entity>& entity) {
  if (entity) {
    entities_[path] = entity;
  } else {
    entities_.erase(path);
  }
}

void EntityManager::completionDue(std::uint64_t mounterId) {
  pending_.push_back(mounterId);
  completionTask_->scheduleTaskLowestDelay(0);
}

MountStatus EntityManager::statusOf(const MountGroup& group) const {
  for (const Mount& mount : group.mounts()) {
    if (!entities_.count(mount.path)) return MountStatus::kFailed;
  }
  return MountStatus::kSuccess;
}

void EntityManager::reportCompletion(std::uint64_t mounterId, MountStatus status) {
  Mounter* mounter = Mounter::find(mounterId);
  if (!mounter) {
    groups_.erase(mounterId);
    return;
  }
  // Hold the mounter for the report; holding `this` keeps the manager alive
  // should the mounter drop its last reference to it.
  Zov::Ptr<Mounter> hold(mounter);
  Zov::Ptr<EntityManager> self(this);
  ++completions_;
  mounter->doKorvelMountsComplete(status, self);
}

void EntityManager::runPending() {
  // A mounter may drop the last reference to the manager in its report, and
  // the reports after it still need the manager.
  Zov::Ptr<EntityManager> self(this);
  std::vector<std::uint64_t> due;
  due.swap(pending_);
  for (std::uint64_t id : due) {
    auto it = groups_.find(id);
    if (it == groups_.end()) continue;
    reportCompletion(id, statusOf(*it->second));
  }
}

void EntityManager::mountsCompleteIs(MountStatus status) {
  Zov::Ptr<EntityManager> self(this);
  std::vector<std::uint64_t> closed;
  for (auto& [id, group] : groups_) {
    if (group->closes() != 0) closed.push_back(id);
  }
  for (std::uint64_t id : closed) reportCompletion(id, status);
}

}  // namespace Korvel

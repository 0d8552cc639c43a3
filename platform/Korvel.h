// Korvel: the state database client.
//
// Entities that agents publish live in an `EntityManager` under paths.
// A reader is a `Mounter`: it asks the manager for its mount group, requests
// one `Mount` per path it wants and closes the group. The manager then
// reports completion once, on the event loop and never inside `doClose`, by
// calling the mounter's `doKorvelMountsComplete`, which records the status
// and calls `doMountsComplete`:
//
//   auto group = entityManager->getMountGroup(Zov::Ptr<Korvel::Mounter>(this));
//   Korvel::Mount mount("mdns/config", "McastDns::Config");
//   mount.handleFlags("r");
//   group->doMount(mount);
//   group->doClose(false, "", 0);
//   // ... later, from the loop: doMountsComplete(status, entityManager)
//
// The manager never keeps a mounter alive: a mounter destroyed before its
// completion is due simply receives none.
//
// Threading: everything runs on the event thread.
#pragma once

#include <map>

#include "platform/Pell.h"
#include "platform/Zov.h"

namespace Korvel {

class EntityManager;

// How the mounts of a group went: `kFailed` when a mounted path held no
// entity at completion.
enum class MountStatus : std::uint8_t {
  kSuccess = 0,
  kFailed = 1,
};

const char* mountStatusName(MountStatus status);

// The access a mount asks for, as bits.
class AllMountFlags {
 public:
  static constexpr unsigned kRead = 1u << 0;
  static constexpr unsigned kWrite = 1u << 1;
  static constexpr unsigned kCreate = 1u << 2;

  unsigned val() const { return val_; }
  void valIs(unsigned val) { val_ = val; }

 private:
  unsigned val_ = 0;
};

// Which part of the entity a mount wants; `false` means all of it.
class MountFilter {
 public:
  explicit MountFilter(bool filtered = false) : filtered_(filtered) {}
  bool filtered() const { return filtered_; }

 private:
  bool filtered_;
};

// One requested mount.
struct Mount {
  Zov::String path;
  Zov::String typeName;
  AllMountFlags flags;
  MountFilter filter;

  Mount() = default;
  Mount(const Zov::String& path, const Zov::String& typeName) : path(path), typeName(typeName) {}

  // Applies a flags string: 'r' read, 'w' write, 'c' create. Any other
  // character raises `Zov::RangeException` naming it; the flags then stay as
  // they were.
  void handleFlags(const Zov::String& flags);
};

// The base of an entity that reads mounted state.
class Mounter : public Zov::Entity {
 public:
  explicit Mounter(const Zov::String& name);
  ~Mounter() override;

  // Called by the manager when the group's mounts have completed: records the
  // status (`handleMountStatus`) and then calls `doMountsComplete`.
  virtual void doKorvelMountsComplete(MountStatus status,
                                      const Zov::Ptr<EntityManager>& entityManager);
  virtual void doMountsComplete(MountStatus, const Zov::Ptr<EntityManager>&) {}
  virtual void handleMountStatus(MountStatus status) { mountStatus_ = status; }

  MountStatus mountStatus() const { return mountStatus_; }
  // Unique for the life of the process; never reused.
  std::uint64_t mounterId() const { return mounterId_; }
  // The live mounter with this id, or null.
  static Mounter* find(std::uint64_t mounterId);
  // Every live mounter, oldest first: how tools find a plugin's root entity.
  static std::vector<Mounter*> all();

 private:
  std::uint64_t mounterId_;
  MountStatus mountStatus_ = MountStatus::kSuccess;
};

// The mounts one mounter has requested.
class MountGroup : public Zov::PtrInterface {
  ZOV_TRACKED_ALLOCATION("Korvel::MountGroup")

 public:
  MountGroup(EntityManager* manager, std::uint64_t mounterId)
      : manager_(manager), mounterId_(mounterId) {}

  void doMount(const Mount& mount) { mounts_.push_back(mount); }
  // Closes the group after its last mount: completion is reported once, from
  // the event loop. The arguments (whether to wait for writers, a reason, a
  // time-out) are accepted for the contract and do not change that.
  void doClose(bool wait, const Zov::String& reason, Zov::Seconds timeout);

  const std::vector<Mount>& mounts() const { return mounts_; }
  unsigned closes() const { return closes_; }

 private:
  friend class EntityManager;
  EntityManager* manager_;  // plain: cleared by the manager when it goes
  std::uint64_t mounterId_;
  std::vector<Mount> mounts_;
  unsigned closes_ = 0;
};

// The state database as one process sees it: entities by path, and the mount
// groups of the mounters reading them.
class EntityManager : public Zov::PtrInterface {
  ZOV_TRACKED_ALLOCATION("Korvel::EntityManager")

 public:
  EntityManager();
  ~EntityManager() override;

  // The mount group of `mounter`, created on first request.
  // REQUIRES: `mounter` is not null.
  Zov::Ptr<MountGroup> getMountGroup(const Zov::Ptr<Mounter>& mounter);
  // The entity at `path`, or null.
  Zov::Ptr<Zov::Entity> getEntity(const Zov::String& path) const;

  // Writers: publish `entity` at `path` (null removes it).
  void entityIs(const Zov::String& path, const Zov::Ptr<Zov::Entity>& entity);
  const std::map<Zov::String, Zov::Ptr<Zov::Entity>>& entities() const { return entities_; }

  // Reports completion at once, with `status`, to every live mounter whose
  // group has been closed.
  void mountsCompleteIs(MountStatus status);
  // Completion reports made so far.
  std::uint64_t completions() const { return completions_; }

 private:
  friend class MountGroup;
  class CompletionReactor;
  void completionDue(std::uint64_t mounterId);
  void reportCompletion(std::uint64_t mounterId, MountStatus status);
  MountStatus statusOf(const MountGroup& group) const;
  void runPending();

  std::map<Zov::String, Zov::Ptr<Zov::Entity>> entities_;
  std::map<std::uint64_t, Zov::Ptr<MountGroup>> groups_;
  std::vector<std::uint64_t> pending_;
  Zov::Ptr<Pell::TimerTask> completionTask_;
  Zov::Ptr<CompletionReactor> completionReactor_;
  std::uint64_t completions_ = 0;
};

}  // namespace Korvel

// The per-interface watcher that `LinkStatusAclSm` and `L3IntfStatusAclSm`
// share. A watcher follows one mounted entry (a link status or an interface
// status) through its reactor and tells its state machine when the one
// attribute that matters changes, when it is created and when it is
// destroyed. That call, `CpAclSm::handleLinkChange()`, is its only output; the
// refresh reads the mounted entities themselves, never the watchers.
//
// `Watch` describes one twin: the watched entity type, its key, the watched
// attribute, the type index and the trace texts. Everything else is common.
//
// Lifecycle: created initialised (it has called `handleLinkChange()` once);
// `destroy()` announces its leaving and makes later notifications call
// nothing; its destructor makes it and its reactor zombies and releases the
// watched entity. It is never reused.
//
// Threading: the event thread only.
#pragma once

#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/PluginTrace.h"
#include "McastDns/AclPlugin/PluginTypes.h"
#include "McastDns/AclPlugin/Reactor.h"

namespace McastDns {

template <class Derived, class WatchT>
class IntfWatcher : public Zov::PtrInterface {
 public:
  using Watch = WatchT;
  using Entity = typename Watch::Entity;
  using Key = typename Watch::Key;

  // Attribute ids, in declaration order.
  static constexpr Zov::AttributeId kWatched = 130;
  static constexpr Zov::AttributeId kKey = 131;
  static constexpr Zov::AttributeId kParent = 132;
  static constexpr Zov::AttributeId kHandleChange = 133;
  static constexpr Zov::AttributeId kDestroy = 134;
  static constexpr Zov::AttributeId kInitialized = 135;
  static constexpr Zov::AttributeId kHandleInitialized = 136;

  // Reacts to the watched attribute of one entity.
  class ZovWatched : public Reactor<IntfWatcher, Entity> {
    ZOV_TRACKED_ALLOCATION(Watch::kReactorRecord)

   public:
    ZovWatched(const Zov::Ptr<const Entity>& notifier, IntfWatcher* owner)
        : Reactor<IntfWatcher, Entity>(owner, notifier.ptr()) {}

    void onAttribute(Zov::AttributeId id, const void*) override {
      if (id != Watch::kWatchedAttribute) return;
      if (IntfWatcher* owner = this->liveOwner()) owner->handleChange();
    }
    // A new entity may have another value of the watched attribute.
    void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) {
      this->repoint(notifier, &IntfWatcher::handleChange);
    }
  };

  IntfWatcher(const Zov::Ptr<const Entity>& entity, CpAclSm* parent)
      : reactor_(entity ? new ZovWatched(entity, this) : nullptr), parent_(parent) {
    if (reactor_) reactor_->hasNotificationActiveIs(true);
    handleInitialized();
  }

  // What remains goes in the reverse order of the members' declaration: the
  // collection link, then the reactor with the entity it holds.
  ~IntfWatcher() override {
    zovDoZombieReactors(true);
    detach(reactor_);
  }

  Zov::FwkType fwkType() const override { return fwkTypeOf(Watch::kType); }

  void hasNotificationActiveIs(bool active) override {
    if (active == hasNotificationActive()) return;
    PtrInterface::hasNotificationActiveIs(active);
    if (reactor_) reactor_->hasNotificationActiveIs(active);
  }

  void zovDoZombieReactors(bool zombie) override {
    if (zombie == zovMarkedForDeletion()) return;
    zombieStateIs(reactor_, zombie);
    zovMarkedForDeletionIs(zombie);
  }

  // Creates a watcher of `entity` and switches its notification on.
  static Zov::Ptr<Derived> create(const Zov::Ptr<const Entity>& entity, CpAclSm* parent) {
    Zov::Ptr<Derived> watcher(new Derived(entity, parent));
    watcher->hasNotificationActiveIs(true);
    return watcher;
  }

  // The watched entity without taking a reference, or null.
  const Entity* watchedEntity() const { return entityOf(reactor_); }
  // The watched entity, or none for a watcher built without one.
  Zov::Ptr<const Entity> watched() const { return Zov::Ptr<const Entity>(watchedEntity()); }
  // Computed from the watched entity on every read.
  Key key() const {
    const Entity* entity = watchedEntity();
    return entity ? Watch::keyOf(*entity) : Watch::emptyKey();
  }
  // The owning state machine; null once it has gone.
  CpAclSm* parent() const { return parent_; }
  void parentIs(CpAclSm* parent) { parent_ = parent; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  void handleInitialized() {
    MCASTDNS_TRACE(kTraceHandler, "handleInitialized") << Watch::kInitializedText;
    initialized_ = true;
    handleChange();
  }

  // `handleState()` / `handleVrf()`: schedules a refresh while initialised.
  void handleChange() {
    MCASTDNS_TRACE(kTraceHandler, Watch::kChangeName) << Watch::kChangeText;
    if (initialized_ && parent_) parent_->handleLinkChange();
  }

  // Announces that the watched entry has gone. The caller has already taken
  // the watcher out of its collection.
  void destroy() {
    MCASTDNS_TRACE(kTraceHandler, "destroy") << Watch::kDestroyText;
    if (parent_) parent_->handleLinkChange();
    initialized_ = false;
  }

  // The collection's link to the next member of a bucket.
  Zov::Ptr<Derived>& next() { return next_; }

 private:
  Zov::Ptr<ZovWatched> reactor_;
  CpAclSm* parent_;
  bool initialized_ = false;
  Zov::Ptr<Derived> next_;
};

}  // namespace McastDns

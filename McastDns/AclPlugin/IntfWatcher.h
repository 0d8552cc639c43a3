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
#include "McastDns/AclPlugin/Trace.h"
#include "McastDns/AclPlugin/ZovModule.h"

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
  class Reactor : public Zov::PtrInterface::NotifieeConst {
    ZOV_TRACKED_ALLOCATION(Watch::kReactorRecord)

   public:
    Reactor(const Zov::Ptr<const Entity>& notifier, IntfWatcher* owner) : owner_(owner) {
      NotifieeConst::notifierIs(notifier.ptr());
      isRegisteredNotifieeIs(true);
    }
    ~Reactor() override { zovDoZombieReactors(true); }

    void onAttribute(Zov::AttributeId id, const void*) override {
      if (id != Watch::kWatchedAttribute || zovMarkedForDeletion() || !owner_) return;
      owner_->handleChange();
    }
    void zovDoZombieReactors(bool zombie) override {
      if (zombie == zovMarkedForDeletion()) return;
      if (notifier()) hasNotificationActiveIs(!zombie);
      zovMarkedForDeletionIs(zombie);
    }
    // Re-points the reactor; anything but an `Entity` counts as none.
    void notifierIs(const Zov::Ptr<const Zov::PtrInterface>& notifier) {
      const Entity* entity = dynamic_cast<const Entity*>(notifier.ptr());
      if (entity == this->entity()) return;
      NotifieeConst::notifierIs(entity);
      if (entity && !zovMarkedForDeletion() && owner_) owner_->handleChange();
      isRegisteredNotifieeIs(true);
    }

    const Entity* entity() const { return static_cast<const Entity*>(notifier()); }
    void ownerIs(IntfWatcher* owner) { owner_ = owner; }

   private:
    IntfWatcher* owner_;
  };

  IntfWatcher(const Zov::Ptr<const Entity>& entity, CpAclSm* parent) {
    if (entity) {
      reactor_ = new Reactor(entity, this);
      reactor_->hasNotificationActiveIs(true);
    }
    initialized_ = false;
    parent_ = parent;
    handleInitialized();
  }

  ~IntfWatcher() override {
    zovDoZombieReactors(true);
    if (reactor_) {
      Zov::Ptr<Reactor> hold = reactor_;
      hold->ownerIs(nullptr);
    }
    next_ = nullptr;
    reactor_ = nullptr;
  }

  Zov::FwkType fwkType() const override { return fwkTypeOf(Watch::kType); }

  void hasNotificationActiveIs(bool active) override {
    if (active == hasNotificationActive()) return;
    PtrInterface::hasNotificationActiveIs(active);
    if (reactor_) reactor_->hasNotificationActiveIs(active);
  }

  void zovDoZombieReactors(bool zombie) override {
    if (zombie == zovMarkedForDeletion()) return;
    if (reactor_) {
      Zov::Ptr<Reactor> hold = reactor_;
      hold->zovDoZombieReactors(zombie);
    }
    zovMarkedForDeletionIs(zombie);
  }

  // Creates a watcher of `entity` and switches its notification on.
  static Zov::Ptr<Derived> create(const Zov::Ptr<const Entity>& entity, CpAclSm* parent) {
    Zov::Ptr<Derived> watcher(new Derived(entity, parent));
    watcher->hasNotificationActiveIs(true);
    return watcher;
  }

  // The watched entity without taking a reference, or null.
  const Entity* watchedEntity() const { return reactor_ ? reactor_->entity() : nullptr; }
  // The watched entity, or none for a watcher built without one.
  Zov::Ptr<const Entity> watched() const {
    return reactor_ ? Zov::Ptr<const Entity>(reactor_->entity()) : nullptr;
  }
  // Computed from the watched entity on every read.
  Key key() const {
    const Entity* entity = reactor_ ? reactor_->entity() : nullptr;
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
  Zov::Ptr<Reactor> reactor_;
  CpAclSm* parent_;
  bool initialized_;
  Zov::Ptr<Derived> next_;
};

}  // namespace McastDns

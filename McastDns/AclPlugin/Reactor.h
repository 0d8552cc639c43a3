// What every reactor of the plugin shares: the input reactors of `CpAclSm`,
// its refresh task's reactor and the watchers' reactors.
//
// A reactor is attached to one notifier of type `Notifier`, which it holds
// counted, and forwards what it hears to its owner, an `Owner` it points back
// to with a plain pointer. The owner cuts that pointer (`ownerIs(nullptr)`)
// before it goes, so a reactor that someone else still holds forwards nothing
// to freed memory. A reactor marked for deletion (a zombie) forwards nothing
// either; `liveOwner()` answers both questions at once.
//
//   class Sm::ZovThing : public Reactor<Sm, Thing> {
//    public:
//     ZovThing(const Zov::Ptr<const Thing>& thing, Sm* owner) : Reactor(owner, thing.ptr()) {}
//     void onAttribute(Zov::AttributeId id, const void*) override {
//       if (id != Thing::kWatched) return;
//       if (Sm* owner = liveOwner()) owner->handleThing();
//     }
//   };
//
// Threading: the event thread only.
#pragma once

#include "platform/Zov.h"

namespace McastDns {

template <class Owner, class Notifier>
class Reactor : public Zov::PtrInterface::NotifieeConst {
 public:
  ~Reactor() override { zovDoZombieReactors(true); }

  // A zombie stops hearing its notifier; clearing the state lets it hear again.
  void zovDoZombieReactors(bool zombie) override {
    if (zombie == zovMarkedForDeletion()) return;
    if (notifier()) hasNotificationActiveIs(!zombie);
    zovMarkedForDeletionIs(zombie);
  }

  // The notifier, or null.
  const Notifier* entity() const { return static_cast<const Notifier*>(notifier()); }
  void ownerIs(Owner* owner) { owner_ = owner; }

 protected:
  // Stores the owner, attaches to `notifier` (none leaves the reactor
  // unattached) and registers.
  explicit Reactor(Owner* owner, const Notifier* notifier = nullptr) : owner_(owner) {
    NotifieeConst::notifierIs(notifier);
    isRegisteredNotifieeIs(true);
  }

  // The owner to forward to, or null while the reactor is a zombie or has
  // been cut loose.
  Owner* liveOwner() const { return zovMarkedForDeletion() ? nullptr : owner_; }

  // Re-points the reactor; anything but a `Notifier` counts as none. After
  // attaching to a new notifier that is not none, and before registering with
  // it, calls `handleNew` (when given) on the live owner.
  void repoint(const Zov::Ptr<const Zov::PtrInterface>& notifier,
               void (Owner::*handleNew)() = nullptr) {
    const Notifier* next = dynamic_cast<const Notifier*>(notifier.ptr());
    if (next == entity()) return;
    NotifieeConst::notifierIs(next);
    if (next && handleNew) {
      if (Owner* owner = liveOwner()) (owner->*handleNew)();
    }
    isRegisteredNotifieeIs(true);
  }

 private:
  Owner* owner_;
};

// The notifier of a reactor that may be absent, or null.
template <class R>
auto entityOf(const Zov::Ptr<R>& reactor) -> decltype(reactor->entity()) {
  return reactor ? reactor->entity() : nullptr;
}

// Passes a zombie state on to a reactor that may be absent, holding a
// reference to it for the call.
template <class R>
void zombieStateIs(const Zov::Ptr<R>& reactor, bool zombie) {
  if (!reactor) return;
  Zov::Ptr<R> hold = reactor;
  hold->zovDoZombieReactors(zombie);
}

// Cuts a reactor that may be absent loose from its owner, holding a reference
// to it for the write.
template <class R>
void detach(const Zov::Ptr<R>& reactor) {
  if (!reactor) return;
  Zov::Ptr<R> hold = reactor;
  hold->ownerIs(nullptr);
}

}  // namespace McastDns

// `Listener` records the attribute ids it hears and runs an optional hook on
// each, which is how a test acts "during a visit"; like any reactor it holds
// its notifier. `whatOf` runs code that must throw `E` and returns the message.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/Zov.h"

namespace ZovTesting {

class Listener : public Zov::PtrInterface::NotifieeConst {
  ZOV_TRACKED_ALLOCATION("ZovTesting::Listener")

 public:
  using Hook = std::function<void(Zov::AttributeId, const void*)>;

  // A listener attached and registered on `notifier`, with notification on.
  static Zov::Ptr<Listener> listenerIs(const Zov::PtrInterface* notifier, Hook hook = {}) {
    Zov::Ptr<Listener> listener(new Listener);
    listener->hook_ = std::move(hook);
    listener->notifierIs(notifier);
    listener->isRegisteredNotifieeIs(true);
    listener->hasNotificationActiveIs(true);
    return listener;
  }
  void onAttribute(Zov::AttributeId id, const void* key) override {
    ids_.push_back(id);
    if (hook_) hook_(id, key);
  }

  std::vector<Zov::AttributeId> ids_;
  Hook hook_;
};

template <class E, class F>
std::string whatOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

}  // namespace ZovTesting

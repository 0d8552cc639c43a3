#include "platform/Zov.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/PlatformTesting.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ZovTesting::Listener;

// A counted entity that counts its destruction and reports whether it was
// told of its last reference before it went.
class Thing : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("ZovTest::Thing")

 public:
  explicit Thing(const Zov::String& name, int* destroyed = nullptr)
      : Entity(name), destroyed_(destroyed) {}
  ~Thing() override {
    if (destroyed_) ++*destroyed_;
    if (toldZeroOut_) *toldZeroOut_ = toldZero_;
  }
  void zeroReferencesIs(bool zero) override { toldZero_ = zero; }

  int* destroyed_;
  bool* toldZeroOut_ = nullptr;
  bool toldZero_ = false;
};

std::uint64_t liveThings() {
  return Thing::allocTrackTypeInfo().liveObjects();
}

class PtrTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Zov::VFPtrInterface::threadSafePointers_ = GetParam(); }
  void TearDown() override { Zov::VFPtrInterface::threadSafePointers_ = false; }
};
INSTANTIATE_TEST_SUITE_P(CountingModes, PtrTest, ::testing::Bool());

TEST_P(PtrTest, CountsFollowCopiesMovesAndAssignments) {
  int destroyed = 0;
  Zov::Ptr<Thing> a(new Thing("a", &destroyed));
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(liveThings(), 1u);
  {
    Zov::Ptr<Thing> copy = a;
    Zov::Ptr<Zov::Entity> base = a;
    EXPECT_EQ(a->references(), 3u);
    Zov::Ptr<Thing> moved = std::move(copy);
    EXPECT_FALSE(copy);
    EXPECT_EQ(a->references(), 3u);
    moved = moved;  // Self-assignment keeps the count.
    moved = a;
    EXPECT_EQ(a->references(), 3u);
    EXPECT_EQ(Zov::ptrCast<Thing>(base), a);
    EXPECT_FALSE(Zov::ptrCast<Listener>(base));
  }
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(destroyed, 0);

  // Assigning another object releases the old one at once.
  int destroyedB = 0;
  Zov::Ptr<Thing> b(new Thing("b", &destroyedB));
  Zov::Ptr<Thing> keep = a;
  a = b;
  EXPECT_EQ(destroyed, 0);
  keep = nullptr;
  EXPECT_EQ(destroyed, 1);

  // A released reference is the caller's to drop.
  Thing* raw = b.release();
  EXPECT_FALSE(b);
  a = nullptr;
  EXPECT_EQ(raw->references(), 1u);
  EXPECT_EQ(destroyedB, 0);
  raw->deleteRef();
  EXPECT_EQ(destroyedB, 1);
  EXPECT_EQ(liveThings(), 0u);
}

TEST(PtrInterfaceTest, ZeroReferencesIsToldBeforeDestructionAndFlagsStartOff) {
  int destroyed = 0;
  bool toldZero = false;
  {
    Zov::Ptr<Thing> a(new Thing("t", &destroyed));
    a->toldZeroOut_ = &toldZero;
    EXPECT_FALSE(a->hasNotificationActive() || a->zovMarkedForDeletion());
    a->hasNotificationActiveIs(true);
    a->zovDoZombieReactors(true);
    EXPECT_TRUE(a->hasNotificationActive() && a->zovMarkedForDeletion());
    a->zovDoZombieReactors(false);
    EXPECT_FALSE(a->zovMarkedForDeletion());
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(toldZero);
}

class NotifyTest : public ::testing::Test {
 protected:
  void TearDown() override {
    listeners_.clear();
    thing_ = nullptr;
    EXPECT_EQ(liveThings(), 0u);
    EXPECT_EQ(Listener::allocTrackTypeInfo().liveObjects(), 0u);
  }
  Zov::Ptr<Listener> listen(Listener::Hook hook = {}) {
    listeners_.push_back(Listener::listenerIs(thing_.ptr(), std::move(hook)));
    return listeners_.back();
  }
  void visit(Zov::AttributeId id, const void* key = nullptr) {
    thing_->notifieeList()->visit(id, key);
  }

  Zov::Ptr<Thing> thing_{new Thing("notifier")};
  std::vector<Zov::Ptr<Listener>> listeners_;
};

TEST_F(NotifyTest, OnlyRegisteredActiveNotifieesHearIdAndKey) {
  auto heard = listen();
  auto inactive = listen();
  inactive->hasNotificationActiveIs(false);
  auto unregistered = listen();
  unregistered->isRegisteredNotifieeIs(false);
  EXPECT_EQ(thing_->notifieeList()->size(), 2u);

  const void* keySeen = nullptr;
  auto keyed = listen([&](Zov::AttributeId, const void* key) { keySeen = key; });
  int key = 7;
  visit(300, &key);
  visit(301);
  EXPECT_THAT(heard->ids_, ElementsAre(300, 301));
  EXPECT_TRUE(inactive->ids_.empty());
  EXPECT_TRUE(unregistered->ids_.empty());
  EXPECT_EQ(keySeen, nullptr);  // The last visit carried no key.

  visit(302, &key);
  EXPECT_EQ(keySeen, &key);
  // Switching back on and re-registering restore delivery.
  inactive->hasNotificationActiveIs(true);
  unregistered->isRegisteredNotifieeIs(true);
  visit(303);
  EXPECT_THAT(inactive->ids_, ElementsAre(303));
  EXPECT_THAT(unregistered->ids_, ElementsAre(303));
  EXPECT_THAT(heard->ids_, ElementsAre(300, 301, 302, 303));
}

TEST_F(NotifyTest, ListChangesDuringAVisit) {
  std::vector<std::string> order;
  Zov::Ptr<Listener> late;
  Zov::Ptr<Listener> added;
  Listener* victim = nullptr;
  Listener* leaver = nullptr;
  auto first = listen([&](Zov::AttributeId id, const void*) {
    order.push_back("first");
    if (id != 400) return;
    // In the middle of the visit: drop the only reference to a later
    // notifiee, unregister another, visit again (the inner visit must not
    // compact the list under the outer one) and add a new notifiee.
    std::erase_if(listeners_, [&](auto& l) { return l.ptr() == victim; });
    late->isRegisteredNotifieeIs(false);
    visit(401);
    added = Listener::listenerIs(thing_.ptr());
  });
  auto leaves = listen([&](Zov::AttributeId, const void*) {
    order.push_back("leaver");
    leaver->isRegisteredNotifieeIs(false);
  });
  leaver = leaves.ptr();
  auto doomed = listen([&](Zov::AttributeId, const void*) { order.push_back("doomed"); });
  victim = doomed.ptr();
  doomed = nullptr;
  late = listen([&](Zov::AttributeId, const void*) { order.push_back("late"); });
  auto last = listen();

  visit(400);
  // The leaver left during the inner visit, so the outer one skips it too.
  EXPECT_THAT(order, ElementsAre("first", "first", "leaver"));
  EXPECT_THAT(last->ids_, ElementsAre(401, 400));
  EXPECT_TRUE(late->ids_.empty());
  EXPECT_TRUE(added->ids_.empty());
  EXPECT_EQ(Listener::allocTrackTypeInfo().liveObjects(), 5u);

  visit(402);
  EXPECT_THAT(added->ids_, ElementsAre(402));
  EXPECT_THAT(last->ids_, ElementsAre(401, 400, 402));
  EXPECT_EQ(thing_->notifieeList()->size(), 3u);
  added = nullptr;
  late = nullptr;
}

TEST_F(NotifyTest, NotifierIsKeepsTheNotifierAliveAndMovesRegistration) {
  int destroyed = 0;
  Zov::Ptr<Thing> other(new Thing("other", &destroyed));
  auto listener = Listener::listenerIs(other.ptr());
  Thing* otherRaw = other.ptr();
  other = nullptr;
  EXPECT_EQ(destroyed, 0) << "a notifiee must keep its notifier alive";
  EXPECT_EQ(otherRaw->references(), 1u);

  otherRaw->notifieeList()->visit(500);
  listener->notifierIs(thing_.ptr());
  EXPECT_EQ(destroyed, 1) << "re-pointing must release the old notifier";
  EXPECT_EQ(thing_->notifieeList()->size(), 1u);
  visit(501);
  EXPECT_THAT(listener->ids_, ElementsAre(500, 501));

  // Detaching keeps the registration state for the next notifier.
  listener->notifierIs(nullptr);
  EXPECT_TRUE(thing_->notifieeList()->empty());
  EXPECT_TRUE(listener->isRegisteredNotifiee());
  listener->notifierIs(thing_.ptr());
  visit(502);
  EXPECT_THAT(listener->ids_, ElementsAre(500, 501, 502));
  listener = nullptr;
  EXPECT_TRUE(thing_->notifieeList()->empty());
}

TEST(ErrorTest, HelpersThrowTheirTypesNamingWhatWasWrong) {
  using ZovTesting::whatOf;
  static const Zov::ZovTypeInfo kTypes[] = {{"Test::Watcher"}};
  static const Zov::ZovModule kModule{"ZovTestModule", kTypes};
  const Zov::FwkType type{&kModule, 0};
  EXPECT_EQ(Zov::FwkType{}.name(), "(unregistered type)");

  EXPECT_THAT(whatOf<Zov::NullPointerException>(
                  [&] { Zov::throwMutatorArgNullPointerException("linkStatus", type, 131); }),
              AllOf(HasSubstr("Test::Watcher"), HasSubstr("131"), HasSubstr("linkStatus")));
  EXPECT_THAT(whatOf<Zov::NewEntityArgsException>([&] { Zov::throwNewEntityArgsException(type); }),
              HasSubstr("Test::Watcher"));
  Zov::Ptr<Thing> offered(new Thing("Ethernet1"));
  Zov::Ptr<Thing> held(new Thing("Ethernet2"));
  EXPECT_THAT(
      whatOf<Zov::ReinstantiationException>(
          [&] { Zov::Impl::throwMutatorReinstantiating(type, 132, offered.ptr(), held.ptr()); }),
      AllOf(HasSubstr("Test::Watcher"), HasSubstr("\"Ethernet1\""), HasSubstr("\"Ethernet2\"")));
  EXPECT_EQ(whatOf<Zov::RangeException>([] { Zov::BoundedString<3>("abcd"); }),
            "Zov::String::bytes > maxLength() not allowed");
  EXPECT_EQ(whatOf<Zov::RangeException>([] { Zov::throwRangeException("too long"); }), "too long");
}

}  // namespace

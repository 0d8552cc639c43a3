#include "platform/Zov.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/PlatformTesting.h"

namespace {

using ::testing::ElementsAre;
using ZovTesting::Listener;

// What the last counted object to lose its last reference was told.
bool toldZero = false;

class Thing : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("ZovTest::Thing")

 public:
  using Entity::Entity;
  void zeroReferencesIs(bool zero) override { toldZero = zero; }
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
  Zov::Ptr<Thing> a(new Thing("a"));
  {
    Zov::Ptr<Thing> copy = a;
    Zov::Ptr<Zov::Entity> base = a;
    Zov::Ptr<Thing> moved = std::move(copy);
    EXPECT_FALSE(copy);
    Zov::Ptr<Thing>& alias = moved;
    moved = alias;  // Self-assignment, as aliasing brings it about, keeps the count.
    moved = a;
    EXPECT_EQ(a->references(), 3u);
    EXPECT_FALSE(Zov::ptrCast<Listener>(base));
  }
  EXPECT_EQ(a->references(), 1u);

  // Assigning another object releases the old one at once.
  Zov::Ptr<Thing> b(new Thing("b"));
  a = b;
  EXPECT_EQ(liveThings(), 1u);

  // A released reference is the caller's to drop, and the last drop tells
  // the object before it goes.
  Thing* raw = b.release();
  a = nullptr;
  EXPECT_EQ(liveThings(), 1u);
  toldZero = false;
  raw->deleteRef();
  EXPECT_TRUE(toldZero);
  EXPECT_EQ(liveThings(), 0u);
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
  const void* keySeen = nullptr;
  auto heard = listen([&](Zov::AttributeId, const void* key) { keySeen = key; });
  auto inactive = listen();
  inactive->hasNotificationActiveIs(false);
  auto unregistered = listen();
  unregistered->isRegisteredNotifieeIs(false);

  int key = 7;
  visit(300, &key);
  EXPECT_EQ(keySeen, &key);
  visit(301);
  EXPECT_EQ(keySeen, nullptr);
  inactive->hasNotificationActiveIs(true);
  unregistered->isRegisteredNotifieeIs(true);
  visit(302);
  EXPECT_THAT(heard->ids_, ElementsAre(300, 301, 302));
  EXPECT_THAT(inactive->ids_, ElementsAre(302));
  EXPECT_THAT(unregistered->ids_, ElementsAre(302));
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

// A list of one notifiee keeps it in place of a block; the block appears with
// the second and goes when one is left. The visit rules hold across both.
TEST_F(NotifyTest, ListOfOneChangesDuringAVisit) {
  Zov::Ptr<Listener> second;
  Zov::Ptr<Listener> third;
  auto only = listen([&](Zov::AttributeId id, const void*) {
    if (id == 600) {
      // Added inside a visit of one: heard from the next visit on, the nested
      // one included, while the list still counts the outer one as running.
      second = Listener::listenerIs(thing_.ptr());
      visit(601);
      third = Listener::listenerIs(thing_.ptr());
      listeners_.front()->isRegisteredNotifieeIs(false);
    }
  });
  visit(600);
  EXPECT_THAT(only->ids_, ElementsAre(600, 601));
  EXPECT_THAT(second->ids_, ElementsAre(601));
  EXPECT_TRUE(third->ids_.empty());
  EXPECT_EQ(thing_->notifieeList()->size(), 2u);

  visit(602);
  EXPECT_THAT(second->ids_, ElementsAre(601, 602));
  EXPECT_THAT(third->ids_, ElementsAre(602));
  third = nullptr;
  visit(603);
  EXPECT_THAT(second->ids_, ElementsAre(601, 602, 603));
  EXPECT_EQ(thing_->notifieeList()->size(), 1u);

  // The one left leaves during its own visit; a later visit calls nobody.
  second->hook_ = [&](Zov::AttributeId, const void*) { second->isRegisteredNotifieeIs(false); };
  visit(604);
  EXPECT_TRUE(thing_->notifieeList()->empty());
  visit(605);
  EXPECT_THAT(second->ids_, ElementsAre(601, 602, 603, 604));
  second = nullptr;
}

TEST_F(NotifyTest, NotifierIsKeepsTheNotifierAliveAndMovesRegistration) {
  Zov::Ptr<Thing> other(new Thing("other"));
  auto listener = Listener::listenerIs(other.ptr());
  Thing* otherRaw = other.ptr();
  other = nullptr;
  EXPECT_EQ(liveThings(), 2u) << "a notifiee must keep its notifier alive";
  otherRaw->notifieeList()->visit(500);
  listener->notifierIs(thing_.ptr());
  EXPECT_EQ(liveThings(), 1u) << "re-pointing must release the old notifier";

  // Detaching keeps the registration for the next notifier.
  visit(501);
  listener->notifierIs(nullptr);
  EXPECT_TRUE(thing_->notifieeList()->empty());
  listener->notifierIs(thing_.ptr());
  visit(502);
  EXPECT_THAT(listener->ids_, ElementsAre(500, 501, 502));
  listener = nullptr;
  EXPECT_TRUE(thing_->notifieeList()->empty());
}

}  // namespace

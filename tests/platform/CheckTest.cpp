// The framework's precondition checks: in a build that compiles them in, each
// broken precondition stops the process with a message naming it, instead of
// leaving a corrupt collection or a reactor holding a freed notifier.
#include <gtest/gtest.h>

#include "platform/PlatformTesting.h"
#include "platform/Zov.h"

namespace {

class Keyed : public Zov::PtrInterface {
 public:
  explicit Keyed(int key) : key_(key) {}
  int key_;
  Zov::Ptr<Keyed> next_;
};

// Every key hashes alike, so every member but a bucket's last links to another.
struct KeyedTraits {
  using Key = int;
  static Key key(const Keyed& k) { return k.key_; }
  static std::uint64_t hash(const Key&) { return 0; }
  static Zov::Ptr<Keyed>& next(Keyed& k) { return k.next_; }
};
using Collection = Zov::HashMapGeneric<Keyed, KeyedTraits>;

Zov::Ptr<Keyed> keyed(int key) {
  return Zov::Ptr<Keyed>(new Keyed(key));
}

class CheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Zov::kDchecks) GTEST_SKIP() << "checks are compiled out (ZOV_DCHECKS is not defined)";
    // Runs each death test in a fresh copy of the program rather than a bare
    // fork, which is safe whatever threads the process has started.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
};

TEST_F(CheckTest, MemberThatCannotBeInsertedStopsTheProcess) {
  Collection first, second;
  const Zov::Ptr<Keyed> chained = keyed(2);
  first.newMember(keyed(1));
  first.newMember(chained);
  // File, line, condition and message.
  EXPECT_DEATH(first.newMember(keyed(1)),
               "ZovCollections\\.h:[0-9]+: check failed: !find\\(.*\\): "
               "a member is already held under this key");
  ASSERT_TRUE(chained->next_);
  EXPECT_DEATH(second.newMember(chained), "linked into a collection");
}

// A walk may remove the member it is at, and nothing else.
TEST_F(CheckTest, WalkThatChangesTheCollectionOtherwiseStopsTheProcess) {
  Collection members;
  for (int key = 0; key < 4; ++key) members.newMember(keyed(key));
  EXPECT_DEATH(members.forEachMember(
                   [&](const Zov::Ptr<Keyed>& m) { members.deleteMember((m->key_ + 1) % 4); }),
               "removed a member other than the one it was given");
  EXPECT_DEATH(members.forEachMember([&](const Zov::Ptr<Keyed>&) { members.newMember(keyed(9)); }),
               "inserted during a walk");
  EXPECT_DEATH(members.forEachMember([&](const Zov::Ptr<Keyed>&) { members.memberDelAll(); }),
               "removed during a walk");
}

TEST_F(CheckTest, NotifierDestroyedUnderItsNotifieesStopsTheProcess) {
  EXPECT_DEATH(
      {
        auto* notifier = new Zov::Entity("notifier");
        const auto listener = ZovTesting::Listener::listenerIs(notifier);
        delete notifier;  // past the listener's reference
      },
      "destroyed with notifiees still in its list");
}

TEST_F(CheckTest, NotifierDestroyedDuringItsOwnVisitStopsTheProcess) {
  EXPECT_DEATH(
      {
        Zov::Ptr<Zov::Entity> notifier(new Zov::Entity("notifier"));
        Zov::Ptr<ZovTesting::Listener> listener;
        // The listener lets go of its notifier while being told of a change,
        // and nobody else holds it.
        listener = ZovTesting::Listener::listenerIs(
            notifier.ptr(), [&](Zov::AttributeId, const void*) { listener->notifierIs(nullptr); });
        const Zov::NotifieeList* list = notifier->notifieeList();
        notifier = nullptr;
        list->visit(1);
      },
      "destroyed while its notifiee list was being visited");
}

}  // namespace

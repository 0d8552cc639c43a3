#include <gtest/gtest.h>

#include <map>

#include "platform/Zov.h"

namespace {

// A member whose key is its number, chained through its own link field.
class Member : public Zov::PtrInterface {
  ZOV_TRACKED_ALLOCATION("CollectionsTest::Member")

 public:
  explicit Member(int key) : key_(key) {}
  int key_;
  Zov::Ptr<Member> next_;
};

std::uint64_t liveMembers() {
  return Member::allocTrackTypeInfo().liveObjects();
}

// `kCollide` sends every key to one bucket, so that chains are long.
template <bool kCollide>
struct MemberTraits {
  using Key = int;
  static Key key(const Member& m) { return m.key_; }
  static std::uint64_t hash(const Key& k) { return kCollide ? 0 : static_cast<std::uint64_t>(k); }
  static Zov::Ptr<Member>& next(Member& m) { return m.next_; }
};

template <class Traits>
class HashMapGenericTest : public ::testing::Test {
 protected:
  using Members = Zov::HashMapGeneric<Member, Traits>;
  void fill(Members& members, int count) {
    for (int k = 0; k < count; ++k) members.newMember(Zov::Ptr<Member>(new Member(k)));
  }
  void TearDown() override { EXPECT_EQ(liveMembers(), 0u); }
};
using TraitKinds = ::testing::Types<MemberTraits<false>, MemberTraits<true>>;
TYPED_TEST_SUITE(HashMapGenericTest, TraitKinds);

TYPED_TEST(HashMapGenericTest, InsertFindDeleteAcrossGrowth) {
  typename TestFixture::Members members(4);
  this->fill(members, 40);

  // Deleting from the middle of a chain keeps the rest reachable, and the
  // removed member no longer holds its former neighbours.
  Zov::Ptr<Member> removed = members.deleteMember(17);
  ASSERT_TRUE(removed);
  EXPECT_FALSE(removed->next_);
  EXPECT_FALSE(members.deleteMember(17));
  for (int k = 0; k < 40; ++k) {
    EXPECT_EQ(members.find(k) ? members.find(k)->key_ : -1, k == 17 ? -1 : k);
  }
  removed = nullptr;
  members.memberDelAll();
  EXPECT_EQ(liveMembers(), 0u);
  this->fill(members, 6);
  EXPECT_NE(members.find(5), nullptr) << "the collection is usable after being emptied";
  members.emptyAllBuckets();
  EXPECT_EQ(liveMembers(), 0u);
}

TYPED_TEST(HashMapGenericTest, WalkMayRemoveTheMemberItIsAt) {
  typename TestFixture::Members members(4);
  this->fill(members, 25);
  std::map<int, int> visits;
  members.forEachMember([&](const Zov::Ptr<Member>& m) {
    ++visits[m->key_];
    if (m->key_ % 2 == 0) members.deleteMember(m->key_);
  });
  ASSERT_EQ(visits.size(), 25u);
  for (auto [key, count] : visits) EXPECT_EQ(count, 1) << key;
  EXPECT_EQ(liveMembers(), 12u);
  for (int k = 0; k < 25; ++k) EXPECT_EQ(members.find(k) != nullptr, k % 2 == 1) << k;
}

// The published collections: key to counted entry.
TEST(HashMap2018GenericTest, MutatorsReportRealChangesAndWalkMayErase) {
  using Entries = Zov::HashMap2018Generic<int, Member, std::hash<int>>;
  {
    Entries entries;
    Zov::Ptr<Member> one(new Member(1));
    EXPECT_TRUE(entries.entryIs(1, one));
    EXPECT_FALSE(entries.entryIs(1, one));
    // Another entry under the same key replaces the first, which is released.
    one = nullptr;
    Zov::Ptr<Member> replacement(new Member(1));
    EXPECT_TRUE(entries.entryIs(1, replacement));
    EXPECT_EQ(entries.lookup(1), replacement.ptr());
    replacement = nullptr;
    EXPECT_EQ(liveMembers(), 1u);
    EXPECT_TRUE(entries.entryDel(1));
    EXPECT_FALSE(entries.entryDel(1));

    for (int k = 0; k < 20; ++k) entries.entryIs(k, Zov::Ptr<Member>(new Member(k)));
    int walked = 0;
    for (auto it = entries.begin(); it != entries.end(); ++walked) {
      it = it->first % 3 == 0 ? entries.erase(it) : std::next(it);
    }
    EXPECT_EQ(walked, 20);
    for (int k = 0; k < 20; ++k) EXPECT_EQ(entries.contains(k), k % 3 != 0) << k;

    // Keys that come and go many times over, with lookups of keys just deleted.
    for (int round = 0; round < 50; ++round) {
      for (int k = 100; k < 130; ++k) entries.entryIs(k, Zov::Ptr<Member>(new Member(k)));
      for (int k = 100; k < 130; k += 2) EXPECT_TRUE(entries.entryDel(k));
      for (int k = 101; k < 130; k += 2) {
        ASSERT_NE(entries.lookup(k), nullptr) << k;
        ASSERT_EQ(entries.lookup(k)->key_, k);
      }
      EXPECT_EQ(entries.lookup(100 + 2 * round % 30), nullptr);
      for (int k = 101; k < 130; k += 2) EXPECT_TRUE(entries.entryDel(k));
    }
    EXPECT_EQ(entries.size(), 13u);
    EXPECT_EQ(entries.lookup(1000), nullptr);
  }
  EXPECT_EQ(liveMembers(), 0u);
}

}  // namespace

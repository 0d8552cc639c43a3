// Keyed collections of the object framework. Included by Zov.h.
//
// `HashMapGeneric` is the intrusive hash map in which an owner keeps counted
// members whose key is computed from the member itself (a state machine's
// watchers, keyed by what they watch). The collection stores no key: it asks
// the member each time. Members of one bucket are chained through a link field
// in the member.
//
// `HashMap2018Generic` is the collection of a published entity (a status
// directory's entries): key to counted entry. The owning entity announces each
// change to its notifiees with the entry's key.
//
// Layout: power-of-two bucket arrays, grown to keep the load factor at most
// 1.0; a hash is mixed with `HashHelper::rehash` and its low bits pick the
// bucket. Walks visit members in bucket order, which carries no meaning.
#pragma once

#include <unordered_map>

namespace Zov {

// Traits describe a member type to `HashMapGeneric`:
//
//   struct WatcherTraits {
//     using Key = Dovix::IntfId;
//     static Key key(const Watcher& m);              // computed from the member
//     static std::uint64_t hash(const Key& k);       // the caller's hash
//     static Ptr<Watcher>& next(Watcher& m);         // the member's link field
//   };
//
// Keys compare with `==`.
template <class Member, class Traits>
class HashMapGeneric {
 public:
  using Key = typename Traits::Key;

  explicit HashMapGeneric(std::size_t initialSize = 4) : buckets_(roundUp(initialSize)) {}
  HashMapGeneric(const HashMapGeneric&) = delete;
  HashMapGeneric& operator=(const HashMapGeneric&) = delete;
  ~HashMapGeneric() { memberDelAll(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The member held under `key`, or null.
  Member* find(const Key& key) const {
    for (Member* m = buckets_[bucketOf(key)].ptr(); m; m = Traits::next(*m).ptr()) {
      if (Traits::key(*m) == key) return m;
    }
    return nullptr;
  }

  // Inserts `member` under its own key.
  // REQUIRES: `member` is not null, belongs to no collection, and no member is
  // held under its key; no walk is running.
  void newMember(const Ptr<Member>& member) {
    ZOV_DCHECK(member, "a null member cannot be inserted");
    ZOV_DCHECK(walks_ == 0, "a member was inserted during a walk");
    ZOV_DCHECK(!find(Traits::key(*member)), "a member is already held under this key");
    ZOV_DCHECK(!Traits::next(*member), "the member is linked into a collection");
    if (size_ + 1 > buckets_.size()) grow();
    Ptr<Member>& head = buckets_[bucketOf(Traits::key(*member))];
    Traits::next(*member) = std::move(head);
    head = member;
    ++size_;
  }

  // Removes the member held under `key` and returns it, or returns null.
  Ptr<Member> deleteMember(const Key& key) {
    for (Ptr<Member>* link = &buckets_[bucketOf(key)]; *link; link = &Traits::next(**link)) {
      if (Traits::key(**link) == key) {
        Ptr<Member> removed = std::move(*link);
        *link = std::move(Traits::next(*removed));
        --size_;
        return removed;
      }
    }
    return nullptr;
  }

  // Removes every member; each one whose last reference goes is destroyed.
  // The bucket storage stays for reuse.
  // REQUIRES: no walk is running.
  void memberDelAll() {
    ZOV_DCHECK(walks_ == 0, "the members were removed during a walk");
    for (Ptr<Member>& head : buckets_) {
      Ptr<Member> m = std::move(head);
      while (m) {
        Ptr<Member> next = std::move(Traits::next(*m));
        m = std::move(next);
      }
    }
    size_ = 0;
  }

  // Removes every member and releases the bucket storage.
  void emptyAllBuckets() {
    memberDelAll();
    std::vector<Ptr<Member>>(1).swap(buckets_);
  }

  // Calls `visit(const Ptr<Member>&)` once for every member.
  // REQUIRES: the visit removes no member but the one it is given, and
  // inserts none.
  template <class Visit>
  void forEachMember(Visit&& visit) const {
    ++walks_;
    struct EndWalk {
      const HashMapGeneric& map;
      ~EndWalk() { --map.walks_; }
    } endWalk{*this};
    for (std::size_t b = 0; b < buckets_.size(); ++b) {
      Ptr<Member> m = buckets_[b];
      while (m) {
        Ptr<Member> next = Traits::next(*m);
        [[maybe_unused]] const std::size_t before = size_;
        visit(m);
        ZOV_DCHECK(size_ == before || (size_ + 1 == before && find(Traits::key(*m)) != m.ptr()),
                   "a walk's visit removed a member other than the one it was given");
        m = std::move(next);
      }
    }
  }

 private:
  static std::size_t roundUp(std::size_t n) {
    std::size_t size = 1;
    while (size < n) size <<= 1;
    return size;
  }
  std::size_t bucketOf(const Key& key) const {
    return HashHelper::rehash(Traits::hash(key)) & (buckets_.size() - 1);
  }
  void grow() {
    std::vector<Ptr<Member>> old(buckets_.size() * 2);
    old.swap(buckets_);
    for (Ptr<Member>& head : old) {
      Ptr<Member> m = std::move(head);
      while (m) {
        Ptr<Member> next = std::move(Traits::next(*m));
        Ptr<Member>& slot = buckets_[bucketOf(Traits::key(*m))];
        Traits::next(*m) = std::move(slot);
        slot = std::move(m);
        m = std::move(next);
      }
    }
  }

  std::vector<Ptr<Member>> buckets_;
  std::size_t size_ = 0;
  // Walks running now; a walk holds the next member while it visits one, so
  // that member must stay in place.
  mutable std::uint32_t walks_ = 0;
};

// The collection of a published entity: at most one counted entry per key.
// Mutators report whether anything changed, so that the owner announces only
// real changes. Lookups and walks do not change the collection; a walk may
// remove the entry it is at through `erase(iterator)`.
template <class Key, class Entry, class Hash>
class HashMap2018Generic {
  using Map = std::unordered_map<Key, Ptr<Entry>, Hash>;

 public:
  using const_iterator = typename Map::const_iterator;

  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }

  // The entry under `key`, or null.
  Entry* lookup(const Key& key) const {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : it->second.ptr();
  }
  bool contains(const Key& key) const { return map_.count(key) != 0; }

  // Puts `entry` under `key`; false when that very entry was already there.
  bool entryIs(const Key& key, const Ptr<Entry>& entry) {
    auto [it, inserted] = map_.try_emplace(key, entry);
    if (inserted) return true;
    if (it->second == entry) return false;
    it->second = entry;
    return true;
  }
  // Removes the entry under `key`; false when there was none.
  bool entryDel(const Key& key) { return map_.erase(key) != 0; }
  const_iterator erase(const_iterator it) { return map_.erase(it); }
  void clear() { map_.clear(); }

 private:
  Map map_;
};

}  // namespace Zov

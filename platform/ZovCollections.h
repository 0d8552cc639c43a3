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
// `HashMapGeneric` layout: power-of-two bucket arrays, grown to keep the load
// factor at most 1.0; a hash is mixed with `HashHelper::rehash` and its low
// bits pick the bucket. Walks visit members in bucket order, which carries no
// meaning. `HashMap2018Generic`: see below.
#pragma once

#include <iterator>
#include <unordered_map>
#include <vector>

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
    const std::uint64_t hash = mixedHash(key);
    const Bucket& bucket = buckets_[hash & (buckets_.size() - 1)];
    Member* m = bucket.head.ptr();
    if (!m) return nullptr;
    // A member's key is read through the member, so the head's key is
    // computed only when the head has the key's mark.
    if ((bucket.mark & ~kMore) != markOf(hash)) {
      if (!(bucket.mark & kMore)) return nullptr;
      m = Traits::next(*m).ptr();
    }
    for (; m; m = Traits::next(*m).ptr()) {
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
    link(member, mixedHash(Traits::key(*member)));
    ++size_;
  }

  // Makes room for `count` members without growing again on the way, which
  // spares the rehashes of a collection filled one member at a time.
  // REQUIRES: no walk is running.
  void reserve(std::size_t count) {
    ZOV_DCHECK(walks_ == 0, "a collection was resized during a walk");
    if (count > buckets_.size()) rehash(roundUp(count));
  }

  // Removes the member held under `key` and returns it, or returns null.
  Ptr<Member> deleteMember(const Key& key) {
    Bucket& bucket = buckets_[mixedHash(key) & (buckets_.size() - 1)];
    for (Ptr<Member>* link = &bucket.head; *link; link = &Traits::next(**link)) {
      if (Traits::key(**link) == key) {
        const bool wasHead = link == &bucket.head;
        Ptr<Member> removed = std::move(*link);
        *link = std::move(Traits::next(*removed));
        --size_;
        if (!bucket.head) {
          bucket.mark = 0;
        } else if (wasHead) {
          markHead(bucket, mixedHash(Traits::key(*bucket.head)));
        } else {
          bucket.mark = (bucket.mark & ~kMore) | (Traits::next(*bucket.head) ? kMore : 0);
        }
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
    for (Bucket& bucket : buckets_) {
      Ptr<Member> m = std::move(bucket.head);
      bucket.mark = 0;
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
    std::vector<Bucket>(1).swap(buckets_);
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
      Ptr<Member> m = buckets_[b].head;
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
  // A bucket keeps, beside its first member, a mark of that member's hash and
  // whether more members follow, so that a lookup of a key the bucket does
  // not hold rarely needs to compute a member's key.
  static constexpr std::uint64_t kMore = 1;
  struct Bucket {
    Ptr<Member> head;
    std::uint64_t mark = 0;
  };

  static std::size_t roundUp(std::size_t n) {
    std::size_t size = 1;
    while (size < n) size <<= 1;
    return size;
  }
  static std::uint64_t mixedHash(const Key& key) { return HashHelper::rehash(Traits::hash(key)); }
  // The high bits of the hash; the low ones pick the bucket.
  static std::uint64_t markOf(std::uint64_t hash) { return (hash >> 32) << 1; }
  static void markHead(Bucket& bucket, std::uint64_t hash) {
    bucket.mark = markOf(hash) | (Traits::next(*bucket.head) ? kMore : 0);
  }
  void link(Ptr<Member> member, std::uint64_t hash) {
    Bucket& bucket = buckets_[hash & (buckets_.size() - 1)];
    Traits::next(*member) = std::move(bucket.head);
    bucket.head = std::move(member);
    markHead(bucket, hash);
  }
  void grow() { rehash(buckets_.size() * 2); }
  void rehash(std::size_t bucketCount) {
    std::vector<Bucket> old(bucketCount);
    old.swap(buckets_);
    for (Bucket& bucket : old) {
      Ptr<Member> m = std::move(bucket.head);
      while (m) {
        Ptr<Member> next = std::move(Traits::next(*m));
        const std::uint64_t hash = mixedHash(Traits::key(*m));
        link(std::move(m), hash);
        m = std::move(next);
      }
    }
  }

  std::vector<Bucket> buckets_;
  std::size_t size_ = 0;
  // Walks running now; a walk holds the next member while it visits one, so
  // that member must stay in place.
  mutable std::uint32_t walks_ = 0;
};

namespace Impl {
// A flat index from key to entry beside a hash map that owns the entries: the
// key and the entry's address in one slot, found by linear probing from the
// key's mixed hash, so that a lookup touches one slot and then the entry.
// Removed keys leave a marker until the next rebuild.
template <class Key, class Entry, class Hash>
class FlatIndex {
 public:
  // The entry held under `key`, or null when the index does not hold `key`.
  Entry* const* find(const Key& key) const {
    const std::size_t i = slotOf(key);
    return i == kAbsent ? nullptr : &slots_[i].entry;
  }
  // Holds `entry` under `key`, which the index does not hold yet.
  void insert(const Key& key, Entry* entry) {
    if ((size_ + removed_ + 1) * 4 > state_.size() * 3) rebuild(size_ + 1);
    std::size_t i = home(key);
    while (state_[i] == kFull) i = next(i);
    if (state_[i] == kRemoved) --removed_;
    slots_[i] = Slot{key, entry};
    state_[i] = kFull;
    ++size_;
  }
  void update(const Key& key, Entry* entry) { slots_[slotOf(key)].entry = entry; }
  void remove(const Key& key) {
    const std::size_t i = slotOf(key);
    if (i == kAbsent) return;
    slots_[i] = Slot{};
    state_[i] = kRemoved;
    --size_;
    ++removed_;
  }
  void clear() {
    std::vector<Slot>().swap(slots_);
    std::vector<std::uint8_t>().swap(state_);
    size_ = removed_ = 0;
  }

 private:
  enum : std::uint8_t { kEmpty, kFull, kRemoved };
  static constexpr std::size_t kAbsent = ~std::size_t{0};
  struct Slot {
    Key key{};
    Entry* entry = nullptr;
  };

  std::size_t slotOf(const Key& key) const {
    if (size_ == 0) return kAbsent;
    for (std::size_t i = home(key);; i = next(i)) {
      if (state_[i] == kEmpty) return kAbsent;
      if (state_[i] == kFull && slots_[i].key == key) return i;
    }
  }

  std::size_t home(const Key& key) const {
    return HashHelper::rehash(Hash()(key)) & (state_.size() - 1);
  }
  std::size_t next(std::size_t i) const { return (i + 1) & (state_.size() - 1); }
  // Half full after a rebuild, so that a quarter of the slots must be used
  // up before the next one: a key removed and added again over and over, at
  // any size, costs one rebuild per many changes rather than one each.
  void rebuild(std::size_t count) {
    std::size_t capacity = 8;
    while (count * 2 > capacity) capacity <<= 1;
    std::vector<Slot> oldSlots(capacity);
    std::vector<std::uint8_t> oldState(capacity, kEmpty);
    oldSlots.swap(slots_);
    oldState.swap(state_);
    size_ = removed_ = 0;
    for (std::size_t i = 0; i < oldState.size(); ++i) {
      if (oldState[i] == kFull) insert(oldSlots[i].key, oldSlots[i].entry);
    }
  }

  std::vector<Slot> slots_;
  std::vector<std::uint8_t> state_;
  std::size_t size_ = 0;
  std::size_t removed_ = 0;
};
}  // namespace Impl

// The collection of a published entity: at most one counted entry per key.
// Mutators report whether anything changed, so that the owner announces only
// real changes. Lookups and walks do not change the collection; a walk may
// remove the entry it is at through `erase(iterator)`, and no other entry:
// it holds an iterator a few entries ahead.
//
// A walk fetches each entry into the cache a few entries before it reaches it,
// so that a reader of every entry (the refresh, over every link) does not wait
// on each one in turn; the order of a walk is the hash map's own.
template <class Key, class Entry, class Hash>
class HashMap2018Generic {
  using Map = std::unordered_map<Key, Ptr<Entry>, Hash>;
  // How many entries ahead of the one it is at a walk fetches.
  static constexpr int kFetchAhead = 6;

 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = typename Map::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;

    const_iterator() = default;
    reference operator*() const { return *at_; }
    pointer operator->() const { return &*at_; }
    const_iterator& operator++() {
      ++at_;
      fetchNext();
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.at_ == b.at_;
    }

   private:
    friend class HashMap2018Generic;
    const_iterator(typename Map::const_iterator at, typename Map::const_iterator ahead,
                   typename Map::const_iterator end)
        : at_(at), ahead_(ahead), end_(end) {}
    void fetchNext() {
      if (ahead_ == end_) return;
      if (const Entry* entry = ahead_->second.ptr()) {
        __builtin_prefetch(entry);
        __builtin_prefetch(reinterpret_cast<const char*>(entry) + sizeof(Entry) - 1);
      }
      ++ahead_;
    }

    typename Map::const_iterator at_;
    typename Map::const_iterator ahead_;
    typename Map::const_iterator end_;
  };

  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  const_iterator begin() const {
    const_iterator it(map_.begin(), map_.begin(), map_.end());
    for (int i = 0; i <= kFetchAhead; ++i) it.fetchNext();
    return it;
  }
  const_iterator end() const { return const_iterator(map_.end(), map_.end(), map_.end()); }

  // The entry under `key`, or null.
  Entry* lookup(const Key& key) const {
    Entry* const* slot = index_.find(key);
    return slot ? *slot : nullptr;
  }
  bool contains(const Key& key) const { return index_.find(key) != nullptr; }

  // Puts `entry` under `key`; false when that very entry was already there.
  bool entryIs(const Key& key, const Ptr<Entry>& entry) {
    auto [it, inserted] = map_.try_emplace(key, entry);
    if (inserted) {
      try {
        index_.insert(key, entry.ptr());
      } catch (...) {
        map_.erase(it);
        throw;
      }
      return true;
    }
    if (it->second == entry) return false;
    it->second = entry;
    index_.update(key, entry.ptr());
    return true;
  }
  // Removes the entry under `key`; false when there was none.
  bool entryDel(const Key& key) {
    if (map_.erase(key) == 0) return false;
    index_.remove(key);
    return true;
  }
  const_iterator erase(const_iterator it) {
    index_.remove(it.at_->first);
    // Only the entry erased goes; the one fetched ahead stays valid.
    return const_iterator(map_.erase(it.at_), it.ahead_, it.end_);
  }
  void clear() {
    map_.clear();
    index_.clear();
  }

 private:
  // Walks go through the map, whose order they keep; lookups through the
  // index.
  Map map_;
  Impl::FlatIndex<Key, Entry, Hash> index_;
};

}  // namespace Zov

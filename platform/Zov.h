// Zov: the object framework every agent and plugin is written against.
//
// Counted objects (`PtrInterface`, `Ptr<T>`), named entities, immutable counted
// strings, attribute notification with reactors (`NotifieeConst`), intrusive
// keyed collections, hashing, the framework's errors, per-type allocation
// records, type modules with their generic attribute interface, and tracing.
//
// Usage:
//
//   class Light : public Zov::Entity {
//    public:
//     explicit Light(const Zov::String& name) : Entity(name) {}
//     void onIs(bool on) {
//       if (on == on_) return;           // a setter given what is held notifies nobody
//       on_ = on;
//       notifieeList()->visit(kOn);      // every active registered notifiee hears it
//     }
//   };
//
//   class LightReactor : public Zov::PtrInterface::NotifieeConst {
//     void onAttribute(Zov::AttributeId id, const void* key) override { ... }
//   };
//   reactor->notifierIs(light.ptr());        // holds a counted reference to `light`
//   reactor->isRegisteredNotifieeIs(true);   // enters the light's notifiee list
//   reactor->hasNotificationActiveIs(true);  // deliveries start
//
// Ownership: counted references run downward only (owner to owned, reactor to
// its notifier); links upward are plain pointers that the owner clears when it
// goes, so no cycle of counts can arise. An object is destroyed, on the thread
// that dropped its last reference, the moment its count reaches zero.
//
// Threading: everything runs on one event thread. Only the reference counts may
// be updated from other threads, and only while `VFPtrInterface::
// threadSafePointers_` is on; the switch is read at every count update.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Zov {

// The number with which a change of an attribute is announced. Types number
// their own attributes from 130 (plugins) or 258 (published platform types).
using AttributeId = std::uint32_t;

// A duration in seconds.
using Seconds = double;

class PtrInterface;
class NotifieeList;
struct ZovModule;

// ---------------------------------------------------------------------------
// Errors. Every framework failure is one of these exceptions; `what()` is a
// complete sentence naming what was wrong.

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A collection operation was given no entity.
class NullPointerException : public Exception {
 public:
  using Exception::Exception;
};

// A key is already held by a member built from another entity.
class ReinstantiationException : public Exception {
 public:
  using Exception::Exception;
};

// Generic creation was given constructor arguments the type does not take.
class NewEntityArgsException : public Exception {
 public:
  using Exception::Exception;
};

// A value is outside its range (for instance a bounded string made too long).
// When the value is a text over a length limit, the exception also carries
// the start of the text, its length and the limit, so that whoever reports it
// can name the value without the message changing.
class RangeException : public Exception {
 public:
  // The most of an offending text that is kept.
  static constexpr std::size_t kValueKept = 40;

  using Exception::Exception;
  RangeException(const std::string& text, std::string_view value, std::size_t limit)
      : Exception(text),
        value_(value.substr(0, kValueKept)),
        length_(value.size()),
        limit_(limit) {}

  // The first `kValueKept` bytes of the offending text; empty when unknown.
  const std::string& value() const { return value_; }
  // The offending text's length in bytes, and the limit it broke; both 0
  // when the error is not about a length.
  std::size_t length() const { return length_; }
  std::size_t limit() const { return limit_; }

 private:
  std::string value_;
  std::size_t length_ = 0;
  std::size_t limit_ = 0;
};

// Identifies a registered type: its module and its index there. A type that
// belongs to no module reports a null module.
struct FwkType {
  const ZovModule* module = nullptr;
  unsigned index = 0;

  // The type's qualified name, or "(unregistered type)".
  std::string name() const;
  friend bool operator==(const FwkType&, const FwkType&) = default;
};

[[noreturn]] void throwMutatorArgNullPointerException(const char* name, FwkType type,
                                                      AttributeId id);
[[noreturn]] void throwNewEntityArgsException(FwkType type);
[[noreturn]] void throwRangeException(const char* text);
// The same, for `value` over a length limit of `limit` bytes.
[[noreturn]] void throwRangeException(const char* text, std::string_view value, std::size_t limit);
namespace Impl {
[[noreturn]] void throwMutatorReinstantiating(FwkType type, AttributeId id,
                                              const PtrInterface* offered,
                                              const PtrInterface* held);
}  // namespace Impl

// ---------------------------------------------------------------------------
// Reference counting.

struct VFPtrInterface {
  // When true, reference counts are updated atomically. Off by default: every
  // object lives on the event thread.
  static bool threadSafePointers_;
};

// A counted reference to a `PtrInterface` (or a class derived from it). Null
// is allowed. Copies add one to the count; destruction drops one.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { retain(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { retain(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, std::enable_if_t<std::is_convertible_v<U*, T*>, int> = 0>
  Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) {
    retain();
  }
  template <class U, std::enable_if_t<std::is_convertible_v<U*, T*>, int> = 0>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { drop(); }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // Hands the reference to the caller, who must drop it with `deleteRef()`.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.ptr() == b.ptr();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
  void retain() const noexcept {
    if (p_) p_->newRef();
  }
  void drop() noexcept {
    if (p_) std::exchange(p_, nullptr)->deleteRef();
  }
  T* p_ = nullptr;
};

// Run-time type test on a counted reference: null when `p` is null or of
// another type.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

// ---------------------------------------------------------------------------
// Notifiee lists.

// The notifiees registered on one notifier. Notifiees may be added, removed or
// destroyed while the list is being visited: a notifiee removed during a visit
// is not called afterwards; one added during a visit is first called by the
// next visit.
//
// Most objects are watched by nobody and most watched objects by one reactor,
// so the list is one word: empty, the one notifiee itself, or a block on the
// heap that holds two or more. A list costs nothing more until a second
// notifiee registers.
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;
  ~NotifieeList();

  // Calls `onAttribute(id, key)` on every registered notifiee whose
  // notification is active, in registration order. `key` points to the key of
  // the changed entry for a keyed-collection attribute, and is null otherwise.
  // REQUIRES: the caller holds a reference to the notifier for the whole visit.
  void visit(AttributeId id, const void* key = nullptr) const {
    if (word_ & kBlock) {
      visitBlock(id, key);
    } else if (word_ != 0) {
      visitOne(id, key);
    }
  }

  std::size_t size() const;
  bool empty() const { return size() == 0; }

 private:
  friend class PtrInterface;
  struct Block;
  // The low bits of the word: the rest points to a `Block`, or else to the one
  // notifiee (or to none); a visit of a list without a block is running.
  static constexpr std::uintptr_t kBlock = 1;
  static constexpr std::uintptr_t kVisiting = 2;
  static constexpr std::uintptr_t kBits = kBlock | kVisiting;

  void add(PtrInterface* notifiee);
  void remove(PtrInterface* notifiee);
  void visitOne(AttributeId id, const void* key) const;
  void visitBlock(AttributeId id, const void* key) const;
  void endVisit() const;
  Block* block() const {
    return (word_ & kBlock) ? reinterpret_cast<Block*>(word_ & ~kBits) : nullptr;
  }
  PtrInterface* single() const { return reinterpret_cast<PtrInterface*>(word_ & ~kBits); }
  bool visiting() const;

  mutable std::uintptr_t word_ = 0;
};

// The base of every object that is shared: entities, reactors, state machines,
// services, timer tasks. It carries the reference count, the notifiee list and
// two flags, notification active and marked for deletion.
class PtrInterface {
 public:
  class NotifieeConst;

  PtrInterface() = default;
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  // The list of this object's notifiees. Registering on a constant object is
  // allowed: observing does not change what is observed.
  virtual NotifieeList* notifieeList() const { return &notifiees_; }
  // Notification active: for a notifier it is advisory; for a notifiee it
  // decides whether notifications are delivered to it.
  virtual void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
  // Called with true when the last reference goes, just before destruction.
  virtual void zeroReferencesIs(bool) {}
  // The object's registered type; (null, 0) for unregistered types.
  virtual FwkType fwkType() const { return {}; }
  virtual ~PtrInterface();
  // Marks (true) or unmarks the object and its reactors as about to be
  // destroyed. A marked reactor ignores every notification.
  virtual void zovDoZombieReactors(bool zombie) { zovMarkedForDeletionIs(zombie); }

  bool hasNotificationActive() const { return notificationActive_; }
  bool zovMarkedForDeletion() const { return markedForDeletion_; }
  void zovMarkedForDeletionIs(bool marked) { markedForDeletion_ = marked; }

  std::uint32_t references() const { return refs_.load(std::memory_order_relaxed); }
  void newRef() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void deleteRef() const noexcept {
    std::uint32_t left;
    if (VFPtrInterface::threadSafePointers_) {
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) handleZeroRef();
  }

  // Raw memory for framework objects; `zovMemFree` takes the size given.
  static void* zovMemAlloc(std::size_t size);
  static void zovMemFree(void* p, std::size_t size) noexcept;

 protected:
  // Destroys the object; called when the count reaches zero.
  void handleZeroRef() const noexcept;

 private:
  // Ordered so that the object is 24 bytes and a derived class may place up
  // to two bytes of its own in the last word.
  mutable NotifieeList notifiees_;
  mutable std::atomic<std::uint32_t> refs_{0};
  bool notificationActive_ = false;
  bool markedForDeletion_ = false;
};

// A notifiee ("reactor"): attached to one notifier, whose notifications reach
// `onAttribute`. It holds a counted reference to its notifier, so a reactor
// keeps what it watches alive.
//
// It is in the notifier's list while it is registered and has a notifier; it
// receives notifications while, in addition, its notification is active.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
  NotifieeConst() = default;
  ~NotifieeConst() override;

  // Attaches to `notifier` (null detaches), keeping the registration state.
  void notifierIs(const PtrInterface* notifier);
  const PtrInterface* notifier() const { return notifier_.ptr(); }

  void isRegisteredNotifieeIs(bool registered);
  bool isRegisteredNotifiee() const { return registered_; }

  virtual void onZeroReferences() {}
  // A change of attribute `id` of the notifier; `key` as in `NotifieeList::visit`.
  virtual void onAttribute(AttributeId, const void*) {}

 private:
  void link();
  void unlink();

  // The flags first: they fit in the base's last word.
  bool registered_ = false;
  bool linked_ = false;
  Ptr<const PtrInterface> notifier_;
};

// ---------------------------------------------------------------------------
// Strings.

// An immutable counted text with a byte length. Copies share the data, so
// passing a `String` by value costs one count update. The empty string holds
// no data.
class String {
 public:
  String() noexcept = default;
  String(const char* text) : String(std::string_view(text)) {}
  String(const char* text, unsigned bytes) : String(std::string_view(text, bytes)) {}
  String(std::string_view text);
  String(const std::string& text) : String(std::string_view(text)) {}

  std::string_view view() const noexcept {
    return data_ ? std::string_view(*data_) : std::string_view();
  }
  const char* data() const noexcept { return data_ ? data_->data() : ""; }
  unsigned bytes() const noexcept { return data_ ? static_cast<unsigned>(data_->size()) : 0; }
  bool empty() const noexcept { return bytes() == 0; }
  std::string str() const { return std::string(view()); }
  // Whether two strings share their data (rather than merely being equal).
  bool sharesDataWith(const String& o) const noexcept { return data_ == o.data_; }

  friend bool operator==(const String& a, const String& b) noexcept {
    return a.data_ == b.data_ || a.view() == b.view();
  }
  friend auto operator<=>(const String& a, const String& b) noexcept {
    return a.view() <=> b.view();
  }

 private:
  std::shared_ptr<const std::string> data_;
};

// A string of at most `MaxLength` bytes. Making a longer one raises
// `RangeException` with the text "Zov::String::bytes > maxLength() not allowed".
template <unsigned MaxLength>
class BoundedString : public String {
 public:
  static constexpr unsigned maxLength() { return MaxLength; }
  BoundedString() = default;
  BoundedString(const String& s) : String(checked(s)) {}
  BoundedString(const char* text) : BoundedString(String(text)) {}
  BoundedString(std::string_view text) : BoundedString(String(text)) {}
  BoundedString(const std::string& text) : BoundedString(String(text)) {}

 private:
  static const String& checked(const String& s) {
    if (s.bytes() > MaxLength) {
      throwRangeException("Zov::String::bytes > maxLength() not allowed", s.view(), MaxLength);
    }
    return s;
  }
};

// ---------------------------------------------------------------------------
// Hashing.

struct HashHelper {
  // The process-wide hash seed, chosen once per process.
  static std::uint32_t hashSeed32();
  // Mixes the bits of a hash so that the low bits select buckets well.
  static std::uint64_t rehash(std::uint64_t h) noexcept {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return h;
  }
};

// Hash of one attribute value under a seed.
inline std::uint64_t hashSingleAttr(unsigned seed, unsigned long long value) noexcept {
  return HashHelper::rehash(value ^ (static_cast<std::uint64_t>(seed) * 0x9e3779b97f4a7c15ULL));
}
std::uint64_t hashSingleAttr(unsigned seed, std::string_view text) noexcept;
inline std::uint64_t hashSingleAttr(unsigned seed, const String& text) noexcept {
  return hashSingleAttr(seed, text.view());
}

// ---------------------------------------------------------------------------
// Entities.

// A named counted object with a parent. The parent link is plain: a parent
// holds its children, never the reverse.
class Entity : public PtrInterface {
 public:
  explicit Entity(const String& name) : name_(name) {}

  virtual const String& name() const { return name_; }
  Entity* parent() const { return parent_; }
  void parentIs(Entity* parent) { parent_ = parent; }
  // Told when the entity is placed under a parent; does nothing by default.
  virtual void handleParent(const Ptr<Entity>&) {}

 private:
  String name_;
  Entity* parent_ = nullptr;
};

// ---------------------------------------------------------------------------
// Allocation records.

// Live objects and bytes of one type. Types that allocate through their
// record (see `ZOV_TRACKED_ALLOCATION`) keep exact counts, so tests can prove
// that a teardown leaves nothing behind.
class AllocTrackTypeInfo {
 public:
  explicit AllocTrackTypeInfo(const char* typeName);
  ~AllocTrackTypeInfo();
  AllocTrackTypeInfo(const AllocTrackTypeInfo&) = delete;
  AllocTrackTypeInfo& operator=(const AllocTrackTypeInfo&) = delete;

  const char* typeName() const { return typeName_; }
  std::uint64_t liveObjects() const { return liveObjects_; }
  std::uint64_t liveBytes() const { return liveBytes_; }
  std::uint64_t totalAllocations() const { return totalAllocations_; }

  static void trackAllocation(AllocTrackTypeInfo& record, std::size_t size) noexcept {
    ++record.liveObjects_;
    ++record.totalAllocations_;
    record.liveBytes_ += size;
  }
  static void trackDeallocation(AllocTrackTypeInfo& record, std::size_t size) noexcept {
    --record.liveObjects_;
    record.liveBytes_ -= size;
  }

  // The record of the type with this name, or null.
  static const AllocTrackTypeInfo* find(std::string_view typeName);
  // Every record that exists now, in order of creation.
  static std::vector<const AllocTrackTypeInfo*> all();

 private:
  const char* typeName_;
  std::uint64_t liveObjects_ = 0;
  std::uint64_t liveBytes_ = 0;
  std::uint64_t totalAllocations_ = 0;
};

}  // namespace Zov

// Gives a class its own allocation record and makes `new` and `delete` of it
// go through the record and `PtrInterface::zovMemAlloc`. Place it inside the
// class body; `record` is the name under which the record is found.
#define ZOV_TRACKED_ALLOCATION(record)                                      \
 public:                                                                    \
  static Zov::AllocTrackTypeInfo& allocTrackTypeInfo() {                    \
    static Zov::AllocTrackTypeInfo info(record);                            \
    return info;                                                            \
  }                                                                         \
  static void* operator new(std::size_t size) {                             \
    void* p = Zov::PtrInterface::zovMemAlloc(size);                         \
    Zov::AllocTrackTypeInfo::trackAllocation(allocTrackTypeInfo(), size);   \
    return p;                                                               \
  }                                                                         \
  static void operator delete(void* p, std::size_t size) noexcept {         \
    Zov::AllocTrackTypeInfo::trackDeallocation(allocTrackTypeInfo(), size); \
    Zov::PtrInterface::zovMemFree(p, size);                                 \
  }                                                                         \
                                                                            \
 private:

#include "platform/ZovCheck.h"
#include "platform/ZovCollections.h"
#include "platform/ZovGeneric.h"
#include "platform/ZovModule.h"
#include "platform/ZovTrace.h"

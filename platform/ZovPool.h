// The memory behind `PtrInterface::zovMemAlloc`: small framework objects come
// from slabs, one set of slabs per size class, instead of one heap block each.
//
// A state machine makes and drops thousands of small objects of a few sizes
// at once (watchers, reactors). From a slab, an allocation is a pop from a free
// list or a bump of a pointer, with no header per object, and freeing is a
// push; a slab whose objects are all free goes back to the heap, unless it is
// the one its class allocates from next.
//
// Usage:
//
//   Zov::SlabPool pool;
//   void* p = pool.allocate(48);
//   pool.deallocate(p, 48);      // the size given at allocation
//
// Sizes up to `kMaxSize` are pooled, rounded up to a multiple of 8, and their
// blocks are aligned to 8 bytes only: a type that needs more must not be
// allocated here. Larger sizes go to `operator new`. A pool must outlive every block it handed out
// (the process-wide pool is never destroyed).
//
// Threading: not thread-safe; `zovMemAlloc` locks around it while counted
// objects may be dropped on other threads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Zov {

class SlabPool {
 public:
  static constexpr std::size_t kMaxSize = 256;
  static constexpr std::size_t kSlabBytes = 16 * 1024;

  SlabPool() = default;
  SlabPool(const SlabPool&) = delete;
  SlabPool& operator=(const SlabPool&) = delete;
  // Returns every slab to the heap; blocks still handed out become invalid.
  ~SlabPool();

  void* allocate(std::size_t size);
  void deallocate(void* p, std::size_t size) noexcept;

  // Slabs held now, over all size classes.
  std::size_t slabs() const { return slabs_; }

 private:
  struct Slab;
  struct FreeBlock {
    FreeBlock* next;
  };
  // The slabs of one size class, in a list in which every slab with room
  // comes before every full one, so allocations look at the head only.
  struct SizeClass {
    Slab* head = nullptr;
    Slab* tail = nullptr;
  };
  static constexpr std::size_t kClasses = kMaxSize / 8;

  void* allocateFromNewSlab(SizeClass& sizeClass, std::size_t blockBytes);
  void releaseSlab(SizeClass& sizeClass, Slab* slab) noexcept;
  static void prepend(SizeClass& sizeClass, Slab* slab) noexcept;
  static void append(SizeClass& sizeClass, Slab* slab) noexcept;
  static void unlink(SizeClass& sizeClass, Slab* slab) noexcept;

  SizeClass classes_[kClasses];
  std::size_t slabs_ = 0;
};

}  // namespace Zov

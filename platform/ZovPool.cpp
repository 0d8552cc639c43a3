// Reference implementation of the framework's slab pool.
#include "platform/ZovPool.h"

#include <cstdlib>
#include <new>

namespace Zov {

// A slab is `kSlabBytes` aligned to its own size, so a block finds its slab by
// masking its address. The header comes first, then the blocks.
struct SlabPool::Slab {
  Slab* prev;
  Slab* next;
  FreeBlock* free;  // blocks given back
  char* bump;       // the first block never handed out
  char* end;
  std::uint32_t live;
  std::uint32_t blockBytes;

  bool hasRoom() const { return free || bump + blockBytes <= end; }
  static Slab* of(void* block) {
    return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(block) & ~(kSlabBytes - 1));
  }
};

SlabPool::~SlabPool() {
  for (SizeClass& sizeClass : classes_) {
    for (Slab* slab = sizeClass.head; slab;) {
      Slab* next = slab->next;
      std::free(slab);
      slab = next;
    }
  }
}

void* SlabPool::allocate(std::size_t size) {
  if (size == 0 || size > kMaxSize) return ::operator new(size);
  SizeClass& sizeClass = classes_[(size - 1) / 8];
  Slab* slab = sizeClass.head;
  if (!slab || !slab->hasRoom()) return allocateFromNewSlab(sizeClass, (size + 7) / 8 * 8);
  void* block;
  if (slab->free) {
    block = slab->free;
    slab->free = slab->free->next;
  } else {
    block = slab->bump;
    slab->bump += slab->blockBytes;
  }
  ++slab->live;
  // A slab that fills up moves behind every slab that still has room.
  if (!slab->hasRoom() && slab->next) {
    unlink(sizeClass, slab);
    append(sizeClass, slab);
  }
  return block;
}

void* SlabPool::allocateFromNewSlab(SizeClass& sizeClass, std::size_t blockBytes) {
  constexpr std::size_t kHeaderBytes = (sizeof(Slab) + 15) / 16 * 16;
  // Each size class starts its blocks at another cache line of the first
  // page, so that objects of different classes that are used together (a
  // watcher, its reactor, the entity they watch) do not sit at the same
  // offset of their pages, which makes a load wait on an unrelated store.
  const std::size_t colour = (static_cast<std::size_t>(&sizeClass - classes_) * 5 % 32) * 64;
  void* memory = std::aligned_alloc(kSlabBytes, kSlabBytes);
  if (!memory) throw std::bad_alloc();
  auto* slab = static_cast<Slab*>(memory);
  char* first = static_cast<char*>(memory) + kHeaderBytes + colour;
  *slab = Slab{nullptr,
               nullptr,
               nullptr,
               first + blockBytes,
               static_cast<char*>(memory) + kSlabBytes,
               1,
               static_cast<std::uint32_t>(blockBytes)};
  prepend(sizeClass, slab);
  ++slabs_;
  return first;
}

void SlabPool::deallocate(void* p, std::size_t size) noexcept {
  if (!p) return;
  if (size == 0 || size > kMaxSize) {
    ::operator delete(p, size);
    return;
  }
  SizeClass& sizeClass = classes_[(size - 1) / 8];
  Slab* slab = Slab::of(p);
  const bool hadRoom = slab->hasRoom();
  auto* block = static_cast<FreeBlock*>(p);
  block->next = slab->free;
  slab->free = block;
  --slab->live;
  if (slab->live == 0 && slab != sizeClass.head) {
    releaseSlab(sizeClass, slab);
  } else if (!hadRoom) {
    // Room again: it goes where allocations look first, in place of an empty
    // head, so that the only empty slab a class keeps is its head.
    Slab* head = sizeClass.head;
    if (head != slab && head->live == 0) releaseSlab(sizeClass, head);
    unlink(sizeClass, slab);
    prepend(sizeClass, slab);
  }
}

void SlabPool::releaseSlab(SizeClass& sizeClass, Slab* slab) noexcept {
  unlink(sizeClass, slab);
  std::free(slab);
  --slabs_;
}

void SlabPool::prepend(SizeClass& sizeClass, Slab* slab) noexcept {
  slab->prev = nullptr;
  slab->next = sizeClass.head;
  if (sizeClass.head) sizeClass.head->prev = slab;
  sizeClass.head = slab;
  if (!sizeClass.tail) sizeClass.tail = slab;
}

void SlabPool::append(SizeClass& sizeClass, Slab* slab) noexcept {
  slab->next = nullptr;
  slab->prev = sizeClass.tail;
  if (sizeClass.tail) sizeClass.tail->next = slab;
  sizeClass.tail = slab;
  if (!sizeClass.head) sizeClass.head = slab;
}

void SlabPool::unlink(SizeClass& sizeClass, Slab* slab) noexcept {
  (slab->prev ? slab->prev->next : sizeClass.head) = slab->next;
  (slab->next ? slab->next->prev : sizeClass.tail) = slab->prev;
  slab->prev = slab->next = nullptr;
}

}  // namespace Zov

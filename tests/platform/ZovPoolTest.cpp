// The slab pool behind the framework's counted objects: blocks apart and kept,
// room reused before a slab is added, empty slabs returned, and sizes past
// the largest class left to the heap.
#include "platform/ZovPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

namespace {

// Blocks per slab for 48-byte objects, at most.
constexpr std::size_t kPerSlab = Zov::SlabPool::kSlabBytes / 48;

TEST(SlabPoolTest, BlocksAreDistinctAlignedAndKeepTheirBytes) {
  Zov::SlabPool pool;
  std::vector<unsigned char*> blocks;
  for (std::size_t i = 0; i < 3 * kPerSlab; ++i) {
    auto* p = static_cast<unsigned char*>(pool.allocate(41 + i % 8));  // one class: 48 bytes
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 8, 0u);
    std::memset(p, static_cast<int>(i), 48);
    blocks.push_back(p);
  }
  EXPECT_EQ(std::set<unsigned char*>(blocks.begin(), blocks.end()).size(), blocks.size());
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    ASSERT_EQ(blocks[i][0], static_cast<unsigned char>(i));
    ASSERT_EQ(blocks[i][47], static_cast<unsigned char>(i));
  }
  EXPECT_GE(pool.slabs(), 3u);
  EXPECT_LE(pool.slabs(), 4u);
  for (std::size_t i = 0; i < blocks.size(); ++i) pool.deallocate(blocks[i], 41 + i % 8);
  // Empty slabs go back to the heap, but for the one allocations look at first.
  EXPECT_EQ(pool.slabs(), 1u);
}

TEST(SlabPoolTest, FreedRoomIsUsedBeforeANewSlab) {
  Zov::SlabPool pool;
  std::vector<void*> blocks;
  while (pool.slabs() < 2) blocks.push_back(pool.allocate(48));
  const std::size_t perSlab = blocks.size() - 1;
  // The first slab is full; a block freed there is the next one handed out.
  pool.deallocate(blocks[0], 48);
  EXPECT_EQ(pool.allocate(48), blocks[0]);
  // The second slab fills up before a third is made.
  for (std::size_t i = 1; i < perSlab; ++i) blocks.push_back(pool.allocate(48));
  EXPECT_EQ(pool.slabs(), 2u);
  for (void* p : blocks) pool.deallocate(p, 48);
  EXPECT_EQ(pool.slabs(), 1u);
}

TEST(SlabPoolTest, SizeClassesAreSeparateAndLargeBlocksBypassThePool) {
  Zov::SlabPool pool;
  void* small = pool.allocate(8);
  void* medium = pool.allocate(256);
  EXPECT_EQ(pool.slabs(), 2u);
  void* large = pool.allocate(257);
  EXPECT_EQ(pool.slabs(), 2u);
  std::memset(large, 0, 257);
  pool.deallocate(large, 257);
  pool.deallocate(medium, 256);
  pool.deallocate(small, 8);
  // A freed block is the next one handed out in its class.
  EXPECT_EQ(pool.allocate(5), small);
  pool.deallocate(small, 5);
}

}  // namespace

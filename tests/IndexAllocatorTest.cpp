// Index allocators: seeded random runs against a reference set, exhaustion, and the fatal frees.

#include "VexloL3Common/IndexAllocator.h"

#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {
namespace {

// The lowest index of [first, last] that is neither allocated nor reserved.
std::optional<uint32_t> lowestFree(uint32_t first, uint32_t last, const std::set<uint32_t>& used,
                                   const std::set<uint32_t>& reserved) {
   for (uint64_t i = first; i <= last; ++i) {
      if (!used.count(uint32_t(i)) && !reserved.count(uint32_t(i))) return uint32_t(i);
   }
   return std::nullopt;
}

TEST(IndexAllocatorTest, RandomAllocateFreeAndClaimMatchReferenceSet) {
   for (uint32_t seed : {1u, 2u, 3u, 4u, 5u}) {
      std::mt19937 rng(seed);
      // Ranges that end on, before and after a 64-bit word boundary, some near the top of u32.
      const uint32_t first = seed % 2 ? 100 : 0xFFFFFFFFu - 700;
      const uint32_t last = first + 300 + 64 * seed + seed;
      std::set<uint32_t> reserved;
      for (int i = 0; i < 20; ++i)
         reserved.insert(first + rng() % (last - first + 1));
      IndexAllocator a("pool", first, last,
                       std::vector<uint32_t>(reserved.begin(), reserved.end()));
      ASSERT_EQ(a.capacity(), last - first + 1 - reserved.size());

      std::set<uint32_t> used;
      uint64_t misses = 0;
      for (int step = 0; step < 4000; ++step) {
         const unsigned op = rng() % 10;
         // Phases of growth and shrinkage, so the pool fills up and drains again.
         const bool growing = (step / 500) % 2 == 0;
         if (op < (growing ? 7u : 3u)) {
            const auto expected = lowestFree(first, last, used, reserved);
            const auto got = a.allocate();
            ASSERT_EQ(got, expected) << "seed " << seed << " step " << step;
            if (got)
               used.insert(*got);
            else
               ++misses;
         } else if (op < 9 && !used.empty()) {
            auto it = std::next(used.begin(), rng() % used.size());
            a.free(*it);
            used.erase(it);
         } else {
            const uint32_t i = first + rng() % (last - first + 1);
            if (reserved.count(i)) continue;
            ASSERT_EQ(a.claim(i), !used.count(i)) << "seed " << seed << " step " << step;
            used.insert(i);
         }
         ASSERT_EQ(a.numAllocated(), used.size());
         ASSERT_EQ(a.numFree(), a.capacity() - used.size());
      }
      EXPECT_GT(misses, 0u) << "the run never reached exhaustion";
      EXPECT_EQ(a.exhaustedCount(), misses);
      for (uint64_t i = first; i <= last; ++i) {
         ASSERT_EQ(a.isAllocated(uint32_t(i)), used.count(uint32_t(i)) == 1) << i;
      }
   }
}

TEST(IndexAllocatorTest, ExhaustionIsSoftCountedAndTraced) {
   IndexAllocator a("small", 5, 8, {6});
   Ulo::ScopedTraceCapture cap("IndexAllocator");
   EXPECT_EQ(a.allocate(), 5u);
   EXPECT_EQ(a.allocate(), 7u);
   EXPECT_EQ(a.allocate(), 8u);
   EXPECT_EQ(a.allocate(), std::nullopt);
   EXPECT_EQ(a.allocate(), std::nullopt);
   EXPECT_EQ(a.exhaustedCount(), 2u);
   EXPECT_EQ(cap.texts().front(), "allocate small exhausted, capacity: 3");
   a.free(7);
   EXPECT_EQ(a.allocate(), 7u);
   EXPECT_FALSE(a.isAllocated(6));
}

TEST(IndexAllocatorTest, FreeOfAnIndexNotAllocatedIsFatal) {
   IndexAllocator a("pool", 10, 20, {12});
   a.claim(11);
   a.free(11);
   Ulo::ScopedThrowingAssertHandler guard;
   struct Case {
      uint32_t index;
      const char* text;
      const char* message;
   };
   for (const Case& c :
        {Case{11, "freed index allocated", "pool: free of 11, which is not allocated"},
         Case{12, "freed index not reserved", "pool: free of reserved index 12"},
         Case{21, "freed index inside the range", "pool: free of 21 outside 10-20"},
         Case{9, "freed index inside the range", "pool: free of 9 outside 10-20"}}) {
      try {
         a.free(c.index);
         FAIL() << "no assertion for " << c.index;
      } catch (const Ulo::AssertionFailure& e) {
         EXPECT_EQ(e.text, c.text);
         EXPECT_EQ(e.message, c.message);
      }
   }
   EXPECT_EQ(a.numAllocated(), 0u);
}

TEST(IndexAllocatorTest, BadConstructionAndClaimsAreFatal) {
   Ulo::ScopedThrowingAssertHandler guard;
   EXPECT_THROW(IndexAllocator("p", 9, 8), Ulo::AssertionFailure);
   EXPECT_THROW(IndexAllocator("p", 0, 0xFFFFFFFFu), Ulo::AssertionFailure);
   EXPECT_THROW(IndexAllocator("p", 1, 8, {0}), Ulo::AssertionFailure);
   IndexAllocator a("p", 1, 8, {3});
   EXPECT_THROW(a.claim(3), Ulo::AssertionFailure);
   EXPECT_THROW(a.claim(9), Ulo::AssertionFailure);
   EXPECT_TRUE(a.claim(8));
   EXPECT_FALSE(a.claim(8));
}

TEST(IndexAllocatorTest, ChipAllocatorsNeverHandOutNoneOrFixedEntries) {
   auto nh = nextHopRemapAllocatorFactory();
   EXPECT_EQ(nh->name(), "nextHopRemap");
   EXPECT_TRUE(nh->isReserved(nextHopRemapDropIndex));
   EXPECT_TRUE(nh->isReserved(nextHopRemapCpuIndex));
   EXPECT_EQ(nh->allocate(), 3u);
   EXPECT_EQ(nh->capacity(), 16381u);

   auto vp = vxlanVirtualPortAllocatorFactory();
   EXPECT_EQ(vp->allocate(), 1u);
   EXPECT_LT(vp->last(), 0xFFFFu);  // 0xFFFF means "assigned, no port yet"
   EXPECT_EQ(ecmpMemberAllocatorFactory()->allocate(), 1u);
}

}  // namespace
}  // namespace VexloL3Common

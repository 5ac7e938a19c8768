// Index allocators: seeded random runs against a reference set, exhaustion, and the fatal misuses.

#include "VexloL3Common/common/IndexAllocator.h"

#include <gtest/gtest.h>

#include <functional>
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

TEST(IndexAllocatorTest, RandomAllocateFreeAndClaimMatchReferenceSet) {
   for (uint32_t seed : {1u, 2u, 3u, 4u, 5u}) {
      std::mt19937 rng(seed);
      // Ranges that end on, before and after a 64-bit word boundary, some near the top of u32.
      const uint32_t first = seed % 2 ? 100 : 0xFFFFFFFFu - 700;
      const uint32_t last = first + 300 + 64 * seed + seed;
      std::set<uint32_t> reserved, used;
      for (int i = 0; i < 20; ++i)
         reserved.insert(first + rng() % (last - first + 1));
      IndexAllocator a("pool", first, last,
                       std::vector<uint32_t>(reserved.begin(), reserved.end()));
      ASSERT_EQ(a.capacity(), last - first + 1 - reserved.size());
      uint64_t misses = 0;
      for (int step = 0; step < 4000; ++step) {
         const unsigned op = rng() % 10;
         // Phases of growth and shrinkage, so the pool fills up and drains again.
         if (op < ((step / 500) % 2 == 0 ? 7u : 3u)) {
            std::optional<uint32_t> lowest;  // neither allocated nor reserved
            for (uint64_t i = first; i <= last && !lowest; ++i) {
               if (!used.count(uint32_t(i)) && !reserved.count(uint32_t(i))) lowest = uint32_t(i);
            }
            const auto got = a.allocate();
            ASSERT_EQ(got, lowest) << "seed " << seed << " step " << step;
            got ? void(used.insert(*got)) : void(++misses);
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
      for (uint64_t i = first; i <= last; ++i)
         ASSERT_EQ(a.isAllocated(uint32_t(i)), used.count(uint32_t(i)) == 1) << i;
   }
}

TEST(IndexAllocatorTest, ExhaustionIsSoftCountedAndTraced) {
   IndexAllocator a("small", 5, 8, {6});
   Ulo::ScopedTraceCapture cap("IndexAllocator");
   for (uint32_t expected : {5u, 7u, 8u})
      EXPECT_EQ(a.allocate(), expected);
   EXPECT_EQ(a.allocate(), std::nullopt);
   EXPECT_EQ(a.allocate(), std::nullopt);
   EXPECT_EQ(a.exhaustedCount(), 2u);
   EXPECT_EQ(cap.texts().front(), "allocate small exhausted, capacity: 3");
}

// "text | message" of the assertion f fails, or "no assertion".
std::string fatal(const std::function<void()>& f) {
   Ulo::ScopedThrowingAssertHandler guard;
   try {
      f();
   } catch (const Ulo::AssertionFailure& e) {
      return e.text + " | " + e.message;
   }
   return "no assertion";
}

TEST(IndexAllocatorTest, BadConstructionClaimsAndFreesAreFatal) {
   IndexAllocator a("pool", 10, 20, {12});
   EXPECT_TRUE(a.claim(11));
   EXPECT_FALSE(a.claim(11));
   a.free(11);
   EXPECT_EQ(fatal([&] { a.free(11); }),
             "freed index allocated | pool: free of 11, which is not allocated");
   EXPECT_EQ(fatal([&] { a.free(12); }),
             "freed index not reserved | pool: free of reserved index 12");
   EXPECT_EQ(fatal([&] { a.free(21); }),
             "freed index inside the range | pool: free of 21 outside 10-20");
   EXPECT_EQ(fatal([&] { a.free(9); }),
             "freed index inside the range | pool: free of 9 outside 10-20");
   EXPECT_EQ(fatal([&] { a.claim(12); }),
             "claimed index not reserved | pool: claim of reserved index 12");
   EXPECT_EQ(fatal([&] { a.claim(21); }),
             "claimed index inside the range | pool: claim of 21 outside 10-20");
   EXPECT_EQ(a.numAllocated(), 0u);
   EXPECT_EQ(fatal([] { IndexAllocator("p", 9, 8); }), "first <= last | p: range 9-8");
   EXPECT_EQ(fatal([] { IndexAllocator("p", 0, 0xFFFFFFFFu); }),
             "last - first < HBitmap::npos | p");
   EXPECT_EQ(fatal([] { IndexAllocator("p", 1, 8, {0}); }),
             "reserved index inside the range | p: reserved 0 outside 1-8");
}

TEST(IndexAllocatorTest, ChipAllocatorsNeverHandOutNoneOrFixedEntries) {
   auto nh = nextHopRemapAllocatorFactory();
   EXPECT_EQ(nh->name(), "nextHopRemap");
   EXPECT_TRUE(nh->isReserved(nextHopRemapDropIndex) && nh->isReserved(nextHopRemapCpuIndex));
   EXPECT_EQ(nh->allocate(), 3u);
   EXPECT_EQ(nh->capacity(), 16381u);
   auto vp = vxlanVirtualPortAllocatorFactory();
   EXPECT_EQ(vp->allocate(), 1u);
   EXPECT_LT(vp->last(), 0xFFFFu);  // 0xFFFF means "assigned, no port yet"
   EXPECT_EQ(ecmpMemberAllocatorFactory()->allocate(), 1u);
}

}  // namespace
}  // namespace VexloL3Common

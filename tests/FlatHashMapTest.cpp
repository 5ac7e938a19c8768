// FlatHashMap: seeded random operation sequences against std::unordered_map, and hand-built probe
// runs that make backward-shift deletion cross the end of the slot array.

#include "VexloL3Common/internal/FlatHashMap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace VexloL3Common::internal {
namespace {

template <class Map, class Ref>
void expectSameContents(const Map& map, const Ref& ref) {
   ASSERT_EQ(map.size(), ref.size());
   size_t visited = 0;
   for (const auto& slot : map) {
      auto it = ref.find(slot.key);
      ASSERT_NE(it, ref.end());
      EXPECT_EQ(slot.value, it->second);
      ++visited;
   }
   EXPECT_EQ(visited, ref.size());
   for (const auto& [k, v] : ref) {
      const auto* found = map.find(k);
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(*found, v);
   }
}

// Random inserts, overwrites, lookups and erases over a key universe small enough that most
// operations hit existing keys and long probe runs form, checked against std::unordered_map after
// every step.
TEST(FlatHashMapTest, RandomOperationsMatchUnorderedMap) {
   for (uint32_t seed : {1u, 2u, 3u, 4u}) {
      SCOPED_TRACE(seed);
      std::mt19937 rng(seed);
      const uint32_t universe = 64u << (seed % 4);  // 64 .. 512 keys
      FlatHashMap<uint64_t, std::string> map;
      std::unordered_map<uint64_t, std::string> ref;
      for (int step = 0; step < 20000; ++step) {
         const uint64_t key = rng() % universe;
         const unsigned op = rng() % 10;
         if (op < 5) {
            const std::string value = std::to_string(rng());
            auto [v, created] = map.tryEmplace(key, value);
            auto [it, refCreated] = ref.try_emplace(key, value);
            ASSERT_EQ(created, refCreated);
            ASSERT_EQ(*v, it->second);
            if (op == 0) {
               *v = "overwritten";
               it->second = "overwritten";
            }
         } else if (op < 8) {
            ASSERT_EQ(map.erase(key), ref.erase(key) == 1);
         } else {
            const std::string* v = map.find(key);
            auto it = ref.find(key);
            ASSERT_EQ(v ? *v : "absent", it != ref.end() ? it->second : "absent");
         }
         ASSERT_EQ(map.size(), ref.size());
         if (step % 97 == 0) {
            ASSERT_TRUE(map.valid());
            expectSameContents(map, ref);
         }
      }
      ASSERT_TRUE(map.valid());
      expectSameContents(map, ref);
   }
}

// Keys for a table of 16 slots chosen by their home slot.
std::vector<uint64_t> keysWithHome(const FlatHashMap<uint64_t, int>& map, size_t home, size_t n,
                                   uint64_t& next) {
   std::vector<uint64_t> out;
   for (; out.size() < n; ++next) {
      if (map.homeSlot(next) == home) out.push_back(next);
   }
   return out;
}

// A probe run that starts at the last slots and wraps to the front: erasing at its head must pull
// the wrapped entries back across the end of the array, and an entry whose home is slot 0 must
// not be moved in front of its home.
TEST(FlatHashMapTest, BackwardShiftCrossesTheWrapAround) {
   FlatHashMap<uint64_t, int> map;
   map.reserve(8);
   ASSERT_EQ(map.capacity(), 16u);
   uint64_t next = 1;
   const auto at14 = keysWithHome(map, 14, 2, next);
   const auto at15 = keysWithHome(map, 15, 2, next);
   const uint64_t a = at14[0], b = at14[1], c = at15[0], d = at15[1];
   const uint64_t e = keysWithHome(map, 0, 1, next)[0];
   const auto slots = [&](std::vector<uint64_t> keys) {
      std::vector<size_t> out;
      for (uint64_t k : keys)
         out.push_back(map.slotOf(k));
      return out;
   };
   using Slots = std::vector<size_t>;
   // Slots: 14:a 15:b 0:c 1:d 2:e (a, b home 14; c, d home 15; e home 0).
   for (uint64_t k : {a, b, c, d, e})
      map.tryEmplace(k, int(k));
   ASSERT_EQ(slots({b, c, d, e}), (Slots{15, 0, 1, 2}));
   ASSERT_TRUE(map.erase(a));
   EXPECT_TRUE(map.valid());
   EXPECT_EQ(slots({b, c, d, e}), (Slots{14, 15, 0, 1})) << "c back across the end";
   // Erasing the entry at slot 15 pulls d (home 15) back to 15; e (home 0) may move to 0 only.
   ASSERT_TRUE(map.erase(c));
   EXPECT_TRUE(map.valid());
   EXPECT_EQ(slots({d, e}), (Slots{15, 0}));
   // Erasing slot 14 may not pull d or e in front of their homes.
   ASSERT_TRUE(map.erase(b));
   EXPECT_TRUE(map.valid());
   EXPECT_EQ(slots({d, e}), (Slots{15, 0}));
   for (uint64_t k : {d, e}) {
      ASSERT_NE(map.find(k), nullptr);
      EXPECT_EQ(*map.find(k), int(k));
   }
   EXPECT_EQ(map.find(a), nullptr);
   EXPECT_EQ(map.size(), 2u);
}

TEST(FlatHashMapTest, GrowsBeforeSevenTenthsAndNotAfterClearOrReserve) {
   FlatHashMap<uint64_t, uint64_t> map;
   EXPECT_EQ(map.capacity(), 0u);
   EXPECT_EQ(map.find(3), nullptr);
   EXPECT_FALSE(map.erase(3));
   for (uint64_t k = 0; k < 1000; ++k) {
      map.tryEmplace(k, k * 2);
      ASSERT_LE(map.size() * 10, map.capacity() * 7) << k;
   }
   EXPECT_EQ(map.capacity(), 2048u);
   EXPECT_EQ(map.memoryBytes(), 2048u * (sizeof(FlatMapSlot<uint64_t, uint64_t>) + 1));
   auto [v, created] = map.tryEmplace(10, 0);
   EXPECT_FALSE(created);
   EXPECT_EQ(*v, 20u);

   map.clear();
   EXPECT_TRUE(map.empty());
   EXPECT_EQ(map.capacity(), 2048u);
   EXPECT_EQ(map.find(10), nullptr);
   EXPECT_EQ(map.begin(), map.end());
   // A cleared table is reused without growing.
   for (uint64_t k = 0; k < 1000; ++k)
      map.tryEmplace(k + 5000, k);
   EXPECT_EQ(map.capacity(), 2048u);
   EXPECT_TRUE(map.valid());
   // Reserving for the working size means no growth later.
   FlatHashMap<uint64_t, int> big;
   big.reserve(28000);
   const size_t cap = big.capacity();
   for (uint64_t k = 0; k < 28000; ++k)
      big.tryEmplace(k, 1);
   EXPECT_EQ(big.capacity(), cap);
}

}  // namespace
}  // namespace VexloL3Common::internal

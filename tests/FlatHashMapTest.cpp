// FlatHashMap: seeded random operation sequences against std::unordered_map (small key universes,
// so that long probe runs form and backward-shift deletion often crosses the end of the slot
// array), and the growth policy.

#include "VexloL3Common/internal/FlatHashMap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <unordered_map>

namespace VexloL3Common::internal {
namespace {

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
         const uint64_t key = rng() % universe, op = rng() % 10;
         if (op < 5) {
            const std::string value = std::to_string(rng());
            auto [v, created] = map.tryEmplace(key, value);
            auto [it, refCreated] = ref.try_emplace(key, value);
            ASSERT_EQ(created, refCreated);
            ASSERT_EQ(*v, it->second);
            if (op == 0) *v = it->second = "overwritten";
         } else if (op < 8) {
            ASSERT_EQ(map.erase(key), ref.erase(key) == 1);
         } else {
            ASSERT_EQ(map.find(key) ? *map.find(key) : "absent",
                      ref.count(key) ? ref.at(key) : "absent");
         }
         ASSERT_EQ(map.size(), ref.size());
         if (step % 97 == 0 || step + 1 == 20000) {
            ASSERT_TRUE(map.valid());
            // Iteration visits every entry exactly once, and find agrees on every key.
            std::multimap<uint64_t, std::string> seen, want(ref.begin(), ref.end());
            for (const auto& slot : map)
               seen.emplace(slot.key, slot.value);
            ASSERT_EQ(seen, want);
            for (const auto& [k, v] : ref)
               ASSERT_EQ(map.find(k) ? *map.find(k) : "absent", v) << k;
         }
      }
   }
}

TEST(FlatHashMapTest, GrowsBeforeSevenTenthsAndNotAfterClearOrReserve) {
   FlatHashMap<uint64_t, uint64_t> map;
   EXPECT_EQ(map.capacity(), 0u);
   for (uint64_t k = 0; k < 1000; ++k) {
      map.tryEmplace(k, k * 2);
      ASSERT_LE(map.size() * 10, map.capacity() * 7) << k;
   }
   EXPECT_EQ(map.capacity(), 2048u);
   EXPECT_EQ(map.memoryBytes(), 2048u * (sizeof(FlatMapSlot<uint64_t, uint64_t>) + 1));

   map.clear();
   EXPECT_TRUE(map.empty());
   EXPECT_EQ(map.capacity(), 2048u);
   EXPECT_EQ(map.begin(), map.end());
   // A cleared table is reused without growing.
   for (uint64_t k = 0; k < 1000; ++k)
      map.tryEmplace(k + 5000, k);
   EXPECT_EQ(map.capacity(), 2048u);
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

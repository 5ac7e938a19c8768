// The emulator's length order: the rank set's nearest-member searches against a plain set, and
// the count of neighbouring entries out of order against a count made from scratch, on random
// changes. The emulator skips its shadowing checks whenever that count is zero, so a count that
// drifts hides shadowed routes.

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "sim/TcamEmulatorOrder.h"

namespace VexloL3Common::sim::internal {
namespace {

uint32_t plainBefore(const std::set<uint32_t>& s, uint32_t r) {
   auto it = s.lower_bound(r);
   return it == s.begin() ? RankSet::none : *--it;
}

uint32_t plainAfter(const std::set<uint32_t>& s, uint32_t r) {
   auto it = s.upper_bound(r);
   return it == s.end() ? RankSet::none : *it;
}

// Sizes on both sides of a word and of each summary level, sparse and dense.
TEST(RankSet, FindsTheNearestMembersAsAPlainSetDoes) {
   for (uint32_t size : {1u, 63u, 64u, 65u, 4095u, 4096u, 4097u, 300000u}) {
      SCOPED_TRACE(size);
      std::mt19937 rng(size);
      auto below = [&](uint32_t n) {
         return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng);
      };
      for (uint32_t fill : {2u, 50u}) {  // percent of the ranks held, roughly
         RankSet set(size);
         std::set<uint32_t> plain;
         for (int step = 0; step < 4000; ++step) {
            const uint32_t r = below(size);
            if (below(100) < fill) {
               set.insert(r);
               plain.insert(r);
            } else {
               set.erase(r);
               plain.erase(r);
            }
            const uint32_t q = below(size);
            ASSERT_EQ(set.contains(q), plain.count(q) == 1) << q;
            ASSERT_EQ(set.before(q), plainBefore(plain, q)) << q;
            ASSERT_EQ(set.after(q), plainAfter(plain, q)) << q;
         }
         // The ends of the range.
         EXPECT_EQ(set.before(0), RankSet::none);
         EXPECT_EQ(set.after(size - 1), RankSet::none);
         EXPECT_EQ(set.after(0), plainAfter(plain, 0));
         EXPECT_EQ(set.before(size - 1), plainBefore(plain, size - 1));
      }
   }
}

// Neighbouring held entries out of order, counted from scratch.
uint64_t inversions(const std::vector<Span>& spans) {
   uint64_t n = 0;
   Span last;
   for (const Span& s : spans) {
      if (!s.held) continue;
      n += LengthOrder::inverted(last, s);
      last = s;
   }
   return n;
}

TEST(LengthOrder, CountsNeighboursOutOfOrderAsACountFromScratch) {
   constexpr uint32_t size = 60;
   std::mt19937 rng(7);
   auto below = [&](uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng); };
   std::vector<Span> spans(size);
   LengthOrder order(size);
   auto spanAt = [&](uint32_t r) { return spans[r]; };
   uint64_t inOrder = 0, outOfOrder = 0;
   for (int step = 0; step < 20000; ++step) {
      const uint32_t r = below(size);
      Span now;
      if (below(3) != 0) {
         // Longer keys at lower ranks, as a table in order has them; in every other phase of a
         // thousand steps, strays of any lengths, which the next phase rewrites away.
         const unsigned base = 32 - r * 32 / size;
         if ((step / 1000) % 2 == 1 && below(4) == 0) {
            const unsigned d = below(33);
            now = Span{true, uint8_t(d), uint8_t(d + below(33 - d))};
         } else {
            now = Span{true, uint8_t(base), uint8_t(base)};
         }
      }
      order.change(r, spans[r], now, spanAt);
      spans[r] = now;
      ASSERT_EQ(order.inversions, inversions(spans)) << "step " << step;
      for (uint32_t q = 0; q < size; ++q)
         ASSERT_EQ(order.held.contains(q), spans[q].held);
      (order.inversions == 0 ? inOrder : outOfOrder) += 1;
   }
   // Both verdicts must have come up, or the test proves little.
   EXPECT_GT(inOrder, 100u);
   EXPECT_GT(outOfOrder, 100u);
   EXPECT_EQ(order.changes, 20000u);
}

// Two keys of one entry never shadow each other; keys of different entries do when the earlier
// one is shorter.
TEST(LengthOrder, OnlyAShorterKeyInAnEarlierEntryBreaksTheOrder) {
   const Span s24{true, 24, 24}, s16{true, 16, 16}, both{true, 16, 24}, none{};
   EXPECT_FALSE(LengthOrder::inverted(s24, s16));
   EXPECT_FALSE(LengthOrder::inverted(s24, s24));
   EXPECT_TRUE(LengthOrder::inverted(s16, s24));
   EXPECT_TRUE(LengthOrder::inverted(both, s24));  // its /16 comes before the /24
   EXPECT_FALSE(LengthOrder::inverted(s24, both));
   EXPECT_FALSE(LengthOrder::inverted(none, s24));
   EXPECT_FALSE(LengthOrder::inverted(s16, none));
}

}  // namespace
}  // namespace VexloL3Common::sim::internal

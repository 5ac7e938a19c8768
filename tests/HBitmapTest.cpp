// HBitmap: seeded random operation sequences compared answer by answer with a flat reference (maps
// that start all clear or all set, so that the first runs written are lone bits that searches
// must find across every summary level; range ends at the edges of words and levels, past the
// end and inverted), equality, and the fatal position check.

#include "VexloL3Common/types/HBitmap.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "RandomRuns.h"
#include "platform/Assert.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace VexloL3Common {
namespace {

constexpr uint32_t npos = HBitmap::npos;

// The obvious reference: one byte per position (at least one), ranges clamped and scanned
// linearly.
struct FlatBitmap {
   std::vector<char> bits;

   uint32_t clamped(uint32_t end) const { return std::min(end, uint32_t(bits.size()) - 1); }
   uint32_t find(uint32_t start, uint32_t end, bool value, bool forward) const {
      for (uint32_t i = 0, e = clamped(end); start <= e && i <= e - start; ++i) {
         if (bits[forward ? start + i : e - i] == value) return forward ? start + i : e - i;
      }
      return npos;
   }
   uint32_t count(uint32_t start, uint32_t end) const {
      const uint32_t e = clamped(end);
      return start <= e ? uint32_t(std::count(bits.begin() + start, bits.begin() + e + 1, 1)) : 0;
   }
};

// All four searches and the count over [a, b] agree with the reference.
void expectSame(const HBitmap& hb, const FlatBitmap& ref, uint32_t a, uint32_t b) {
   const uint32_t found[] = {hb.findFirstSet(a, b), hb.findLastSet(a, b), hb.findFirstClear(a, b),
                             hb.findLastClear(a, b)};
   for (uint32_t op = 0; op < 4; ++op) {
      EXPECT_EQ(found[op], ref.find(a, b, op < 2, op % 2 == 0))
          << "find first/last set, first/last clear: " << op << ", range " << a << ".." << b;
   }
   EXPECT_EQ(hb.count(a, b), ref.count(a, b)) << "count, range " << a << ".." << b;
}

TEST(HBitmapTest, EqualityComparesSizeAndBitsOnly) {
   HBitmap cleared(4097, true), set(4097, false);
   for (uint32_t pos = 0; pos < 4097; ++pos)
      pos % 3 == 0 ? cleared.clearBit(pos) : set.setBit(pos);
   EXPECT_TRUE(cleared == set);
   set.clearBit(4096);
   EXPECT_FALSE(cleared == set);
   EXPECT_FALSE(HBitmap(60) == HBitmap(64));  // same words, different sizes
   EXPECT_TRUE(HBitmap(0) == HBitmap(0, true));
}

// An empty map finds nothing and counts zero; a position outside any map is fatal and changes
// nothing.
TEST(HBitmapTest, EmptyMapFindsNothingAndPositionOutsideTheMapIsFatal) {
   for (const HBitmap& bm : {HBitmap(), HBitmap(0, true)}) {
      EXPECT_EQ(bm.count() + bm.count(0, npos), 0u);
      EXPECT_EQ((std::vector{bm.findFirstSet(0, npos), bm.findLastSet(0, npos),
                             bm.findFirstClear(0, npos), bm.findLastClear(0, npos)}),
                std::vector<uint32_t>(4, npos));
   }
   Ulo::ScopedThrowingAssertHandler guard;
   const auto failure = [](auto&& op) -> std::string {
      try {
         op();
      } catch (const Ulo::AssertionFailure& f) {
         return f.text + " | " + f.message;
      }
      return "no assertion";
   };
   HBitmap bm(64);
   const char* expected = "HBitmap position out of range | position 64, size 64";
   EXPECT_EQ(failure([&] { bm.setBit(64); }), expected);
   EXPECT_EQ(failure([&] { bm.clearBit(64); }), expected);
   EXPECT_EQ(failure([&] { (void)bm.isBitSet(64); }), expected);
   EXPECT_EQ(failure([] { HBitmap().setBit(0); }),
             "HBitmap position out of range | position 0, size 0");
   EXPECT_EQ(bm.count(), 0u);
}

// Each size and fill runs its own seed: runs of bits set or cleared, so that words and summary
// words fill up and drain, and the searches and the count over a range whose ends cluster where
// the hierarchy has edges. VEXLO_HBITMAP_SEED=<n> reruns the whole sweep from another base seed.
TEST(HBitmapTest, MatchesFlatReferenceOnRandomOperations) {
   uint64_t seed = testing::envNumber("VEXLO_HBITMAP_SEED", 20240611);
   SCOPED_TRACE("base seed " + std::to_string(seed) + " (set VEXLO_HBITMAP_SEED to rerun)");
   for (uint32_t size :
        {1u, 2u, 63u, 64u, 65u, 127u, 4095u, 4096u, 4097u, 8192u, 262143u, 262145u}) {
      // Clustered: used entries in long runs, free ones in a few runs plus a sprinkling of holes.
      for (const std::string fill :
           {"empty", "full", "uniform-50%", "uniform-5%", "clustered-95%"}) {
         const bool initial = fill == "full" || fill == "clustered-95%";
         const double density = fill == "uniform-50%" ? 0.5 : fill == "uniform-5%" ? 0.05 : 0;
         SCOPED_TRACE(fmt::format("size {}, fill {}", size, fill));
         std::mt19937_64 rng(seed++);
         const auto pick = [&](uint32_t n) {
            return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng);
         };
         HBitmap hb(size, initial);
         FlatBitmap ref{std::vector<char>(size, initial)};
         const auto write = [&](uint32_t pos, bool value) {
            value ? hb.setBit(pos) : hb.clearBit(pos);
            ref.bits[pos] = value;
         };
         std::bernoulli_distribution on(density);
         for (uint32_t pos = 0; pos < size && density > 0; ++pos) {
            if (on(rng)) write(pos, true);
         }
         for (int run = 0; fill[0] == 'c' && run < 4; ++run) {
            const uint32_t start = pick(size);
            for (uint32_t pos = start; pos < std::min(size, start + size / 80); ++pos)
               write(pos, false);
         }
         for (uint32_t hole = 0; fill[0] == 'c' && hole < size / 200; ++hole)
            write(pick(size), false);
         // Range ends drawn around the places where the hierarchy and the running counts have
         // edges: words, chunks of 512, summary words of 4096, superchunks of 32768.
         const auto endpoint = [&]() -> uint32_t {
            static constexpr uint32_t edges[] = {64, 512, 4096, 32768};
            const uint32_t kind = pick(8), near = std::min(size, 130u), edge = edges[pick(4)];
            return kind == 0   ? pick(near)
                   : kind == 1 ? size - 1 - pick(near)
                   : kind == 2 ? size + pick(3)
                   : kind == 3 ? npos
                   : kind < 6  ? std::min(size - 1, pick(size / edge + 1) * edge + pick(3) - 1)
                               : pick(size);
         };
         // The reference scans linearly, so large maps get fewer steps.
         const int steps = size > 10000 ? 200 : 3000;
         for (int step = 0; step < steps && !HasFailure(); ++step) {
            const uint32_t a = endpoint();
            const uint32_t b = pick(4) == 0 ? endpoint() : std::max(a, endpoint());
            if (pick(9) < 2) {
               const bool value = pick(2) == 0;
               const uint32_t first = std::min(a, size - 1);
               const uint32_t len = pick(4) == 0 ? pick(300) + 1 : pick(3) + 1;
               for (uint32_t pos = first; pos < std::min(size, first + len); ++pos)
                  write(pos, value);
               EXPECT_EQ(hb.count(), ref.count(0, npos)) << "step " << step;
            } else {
               expectSame(hb, ref, a, b);
            }
         }
         uint32_t differs = 0;
         while (differs < size && hb.isBitSet(differs) == ref.bits[differs])
            ++differs;
         EXPECT_EQ(differs, size) << "first differing bit";
         EXPECT_EQ(hb.count(), ref.count(0, npos));
         if (HasFailure()) return;
      }
   }
}

}  // namespace
}  // namespace VexloL3Common

// HBitmap: one contract suite run against HBitmap and against a flat reference bitmap, then
// seeded random operation sequences comparing the two answer by answer.

#include "VexloL3Common/HBitmap.h"

#include <gtest/gtest.h>

#include "platform/Assert.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace VexloL3Common {
namespace {

constexpr uint32_t npos = HBitmap::npos;

// The obvious one-byte-per-bit bitmap with HBitmap's interface and range rules.
class FlatBitmap {
 public:
   static constexpr uint32_t npos = HBitmap::npos;
   FlatBitmap() = default;
   explicit FlatBitmap(uint32_t size, bool initial = false)
       : bits_(size, initial), initial_(initial) {}

   uint32_t size() const { return static_cast<uint32_t>(bits_.size()); }
   bool initialBitState() const { return initial_; }
   void setBit(uint32_t pos) { bits_.at(pos) = 1; }
   void clearBit(uint32_t pos) { bits_.at(pos) = 0; }
   bool isBitSet(uint32_t pos) const { return bits_.at(pos) != 0; }
   uint32_t count() const {
      return static_cast<uint32_t>(std::count(bits_.begin(), bits_.end(), 1));
   }
   uint32_t count(uint32_t start, uint32_t end) const {
      uint32_t n = 0;
      if (clamp(start, end)) {
         for (uint32_t i = start; i <= end; ++i) {
            n += bits_[i];
         }
      }
      return n;
   }
   uint32_t findFirstSet(uint32_t start, uint32_t end) const { return first(start, end, 1); }
   uint32_t findLastSet(uint32_t start, uint32_t end) const { return last(start, end, 1); }
   uint32_t findFirstClear(uint32_t start, uint32_t end) const { return first(start, end, 0); }
   uint32_t findLastClear(uint32_t start, uint32_t end) const { return last(start, end, 0); }
   bool operator==(const FlatBitmap& other) const { return bits_ == other.bits_; }

 private:
   bool clamp(uint32_t start, uint32_t& end) const {
      if (bits_.empty()) return false;
      end = std::min(end, size() - 1);
      return start <= end;
   }
   uint32_t first(uint32_t start, uint32_t end, char value) const {
      if (!clamp(start, end)) return npos;
      for (uint32_t i = start; i <= end; ++i) {
         if (bits_[i] == value) return i;
      }
      return npos;
   }
   uint32_t last(uint32_t start, uint32_t end, char value) const {
      if (!clamp(start, end)) return npos;
      for (uint32_t i = end + 1; i-- > start;) {
         if (bits_[i] == value) return i;
      }
      return npos;
   }

   std::vector<char> bits_;
   bool initial_ = false;
};

// Word (64), level-1 (4096) and level-2 (262144) edges.
const std::vector<uint32_t> kEdgeSizes = {1, 63, 64, 65, 4095, 4096, 4097, 262144, 262145};

template <typename Bitmap>
class BitmapContract : public ::testing::Test {};
using BitmapTypes = ::testing::Types<HBitmap, FlatBitmap>;
TYPED_TEST_SUITE(BitmapContract, BitmapTypes);

TYPED_TEST(BitmapContract, EmptyMapFindsNothingAndCountsZero) {
   for (const TypeParam& bm : {TypeParam(), TypeParam(0, true)}) {
      EXPECT_EQ(bm.size(), 0u);
      EXPECT_EQ(bm.count(), 0u);
      EXPECT_EQ(bm.count(0, npos), 0u);
      EXPECT_EQ(bm.findFirstSet(0, npos), npos);
      EXPECT_EQ(bm.findLastSet(0, npos), npos);
      EXPECT_EQ(bm.findFirstClear(0, npos), npos);
      EXPECT_EQ(bm.findLastClear(0, npos), npos);
   }
}

// In a map where every bit has its initial state, flip the first and the last bit and find
// them from both directions; the searches for the initial state must stay inside the map.
TYPED_TEST(BitmapContract, InitialStateAndSearchesAtTheVeryEnds) {
   using Find = uint32_t (TypeParam::*)(uint32_t, uint32_t) const;
   for (uint32_t size : kEdgeSizes) {
      for (bool initial : {false, true}) {
         SCOPED_TRACE("size " + std::to_string(size) + " initial " + std::to_string(initial));
         TypeParam bm(size, initial);
         const Find firstFlipped = initial ? &TypeParam::findFirstClear : &TypeParam::findFirstSet;
         const Find lastFlipped = initial ? &TypeParam::findLastClear : &TypeParam::findLastSet;
         const Find firstSame = initial ? &TypeParam::findFirstSet : &TypeParam::findFirstClear;
         const Find lastSame = initial ? &TypeParam::findLastSet : &TypeParam::findLastClear;
         const auto flip = [&](uint32_t pos) { initial ? bm.clearBit(pos) : bm.setBit(pos); };
         const uint32_t last = size - 1;

         EXPECT_EQ(bm.initialBitState(), initial);
         EXPECT_EQ(bm.count(), initial ? size : 0u);
         EXPECT_EQ(bm.isBitSet(0), initial);
         EXPECT_EQ(bm.isBitSet(last), initial);
         EXPECT_EQ((bm.*firstFlipped)(0, npos), npos);
         EXPECT_EQ((bm.*lastFlipped)(0, npos), npos);
         EXPECT_EQ((bm.*firstSame)(0, npos), 0u);
         EXPECT_EQ((bm.*lastSame)(0, npos), last);

         flip(last);
         EXPECT_EQ((bm.*firstFlipped)(0, npos), last);
         EXPECT_EQ((bm.*lastFlipped)(0, npos), last);
         EXPECT_EQ((bm.*firstFlipped)(last, last), last);
         EXPECT_EQ((bm.*lastSame)(0, npos), size > 1 ? last - 1 : npos);
         EXPECT_EQ((bm.*firstSame)(last, npos), npos);
         EXPECT_EQ(bm.count(0, npos), initial ? size - 1 : 1u);

         flip(0);
         EXPECT_EQ((bm.*firstFlipped)(0, npos), 0u);
         EXPECT_EQ((bm.*lastFlipped)(0, last > 0 ? last - 1 : 0), 0u);
         EXPECT_EQ((bm.*firstFlipped)(1, npos), size > 1 ? last : npos);
         EXPECT_EQ(bm.count(), initial ? size - std::min(size, 2u) : std::min(size, 2u));
      }
   }
}

TYPED_TEST(BitmapContract, RangesAreInclusiveClampedAndEmptyWhenInverted) {
   TypeParam bm(100);
   for (uint32_t pos : {10u, 50u, 99u}) {
      bm.setBit(pos);
   }
   EXPECT_EQ(bm.findFirstSet(10, 10), 10u);
   EXPECT_EQ(bm.findFirstSet(11, 50), 50u);
   EXPECT_EQ(bm.findLastSet(11, 49), npos);
   EXPECT_EQ(bm.findFirstSet(51, 1000), 99u);
   EXPECT_EQ(bm.findLastSet(0, 1000), 99u);
   EXPECT_EQ(bm.findFirstClear(99, npos), npos);
   EXPECT_EQ(bm.findLastClear(11, 50), 49u);
   EXPECT_EQ(bm.count(0, npos), 3u);
   EXPECT_EQ(bm.count(10, 50), 2u);
   EXPECT_EQ(bm.count(11, 49), 0u);
   EXPECT_EQ(bm.count(99, 99), 1u);
   // start > end, before and after clamping
   EXPECT_EQ(bm.findFirstSet(50, 10), npos);
   EXPECT_EQ(bm.findLastSet(50, 10), npos);
   EXPECT_EQ(bm.findFirstClear(50, 49), npos);
   EXPECT_EQ(bm.findLastClear(50, 49), npos);
   EXPECT_EQ(bm.count(50, 10), 0u);
   EXPECT_EQ(bm.findLastSet(100, npos), npos);
   EXPECT_EQ(bm.findFirstClear(100, npos), npos);
   EXPECT_EQ(bm.count(100, npos), 0u);
}

TYPED_TEST(BitmapContract, SetAndClearTwiceChangeNothingMore) {
   TypeParam bm(4097);
   bm.setBit(4096);
   bm.setBit(4096);
   bm.setBit(0);
   EXPECT_EQ(bm.count(), 2u);
   bm.clearBit(4096);
   bm.clearBit(4096);
   bm.clearBit(1);
   EXPECT_EQ(bm.count(), 1u);
   EXPECT_EQ(bm.findLastSet(0, npos), 0u);
   EXPECT_FALSE(bm.isBitSet(4096));
}

// A single free entry deep inside a long used run (and the reverse) is found from both
// sides across every level, and disappears from searches once it is filled again.
TYPED_TEST(BitmapContract, LoneBitInsideALongRunIsFoundFromBothSides) {
   const uint32_t size = 64 * 64 * 64 + 1;
   for (uint32_t lone : {0u, 131071u, 131072u, size - 1}) {
      SCOPED_TRACE("lone bit " + std::to_string(lone));
      TypeParam used(size, true);
      used.clearBit(lone);
      EXPECT_EQ(used.findFirstClear(0, npos), lone);
      EXPECT_EQ(used.findLastClear(0, npos), lone);
      EXPECT_EQ(used.findFirstClear(lone + 1, npos), npos);
      EXPECT_EQ(used.findLastClear(0, lone > 0 ? lone - 1 : 0), lone == 0 ? 0u : npos);
      EXPECT_EQ(used.count(0, npos), size - 1);
      EXPECT_EQ(used.count(lone > 100 ? lone - 100 : 0, lone + 100),
                std::min(lone + 100, size - 1) - (lone > 100 ? lone - 100 : 0));
      used.setBit(lone);
      EXPECT_EQ(used.findFirstClear(0, npos), npos);
      EXPECT_EQ(used.findLastClear(0, npos), npos);
      EXPECT_EQ(used.count(), size);

      TypeParam free(size, false);
      free.setBit(lone);
      EXPECT_EQ(free.findFirstSet(0, npos), lone);
      EXPECT_EQ(free.findLastSet(0, npos), lone);
      EXPECT_EQ(free.findLastSet(lone + 1, npos), npos);
      free.clearBit(lone);
      EXPECT_EQ(free.findFirstSet(0, npos), npos);
      EXPECT_EQ(free.findLastSet(0, npos), npos);
   }
}

TYPED_TEST(BitmapContract, EqualityComparesSizeAndBitsOnly) {
   TypeParam cleared(4097, true);
   TypeParam set(4097, false);
   for (uint32_t pos = 0; pos < 4097; ++pos) {
      if (pos % 3 == 0) {
         cleared.clearBit(pos);
      } else {
         set.setBit(pos);
      }
   }
   EXPECT_TRUE(cleared == set);
   set.clearBit(4096);
   EXPECT_FALSE(cleared == set);
   EXPECT_FALSE(TypeParam(60) == TypeParam(64));  // same words, different sizes
   EXPECT_FALSE(TypeParam(64) == TypeParam(65));
   EXPECT_TRUE(TypeParam(0) == TypeParam(0, true));
}

TEST(HBitmapTest, PositionOutsideTheMapIsFatalAndChangesNothing) {
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
   EXPECT_EQ(bm.findFirstSet(0, npos), npos);
}

// ---- Seeded random comparison against FlatBitmap -------------------------------------------

enum class Fill { kEmpty, kFull, kUniformHalf, kSparse, kClustered };
const char* fillName(Fill fill) {
   switch (fill) {
      case Fill::kEmpty:
         return "empty";
      case Fill::kFull:
         return "full";
      case Fill::kUniformHalf:
         return "uniform-50%";
      case Fill::kSparse:
         return "uniform-5%";
      case Fill::kClustered:
         return "clustered-95%";
   }
   return "?";
}

class RandomComparison {
 public:
   RandomComparison(uint32_t size, Fill fill, uint64_t seed)
       : size_(size),
         fill_(fill),
         seed_(seed),
         rng_(seed),
         ref_(size, fill == Fill::kFull || fill == Fill::kClustered),
         hb_(size, fill == Fill::kFull || fill == Fill::kClustered) {}

   void run(int steps) {
      applyFill();
      for (step_ = 0; step_ < steps && !failed_; ++step_) {
         oneStep();
      }
      for (uint32_t pos = 0; pos < size_ && !failed_; ++pos) {
         check("isBitSet", pos, pos, ref_.isBitSet(pos), hb_.isBitSet(pos));
      }
      check("count", 0, npos, ref_.count(), hb_.count());
   }

 private:
   void set(uint32_t pos, bool value) {
      value ? ref_.setBit(pos) : ref_.clearBit(pos);
      value ? hb_.setBit(pos) : hb_.clearBit(pos);
   }

   // Clustered: used entries in long runs, free ones in a few runs plus a sprinkling of holes.
   void applyFill() {
      if (fill_ == Fill::kUniformHalf || fill_ == Fill::kSparse) {
         std::bernoulli_distribution on(fill_ == Fill::kSparse ? 0.05 : 0.5);
         for (uint32_t pos = 0; pos < size_; ++pos) {
            if (on(rng_)) set(pos, true);
         }
      } else if (fill_ == Fill::kClustered) {
         const uint32_t freeBits = size_ / 20;
         for (int run = 0; run < 4; ++run) {
            const uint32_t start = pick(size_);
            for (uint32_t pos = start; pos < std::min(size_, start + freeBits / 4); ++pos) {
               set(pos, false);
            }
         }
         for (uint32_t hole = 0; hole < size_ / 200; ++hole) {
            set(pick(size_), false);
         }
      }
   }

   uint32_t pick(uint32_t bound) {
      return std::uniform_int_distribution<uint32_t>(0, bound - 1)(rng_);
   }

   // Range ends drawn around the places where the hierarchy has edges.
   uint32_t endpoint() {
      switch (pick(8)) {
         case 0:
            return pick(std::min(size_, 130u));
         case 1:
            return size_ - 1 - pick(std::min(size_, 130u));
         case 2:
            return size_ + pick(3);
         case 3:
            return npos;
         case 4:
            return std::min(size_ - 1, pick(size_ / 64 + 1) * 64 + pick(3) - 1);
         case 5:
            return std::min(size_ - 1, pick(size_ / 4096 + 1) * 4096 + pick(3) - 1);
         default:
            return pick(size_);
      }
   }

   void oneStep() {
      const uint32_t a = endpoint();
      const uint32_t b = pick(4) == 0 ? endpoint() : std::max(a, endpoint());
      switch (pick(9)) {
         case 0:
         case 1: {  // set or clear a run, so that words and summary words fill up and drain
            const bool value = pick(2) == 0;
            const uint32_t first = std::min(a, size_ - 1);
            const uint32_t len = pick(4) == 0 ? pick(300) + 1 : pick(3) + 1;
            for (uint32_t pos = first; pos < std::min(size_, first + len); ++pos) {
               set(pos, value);
            }
            check(value ? "setRun/isBitSet" : "clearRun/isBitSet", first, first + len - 1,
                  ref_.isBitSet(first), hb_.isBitSet(first));
            check("count", 0, npos, ref_.count(), hb_.count());
            break;
         }
         case 2:
            check("findFirstSet", a, b, ref_.findFirstSet(a, b), hb_.findFirstSet(a, b));
            break;
         case 3:
            check("findLastSet", a, b, ref_.findLastSet(a, b), hb_.findLastSet(a, b));
            break;
         case 4:
         case 5:
            check("findFirstClear", a, b, ref_.findFirstClear(a, b), hb_.findFirstClear(a, b));
            break;
         case 6:
            check("findLastClear", a, b, ref_.findLastClear(a, b), hb_.findLastClear(a, b));
            break;
         default:
            check("count", a, b, ref_.count(a, b), hb_.count(a, b));
            break;
      }
   }

   void check(const char* op, uint32_t a, uint32_t b, uint32_t want, uint32_t got) {
      if (want == got) return;
      failed_ = true;
      ADD_FAILURE() << "seed " << seed_ << ", size " << size_ << ", fill " << fillName(fill_)
                    << ", step " << step_ << ": " << op << "(" << a << ", " << b << "): reference "
                    << want << ", HBitmap " << got;
   }

   uint32_t size_;
   Fill fill_;
   uint64_t seed_;
   std::mt19937_64 rng_;
   FlatBitmap ref_;
   HBitmap hb_;
   int step_ = 0;
   bool failed_ = false;
};

// VEXLO_HBITMAP_SEED=<n> reruns the whole sweep from another base seed.
TEST(HBitmapTest, MatchesFlatReferenceOnRandomOperations) {
   const char* env = std::getenv("VEXLO_HBITMAP_SEED");
   const uint64_t base = env ? std::strtoull(env, nullptr, 10) : 20240611;
   SCOPED_TRACE("base seed " + std::to_string(base) + " (set VEXLO_HBITMAP_SEED to rerun)");
   uint64_t seed = base;
   const std::vector<uint32_t> sizes = {1,    2,    63,   64,   65,     127,
                                        4095, 4096, 4097, 8192, 262143, 262145};
   for (uint32_t size : sizes) {
      for (Fill fill :
           {Fill::kEmpty, Fill::kFull, Fill::kUniformHalf, Fill::kSparse, Fill::kClustered}) {
         // The reference scans linearly, so large maps get fewer steps.
         RandomComparison(size, fill, seed++).run(size > 10000 ? 200 : 3000);
      }
   }
}

}  // namespace
}  // namespace VexloL3Common

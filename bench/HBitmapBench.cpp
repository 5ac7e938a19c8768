// HBitmap against a flat word-by-word bitmap, both measured in the same run.
//
// 65536 positions filled to 50% or 95%, either TCAM-like (used entries in long runs, the free
// ones gathered in a few runs: the case the model lives with) or uniformly at random (every
// word mixed, so the summaries cannot skip anything). Arguments: fill percentage, clustered.
//
//   HBitmapBench --benchmark_filter='FindFirstClear'

#include <benchmark/benchmark.h>

#include <bit>
#include <cstdint>
#include <random>
#include <vector>

#include "VexloL3Common/types/HBitmap.h"

namespace {

using VexloL3Common::HBitmap;

constexpr uint32_t kSize = 65536;
constexpr uint32_t kQueries = 4096;  // pre-drawn positions, cycled through
constexpr uint64_t kAllOnes = ~uint64_t{0};

// The baseline: one flat array of words, scanned one word at a time.
class FlatWords {
 public:
   static constexpr uint32_t npos = HBitmap::npos;
   explicit FlatWords(uint32_t size) : size_(size), words_((size + 63) / 64, 0) {}

   void setBit(uint32_t pos) { words_[pos >> 6] |= uint64_t{1} << (pos & 63); }
   void clearBit(uint32_t pos) { words_[pos >> 6] &= ~(uint64_t{1} << (pos & 63)); }
   bool isBitSet(uint32_t pos) const { return (words_[pos >> 6] >> (pos & 63)) & 1; }

   uint32_t findFirstSet(uint32_t start, uint32_t end) const { return scan<false>(start, end); }
   uint32_t findFirstClear(uint32_t start, uint32_t end) const { return scan<true>(start, end); }

   uint32_t count(uint32_t start, uint32_t end) const {
      if (end >= size_) end = size_ - 1;
      if (start > end) return 0;
      const uint32_t first = start >> 6;
      const uint32_t last = end >> 6;
      const uint64_t firstMask = kAllOnes << (start & 63);
      const uint64_t lastMask = kAllOnes >> (63 - (end & 63));
      if (first == last) return std::popcount(words_[first] & firstMask & lastMask);
      uint32_t total = std::popcount(words_[first] & firstMask);
      for (uint32_t w = first + 1; w < last; ++w) {
         total += std::popcount(words_[w]);
      }
      return total + std::popcount(words_[last] & lastMask);
   }

 private:
   template <bool kClear>
   uint32_t scan(uint32_t start, uint32_t end) const {
      if (end >= size_) end = size_ - 1;
      if (start > end) return npos;
      const uint32_t last = end >> 6;
      uint64_t word =
          (kClear ? ~words_[start >> 6] : words_[start >> 6]) & (kAllOnes << (start & 63));
      for (uint32_t w = start >> 6;;) {
         if (word != 0) {
            const uint32_t pos = (w << 6) + std::countr_zero(word);
            return pos <= end ? pos : npos;
         }
         if (++w > last) return npos;
         word = kClear ? ~words_[w] : words_[w];
      }
   }

   uint32_t size_;
   std::vector<uint64_t> words_;
};

// Which positions are used. Clustered: the free positions form a few runs (4 at 95%, 8 at 50%),
// one at a random place inside each equal slice of the map; the rest is one long used run
// between them.
std::vector<bool> makeFill(int fillPercent, bool clustered, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::vector<bool> used(kSize, clustered);
   if (!clustered) {
      std::bernoulli_distribution on(fillPercent / 100.0);
      for (uint32_t pos = 0; pos < kSize; ++pos) {
         used[pos] = on(rng);
      }
      return used;
   }
   const uint32_t runs = fillPercent >= 90 ? 4 : 8;
   const uint32_t slice = kSize / runs;
   const uint32_t runLength =
       static_cast<uint32_t>(uint64_t{kSize} * (100 - fillPercent) / 100 / runs);
   for (uint32_t r = 0; r < runs; ++r) {
      const uint32_t start =
          r * slice + std::uniform_int_distribution<uint32_t>(0, slice - runLength)(rng);
      for (uint32_t pos = start; pos < start + runLength; ++pos) {
         used[pos] = false;
      }
   }
   return used;
}

template <class Map>
Map makeMap(const benchmark::State& state) {
   Map map(kSize);
   const std::vector<bool> used =
       makeFill(static_cast<int>(state.range(0)), state.range(1) != 0, 7);
   for (uint32_t pos = 0; pos < kSize; ++pos) {
      if (used[pos]) map.setBit(pos);
   }
   return map;
}

std::vector<uint32_t> randomPositions(uint32_t bound, uint64_t seed) {
   std::mt19937_64 rng(seed);
   std::uniform_int_distribution<uint32_t> dist(0, bound - 1);
   std::vector<uint32_t> out(kQueries);
   for (uint32_t& p : out) {
      p = dist(rng);
   }
   return out;
}

template <class Map>
void BM_FindFirstClearToEnd(benchmark::State& state) {
   const Map map = makeMap<Map>(state);
   const std::vector<uint32_t> starts = randomPositions(kSize, 11);
   uint32_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(map.findFirstClear(starts[i++ % kQueries], kSize - 1));
   }
   state.SetItemsProcessed(state.iterations());
}

template <class Map>
void BM_FindFirstSetToEnd(benchmark::State& state) {
   const Map map = makeMap<Map>(state);
   const std::vector<uint32_t> starts = randomPositions(kSize, 11);
   uint32_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(map.findFirstSet(starts[i++ % kQueries], kSize - 1));
   }
   state.SetItemsProcessed(state.iterations());
}

// One setBit or clearBit per iteration: each pre-drawn position is flipped on the first pass
// through the list and flipped back on the second, so the fill only drifts by the length of
// the list and returns. In the clustered maps most flips empty or refill a full word, so the
// summaries change on most calls.
template <class Map>
void BM_FlipBit(benchmark::State& state) {
   Map map = makeMap<Map>(state);
   const std::vector<uint32_t> positions = randomPositions(kSize, 13);
   uint32_t i = 0;
   for (auto _ : state) {
      const uint32_t pos = positions[i++ % kQueries];
      if (map.isBitSet(pos)) {
         map.clearBit(pos);
      } else {
         map.setBit(pos);
      }
   }
   benchmark::DoNotOptimize(map);
   state.SetItemsProcessed(state.iterations());
}

// Random ranges, on average a third of the map.
template <class Map>
void BM_CountRange(benchmark::State& state) {
   const Map map = makeMap<Map>(state);
   const std::vector<uint32_t> a = randomPositions(kSize, 17);
   const std::vector<uint32_t> b = randomPositions(kSize, 19);
   uint32_t i = 0;
   for (auto _ : state) {
      const uint32_t k = i++ % kQueries;
      benchmark::DoNotOptimize(map.count(std::min(a[k], b[k]), std::max(a[k], b[k])));
   }
   state.SetItemsProcessed(state.iterations());
}

void fills(benchmark::internal::Benchmark* b) {
   b->ArgNames({"fill", "clustered"});
   for (int clustered : {1, 0}) {
      for (int fill : {95, 50}) {
         b->Args({fill, clustered});
      }
   }
}

BENCHMARK_TEMPLATE(BM_FindFirstClearToEnd, HBitmap)->Apply(fills);
BENCHMARK_TEMPLATE(BM_FindFirstClearToEnd, FlatWords)->Apply(fills);
BENCHMARK_TEMPLATE(BM_FindFirstSetToEnd, HBitmap)->Apply(fills);
BENCHMARK_TEMPLATE(BM_FindFirstSetToEnd, FlatWords)->Apply(fills);
BENCHMARK_TEMPLATE(BM_FlipBit, HBitmap)->Apply(fills);
BENCHMARK_TEMPLATE(BM_FlipBit, FlatWords)->Apply(fills);
BENCHMARK_TEMPLATE(BM_CountRange, HBitmap)->Apply(fills);
BENCHMARK_TEMPLATE(BM_CountRange, FlatWords)->Apply(fills);

}  // namespace

// A layout the context refuses is reported in the options' terms: which option to change, and the
// nearest value of it that the layout accepts. "Accepts" is decided by laying out a context with
// the candidate, so the advice can never name a value that is refused in its turn.
#include <algorithm>
#include <cstdlib>

#include "tools/Tool.h"

namespace VexloL3Common::tool {

namespace {

// Values of an option, nearest to `current` first (the smaller one first on a tie).
std::vector<uint32_t> byDistance(std::vector<uint32_t> values, uint32_t current) {
   values.erase(std::remove(values.begin(), values.end(), current), values.end());
   std::stable_sort(values.begin(), values.end(), [current](uint32_t a, uint32_t b) {
      const int64_t da = std::llabs(int64_t(a) - int64_t(current));
      const int64_t db = std::llabs(int64_t(b) - int64_t(current));
      return da != db ? da < db : a < b;
   });
   return values;
}

std::vector<uint32_t> divisors(uint32_t n, uint32_t limit) {
   std::vector<uint32_t> d;
   for (uint32_t i = 1; i <= limit && i <= n; ++i) {
      if (n % i == 0) d.push_back(i);
   }
   return d;
}

struct Knob {
   const char* name;
   uint32_t Options::*field;
   std::vector<uint32_t> candidates;
};

// Trying a candidate lays out a whole context; past this many the advice is not worth the wait.
constexpr size_t maxTries = 48;

std::string nearestAccepted(const Options& o, const Knob& k, const LayoutAccepts& accepts) {
   size_t tries = 0;
   for (uint32_t v : byDistance(k.candidates, o.*k.field)) {
      if (++tries > maxTries) break;
      Options c = o;
      c.*k.field = v;
      if (accepts(c)) return fmt::format("{} {}", k.name, v);
   }
   return "";
}

}  // namespace

std::string layoutAdvice(const Options& o, const std::string& refusal,
                         const LayoutAccepts& accepts) {
   if (refusal.find("fixed pairing border needs") != std::string::npos)
      return "add --dynamic-border, or leave out --urpf and --fallback-vrf";
   const Knob mode{"--mode", &Options::mode, {1, 2, 3, 4}};
   const Knob blocks{"--blocks", &Options::blocks, divisors(o.size, 255)};
   // 0 derives the gap from the block size; any other accepted gap divides a quarter table.
   std::vector<uint32_t> gaps = divisors(o.size / 4, 1u << 23);
   gaps.insert(gaps.begin(), 0);
   const Knob gap{"--pair-gap", &Options::pairGap, gaps};
   std::vector<const Knob*> knobs{&mode, &blocks};
   if (refusal.find("double banks") != std::string::npos || o.pairGap != 0)
      knobs.insert(knobs.begin(), &gap);
   std::string advice;
   for (const Knob* k : knobs) {
      const std::string v = nearestAccepted(o, *k, accepts);
      if (v.empty()) continue;
      advice += (advice.empty() ? "change to " : ", or ") + v;
   }
   return advice.empty() ? "no nearby value of --mode, --blocks or --pair-gap is accepted" : advice;
}

}  // namespace VexloL3Common::tool

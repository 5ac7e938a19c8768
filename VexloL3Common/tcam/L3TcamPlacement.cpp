// Placement policies (see L3TcamPlacement.h).
#include "VexloL3Common/tcam/L3TcamPlacement.h"

#include <algorithm>

namespace VexloL3Common {

std::string_view toString(PlacementPolicy p) {
   return p == PlacementPolicy::weighted ? "weighted" : "classic";
}

PlacementWeights PlacementWeights::internetLike() {
   PlacementWeights w;
   // IPv4, in hundredths of a percent.
   for (uint32_t len = 25; len <= 32; ++len)
      w.v4[len] = 20;
   const std::pair<uint32_t, uint32_t> v4[] = {
       {24, 5500}, {23, 1000}, {22, 1200}, {21, 600}, {20, 500}, {19, 300},
       {18, 200},  {17, 150},  {16, 200},  {15, 40},  {14, 40},  {13, 30},
       {12, 20},   {11, 10},   {10, 10},   {9, 5},    {8, 15}};
   for (auto [len, weight] : v4)
      w.v4[len] = weight;
   // IPv6: the lengths between the common ones get a little each.
   for (uint32_t len = 28; len <= 64; ++len)
      w.v6[len] = len < 48 ? 50 : 15;
   const std::pair<uint32_t, uint32_t> v6[] = {
       {48, 4500}, {32, 1300}, {44, 500}, {40, 400}, {56, 400}, {36, 300}, {29, 300},
       {64, 300},  {46, 200},  {47, 150}, {45, 100}, {42, 100}, {128, 100}};
   for (auto [len, weight] : v6)
      w.v6[len] = weight;
   return w;
}

std::span<const uint32_t> PlacementWeights::of(RouteType t) const {
   switch (t) {
      case RouteType::v4:
         return v4;
      case RouteType::v6Half:
      case RouteType::v6Full:
         return v6;
      case RouteType::v4Mcast:
         break;
   }
   return {};
}

uint32_t weightedTarget(std::span<const uint32_t> weights, uint32_t len, uint32_t start,
                        uint32_t end, uint32_t lenStart, uint32_t lenEnd, bool hasLonger) {
   // Below the target: what the longer neighbour and the lengths between it and len will grow
   // into. Above it: len itself and the shorter lengths that may still arrive before lenEnd.
   uint64_t below = hasLonger ? weightOf(weights, lenStart) : 0;
   for (uint32_t k = len + 1; k < lenStart; ++k)
      below += weightOf(weights, k);
   uint64_t above = 0;
   for (uint32_t k = lenEnd + 1; k <= len; ++k)
      above += weightOf(weights, k);
   const uint64_t span = end - start;
   return start + uint32_t(span * below / (below + above));
}

}  // namespace VexloL3Common

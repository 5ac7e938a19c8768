// Hardware resources of the L3 adjacency layer whose identifiers are counted for capacity
// reporting, and the largest identifier the chip supports.
//
// Synopsis
//   HwResourceType::hwResourceTypeOverlayEcmp        enumerators in a fixed order
//   toString(t), capacityTableName(t)                "hwResourceTypeOverlayEcmp", "OverlayEcmp"
//   L3CommonAdjSmHelpers::maxHwResourceIdSupported()  4095
//
// Single event-loop thread; constants only, nothing shared.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string_view>

namespace Hardware::Capacity::Vexlo {

enum class HwResourceType : uint8_t {
   hwResourceTypeInvalid = 0,
   hwResourceTypeOverlayEcmp = 1,
   hwResourceTypeUnderlayEcmp = 2,
};

std::string_view toString(HwResourceType t);
// The capacity table that reports the resource; empty for hwResourceTypeInvalid.
std::string_view capacityTableName(HwResourceType t);

class L3CommonAdjSmHelpers {
 public:
   // Overlay and underlay ECMP groups share the chip's one ECMP group table of 4096 entries;
   // entry 0 stands for "no group", so identifiers run from 1 to 4095 for either kind.
   static constexpr uint32_t maxHwResourceIdSupported() { return 4095; }
};

}  // namespace Hardware::Capacity::Vexlo

template <>
struct fmt::formatter<Hardware::Capacity::Vexlo::HwResourceType>
    : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(Hardware::Capacity::Vexlo::HwResourceType t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(Hardware::Capacity::Vexlo::toString(t), ctx);
   }
};

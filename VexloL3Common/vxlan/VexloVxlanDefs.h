// VXLAN constants and the constant descriptions of the hardware tables behind VXLAN.
//
// Synopsis
//   vxlanDefaultUdpPort (4789), vxlanDefaultTtl (64), vxlanMinTtl / vxlanMaxTtl (1..64)
//   egrL3TunnelIndexInvalid (0xFFFF)       a hardware tunnel index not yet assigned
//   defaultMrouteVlan (1)                  VLAN assumed for a decap key nothing was programmed for
//   VnIdTableConstants, EgrVfiTableConstants, VtepCtrTblConstants
//                                          table descriptions: every attribute is a fixed constant,
//                                          so all values of one type are equal
//
// Constants only; nothing here holds state, so nothing needs a lock (single event-loop thread).
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace VexloL3Common {

inline constexpr uint16_t vxlanDefaultUdpPort = 4789;
inline constexpr uint8_t vxlanDefaultTtl = 64;
inline constexpr uint8_t vxlanMinTtl = 1;
inline constexpr uint8_t vxlanMaxTtl = 64;
inline constexpr uint16_t egrL3TunnelIndexInvalid = 0xFFFF;
inline constexpr uint16_t defaultMrouteVlan = 1;

// The VNI-to-VFI lookup table.
struct VnIdTableConstants {
   static constexpr std::string_view sourceTableName() { return "VnIdTable-0_4095"; }
   static constexpr uint32_t numEntries() { return 4095; }
   auto operator<=>(const VnIdTableConstants&) const = default;
   std::string toString() const {
      return fmt::format("sourceTableName: {} numEntries: {}", sourceTableName(), numEntries());
   }
};

// The egress VFI table.
struct EgrVfiTableConstants {
   static constexpr std::string_view sourceTableName() { return "EgrVfiTable-0_4095"; }
   static constexpr uint32_t numEntries() { return 4095; }
   auto operator<=>(const EgrVfiTableConstants&) const = default;
   std::string toString() const {
      return fmt::format("sourceTableName: {} numEntries: {}", sourceTableName(), numEntries());
   }
};

// Where the per-VTEP counters live: ingress on the source virtual port table, egress on the
// destination virtual port table.
struct VtepCtrTblConstants {
   static constexpr std::string_view ingSourceTableName() { return "SVP"; }
   static constexpr std::string_view egrSourceTableName() { return "EGR_DVP"; }
   auto operator<=>(const VtepCtrTblConstants&) const = default;
   std::string toString() const {
      return fmt::format("ingSourceTableName: {} egrSourceTableName: {}", ingSourceTableName(),
                         egrSourceTableName());
   }
};

}  // namespace VexloL3Common

// Every value of a constant type is the same value, so one hash per type is enough.
#define VEXLO_CONSTANT_TYPE_SUPPORT(T)                                                         \
   template <>                                                                                 \
   struct fmt::formatter<T> : fmt::formatter<std::string_view> {                               \
      template <class Ctx>                                                                     \
      auto format(const T& v, Ctx& ctx) const {                                                \
         return fmt::formatter<std::string_view>::format(v.toString(), ctx);                   \
      }                                                                                        \
   };                                                                                          \
   template <>                                                                                 \
   struct std::hash<T> {                                                                       \
      size_t operator()(const T&) const noexcept { return std::hash<std::string_view>()(#T); } \
   }
VEXLO_CONSTANT_TYPE_SUPPORT(VexloL3Common::VnIdTableConstants);
VEXLO_CONSTANT_TYPE_SUPPORT(VexloL3Common::EgrVfiTableConstants);
VEXLO_CONSTANT_TYPE_SUPPORT(VexloL3Common::VtepCtrTblConstants);
#undef VEXLO_CONSTANT_TYPE_SUPPORT

// VXLAN value types: the tunnel key and the encapsulation identifier.
//
// Synopsis
//   VxlanTunnelKey             value: (vti, sip, dstPort, srcPortValid, srcPort, ttl), ttl 1..64
//   EncapId                    value: an encapsulation identifier
//
// Values only: nothing here is shared between threads or locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

#include "VexloL3Common/vxlan/VexloVxlanDefs.h"
#include "platform/NetTypes.h"

namespace VexloL3Common {

using Ulo::AddressFamily;
using Ulo::EthAddr;
using Ulo::IntfId;
using Ulo::IpGenAddr;
using Ulo::VlanId;

// ---- Tunnel key --------------------------------------------------------------------------

// A VXLAN tunnel as the hardware sees it. A default key has the default UDP port and TTL.
// Text form: "vti: Vxlan1, sip: 10.0.0.1, dstPort: 4789, srcPortValid: false, srcPort: 0,
// ttl: 64"; fromString takes the same "name: value" items in any order, missing ones default.
class VxlanTunnelKey {
 public:
   static constexpr const char* ttlRangeErrorText =
       "VexloL3Common::VxlanTunnelKey::ttl < 1 or > 64 not allowed";

   VxlanTunnelKey() = default;
   // Range error (ttlRangeErrorText) when ttl is 0 or above 64.
   VxlanTunnelKey(IntfId vti, const IpGenAddr& sip, uint16_t dstPort, bool srcPortValid,
                  uint16_t srcPort, uint8_t ttl);
   // Range error on an unknown or repeated name, a bad value, or a ttl out of range.
   static VxlanTunnelKey fromString(std::string_view text);

   IntfId vti() const { return vti_; }
   const IpGenAddr& sip() const { return sip_; }
   uint16_t dstPort() const { return dstPort_; }
   bool srcPortValid() const { return srcPortValid_; }
   uint16_t srcPort() const { return srcPort_; }
   uint8_t ttl() const { return ttl_; }

   auto operator<=>(const VxlanTunnelKey&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;

 private:
   IntfId vti_;
   IpGenAddr sip_;
   uint16_t dstPort_ = vxlanDefaultUdpPort;
   bool srcPortValid_ = false;
   uint16_t srcPort_ = 0;
   uint8_t ttl_ = vxlanDefaultTtl;
};

// ---- Encapsulation identifier ------------------------------------------------------------

class EncapId {
 public:
   constexpr EncapId() = default;
   constexpr explicit EncapId(uint32_t value) : value_(value) {}
   static EncapId fromString(std::string_view text);
   constexpr uint32_t value() const { return value_; }
   auto operator<=>(const EncapId&) const = default;
   std::string toString() const { return std::to_string(value_); }

 private:
   uint32_t value_ = 0;
};

}  // namespace VexloL3Common

// EncapId keys the reverse index of the BUM replication records.
template <>
struct std::hash<VexloL3Common::EncapId> {
   size_t operator()(const VexloL3Common::EncapId& e) const noexcept {
      return Ulo::hashMix(0, e.value());
   }
};
template <>
struct fmt::formatter<VexloL3Common::EncapId> : fmt::formatter<uint32_t> {
   template <class Ctx>
   auto format(const VexloL3Common::EncapId& v, Ctx& ctx) const {
      return fmt::formatter<uint32_t>::format(v.value(), ctx);
   }
};

template <>
struct fmt::formatter<VexloL3Common::VxlanTunnelKey>
    : Ulo::ToStringFormatter<VexloL3Common::VxlanTunnelKey> {};

template <>
struct std::hash<VexloL3Common::VxlanTunnelKey> {
   size_t operator()(const VexloL3Common::VxlanTunnelKey& k) const noexcept { return k.hash(); }
};

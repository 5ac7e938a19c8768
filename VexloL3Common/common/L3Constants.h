// Constant tables of the L3 agents: CPU trap reasons and their priorities, ECMP hash modes and
// the header fields each one hashes.
//
// Synopsis
//   trapPriority(L3TrapReason::glean)              TrapPriority::high
//   ecmpHashFields(EcmpHashMode::fiveTuple)        mask of EcmpHashField bits
//   toString(EcmpHashMode::fiveTuple)              "fiveTuple"
//   ecmpHashModeFromString("fiveTuple")            range error "Invalid EcmpHashMode \"x\"" on
//                                                  unknown text; likewise for the other enums
//
// Constants only; nothing is shared or locked.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string_view>

namespace VexloL3Common {

// Scheduling class of a trapped packet on its way to the CPU; higher is served first.
enum class TrapPriority : uint8_t { low = 0, medium = 1, high = 2, critical = 3 };

// Why the chip sends a routed packet to the CPU.
enum class L3TrapReason : uint8_t {
   l3Receive = 0,    // addressed to the switch itself: routing protocols, management
   glean = 1,        // next hop not yet resolved: ARP or neighbour discovery must run
   mtuExceeded = 2,  // needs an ICMP "too big" for path-MTU discovery
   ttlExpired = 3,   // needs an ICMP "time exceeded" (traceroute)
   ipOptions = 4,    // options the chip cannot forward
   urpfFail = 5,     // failed the reverse-path check; copied for logging only
};

// Control traffic for the switch itself must never queue behind exceptions that a transit flood
// can trigger at line rate; resolution comes next because it puts traffic back on the fast path.
TrapPriority trapPriority(L3TrapReason reason);

// Header fields an ECMP hash can take in; a mode is a fixed set of them.
enum class EcmpHashField : uint8_t {
   srcIp = 0x01,
   dstIp = 0x02,
   ipProtocol = 0x04,
   srcL4Port = 0x08,
   dstL4Port = 0x10,
   ipv6FlowLabel = 0x20,
   innerHeader = 0x40,  // hash the fields of the encapsulated packet (VXLAN) instead
};

enum class EcmpHashMode : uint8_t {
   srcDstIp = 0,           // addresses only: stable through fragmentation
   fiveTuple = 1,          // addresses, protocol, ports: the finest spread
   srcDstIpFlowLabel = 2,  // IPv6: addresses and the flow label the host chose
   innerFiveTuple = 3,     // VXLAN decap: spread tenant flows, not the tunnel's one flow
};

uint8_t ecmpHashFields(EcmpHashMode mode);
constexpr bool hasField(uint8_t mask, EcmpHashField f) {
   return mask & uint8_t(f);
}

std::string_view toString(TrapPriority v);
std::string_view toString(L3TrapReason v);
std::string_view toString(EcmpHashField v);
std::string_view toString(EcmpHashMode v);
TrapPriority trapPriorityFromString(std::string_view text);
L3TrapReason l3TrapReasonFromString(std::string_view text);
EcmpHashField ecmpHashFieldFromString(std::string_view text);
EcmpHashMode ecmpHashModeFromString(std::string_view text);

}  // namespace VexloL3Common

#define VEXLO_CONSTANTS_FORMATTER(T)                                                       \
   template <>                                                                             \
   struct fmt::formatter<T> : fmt::formatter<std::string_view> {                           \
      template <class Ctx>                                                                 \
      auto format(T v, Ctx& ctx) const {                                                   \
         return fmt::formatter<std::string_view>::format(VexloL3Common::toString(v), ctx); \
      }                                                                                    \
   }
VEXLO_CONSTANTS_FORMATTER(VexloL3Common::TrapPriority);
VEXLO_CONSTANTS_FORMATTER(VexloL3Common::L3TrapReason);
VEXLO_CONSTANTS_FORMATTER(VexloL3Common::EcmpHashField);
VEXLO_CONSTANTS_FORMATTER(VexloL3Common::EcmpHashMode);
#undef VEXLO_CONSTANTS_FORMATTER

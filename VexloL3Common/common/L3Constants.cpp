#include "VexloL3Common/common/L3Constants.h"

#include <stdexcept>

namespace VexloL3Common {

namespace {

template <class E>
struct Named {
   E value;
   std::string_view name;
};

constexpr Named<TrapPriority> trapPriorityNames[] = {
    {TrapPriority::low, "low"},
    {TrapPriority::medium, "medium"},
    {TrapPriority::high, "high"},
    {TrapPriority::critical, "critical"},
};

constexpr Named<L3TrapReason> l3TrapReasonNames[] = {
    {L3TrapReason::l3Receive, "l3Receive"},     {L3TrapReason::glean, "glean"},
    {L3TrapReason::mtuExceeded, "mtuExceeded"}, {L3TrapReason::ttlExpired, "ttlExpired"},
    {L3TrapReason::ipOptions, "ipOptions"},     {L3TrapReason::urpfFail, "urpfFail"},
};

constexpr Named<EcmpHashField> ecmpHashFieldNames[] = {
    {EcmpHashField::srcIp, "srcIp"},
    {EcmpHashField::dstIp, "dstIp"},
    {EcmpHashField::ipProtocol, "ipProtocol"},
    {EcmpHashField::srcL4Port, "srcL4Port"},
    {EcmpHashField::dstL4Port, "dstL4Port"},
    {EcmpHashField::ipv6FlowLabel, "ipv6FlowLabel"},
    {EcmpHashField::innerHeader, "innerHeader"},
};

constexpr Named<EcmpHashMode> ecmpHashModeNames[] = {
    {EcmpHashMode::srcDstIp, "srcDstIp"},
    {EcmpHashMode::fiveTuple, "fiveTuple"},
    {EcmpHashMode::srcDstIpFlowLabel, "srcDstIpFlowLabel"},
    {EcmpHashMode::innerFiveTuple, "innerFiveTuple"},
};

template <class E, size_t N>
std::string_view nameOf(const Named<E> (&table)[N], E v) {
   for (const auto& n : table) {
      if (n.value == v) return n.name;
   }
   return "unknown";
}

template <class E, size_t N>
E parse(const Named<E> (&table)[N], std::string_view typeName, std::string_view text) {
   for (const auto& n : table) {
      if (n.name == text) return n.value;
   }
   throw std::range_error(fmt::format("Invalid {} \"{}\"", typeName, text));
}

constexpr uint8_t operator|(EcmpHashField a, EcmpHashField b) {
   return uint8_t(a) | uint8_t(b);
}
constexpr uint8_t operator|(uint8_t a, EcmpHashField b) {
   return a | uint8_t(b);
}

}  // namespace

TrapPriority trapPriority(L3TrapReason reason) {
   switch (reason) {
      case L3TrapReason::l3Receive:
         return TrapPriority::critical;
      case L3TrapReason::glean:
         return TrapPriority::high;
      case L3TrapReason::mtuExceeded:
      case L3TrapReason::ttlExpired:
         return TrapPriority::medium;
      case L3TrapReason::ipOptions:
      case L3TrapReason::urpfFail:
         return TrapPriority::low;
   }
   return TrapPriority::low;
}

uint8_t ecmpHashFields(EcmpHashMode mode) {
   using F = EcmpHashField;
   constexpr uint8_t fiveTuple = F::srcIp | F::dstIp | F::ipProtocol | F::srcL4Port | F::dstL4Port;
   switch (mode) {
      case EcmpHashMode::srcDstIp:
         return F::srcIp | F::dstIp;
      case EcmpHashMode::fiveTuple:
         return fiveTuple;
      case EcmpHashMode::srcDstIpFlowLabel:
         return F::srcIp | F::dstIp | F::ipv6FlowLabel;
      case EcmpHashMode::innerFiveTuple:
         return fiveTuple | F::innerHeader;
   }
   return 0;
}

std::string_view toString(TrapPriority v) {
   return nameOf(trapPriorityNames, v);
}
std::string_view toString(L3TrapReason v) {
   return nameOf(l3TrapReasonNames, v);
}
std::string_view toString(EcmpHashField v) {
   return nameOf(ecmpHashFieldNames, v);
}
std::string_view toString(EcmpHashMode v) {
   return nameOf(ecmpHashModeNames, v);
}

TrapPriority trapPriorityFromString(std::string_view text) {
   return parse(trapPriorityNames, "TrapPriority", text);
}
L3TrapReason l3TrapReasonFromString(std::string_view text) {
   return parse(l3TrapReasonNames, "L3TrapReason", text);
}
EcmpHashField ecmpHashFieldFromString(std::string_view text) {
   return parse(ecmpHashFieldNames, "EcmpHashField", text);
}
EcmpHashMode ecmpHashModeFromString(std::string_view text) {
   return parse(ecmpHashModeNames, "EcmpHashMode", text);
}

}  // namespace VexloL3Common

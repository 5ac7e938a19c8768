// Route deletion and merging of half-full IPv4 entries.
#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {

Ulo::TraceHandle th("VexloL3CommonTcamTable");

// What the delete traces print for an argument the caller left out.
struct Given {
   const std::optional<uint32_t>& v;
};
struct GivenBool {
   const std::optional<bool>& v;
};

}  // namespace
}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::Given> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(const VexloL3Common::Given& g, Ctx& ctx) const {
      return g.v ? fmt::format_to(ctx.out(), "{}", *g.v) : fmt::format_to(ctx.out(), "none");
   }
};
template <>
struct fmt::formatter<VexloL3Common::GivenBool> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(const VexloL3Common::GivenBool& g, Ctx& ctx) const {
      return g.v ? fmt::format_to(ctx.out(), "{}", *g.v) : fmt::format_to(ctx.out(), "none");
   }
};

namespace VexloL3Common {

void L3TcamManagerContext::deleteRoute(RouteType t, uint32_t pos, uint32_t len) {
   unsigned level = 2;
   switch (t) {
      case RouteType::v4:
      case RouteType::v4Mcast:
         level = 2;
         break;
      case RouteType::v6Full:
         VEXLO_ASSERT_MSG(supportsDefipPairing(), "supportsDefipPairing()",
                          "DefipPairing is not supported");
         level = 3;
         break;
      case RouteType::v6Half:
         level = 3;
         break;
      default:
         VEXLO_UNREACHABLE("Invalid route type");
   }
   TRACE(th, level, "deleteRoute", ", pos: ", pos, ", len: ", len, " type: ", t);
   TcamRegion& region = regions_[t];
   region.release(len, region.slot(pos));
   rearmSwapReserve();
}

RouteReturnCode L3TcamManagerContext::deleteRoute4(const Ipv4UcastKey& key, bool merge,
                                                   uint64_t sequence, std::optional<uint32_t> pos,
                                                   std::optional<bool> right) {
   TRACE(th, 2, "deleteRoute4", ", key: ", key.prefix, " (vrf ", key.vrfId, ")", ",", merge,
         ", seq: ", sequence, " index: ", Given{pos}, " right: ", GivenBool{right});
   const uint32_t p = pos ? *pos : v4_->getEntryId(key);
   const bool r = right ? *right : v4_->rightKey(key, p);
   VEXLO_ASSERT_MSG(v4_->hasEntryKey(key, p), "v4()->hasEntryKey( key, pos )", "entryId: ", p);
   const uint32_t len = key.len();
   stats_->maskLengthsIpv4Dec(len, 1);
   RouteReturnCode rc;
   rc.routeId = p;
   rc.tcamV4RightKey = r;
   const uint32_t halfFullPos = v4_->halfFull(len);
   if (v4_->deleteEntry(key, p, r)) {
      VEXLO_ASSERT(halfFullPos == p || !twoV4RoutesPerEntry(),
                   "( halfFullPos == pos ) || !twoV4RoutesPerEntry()");
      deleteRoute(RouteType::v4, p, len);
      return rc;
   }
   VEXLO_ASSERT(twoV4RoutesPerEntry(), "twoV4RoutesPerEntry()");
   if (halfFullPos != 0) {
      // The length now has two half-used entries.
      if (merge) {
         mergeRoute4(key, p, halfFullPos, sequence);
         rc.merged = true;
      } else {
         TRACE(th, 2, "  can merge entry from pos ", halfFullPos, " pos ", p);
         rc.canMerge = true;
         rc.mergePos = halfFullPos;
      }
   }
   return rc;
}

void L3TcamManagerContext::mergeRoute4(const Ipv4UcastKey& key, uint32_t pos, uint32_t halfFullPos,
                                       uint64_t sequence) {
   TRACE(th, 2, "mergeRoute4", ", key: ", key.prefix, " (vrf ", key.vrfId, ")", ", pos: ", pos,
         ", halfFullPos: ", halfFullPos, ", sequence: ", sequence);
   VEXLO_ASSERT(halfFullPos != pos, "halfFullPos != pos");
   regions_[RouteType::v4].merge(key.len(), halfFullPos, pos, key.vrfId, sequence);
   rearmSwapReserve();
}

RouteReturnCode L3TcamManagerContext::deleteRoute6(const Ipv6UcastKey& key,
                                                   std::optional<uint32_t> pos) {
   TRACE(th, 3, "deleteRoute6", ", key: ", key.prefix, " (vrf ", key.vrfId, ")",
         " index: ", Given{pos});
   const uint32_t p = pos ? *pos : v6_->getEntryId(key);
   VEXLO_ASSERT_MSG(v6_->hasEntryId(key, p), "v6()->hasEntryId( key, pos )", "entryId: ", p);
   v6_->deleteEntry(key, p);
   RouteReturnCode rc;
   rc.routeId = p;
   const RouteType t = p < v6_->tcamBorder() ? RouteType::v6Full : RouteType::v6Half;
   deleteRoute(t, p, key.len());
   stats_->maskLengthsIpv6Dec(key.len(), 1);
   return rc;
}

RouteReturnCode L3TcamManagerContext::deleteMroute4(const IpMcastPrefixKey& key) {
   TRACE(th, 2, "deleteMroute4", ", key: ", key);
   const uint32_t p = mcastV4_->entryId(key);
   VEXLO_ASSERT_MSG(p != 0, "pos", "entryId: ", p);
   mcastV4_->deleteEntry(key, p);
   deleteRoute(RouteType::v4Mcast, p, key.len);
   stats_->maskLengthsMcastIpv4Dec(key.len, 1);
   RouteReturnCode rc;
   rc.routeId = p;
   return rc;
}

}  // namespace VexloL3Common

#include "sim/TcamImage.h"

#include <algorithm>

#include "platform/Assert.h"

namespace VexloL3Common::sim {

std::vector<TcamHardwareEntry> imageOf(const TcamEmulator& emu) {
   std::vector<TcamHardwareEntry> image;
   emu.forEachEntry([&](uint32_t pos, const TcamEntry& e) {
      TcamHardwareEntry h;
      h.pos = pos;
      switch (e.kind) {
         case EntryKind::v4:
            h.kind = TcamHardwareEntry::Kind::v4;
            h.v4 = e.v4;
            break;
         case EntryKind::v6Single:
            h.kind = TcamHardwareEntry::Kind::v6Single;
            h.v6 = e.v6;
            break;
         case EntryKind::v6DoubleFirst:
            h.kind = TcamHardwareEntry::Kind::v6Double;
            h.v6 = e.v6;
            break;
         case EntryKind::v6DoubleSecond:
            h.kind = TcamHardwareEntry::Kind::v6DoubleSecond;
            h.v6 = e.v6;
            break;
         case EntryKind::mcast:
            h.kind = TcamHardwareEntry::Kind::mcast;
            h.mcast = e.mcast;
            break;
         case EntryKind::empty:
            VEXLO_UNREACHABLE("forEachEntry visits non-empty entries only");
      }
      image.push_back(h);
   });
   return image;
}

std::vector<TcamHardwareEntry> imageOf(const L3TcamManagerContext& ctx) {
   using Kind = TcamHardwareEntry::Kind;
   std::vector<TcamHardwareEntry> image;
   if (const MappingV4Base* v4 = ctx.v4().get()) {
      v4->forEachKeys([&](uint32_t pos, const Ipv4Keys& k) {
         TcamHardwareEntry h;
         h.pos = pos;
         h.v4 = k;
         image.push_back(h);
      });
   }
   if (const MappingV6Base* v6 = ctx.v6().get()) {
      // Below the IPv6 border an entry is the first of a double-size pair.
      const uint32_t gap = ctx.lpmPairGap();
      v6->forEachEntryIdToKey([&](uint32_t pos, const Ipv6UcastKey& k) {
         TcamHardwareEntry h;
         h.pos = pos;
         h.v6 = k;
         const bool doubleSize =
             ctx.supportsDefipPairing() && v6->v6RouteTypeFromPos(pos) == RouteType::v6Full;
         h.kind = doubleSize ? Kind::v6Double : Kind::v6Single;
         image.push_back(h);
         if (doubleSize) {
            h.pos = pos + gap;
            h.kind = Kind::v6DoubleSecond;
            image.push_back(h);
         }
      });
   }
   if (const MappingMcastV4* m = ctx.mcastV4().get()) {
      m->forEachKey([&](uint32_t pos, const IpMcastPrefixKey& k) {
         TcamHardwareEntry h;
         h.pos = pos;
         h.kind = Kind::mcast;
         h.mcast = k;
         image.push_back(h);
      });
   }
   std::sort(image.begin(), image.end(),
             [](const TcamHardwareEntry& a, const TcamHardwareEntry& b) { return a.pos < b.pos; });
   return image;
}

}  // namespace VexloL3Common::sim

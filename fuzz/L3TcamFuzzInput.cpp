// The fuzz target's input decoding: keys from 16-bit words, the layout from the first bytes.
#include "fuzz/L3TcamFuzzInput.h"

#include <algorithm>

namespace VexloL3Common::fuzz {

uint64_t mix(uint64_t x) {
   x += 0x9e3779b97f4a7c15ull;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

uint32_t mask4(uint32_t len) {
   return len == 0 ? 0u : ~0u << (32 - len);
}

Ipv4UcastKey key4(uint16_t x) {
   static constexpr uint8_t lens[8] = {8, 12, 16, 20, 24, 24, 28, 32};
   const uint32_t v = x >> 4;
   uint32_t len = lens[(x >> 1) & 7];
   if (len == 8 && (v & 0xf) == 0) len = 0;  // the default route
   const uint32_t addr = (v & 0xf) << 28 | ((v >> 4) & 0xf) << 20 | ((v >> 8) & 0xf) << 8;
   return Ipv4UcastKey(VrfId(1 + (x & 1)), Ulo::Prefix(addr & mask4(len), uint8_t(len)));
}

void mask6(Ulo::Ip6Prefix::Bytes& b, uint32_t len) {
   for (uint32_t bit = len; bit < 128; ++bit)
      b[bit / 8] &= uint8_t(~(0x80u >> (bit % 8)));
}

uint32_t len6Of(uint16_t x) {
   static constexpr uint8_t lens[16] = {16, 32, 40, 48, 48,  56,  60,  64,
                                        64, 72, 80, 96, 112, 120, 127, 128};
   return lens[(x >> 1) & 15];
}

Ipv6UcastKey key6(uint16_t x, uint32_t len) {
   static constexpr uint8_t bits[11] = {13, 14, 15, 45, 46, 47, 61, 62, 124, 125, 126};
   Ulo::Ip6Prefix::Bytes b{};
   b[0] = 0x20;
   for (uint32_t i = 0; i < 11; ++i) {
      if (x >> (5 + i) & 1) b[bits[i] / 8] |= uint8_t(0x80u >> (bits[i] % 8));
   }
   if (len == 16 && (x >> 5) == 0) len = 0;
   mask6(b, len);
   return Ipv6UcastKey(VrfId(1 + (x & 1)), Ulo::Ip6Prefix(b, uint8_t(len)));
}

IpMcastPrefixKey mcastKeyOf(uint16_t vrfIndex, uint64_t bits, uint32_t len) {
   const uint32_t used = len < 64 ? len : 64;
   const uint64_t m = used == 0 ? 0 : ~0ull << (64 - used);
   bits &= m;
   return IpMcastPrefixKey(vrfIndex, 0, Ulo::IpGenAddr::v4(uint32_t(bits >> 32)),
                           Ulo::IpGenAddr::v4(uint32_t(bits)), uint8_t(len));
}

IpMcastPrefixKey keyMcast(uint16_t x) {
   static constexpr uint8_t lens[8] = {24, 28, 32, 40, 48, 56, 64, 72};
   const uint32_t g = (x >> 4) & 0x3f, s = x >> 10;
   const uint32_t group = 0xe0000000u | (g & 7) << 20 | (g >> 3) << 4;
   const uint32_t source = (s & 7) << 29 | (s >> 3) << 20;
   return mcastKeyOf(uint16_t(x & 1), uint64_t(group) << 32 | source, lens[(x >> 1) & 7]);
}

Layout decodeLayout(Input& in) {
   const uint8_t b0 = in.byte(), b1 = in.byte(), b2 = in.byte(), b3 = in.byte(), b4 = in.byte(),
                 b5 = in.byte();
   Layout l;
   L3TcamManagerContext::Config& c = l.unicast;
   // Small tables are the more likely: they fill up with few operations.
   c.tcamSize = 64u * (1 + (b0 & 31) * (b0 & 31) / 31);
   if (c.tcamSize > 64) c.tcamSize -= 4u * (b0 >> 5);
   static constexpr uint8_t blocks[8] = {1, 2, 4, 8, 16, 32, 3, 5};
   c.numUcastDefipBlocks = blocks[b1 >> 5];
   if (c.tcamSize % c.numUcastDefipBlocks != 0) c.numUcastDefipBlocks = 4;
   c.tcamMode = 1 + (b1 & 3);
   c.twoV4RoutesPerEntry = b2 & 1;
   c.supportsDefipPairing = b2 & 2;
   c.dynamicV4V6Boundary = c.supportsDefipPairing && (b2 & 4);
   c.v4V6InterleavingDisabled = !(b2 & 8);
   // uRPF exists in modes 2 and 4 only, and a fixed pairing border excludes it.
   l.urpf = (b2 & 16) && !(c.supportsDefipPairing && !c.dynamicV4V6Boundary);
   if (l.urpf && c.tcamMode % 2 == 1) ++c.tcamMode;
   l.hasMcast = b2 & 32;
   c.reAddAllowed = b2 & 64;
   if (b2 & 128) c.requestedTableMode = 1;  // not the current mode: no swap area
   c.pairGap = (b3 & 0x80) ? (b3 & 0x7f) : ((b3 & 7) ? 4u << (b3 & 7) : 0);
   if ((b4 & 1) && !l.urpf && c.tcamMode % 2 == 0) c.fallbackVrfId = VrfId(3);
   l.sharedRegions = (b4 & 2) && c.supportsDefipPairing && !c.v4V6InterleavingDisabled;
   l.mcast.v4Mcast = true;
   l.mcast.tcamSize = 64u << std::min((b4 >> 2) & 7, 5);
   if (b4 & 32) l.mcast.pairGap = l.mcast.tcamSize / 2;
   if (b4 & 64) c.placementPolicy = PlacementPolicy::weighted;
   c.borderMoveInRanges = b4 & 128;
   l.invalidEntries = b5;
   if (l.invalidEntries & 15) c.invalidEntryManagerType = 1;  // the platform brings its own
   return l;
}

}  // namespace VexloL3Common::fuzz

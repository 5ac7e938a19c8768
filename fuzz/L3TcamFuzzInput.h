// The fuzz target's input decoding: the bytes that choose the layout, and the 16-bit words that
// become route keys (the byte format is described at the top of L3TcamFuzz.cpp).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "VexloL3Common/tcam/L3TcamTable.h"

namespace VexloL3Common::fuzz {

struct Input {
   const uint8_t* data;
   size_t size, pos = 0;
   uint8_t byte() { return pos < size ? data[pos++] : 0; }
   bool done() const { return pos >= size; }
};

uint64_t mix(uint64_t x);

// ---- keys: 16 bits each, few distinct address bits so that prefixes nest and repeat

uint32_t mask4(uint32_t len);
// Bit 0: VRF 1 or 2. Bits 1-3: the length. Bits 4-15: three nibbles of address, at prefix bits
// 1-4, 9-12 and 21-24, so /8s hold /16s, which hold /24s.
Ipv4UcastKey key4(uint16_t x);

void mask6(Ulo::Ip6Prefix::Bytes& b, uint32_t len);
// Bit 0: VRF. Bits 1-4: the length (single-size up to 64, double-size beyond). Bits 5-15: address
// bits inside /16, /48, /64 and /127.
uint32_t len6Of(uint16_t x);
Ipv6UcastKey key6(uint16_t x, uint32_t len);

// bits: group and source as one 64-bit value, the way the multicast table compares them.
IpMcastPrefixKey mcastKeyOf(uint16_t vrfIndex, uint64_t bits, uint32_t len);
// Bit 0: VRF index. Bits 1-3: the length (group only up to 32, then source bits). Bits 4-9: group
// bits, bits 10-15: source bits.
IpMcastPrefixKey keyMcast(uint16_t x);

// ---- the layout

struct Layout {
   L3TcamManagerContext::Config unicast;
   L3TcamManagerContext::Config mcast;
   bool urpf = false;
   bool hasMcast = false;
   bool sharedRegions = false;
   uint8_t invalidEntries = 0;  // byte 5
};

// A platform's invalid-entry manager: a few short runs of entries, and of pairs, that must never
// hold a route, placed by the input. Every layout (uRPF halves the table) places them afresh.
class InvalidEntries : public LpmInvalidEntryManager {
 public:
   explicit InvalidEntries(uint8_t layoutByte) : byte_(layoutByte) {}
   void allocateInvalidEntries(bool, const Ulo::Ptr<HBitmap>& bitmap) override {
      invalidEntryRangeDelAll();
      mark(*bitmap, byte_ & 3, false);
   }
   void allocateInvalidEntriesPair(bool, const Ulo::Ptr<HBitmap>& bitmapPair) override {
      invalidEntryRangePairDelAll();
      mark(*bitmapPair, (byte_ >> 2) & 3, true);
   }

 private:
   void mark(HBitmap& map, uint32_t runs, bool pairs) {
      const uint32_t n = map.size();
      for (uint32_t i = 0; n > 1 && i < runs; ++i) {
         const uint64_t r = mix(uint64_t(byte_) << 8 | i << 1 | (pairs ? 1 : 0));
         const uint32_t start = 1 + uint32_t(r % (n - 1));
         const uint32_t end = std::min(n - 1, start + uint32_t(r >> 40) % 4);
         for (uint32_t b = start; b <= end; ++b)
            map.setBit(b);
         pairs ? invalidEntryRangePairIs({start, end}) : invalidEntryRangeIs({start, end});
      }
   }

   uint8_t byte_;
};

// Bytes 0 to 5.
Layout decodeLayout(Input& in);

}  // namespace VexloL3Common::fuzz

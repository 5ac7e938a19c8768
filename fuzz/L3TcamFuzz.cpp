// libFuzzer target for the TCAM model. The input chooses a table layout and then a sequence of
// operations that an agent may legally send; the model is driven through sim::EmulatedTable, so
// every move and merge it publishes is carried out on a first-match emulator of the hardware.
// After every route operation the emulator checks that no installed route became unreachable or
// shadowed, and a shadow set of the installed routes must agree with the model and the hardware:
// the same routes counted, the route just touched at the entry the model names. The model's own
// verify() and a lookup of the touched address (it must hit the longest installed prefix) follow
// every step on small tables and every few steps on large ones; the whole table is checked from
// scratch now and then and at the end (see "checks" below). Any disagreement is a fatal
// assertion, which aborts: libFuzzer records the input as a crash.
//
// Operations that the model treats as a broken caller (a duplicate add without re-adding allowed,
// the delete of an absent route, an IPv6 length the layout has no entries for, uRPF in a mode
// without it) are never sent: the shadow set and the layout decide.
//
// Input format. Every byte read past the end reads as 0, so every input decodes and one input
// always runs the same way.
//   byte 0  table size: 64 * (1 + n * n / 31) with n = b % 32, less 4 * (b / 32) on tables above
//           64 entries
//   byte 1  bits 0-1: mode - 1; bits 5-7: blocks {1, 2, 4, 8, 16, 32, 3, 5} (4 when the size is
//           not a multiple)
//   byte 2  bit 0 two IPv4 routes per entry, 1 pairing, 2 moving border (with pairing),
//           3 IPv4/IPv6 interleaving allowed, 4 uRPF (moves mode 1 or 3 up to 2 or 4),
//           5 multicast table, 6 re-adding allowed, 7 no swap area
//   byte 3  pair gap: bit 7 set: b & 127; else 0 (derived) or 4 << (b & 7)
//   byte 4  bit 0 a fallback VRF (modes 2 and 4, no uRPF), bit 1 single- and double-size IPv6
//           regions side by side (pairing with interleaving), bits 2-4 multicast size 64 << n (at
//           most 2048), bit 5 the multicast table reserves its pair-gap entry, bit 6 weighted
//           placement, bit 7 the border moves in ranges
//   byte 5  invalid entries of the platform: bits 0-1 runs of entries, bits 2-3 runs of pairs
//           (each 1 to 4 long), bits 4-7 where
//   then operations, each an opcode byte (b % 16) and its arguments:
//    0, 1  add IPv4        key(2) flags(1)            flags bit 0: may use the swap area
//    2     delete IPv4     pick(2) flags(1)           bit 0: merge at once, else merge afterwards
//    3     add IPv6        key(2) flags(1)
//    4     delete IPv6     pick(2)
//    5     fill IPv4       count(1) seed(1) shape(1)  up to count + 1 adds of generated keys
//    6     fill IPv6       count(1) seed(1) shape(1)
//    7     drain           count(1) seed(1) which(1)  deletes: 0 IPv4, 1 IPv6, 2 multicast, 3 any
//    8     add multicast   key(2)
//    9     delete mcast    pick(2)
//   10     fill multicast  count(1) seed(1) shape(1)
//   11     move the border sel(1)                     bits 0-6: border step, bit 7: swap area
//   12     switch uRPF     flags(1)                   bit 0: delete every unicast route first
//   13     restart         which(1)                   bit 0: unicast, bit 1: multicast, bit 2:
//                                                     placed entry by entry in an order drawn
//                                                     from bits 3-7 instead of rebuilt at once
//   14     re-add          pick(2) flags(1)           bit 0: IPv6 (only where re-adding is
//   allowed);
//                                                     under weighted placement, bit 1 rebalances
//                                                     instead, at most pick % 64 + 1 moves
//   15     mixed fill      count(1) seed(1) shape(1)  IPv4 and IPv6 adds in turn
//   key: bit 0 VRF, then the length index and address bits (see key4 / key6 / keyMcast).
//   shape: bits 0-2 length index + 1 (0: from the key bits), bit 3 swap area, bit 4 one VRF.
//
// This file decodes the opcodes and is the entry point; L3TcamFuzzInput decodes the layout bytes
// and the keys, L3TcamFuzzRun.h holds the run with its shadow sets, L3TcamFuzzSteps.cpp the
// operations and L3TcamFuzzChecks.cpp the checks.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>

#include "fuzz/L3TcamFuzzInput.h"
#include "fuzz/L3TcamFuzzRun.h"

namespace VexloL3Common::fuzz {

void Run::execute(Input& in) {
   // Argument bytes of each opcode, all read whatever the operation then does.
   static constexpr uint8_t argBytes[16] = {3, 3, 3, 3, 2, 3, 3, 3, 2, 2, 3, 1, 1, 1, 3, 3};
   for (uint32_t ops = 0; ops < maxOps && steps_ < maxSteps && !in.done(); ++ops) {
      const uint8_t op = in.byte() % 16;
      std::array<uint8_t, 3> a{};
      for (uint32_t i = 0; i < argBytes[op]; ++i)
         a[i] = in.byte();
      const uint16_t word = uint16_t(a[0] | a[1] << 8);  // a key or a pick, little-endian
      switch (op) {
         case 0:
         case 1:
            add4(key4(word), a[2] & 1);
            break;
         case 2:
            if (in4_.size()) del4(in4_.pick(word), a[2] & 1);
            break;
         case 3:
            add6(word, a[2] & 1);
            break;
         case 4:
            if (in6_.size()) del6(in6_.pick(word));
            break;
         case 7:
            drain(a[0], a[1], a[2] & 3);
            break;
         case 8:
            if (mc_) addMcast(keyMcast(word));
            break;
         case 9:
            if (mc_ && inM_.size()) delMcast(inM_.pick(word));
            break;
         case 11:
            moveBorder(a[0]);
            break;
         case 12:
            switchUrpf(a[0] & 1);
            break;
         case 13:
            if (a[0] & 1) restartUnicast(a[0]);
            if ((a[0] & 2) && mc_) {
               restart(mc_, mcastTable(), a[0] & 4, a[0], std::nullopt, a[0] & 4);
            }
            break;
         case 14:
            if ((a[2] & 2) && ctx().placementPolicy() == PlacementPolicy::weighted)
               rebalance(word % 64 + 1);
            else
               reAdd(word, a[2] & 1);
            break;
         default:  // 5, 6, 10, 15
            fill(op, a[0], a[1], a[2]);
      }
   }
   fullCheck();
   if (summaryWanted) summary();
}

}  // namespace VexloL3Common::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   using namespace VexloL3Common::fuzz;
   Input in{data, size};
   const Layout layout = decodeLayout(in);
   std::unique_ptr<Run> run;
   try {
      run = std::make_unique<Run>(layout);
   } catch (const std::range_error&) {
      return 0;  // a layout the model refuses; nothing to run
   }
   run->execute(in);
   return 0;
}

// Allocation of hardware table indices: next-hop remap entries, ECMP members, VXLAN virtual ports.
//
// Synopsis
//   IndexAllocator a("ecmpMember", 1, 32767);          inclusive range
//   IndexAllocator b("nhRemap", 1, 16383, {1, 2});      reserved indices are never handed out
//   std::optional<uint32_t> i = a.allocate();          lowest free index; empty when exhausted
//   a.free(*i);                                        fatal unless *i is allocated
//   a.claim(7);                                        take a given index (rebuild from hardware)
//   auto p = vxlanVirtualPortAllocatorFactory();       the chip's tables, ready to use
//
// One HBitmap bit per index of the range, set while the index is in use or reserved, so an
// allocation is one hierarchical clear-bit search and nothing is allocated on the heap per call.
// Running out is soft: allocate() returns nothing, counts the miss and traces it. Freeing an index
// that is not allocated (twice, reserved, or outside the range) is a broken invariant and fatal.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VexloL3Common/types/HBitmap.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

class IndexAllocator {
 public:
   // first <= last, and every reserved index inside the range; otherwise fatal.
   IndexAllocator(std::string name, uint32_t first, uint32_t last,
                  std::vector<uint32_t> reserved = {});

   const std::string& name() const { return name_; }
   uint32_t first() const { return first_; }
   uint32_t last() const { return last_; }
   // Indices that can be handed out at all: the range less the reserved ones.
   uint32_t capacity() const { return used_.size() - uint32_t(reserved_.size()); }
   uint32_t numAllocated() const { return used_.count() - uint32_t(reserved_.size()); }
   uint32_t numFree() const { return capacity() - numAllocated(); }
   // How many allocations found nothing free.
   uint64_t exhaustedCount() const { return exhaustedCount_; }

   bool contains(uint32_t index) const { return index >= first_ && index <= last_; }
   bool isReserved(uint32_t index) const;
   bool isAllocated(uint32_t index) const {
      return contains(index) && used_.isBitSet(index - first_) && !isReserved(index);
   }

   std::optional<uint32_t> allocate();
   // Takes this index; false when it is already allocated. Outside the range or reserved: fatal.
   bool claim(uint32_t index);
   void free(uint32_t index);

 private:
   std::string name_;
   uint32_t first_;
   uint32_t last_;
   std::vector<uint32_t> reserved_;  // sorted, unique
   HBitmap used_;                    // bit (index - first) set: allocated or reserved
   uint64_t exhaustedCount_ = 0;
};

// The chip's tables. Index 0 of every table means "none" and is never handed out.
// Next-hop remap table of 16K entries; 1 is the drop next hop and 2 the to-CPU next hop, which
// every agent expects at fixed places.
inline constexpr uint32_t nextHopRemapFirst = 1;
inline constexpr uint32_t nextHopRemapLast = 16383;
inline constexpr uint32_t nextHopRemapDropIndex = 1;
inline constexpr uint32_t nextHopRemapCpuIndex = 2;
// ECMP member table of 32K entries.
inline constexpr uint32_t ecmpMemberFirst = 1;
inline constexpr uint32_t ecmpMemberLast = 32767;
// 8K VXLAN virtual ports; kept well below 0xFFFF, which marks a port channel without a port.
inline constexpr uint32_t vxlanVirtualPortFirst = 1;
inline constexpr uint32_t vxlanVirtualPortLast = 8191;

Ulo::Ptr<IndexAllocator> indexAllocatorFactory(const std::string& name, uint32_t first,
                                               uint32_t last, std::vector<uint32_t> reserved = {});
Ulo::Ptr<IndexAllocator> nextHopRemapAllocatorFactory(const std::string& name = "nextHopRemap");
Ulo::Ptr<IndexAllocator> ecmpMemberAllocatorFactory(const std::string& name = "ecmpMember");
Ulo::Ptr<IndexAllocator> vxlanVirtualPortAllocatorFactory(
    const std::string& name = "vxlanVirtualPort");

}  // namespace VexloL3Common

#include "VexloL3Common/common/IndexAllocator.h"

#include <algorithm>
#include <utility>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("IndexAllocator");
}

IndexAllocator::IndexAllocator(std::string name, uint32_t first, uint32_t last,
                               std::vector<uint32_t> reserved)
    : name_(std::move(name)), first_(first), last_(last), reserved_(std::move(reserved)) {
   VEXLO_ASSERT_MSG(first <= last, "first <= last", name_, ": range ", first, "-", last);
   // The bitmap counts positions in 32 bits: the whole 0-0xFFFFFFFF range does not fit.
   VEXLO_ASSERT_MSG(last - first < HBitmap::npos, "last - first < HBitmap::npos", name_);
   std::sort(reserved_.begin(), reserved_.end());
   reserved_.erase(std::unique(reserved_.begin(), reserved_.end()), reserved_.end());
   used_ = HBitmap(last - first + 1);
   for (uint32_t r : reserved_) {
      VEXLO_ASSERT_MSG(contains(r), "reserved index inside the range", name_, ": reserved ", r,
                       " outside ", first_, "-", last_);
      used_.setBit(r - first_);
   }
}

bool IndexAllocator::isReserved(uint32_t index) const {
   return std::binary_search(reserved_.begin(), reserved_.end(), index);
}

std::optional<uint32_t> IndexAllocator::allocate() {
   const uint32_t pos = used_.findFirstClear(0, used_.size() - 1);
   if (pos == HBitmap::npos) {
      ++exhaustedCount_;
      TRACE(th, 2, "allocate", " ", name_, " exhausted, capacity: ", capacity());
      return std::nullopt;
   }
   used_.setBit(pos);
   return first_ + pos;
}

bool IndexAllocator::claim(uint32_t index) {
   VEXLO_ASSERT_MSG(contains(index), "claimed index inside the range", name_, ": claim of ", index,
                    " outside ", first_, "-", last_);
   VEXLO_ASSERT_MSG(!isReserved(index), "claimed index not reserved", name_,
                    ": claim of reserved index ", index);
   if (used_.isBitSet(index - first_)) return false;
   used_.setBit(index - first_);
   return true;
}

void IndexAllocator::free(uint32_t index) {
   VEXLO_ASSERT_MSG(contains(index), "freed index inside the range", name_, ": free of ", index,
                    " outside ", first_, "-", last_);
   VEXLO_ASSERT_MSG(!isReserved(index), "freed index not reserved", name_,
                    ": free of reserved index ", index);
   VEXLO_ASSERT_MSG(used_.isBitSet(index - first_), "freed index allocated", name_, ": free of ",
                    index, ", which is not allocated");
   used_.clearBit(index - first_);
}

Ulo::Ptr<IndexAllocator> indexAllocatorFactory(const std::string& name, uint32_t first,
                                               uint32_t last, std::vector<uint32_t> reserved) {
   return std::make_shared<IndexAllocator>(name, first, last, std::move(reserved));
}

Ulo::Ptr<IndexAllocator> nextHopRemapAllocatorFactory(const std::string& name) {
   return indexAllocatorFactory(name, nextHopRemapFirst, nextHopRemapLast,
                                {nextHopRemapDropIndex, nextHopRemapCpuIndex});
}

Ulo::Ptr<IndexAllocator> ecmpMemberAllocatorFactory(const std::string& name) {
   return indexAllocatorFactory(name, ecmpMemberFirst, ecmpMemberLast);
}

Ulo::Ptr<IndexAllocator> vxlanVirtualPortAllocatorFactory(const std::string& name) {
   return indexAllocatorFactory(name, vxlanVirtualPortFirst, vxlanVirtualPortLast);
}

}  // namespace VexloL3Common

#include "VexloL3Common/tcam/L3Stats.h"

#include "platform/Assert.h"

namespace VexloL3Common {

void throwRouteTypeIndexError(unsigned index, unsigned size) {
   throw std::range_error(
       fmt::format("cannot access index {} of an array with size {}", index, size));
}

}  // namespace VexloL3Common

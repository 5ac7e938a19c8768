// Uses the installed library as a client would: exits 0 only when the types behave.
#include <VexloL3Common/types/L3RouteTypes.h>

#include <cstdio>
#include <iterator>

int main() {
   using VexloL3Common::IndexRange;
   using VexloL3Common::IndexRangeList;

   IndexRangeList list(false);
   list.indexRangeIs(IndexRange(5, 9));
   list.indexRangeIs(IndexRange(0, 4));
   if (list.indexRange().size() != 2) {
      std::fprintf(stderr, "expected two ranges before merge, got %zu\n", list.indexRange().size());
      return 1;
   }
   // The set is ordered, so the lower range comes first whatever the insertion order.
   if (list.indexRange().begin()->start() != 0) {
      std::fprintf(stderr, "ranges are not ordered by start\n");
      return 1;
   }

   list.merge();
   const auto& merged = list.indexRange();
   if (merged.size() != 1 || merged.begin()->start() != 0 || merged.begin()->end() != 9) {
      std::fprintf(stderr, "merging [0,4] and [5,9] did not give the single run [0,9]\n");
      return 1;
   }
   std::puts("vexlo consumer: ok");
   return 0;
}

#include "VexloL3Common/types/L3RouteTypes.h"

#include <stdexcept>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

constexpr std::string_view routeTypeNames[] = {"v4", "v6Full", "v6Half", "v4Mcast"};
constexpr std::string_view entryTypeNames[] = {"none",   "v4Left", "v4Right",
                                               "v4Both", "v6",     "mcastV4"};

}  // namespace

size_t Ipv4UcastKey::hash(size_t seed) const {
   return Ulo::hashValue(prefix, Ulo::hashValue(vrfId, seed));
}

std::string Ipv4UcastKey::toString() const {
   return fmt::format("{}(vrf{})", prefix, vrfId);
}

size_t Ipv6UcastKey::hash(size_t seed) const {
   return Ulo::hashValue(prefix, Ulo::hashValue(vrfId, seed));
}

std::string Ipv6UcastKey::toString() const {
   return fmt::format("{}(vrf{})", prefix, vrfId);
}

size_t IpUcastKey::hash(size_t seed) const {
   return Ulo::hashValue(prefix, Ulo::hashValue(vrfId, seed));
}

std::string IpUcastKey::toString() const {
   return fmt::format("{}(vrf{})", prefix, vrfId);
}

size_t IpMcastPrefixKey::hash(size_t seed) const {
   seed = Ulo::hashMix(seed, (uint64_t(vrfIndex) << 24) | (uint64_t(tableId) << 8) | len);
   return Ulo::hashValue(source, Ulo::hashValue(group, seed));
}

std::string IpMcastPrefixKey::toString() const {
   return fmt::format("{},{}/{}({}:{})", group, source, len, vrfIndex, tableId);
}

std::string Ipv4Keys::toString() const {
   return fmt::format("left: {} right: {}", left, right);
}

std::string_view toString(RouteType t) {
   unsigned i = unsigned(t);
   return i < std::size(routeTypeNames) ? routeTypeNames[i] : std::string_view("unknown");
}

std::string_view toString(EntryType t) {
   unsigned i = unsigned(t);
   return i < std::size(entryTypeNames) ? entryTypeNames[i] : std::string_view("unknown");
}

RouteType routeTypeFromString(std::string_view text) {
   for (unsigned i = 0; i < std::size(routeTypeNames); ++i) {
      if (routeTypeNames[i] == text) return RouteType(i);
   }
   throw std::range_error(fmt::format("invalid RouteType \"{}\"", text));
}

EntryType entryTypeFromString(std::string_view text) {
   for (unsigned i = 0; i < std::size(entryTypeNames); ++i) {
      if (entryTypeNames[i] == text) return EntryType(i);
   }
   throw std::range_error(fmt::format("invalid EntryType \"{}\"", text));
}

std::string RouteReturnCode::toString() const {
   return fmt::format(
       "routeId: {} tcamV4RightKey: {} merged: {} canMerge: {} mergePos: {} tcamUpdateRequired: {}",
       routeId, tcamV4RightKey, merged, canMerge, mergePos, tcamUpdateRequired);
}

// ---- IndexRange --------------------------------------------------------------------------

size_t IndexRange::hash(size_t seed) const {
   return Ulo::hashMix(Ulo::hashMix(seed, start_), end_);
}

std::string IndexRange::toString() const {
   return fmt::format("{}/{}", start_, end_);
}

// ---- IndexRangeList ----------------------------------------------------------------------

IndexRangeList IndexRangeList::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for IndexRangeList - has collection");
   __builtin_unreachable();
}

void IndexRangeList::indexRangeIs(const IndexRange& range) {
   if (indexRange_.insert(range).second) merged_ = false;
}

bool IndexRangeList::indexRangeDel(const IndexRange& range) {
   if (indexRange_.erase(range) == 0) return false;
   merged_ = false;
   return true;
}

void IndexRangeList::indexRangeDelAll() {
   if (!indexRange_.empty()) merged_ = false;
   indexRange_.clear();
}

bool IndexRangeList::indexRangeHas(const IndexRange& range) const {
   return indexRange_.count(range) != 0;
}

bool IndexRangeList::contains(uint32_t index) const {
   for (const IndexRange& r : indexRange_) {
      if (r.contains(index)) return true;
   }
   return false;
}

std::optional<IndexRange> IndexRangeList::pop() {
   if (indexRange_.empty()) return std::nullopt;
   IndexRange first = *indexRange_.begin();
   indexRange_.erase(indexRange_.begin());
   merged_ = false;
   return first;
}

void IndexRangeList::merge() {
   if (merged_) return;
   if (!indexRange_.empty()) {
      Set joined;
      auto it = indexRange_.begin();
      IndexRange prev = *it;
      uint32_t s = prev.start(), e = prev.end();
      for (++it; it != indexRange_.end(); ++it) {
         const IndexRange& ir = *it;
         VEXLO_ASSERT(prev.start() <= ir.start(), "prev.start() <= ir.start()");
         prev = ir;
         if (uint32_t(e + 1) < ir.start()) {
            joined.insert(IndexRange(s, e));
            s = ir.start();
            e = ir.end();
         } else if (ir.end() > e) {
            e = ir.end();
         }
      }
      joined.insert(IndexRange(s, e));
      indexRange_ = std::move(joined);
   }
   merged_ = true;
}

std::string IndexRangeList::toString() const {
   std::string out = "{";
   bool first = true;
   for (const IndexRange& r : indexRange_) {
      if (!first) out += ", ";
      out += r.toString();
      first = false;
   }
   return out + "}";
}

}  // namespace VexloL3Common

// Route keys, route and entry types, the result record of the TCAM manager, and index ranges.
//
// Synopsis
//   Ipv4UcastKey{vrf, prefix}, Ipv6UcastKey{vrf, prefix}, IpUcastKey{vrf, generic prefix}
//   IpMcastPrefixKey{vrfIndex, tableId, group, source, len}
//   Ipv4Keys{left, right}                  the two IPv4 routes that share one TCAM entry
//   RouteType  v4 | v6Full | v6Half | v4Mcast        placement regions; index per-type arrays
//   EntryType  none | v4Left | v4Right | v4Both | v6 | mcastV4   what a move or merge concerns
//   RouteReturnCode                        result of every add and delete
//   IndexRange{start, end}                 inclusive run of TCAM indices
//   IndexRangeList                         ordered set of runs, joined by merge()
//
// Keys compare field by field in declaration order (the first difference decides). In traces a
// key prints as its prefix followed by "(vrf", the VRF number and ")", e.g. "10.0.0.0/8(vrf1)".
//
// Plain values: they own nothing and are not shared between threads.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/NetTypes.h"

namespace VexloL3Common {

using Ulo::VrfId;

struct Ipv4UcastKey {
   VrfId vrfId;
   Ulo::Prefix prefix;

   Ipv4UcastKey() = default;
   Ipv4UcastKey(VrfId v, const Ulo::Prefix& p) : vrfId(v), prefix(p) {}
   // The filler of an empty IPv4 half: this VRF with the null prefix.
   static Ipv4UcastKey nullKey(VrfId v) { return Ipv4UcastKey(v, Ulo::Prefix::nullPrefix()); }
   bool isNull() const { return prefix.isNullPrefix(); }
   uint32_t len() const { return prefix.len(); }
   auto operator<=>(const Ipv4UcastKey&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;
};

struct Ipv6UcastKey {
   VrfId vrfId;
   Ulo::Ip6Prefix prefix;

   Ipv6UcastKey() = default;
   Ipv6UcastKey(VrfId v, const Ulo::Ip6Prefix& p) : vrfId(v), prefix(p) {}
   uint32_t len() const { return prefix.len(); }
   auto operator<=>(const Ipv6UcastKey&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;
};

// A key of either family, for collections that hold both.
struct IpUcastKey {
   VrfId vrfId;
   Ulo::IpGenPrefix prefix;

   IpUcastKey() = default;
   IpUcastKey(VrfId v, const Ulo::IpGenPrefix& p) : vrfId(v), prefix(p) {}
   auto operator<=>(const IpUcastKey&) const = default;
   // Mixes both fields into the value the caller starts from.
   size_t hash(size_t seed = 0) const;
   std::string toString() const;
};

// An IPv4 multicast entry's key. `len` is the key's length in the multicast table (group and
// source bits together, so it may exceed 32). Prints as "group,source/len(vrfIndex:tableId)".
struct IpMcastPrefixKey {
   uint16_t vrfIndex = 0;
   uint16_t tableId = 0;
   Ulo::IpGenAddr group;
   Ulo::IpGenAddr source;
   uint8_t len = 0;

   IpMcastPrefixKey() = default;
   IpMcastPrefixKey(uint16_t vrf, uint16_t table, const Ulo::IpGenAddr& g, const Ulo::IpGenAddr& s,
                    uint8_t l)
       : vrfIndex(vrf), tableId(table), group(g), source(s), len(l) {}
   auto operator<=>(const IpMcastPrefixKey&) const = default;
   size_t hash(size_t seed = 0) const;
   std::string toString() const;
};

// The two IPv4 routes of one TCAM entry. An empty half holds the null key of a VRF.
struct Ipv4Keys {
   Ipv4UcastKey left;
   Ipv4UcastKey right;

   Ipv4Keys() = default;
   Ipv4Keys(const Ipv4UcastKey& l, const Ipv4UcastKey& r) : left(l), right(r) {}
   // True when at least one half holds a non-null prefix.
   explicit operator bool() const { return !left.isNull() || !right.isNull(); }
   auto operator<=>(const Ipv4Keys&) const = default;
   std::string toString() const;
};

enum class RouteType : uint8_t { v4 = 0, v6Full = 1, v6Half = 2, v4Mcast = 3 };
inline constexpr unsigned numRouteTypes = 4;
inline constexpr RouteType allRouteTypes[numRouteTypes] = {RouteType::v4, RouteType::v6Full,
                                                           RouteType::v6Half, RouteType::v4Mcast};
constexpr unsigned index(RouteType t) {
   return unsigned(t);
}

enum class EntryType : uint8_t {
   none = 0,
   v4Left = 1,
   v4Right = 2,
   v4Both = 3,
   v6 = 4,
   mcastV4 = 5
};

std::string_view toString(RouteType t);
std::string_view toString(EntryType t);
// Range error for an unknown name.
RouteType routeTypeFromString(std::string_view text);
EntryType entryTypeFromString(std::string_view text);

// The result of every add and delete of the TCAM manager.
struct RouteReturnCode {
   uint32_t routeId = 0;  // TCAM index that holds (or held) the route; 0: nothing placed
   bool tcamV4RightKey = false;
   bool merged = false;
   bool canMerge = false;
   uint32_t mergePos = 0;
   bool tcamUpdateRequired = false;
   // Algorithmic-LPM placement results; the TCAM manager leaves them at their defaults.
   uint32_t alpmRouteId = 0;
   uint32_t pivot = 0;
   uint32_t bktId = 0;
   bool covering = false;

   bool operator==(const RouteReturnCode&) const = default;
   std::string toString() const;
};

// An inclusive run of TCAM indices. start > end is not rejected; nobody builds one on purpose.
class IndexRange {
 public:
   constexpr IndexRange() = default;
   constexpr IndexRange(uint32_t start, uint32_t end) : start_(start), end_(end) {}

   constexpr uint32_t start() const { return start_; }
   constexpr uint32_t end() const { return end_; }
   void startIs(uint32_t s) { start_ = s; }
   void endIs(uint32_t e) { end_ = e; }
   constexpr bool contains(uint32_t index) const { return start_ <= index && index <= end_; }
   // Number of indices, for a run that is not reversed.
   constexpr uint32_t size() const { return end_ - start_ + 1; }

   // Start first, then end.
   auto operator<=>(const IndexRange&) const = default;
   // The mixer is fed start, then end, from the caller's seed.
   size_t hash(size_t seed = 0) const;
   std::string toString() const;  // "start/end"

 private:
   uint32_t start_ = 0;
   uint32_t end_ = 0;
};

// An ordered set of runs. `merged` is true while the set is known to be joined into disjoint,
// non-adjacent runs: merge() sets it, any insertion or removal clears it.
class IndexRangeList {
 public:
   using Set = std::set<IndexRange>;

   IndexRangeList() = default;
   explicit IndexRangeList(bool merged) : merged_(merged) {}
   // A list holds a collection and has no text form to be built from: fatal.
   [[noreturn]] static IndexRangeList fromString(std::string_view text);

   const Set& indexRange() const { return indexRange_; }
   bool merged() const { return merged_; }
   size_t size() const { return indexRange_.size(); }

   // Inserts the run; an equal run already present changes nothing (merged stays as it was).
   void indexRangeIs(const IndexRange& range);
   // Removes the equal run; false, and nothing changes, when none is present.
   bool indexRangeDel(const IndexRange& range);
   void indexRangeDelAll();
   // An equal run (same start and end) is present; overlap does not count.
   bool indexRangeHas(const IndexRange& range) const;
   bool contains(uint32_t index) const;
   // Removes and returns the first run (lowest start, then lowest end).
   std::optional<IndexRange> pop();
   // Joins overlapping and touching runs. The adjacency test "end + 1 < next start" is computed in
   // 32 bits and kept that way: after a run ending at 0xFFFFFFFF, end + 1 wraps to 0, so every
   // later run that starts above 0 stays a run of its own.
   void merge();

   explicit operator bool() const { return merged_ || !indexRange_.empty(); }
   bool operator==(const IndexRangeList&) const = default;
   std::string toString() const;  // "{a/b, c/d}"

 private:
   Set indexRange_;
   bool merged_ = false;
};

}  // namespace VexloL3Common

#define VEXLO_TEXT_FORMATTER(T) \
   template <>                  \
   struct fmt::formatter<T> : Ulo::ToStringFormatter<T> {}
VEXLO_TEXT_FORMATTER(VexloL3Common::Ipv4UcastKey);
VEXLO_TEXT_FORMATTER(VexloL3Common::Ipv6UcastKey);
VEXLO_TEXT_FORMATTER(VexloL3Common::IpUcastKey);
VEXLO_TEXT_FORMATTER(VexloL3Common::IpMcastPrefixKey);
VEXLO_TEXT_FORMATTER(VexloL3Common::Ipv4Keys);
VEXLO_TEXT_FORMATTER(VexloL3Common::RouteReturnCode);
VEXLO_TEXT_FORMATTER(VexloL3Common::IndexRange);
VEXLO_TEXT_FORMATTER(VexloL3Common::IndexRangeList);
#undef VEXLO_TEXT_FORMATTER

template <>
struct fmt::formatter<VexloL3Common::RouteType> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(VexloL3Common::RouteType t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(VexloL3Common::toString(t), ctx);
   }
};

template <>
struct fmt::formatter<VexloL3Common::EntryType> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(VexloL3Common::EntryType t, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(VexloL3Common::toString(t), ctx);
   }
};

#define VEXLO_MEMBER_HASH(T)                                            \
   template <>                                                          \
   struct std::hash<T> {                                                \
      size_t operator()(const T& v) const noexcept { return v.hash(); } \
   }
VEXLO_MEMBER_HASH(VexloL3Common::Ipv4UcastKey);
VEXLO_MEMBER_HASH(VexloL3Common::Ipv6UcastKey);
VEXLO_MEMBER_HASH(VexloL3Common::IpUcastKey);
VEXLO_MEMBER_HASH(VexloL3Common::IpMcastPrefixKey);
VEXLO_MEMBER_HASH(VexloL3Common::IndexRange);
#undef VEXLO_MEMBER_HASH

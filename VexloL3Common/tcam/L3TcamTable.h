// The software model of one longest-prefix-match TCAM.
//
// Synopsis
//   L3TcamManagerContext::Config cfg;  cfg.tcamSize = 16384; ...      configuration (see below)
//   auto ctx = l3TcamManagerContextFactory(cfg);
//   ctx->handleInitialized(true);              mappings and block layout
//   RouteReturnCode rc = ctx->addRoute4(key, false);   rc.routeId: TCAM index, 0 = no room
//   ctx->deleteRoute4(key, /*merge*/ true, seq);
//   ctx->verify();                             fatal on any inconsistency
//
// The first matching entry wins, so within the block of a route type every entry of a longer
// prefix sits at a lower index than every entry of a shorter one. Each block keeps one index
// range per prefix length. To place a route the context picks a target in its length's range,
// finds the nearest free entry (toward the end of the block first), and moves one entry per
// intervening prefix length so that the hole travels to the target. Every move and merge is
// published through RouteMove / RouteMerge and acknowledged by the writer before the next one.
//
// Structure (docs/ARCHITECTURE.md): the context decides; each route type's TcamRegion
// (L3TcamRegion.h) carries a placement out, keeping its mapping, the occupancy bitmaps and the
// length ranges consistent in one call; the mappings hand every move and merge to the context's
// TcamPublisher (L3TcamPublisher.h), the one seam to the hardware writer.
//
// Index conventions: index 0 is never a route's entry (0 means "none" in every result). A
// double-size IPv6 route takes physical entries i and i + G (G = lpmPairGap): logical pair l
// stands for physical entry l + floor(l / G) * G and its partner G further on. The v6Full block's
// ranges, its bitmap and `bitmapPair` are in logical indices; the mappings and published moves use
// physical first entries.
//
// Failures: a broken invariant is fatal (VEXLO_ASSERT); lack of space is soft (index 0, or
// false, with a trace line) and leaves the model exactly as it was.
//
// Two plain configuration flags are read and not interpreted by the placement code:
//   reAddAllowed  lets addRoute4 / addRoute6 accept a key that is already placed; the add then
//                 changes nothing and reports where the key already is (an agent replaying its
//                 routes after a restart gets the same answers again).
//   softwareOnly  the model runs without a hardware writer: moves and merges are made and counted
//                 but not published (the context's publisher is built with notify false).
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VexloL3Common/tcam/L3Stats.h"
#include "VexloL3Common/tcam/L3TcamBlock.h"
#include "VexloL3Common/tcam/L3TcamMapping.h"
#include "VexloL3Common/tcam/L3TcamPlacement.h"
#include "VexloL3Common/tcam/L3TcamPublisher.h"
#include "VexloL3Common/tcam/L3TcamRegion.h"
#include "VexloL3Common/tcam/L3TcamRoute.h"
#include "VexloL3Common/types/HBitmap.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"
#include "platform/RoutingStatus.h"

namespace VexloL3Common {

// One entry of the hardware table as the hardware holds it: what a context is rebuilt from
// after a restart. Only the field that belongs to `kind` is read. A double-size IPv6 route shows
// as its first entry (v6Double) and its partner lpmPairGap further on (v6DoubleSecond, the same
// key).
struct TcamHardwareEntry {
   enum class Kind : uint8_t { v4, v6Single, v6Double, v6DoubleSecond, mcast };
   uint32_t pos = 0;
   Kind kind = Kind::v4;
   Ipv4Keys v4;  // a half holding a null prefix is empty
   Ipv6UcastKey v6;
   IpMcastPrefixKey mcast;
};

// What a context is built with and keeps for its life: the table's shape, the platform's handles
// and the records through which it publishes. A manager replaces its context when any of these
// changes.
struct L3TcamFixedConfig {
   uint32_t tcamSize = 0;
   bool twoV4RoutesPerEntry = false;
   bool supportsDefipPairing = false;
   bool dynamicV4V6Boundary = false;
   Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus;
   uint32_t currentTableMode = 0;
   bool reAddAllowed = false;
   VrfId fallbackVrfId = VrfId::invalidVrfId();
   uint32_t platformType = 0;  // handed through for the platform
   Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus;
   Ulo::Ptr<RouteMove> routeMove;
   Ulo::Ptr<const RouteMove> routeMoveStatus;
   Ulo::Ptr<RouteMerge> routeMerge;
   Ulo::Ptr<const RouteMerge> routeMergeStatus;
   uint32_t invalidEntryManagerType = 0;
   bool v4Mcast = false;
   bool softwareOnly = false;
   bool v4V6InterleavingDisabled = true;

   // Handles compare by identity: a context publishes to the very records it was given.
   bool operator==(const L3TcamFixedConfig&) const = default;
};

// What a manager writes into the context it keeps (the layout fields take effect at the next
// layout, the placement fields at the next placement).
struct L3TcamInPlaceConfig {
   uint32_t tcamMode = 1;            // 1..4
   uint8_t numUcastDefipBlocks = 1;  // never 0
   uint32_t pairGap = 0;             // 0: derive
   uint32_t requestedTableMode = 0;
   // Where the first route of a new prefix length goes (L3TcamPlacement.h).
   PlacementPolicy placementPolicy = PlacementPolicy::classic;
   PlacementWeights placementWeights = PlacementWeights::internetLike();
   // A moving IPv4/IPv6 border clears its way range by range, each entry moving at most once,
   // rather than entry by entry through the shifting engine (L3TcamReallocate.cpp).
   bool borderMoveInRanges = false;

   bool operator==(const L3TcamInPlaceConfig&) const = default;
};

class L3TcamManagerContext {
 public:
   // The whole configuration. Every field belongs to exactly one of the two parts, so a new field
   // is either kept in place or replaces the context: never silently ignored.
   struct Config : L3TcamFixedConfig, L3TcamInPlaceConfig {
      Config() = default;
      // In the order of the context's positional constructor.
      Config(uint32_t tcamSize, uint32_t tcamMode, bool twoV4RoutesPerEntry,
             bool supportsDefipPairing, bool dynamicV4V6Boundary, uint8_t numUcastDefipBlocks,
             uint32_t pairGap, Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus,
             uint32_t requestedTableMode, uint32_t currentTableMode, bool reAddAllowed,
             VrfId fallbackVrfId, uint32_t platformType,
             Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus,
             Ulo::Ptr<RouteMove> routeMove, Ulo::Ptr<const RouteMove> routeMoveStatus,
             Ulo::Ptr<RouteMerge> routeMerge, Ulo::Ptr<const RouteMerge> routeMergeStatus,
             uint32_t invalidEntryManagerType, bool v4Mcast, bool softwareOnly,
             bool v4V6InterleavingDisabled);
      const L3TcamFixedConfig& fixed() const { return *this; }
      const L3TcamInPlaceConfig& inPlace() const { return *this; }
      bool operator==(const Config&) const = default;
   };

   explicit L3TcamManagerContext(const Config& config);
   L3TcamManagerContext(uint32_t tcamSize, uint32_t tcamMode, bool twoV4RoutesPerEntry,
                        bool supportsDefipPairing, bool dynamicV4V6Boundary,
                        uint8_t numUcastDefipBlocks, uint32_t pairGap,
                        Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus,
                        uint32_t requestedTableMode, uint32_t currentTableMode, bool reAddAllowed,
                        VrfId fallbackVrfId, uint32_t platformType,
                        Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus,
                        Ulo::Ptr<RouteMove> routeMove, Ulo::Ptr<const RouteMove> routeMoveStatus,
                        Ulo::Ptr<RouteMerge> routeMerge,
                        Ulo::Ptr<const RouteMerge> routeMergeStatus,
                        uint32_t invalidEntryManagerType, bool v4Mcast, bool softwareOnly,
                        bool v4V6InterleavingDisabled);
   ~L3TcamManagerContext();
   L3TcamManagerContext(const L3TcamManagerContext&) = delete;
   L3TcamManagerContext& operator=(const L3TcamManagerContext&) = delete;

   // ---- configuration
   const Config& config() const { return config_; }
   uint32_t tcamSize() const { return config_.tcamSize; }
   uint32_t tcamMode() const { return config_.tcamMode; }
   void tcamModeIs(uint32_t m) { config_.tcamMode = m; }
   // Writes every attribute that a kept context takes over.
   void inPlaceConfigIs(const L3TcamInPlaceConfig& c) {
      static_cast<L3TcamInPlaceConfig&>(config_) = c;
   }
   bool twoV4RoutesPerEntry() const { return config_.twoV4RoutesPerEntry; }
   bool supportsDefipPairing() const { return config_.supportsDefipPairing; }
   bool dynamicV4V6Boundary() const { return config_.dynamicV4V6Boundary; }
   uint8_t numUcastDefipBlocks() const { return config_.numUcastDefipBlocks; }
   void numUcastDefipBlocksIs(uint8_t n) { config_.numUcastDefipBlocks = n; }
   uint32_t pairGap() const { return config_.pairGap; }
   void pairGapIs(uint32_t g) { config_.pairGap = g; }
   const Ulo::Ptr<const Ulo::RoutingStatus>& globalRoutingStatus() const {
      return config_.globalRoutingStatus;
   }
   uint32_t requestedTableMode() const { return config_.requestedTableMode; }
   void requestedTableModeIs(uint32_t m) { config_.requestedTableMode = m; }
   PlacementPolicy placementPolicy() const { return config_.placementPolicy; }
   void placementPolicyIs(PlacementPolicy p) { config_.placementPolicy = p; }
   const PlacementWeights& placementWeights() const { return config_.placementWeights; }
   void placementWeightsIs(const PlacementWeights& w) { config_.placementWeights = w; }
   bool borderMoveInRanges() const { return config_.borderMoveInRanges; }
   void borderMoveInRangesIs(bool b) { config_.borderMoveInRanges = b; }
   uint32_t currentTableMode() const { return config_.currentTableMode; }
   bool reAddAllowed() const { return config_.reAddAllowed; }
   VrfId fallbackVrfId() const { return config_.fallbackVrfId; }
   uint32_t platformType() const { return config_.platformType; }
   const Ulo::Ptr<const Ulo::SegmentSecurityStatus>& segmentSecurityStatus() const {
      return config_.segmentSecurityStatus;
   }
   const Ulo::Ptr<RouteMove>& routeMove() const { return config_.routeMove; }
   const Ulo::Ptr<const RouteMove>& routeMoveStatus() const { return config_.routeMoveStatus; }
   const Ulo::Ptr<RouteMerge>& routeMerge() const { return config_.routeMerge; }
   const Ulo::Ptr<const RouteMerge>& routeMergeStatus() const { return config_.routeMergeStatus; }
   uint32_t invalidEntryManagerType() const { return config_.invalidEntryManagerType; }
   bool v4Mcast() const { return config_.v4Mcast; }
   bool softwareOnly() const { return config_.softwareOnly; }
   bool v4V6InterleavingDisabled() const { return config_.v4V6InterleavingDisabled; }

   // ---- state
   const Ulo::Ptr<LpmInvalidEntryManager>& invalidEntryManager() const {
      return invalidEntryManager_;
   }
   void invalidEntryManagerIs(Ulo::Ptr<LpmInvalidEntryManager> m) {
      invalidEntryManager_ = std::move(m);
   }
   // The block of a route type; null when absent.
   const Ulo::Ptr<TcamBlock>& block(RouteType t) const { return regions_[t].blockPtr(); }
   void blockIs(RouteType t, Ulo::Ptr<TcamBlock> b) { regions_[t].blockIs(std::move(b)); }
   const Ulo::Ptr<HBitmap>& bitmap() const { return occupancy_.entries(); }
   void bitmapIs(uint32_t start, uint32_t size, bool initialBitState) {
      occupancy_.entriesIs(start, size, initialBitState);
   }
   void bitmapDel() { occupancy_.entriesDel(); }
   const Ulo::Ptr<HBitmap>& bitmapPair() const { return occupancy_.pairs(); }
   void bitmapPairIs(uint32_t start, uint32_t size, bool initialBitState) {
      occupancy_.pairsIs(start, size, initialBitState);
   }
   void bitmapPairDel() { occupancy_.pairsDel(); }
   // The placement region of a route type: its block, mapping and swap reserve.
   const TcamRegion& region(RouteType t) const { return regions_[t]; }
   // Every move and merge of this context goes through its publisher.
   const Ulo::Ptr<TcamPublisher>& publisher() const { return publisher_; }
   uint32_t numReservedEntriesInBitmap() const { return numReservedEntriesInBitmap_; }
   void numReservedEntriesInBitmapInc(uint32_t n) { numReservedEntriesInBitmap_ += n; }
   uint32_t numReservedEntriesInBitmapPair() const { return numReservedEntriesInBitmapPair_; }
   void numReservedEntriesInBitmapPairInc(uint32_t n) { numReservedEntriesInBitmapPair_ += n; }
   uint32_t effectiveSize() const { return effectiveSize_; }
   uint32_t v4V6Border() const { return v4V6Border_; }
   uint32_t lpmPairGap() const { return occupancy_.gap(); }
   uint32_t swapArea() const { return swapArea_; }
   bool useSwapArea() const { return useSwapArea_; }
   bool swapAreaHalf() const { return swapAreaHalf_; }
   // Free entries each region keeps in reserve so that moves can always be made. Set by the layout
   // from the swap area (IPv4 and double-size IPv6 get swapArea, single-size IPv6 gets it when
   // swapAreaHalf is set, multicast none); a platform may adjust them after initialisation.
   uint32_t swapAreaSize(RouteType t) const { return regions_[t].swapReserve(); }
   void swapAreaSizeIs(RouteType t, uint32_t n) {
      if (t == RouteType::v4 && n > regions_[t].swapReserve()) swapReserveKept_ = false;
      regions_[t].swapReserveIs(n);
   }
   // Every placement since the IPv4 swap reserve was last whole kept out of it (no caller passed
   // useSwapArea, and the reserve was not raised above what was free). Deletes that free it
   // again make it whole again.
   bool swapReserveKept() const { return swapReserveKept_; }
   bool initialized() const { return initialized_; }
   bool urpfEnabled() const { return urpfEnabled_; }
   bool layoutDone() const { return layoutDone_; }
   const Ulo::Ptr<TcamStats>& stats() const { return stats_; }
   // The statistics, under the name the mappings use.
   const Ulo::Ptr<TcamStats>& tcamStats() const { return stats_; }
   const Ulo::Ptr<MappingV4Base>& v4() const { return v4_; }
   const Ulo::Ptr<MappingV6Base>& v6() const { return v6_; }
   const Ulo::Ptr<MappingMcastV4>& mcastV4() const { return mcastV4_; }

   // ---- initialisation and layout
   void handleInitialized(bool initialized);
   // Lays the unicast blocks out; true when the swap area was enabled. A layout that cannot be
   // served consistently raises std::range_error and changes nothing: an IPv6 region beyond the
   // table; with pairing and a fixed border, uRPF or a fallback VRF, an IPv6 border below the
   // pairing border, or a pairing border that is not a whole number of double banks (the last
   // pair's partner would stand among the IPv4 entries).
   bool doCreateBlocks(bool urpf);
   void doCreateMulticastBlocks();

   // ---- accounting
   uint32_t entries(RouteType t) const;
   uint32_t entriesFree(RouteType t) const;
   bool swapRegionFull(RouteType t) const;
   RouteType v6RouteTypeFromPos(uint32_t pos) const;
   RouteType v6RouteTypeFromKey(const Ipv6UcastKey& key) const;
   // Marks `used` as taken and `freed` as free for the route type (0: none). For v6Full both are
   // logical pair indices and both physical entries of the pair change. The engine itself changes
   // occupancy only through its regions, which keep mapping, bitmaps and ranges together.
   void updateBitmaps(RouteType t, uint32_t used, uint32_t freed);
   // Rebuilds the IPv4 mapping's half-full tracking from its entries.
   void buildHalfFullCache();

   // ---- pair indices
   uint32_t pairToPhysical(uint32_t logical) const;
   uint32_t physicalToPair(uint32_t physical) const;
   // A physical bound of the v6Full block in logical pair indices.
   uint32_t physicalBoundToPair(uint32_t bound) const;

   // ---- insertion
   // Places a new route of its route type's block; its entry (physical), or 0 when there is no
   // room. The positional form takes the key that belongs to the route type.
   uint32_t addRoute(const TcamRoute& route, bool useSwapArea);
   uint32_t addRoute(RouteType t, const Ipv4UcastKey& key4, const Ipv6UcastKey& key6,
                     const IpMcastPrefixKey& keyMcast, bool useSwapArea);
   // Opens a hole for the route from the free entry freeEntry (logical for v6Full) toward the end
   // of the block (down) or its start (up), one move per intervening length, and places the
   // route there; its physical entry.
   uint32_t shiftDownAndInsert(RouteType t, const Ipv4UcastKey& key4, const Ipv6UcastKey& key6,
                               const IpMcastPrefixKey& keyMcast, uint32_t freeEntry);
   uint32_t shiftUpAndInsert(RouteType t, const Ipv4UcastKey& key4, const Ipv6UcastKey& key6,
                             const IpMcastPrefixKey& keyMcast, uint32_t freeEntry);
   RouteReturnCode addRoute4(const Ipv4UcastKey& key, bool useSwapArea);
   RouteReturnCode addMroute4(const IpMcastPrefixKey& key, bool useSwapArea);

   // ---- IPv6 insertion and conversion between entry sizes (see L3TcamIpv6.cpp)
   RouteReturnCode addRoute6(const Ipv6UcastKey& key, bool useSwapArea);
   // One pass of the conversion ladder, without growing the IPv6 partition.
   RouteReturnCode addRoute6Internal(const Ipv6UcastKey& key, bool useSwapArea);
   // Moves one IPv4 entry across the IPv6 border (toHalf: from below it to above it); the index
   // that was freed, or 0 when nothing was converted.
   uint32_t convertV4Entry(bool toHalf);
   // Moves one IPv6 route of prefixLen into the block of routeType from the other IPv6 block;
   // the freed index of the source block, or 0 (also when the layout has no entries of that
   // block at all). prefixLen must be the longest single-size length (to double size) or the
   // shortest double-size one (to single size): double-size entries are searched first, so no
   // double-size route may be shorter than a single-size one.
   uint32_t convertV6Entry(RouteType routeType, uint32_t prefixLen, bool useSwapArea);
   // Converts every single-size route of prefixLen in range to double size (prefixLen as above);
   // false when the double-size block filled up first.
   bool convertV6Range(uint32_t prefixLen, const IndexRange& range, bool useSwapArea);
   // Frees the pair partner of the free entry entryId, which holds an IPv4 entry, so that the
   // whole pair is free.
   void freeV6PairEntry(uint32_t entryId, bool useSwapArea);

   // ---- partition reallocation (see L3TcamReallocate.cpp for the design)
   bool reallocate(uint32_t newBorder, bool useSwapArea);
   // How far one reallocation asked for by a full partition moves the border.
   uint32_t reallocationStep() const;
   // The layout's IPv4/IPv6 border moves at run time (pairing, dynamic border, separate regions).
   bool borderMoves() const;

   // ---- rebalancing (L3TcamRebalance.cpp): moves at most maxMoves entries of the IPv4 and IPv6
   // regions so that the free entries past each length's range approach its share by the
   // placement weights, whatever the policy in force; for an agent to call when idle. Each move
   // is published like any other. Returns the moves made (0: nothing to gain, or maxMoves 0).
   uint64_t rebalance(uint64_t maxMoves);

   // ---- uRPF: lays an empty unicast table out again; false (nothing changed) while routes are
   // installed.
   bool handleUrpf(bool enabled);

   // ---- deletion and merging
   void deleteRoute(RouteType t, uint32_t pos, uint32_t len);
   RouteReturnCode deleteRoute4(const Ipv4UcastKey& key, bool merge, uint64_t sequence,
                                std::optional<uint32_t> pos = std::nullopt,
                                std::optional<bool> right = std::nullopt);
   RouteReturnCode deleteRoute6(const Ipv6UcastKey& key,
                                std::optional<uint32_t> pos = std::nullopt);
   RouteReturnCode deleteMroute4(const IpMcastPrefixKey& key);
   void mergeRoute4(const Ipv4UcastKey& key, uint32_t pos, uint32_t halfFullPos, uint64_t sequence);

   // ---- lookups the manager forwards
   Ipv4UcastKey pairedKey(const Ipv4UcastKey& key, uint32_t pos, uint32_t otherPos) const;
   bool rightKey(const Ipv4UcastKey& key, uint32_t pos) const;
   // The entry of an IPv4 route, 0 when it is not installed.
   uint32_t getKeyV4ToEntryId(const Ipv4UcastKey& key) const;

   // ---- verification: fatal on the first inconsistency found
   void verify() const;
   // verify() for the given entries (the ones an operation touched: its route's entry and the
   // moves' and merges' both ends), together with the checks that cost no pass over the table: at
   // a cost that does not grow with the table, for checking after every operation. A break that
   // only a pass over the whole table shows is left to verify().
   void verifyEntries(const std::vector<uint32_t>& positions) const;
   // Checks one IPv4 route's placement (mapping both ways, occupancy, its length's range, the
   // half-full tracking) and returns its entry; 0 when the route is not installed.
   uint32_t verifyRoute4(const Ipv4UcastKey& key) const;

   // ---- show output, written to the caller's file descriptor
   void showSoftwareTcamTableSummary(int fd) const;
   void showSoftwareTcamTableIndexRange(int fd) const;
   void showSoftwareTcamTable(int fd, bool detail) const;

   // ---- resynchronisation from hardware (see L3TcamResync.cpp, L3TcamResyncCheck.cpp)
   RouteReturnCode addRoute4AtIndex(const Ipv4UcastKey& key, uint32_t index, bool right);
   RouteReturnCode addRoute6AtIndex(const Ipv6UcastKey& key, uint32_t index);
   RouteReturnCode addMroute4AtIndex(const IpMcastPrefixKey& key, uint32_t index);
   // Rebuilds an initialised, empty context from the hardware image without publishing
   // anything. v4V6Border: the border in force before the restart on a layout whose border
   // moves (the smallest border that fits the image when absent). Contents that cannot be a
   // valid model raise std::range_error naming the entry, and leave the context unchanged.
   void rebuildFromHardware(const std::vector<TcamHardwareEntry>& image,
                            std::optional<uint32_t> v4V6Border = std::nullopt);

 private:
   void createMappings();
   bool notifyMoves() const { return !config_.softwareOnly; }
   TcamRegion& regionOf(RouteType t) { return regions_[t]; }
   // The steps of addRoute: the range in which the route's length wants its slot, and, for a
   // double-size route when no pair is free, a pair freed by moving an IPv4 entry aside.
   IndexRange targetRange(RouteType t, const TcamBlock& blk, uint32_t len, uint32_t blkStart,
                          uint32_t blkEnd) const;
   bool freeAPair(uint32_t blkStart, uint32_t blkEnd, unsigned level, bool useSwapArea);
   // Under weighted placement: the first free entry in [from, to] that an IPv4 route may take
   // without taking one of the last free entries inside a single-size IPv6 length's range; npos
   // when there is none.
   uint32_t freeEntrySparingIpv6(uint32_t from, uint32_t to) const;
   uint32_t shiftAndInsert(const TcamRoute& route, uint32_t freeEntry, bool down);
   // Sets the IPv4/IPv6 border of a layout whose border moves: the IPv4 and v6Full block bounds,
   // v4V6Border and the IPv6 mapping's border, together. Moves nothing.
   void borderIs(uint32_t border);
   // Moves the `routes` entries of route type t (v4 or v6Full) out of the slots [first, last]
   // toward the other side of the border being moved (up for IPv4, down for pairs).
   void clearForPartition(RouteType t, uint32_t first, uint32_t last, uint32_t routes);
   // The ladder's rungs for a full double-size block: two IPv4 entries out of the double-size
   // region, or, when a double-size route of /64 or less exists (fullMin), the shortest one to a
   // single entry. False when the rung found nothing to move or nowhere to put it.
   bool makeRoomForPair(int64_t fullMin, bool useSwapArea);
   // Pair 0 and the pairs the invalid-entry manager set aside.
   bool pairReserved(uint32_t pair) const { return occupancy_.pairReserved(pair); }
   // Placements that bypass insertion (at a known index, or rebuilt from the hardware) take
   // whatever entries they are given, so the IPv4 reserve is kept only while it is still free.
   void recheckSwapReserve();
   void rearmSwapReserve();

   // ---- the steps of verify(), in the order it runs them (L3TcamVerify.cpp). `expected` and
   // `expectedPair` collect the entries and pairs that the reserved entries and the routes claim.
   void expectReserved(HBitmap& expected, HBitmap& expectedPair) const;
   void verifyBlockRanges() const;
   void verifyMulticast(HBitmap& expected) const;
   void verifyBorders() const;
   // Returns the IPv4 routes per length.
   std::array<uint32_t, 33> verifyV4Entries(HBitmap& expected, HBitmap& expectedPair) const;
   void verifyV4PerLength(const std::array<uint32_t, 33>& perLen4) const;
   void verifySwapReserve() const;
   void verifyV6Entries(HBitmap& expected, HBitmap& expectedPair) const;
   void verifyOccupancy(const HBitmap& expected, const HBitmap& expectedPair) const;
   void verifyMcastEntry(uint32_t pos) const;
   void verifyUnicastEntry(uint32_t pos) const;
   // One IPv4 entry's records, as verify() checks each.
   void verifyRoute4Entry(uint32_t pos, const Ipv4Keys& k) const;
   bool invalidEntry(uint32_t pos) const;
   // Whether moving an entry of t from slot src to slot dst leaves every other partition its
   // swap reserve (blocks may overlap).
   bool keepsOtherReserves(RouteType t, uint32_t dstSlot, uint32_t srcSlot) const;

   // ---- the steps of doCreateBlocks, in the order it runs them (L3TcamLayout.cpp)
   struct LayoutSizes {
      uint32_t effective = 0;      // usable entries
      uint32_t blockSize = 0;      // entries per unicast block
      uint32_t border = 0;         // the IPv6 border: double-size IPv6 routes below it
      uint32_t gap = 0;            // the pair gap in force
      uint32_t pairingBorder = 0;  // the IPv4/IPv6 border a layout with a fixed one keeps
   };
   // The sizes and borders of a unicast layout (fatal on a mode the layout cannot have).
   LayoutSizes layoutSizes(bool urpf) const;
   // Raises std::range_error for a layout that no placement can serve consistently.
   void checkLayout(bool urpf, const LayoutSizes& s) const;
   // The IPv4 and the two IPv6 blocks, with their bounds and used-entry bitmaps.
   void createUnicastBlocks(const LayoutSizes& s);
   // The occupancy bitmaps with entry 0, the gap entry, the invalid entries and their pairs taken.
   void reserveEntries(bool urpf, const LayoutSizes& s);
   // The free entries each region keeps for moves.
   void reserveSwapArea();

   Config config_;
   Ulo::Ptr<LpmInvalidEntryManager> invalidEntryManager_;
   TcamOccupancy occupancy_;
   RouteTypeArray<TcamRegion> regions_;
   uint32_t numReservedEntriesInBitmap_ = 0;
   uint32_t numReservedEntriesInBitmapPair_ = 0;
   uint32_t effectiveSize_ = 0;
   uint32_t v4V6Border_ = 0;
   uint32_t swapArea_ = 0;
   bool useSwapArea_ = false;
   bool swapAreaHalf_ = false;
   bool initialized_ = false;
   bool urpfEnabled_ = false;
   bool layoutDone_ = false;
   // False while placements may have taken the swap reserve (a caller passed useSwapArea, or the
   // reserve did not fit): verify() expects it kept only while this is true.
   bool swapReserveKept_ = true;
   Ulo::Ptr<TcamStats> stats_;
   Ulo::Ptr<TcamPublisher> publisher_;
   Ulo::Ptr<MappingV4Base> v4_;
   Ulo::Ptr<MappingV6Base> v6_;
   Ulo::Ptr<MappingMcastV4> mcastV4_;
};

Ulo::Ptr<L3TcamManagerContext> l3TcamManagerContextFactory(
    const L3TcamManagerContext::Config& config);

}  // namespace VexloL3Common

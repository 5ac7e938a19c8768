// Construction, initialisation and the block layout of a TCAM context, the block record and the
// invalid-entry manager.
#include <cstdlib>
#include <stdexcept>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("VexloL3CommonTcamTable");

// Only the presence of the variable counts: a simulator that forces the table size keeps the
// derived block size even when the platform configured a pair gap.
bool tcamSizeOverridden() {
   return std::getenv("VEXLOL3COMMON_TCAM_SIZE") != nullptr;
}
}  // namespace

// ---- TcamBlock ---------------------------------------------------------------------------

uint32_t TcamBlock::nextLength(uint32_t from) const {
   if (from >= maxLengths) return none;
   uint32_t w = from >> 6;
   uint64_t bits = present_[w] & (~uint64_t{0} << (from & 63));
   while (true) {
      if (bits) return (w << 6) + uint32_t(std::countr_zero(bits));
      if (++w == present_.size()) return none;
      bits = present_[w];
   }
}

uint32_t TcamBlock::prevLength(uint32_t from) const {
   if (from >= maxLengths) from = maxLengths - 1;
   int w = int(from >> 6);
   uint64_t bits = present_[w] & (~uint64_t{0} >> (63 - (from & 63)));
   while (true) {
      if (bits) return (uint32_t(w) << 6) + 63 - uint32_t(std::countl_zero(bits));
      if (--w < 0) return none;
      bits = present_[w];
   }
}

uint32_t TcamBlock::lengthRangeCount() const {
   uint32_t n = 0;
   for (uint64_t w : present_)
      n += uint32_t(std::popcount(w));
   return n;
}

void TcamBlock::bitmapIs(uint32_t start, uint32_t size, bool initialBitState) {
   if (bitmap_ && bitmapStart_ == start && bitmap_->size() == size &&
       bitmap_->initialBitState() == initialBitState) {
      return;
   }
   bitmap_ = std::make_shared<HBitmap>(size, initialBitState);
   bitmapStart_ = start;
}

bool TcamBlock::operator==(const TcamBlock& o) const {
   bool bitmapsEqual = (!bitmap_ && !o.bitmap_) || (bitmap_ && o.bitmap_ && *bitmap_ == *o.bitmap_);
   return prefixLenMin_ == o.prefixLenMin_ && prefixLenMax_ == o.prefixLenMax_ &&
          ranges_ == o.ranges_ && present_ == o.present_ && bitmapsEqual &&
          bitmapStart_ == o.bitmapStart_ && lengthRangeMax_ == o.lengthRangeMax_ &&
          start_ == o.start_ && end_ == o.end_;
}

// ---- LpmInvalidEntryManager --------------------------------------------------------------

bool LpmInvalidEntryManager::isEntryInvalid(uint32_t index) const {
   for (const InvalidEntryRange& r : invalidEntryRange_) {
      if (r.start <= index && r.end >= index) return true;
   }
   return false;
}

// ---- L3TcamManagerContext ----------------------------------------------------------------

L3TcamManagerContext::L3TcamManagerContext(const Config& config) : config_(config) {
   if (!config_.v4Mcast && config_.numUcastDefipBlocks == 0) {
      throw std::range_error("numUcastDefipBlocks must not be 0");
   }
   occupancy_.bind(config_.supportsDefipPairing, &regions_[RouteType::v6Full].blockPtr(),
                   &invalidEntryManager_);
   for (RouteType t : allRouteTypes)
      regions_[t].init(t, &occupancy_);
}

L3TcamManagerContext::L3TcamManagerContext(
    uint32_t tcamSize, uint32_t tcamMode, bool twoV4RoutesPerEntry, bool supportsDefipPairing,
    bool dynamicV4V6Boundary, uint8_t numUcastDefipBlocks, uint32_t pairGap,
    Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus, uint32_t requestedTableMode,
    uint32_t currentTableMode, bool reAddAllowed, VrfId fallbackVrfId, uint32_t platformType,
    Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus, Ulo::Ptr<RouteMove> routeMove,
    Ulo::Ptr<const RouteMove> routeMoveStatus, Ulo::Ptr<RouteMerge> routeMerge,
    Ulo::Ptr<const RouteMerge> routeMergeStatus, uint32_t invalidEntryManagerType, bool v4Mcast,
    bool softwareOnly, bool v4V6InterleavingDisabled)
    : L3TcamManagerContext(
          Config(tcamSize, tcamMode, twoV4RoutesPerEntry, supportsDefipPairing, dynamicV4V6Boundary,
                 numUcastDefipBlocks, pairGap, std::move(globalRoutingStatus), requestedTableMode,
                 currentTableMode, reAddAllowed, fallbackVrfId, platformType,
                 std::move(segmentSecurityStatus), std::move(routeMove), std::move(routeMoveStatus),
                 std::move(routeMerge), std::move(routeMergeStatus), invalidEntryManagerType,
                 v4Mcast, softwareOnly, v4V6InterleavingDisabled)) {}

L3TcamManagerContext::~L3TcamManagerContext() = default;

L3TcamManagerContext::Config::Config(
    uint32_t tcamSize_, uint32_t tcamMode_, bool twoV4RoutesPerEntry_, bool supportsDefipPairing_,
    bool dynamicV4V6Boundary_, uint8_t numUcastDefipBlocks_, uint32_t pairGap_,
    Ulo::Ptr<const Ulo::RoutingStatus> globalRoutingStatus_, uint32_t requestedTableMode_,
    uint32_t currentTableMode_, bool reAddAllowed_, VrfId fallbackVrfId_, uint32_t platformType_,
    Ulo::Ptr<const Ulo::SegmentSecurityStatus> segmentSecurityStatus_,
    Ulo::Ptr<RouteMove> routeMove_, Ulo::Ptr<const RouteMove> routeMoveStatus_,
    Ulo::Ptr<RouteMerge> routeMerge_, Ulo::Ptr<const RouteMerge> routeMergeStatus_,
    uint32_t invalidEntryManagerType_, bool v4Mcast_, bool softwareOnly_,
    bool v4V6InterleavingDisabled_)
    : L3TcamFixedConfig{tcamSize_,
                        twoV4RoutesPerEntry_,
                        supportsDefipPairing_,
                        dynamicV4V6Boundary_,
                        std::move(globalRoutingStatus_),
                        currentTableMode_,
                        reAddAllowed_,
                        fallbackVrfId_,
                        platformType_,
                        std::move(segmentSecurityStatus_),
                        std::move(routeMove_),
                        std::move(routeMoveStatus_),
                        std::move(routeMerge_),
                        std::move(routeMergeStatus_),
                        invalidEntryManagerType_,
                        v4Mcast_,
                        softwareOnly_,
                        v4V6InterleavingDisabled_},
      L3TcamInPlaceConfig{tcamMode_, numUcastDefipBlocks_, pairGap_, requestedTableMode_} {}

Ulo::Ptr<L3TcamManagerContext> l3TcamManagerContextFactory(
    const L3TcamManagerContext::Config& config) {
   return std::make_shared<L3TcamManagerContext>(config);
}

void L3TcamManagerContext::createMappings() {
   stats_ = tcamStatsFactory();
   publisher_ = tcamPublisherFactory(stats_, routeMove(), routeMoveStatus(), routeMerge(),
                                     routeMergeStatus(), notifyMoves());
   if (v4Mcast()) {
      auto mcast = std::make_shared<MappingMcastV4>(publisher_);
      regions_[RouteType::v4Mcast].mappingIs(mcast.get());
      mcastV4_ = std::move(mcast);
      return;
   }
   auto v4 = std::make_shared<MappingV4>(twoV4RoutesPerEntry(), publisher_);
   auto v6 = std::make_shared<MappingV6>(publisher_);
   regions_[RouteType::v4].mappingIs(v4.get());
   regions_[RouteType::v6Half].mappingIs(v6.get());
   regions_[RouteType::v6Full].mappingIs(v6.get());
   v4_ = std::move(v4);
   v6_ = std::move(v6);
}

void L3TcamManagerContext::handleInitialized(bool initialized) {
   initialized_ = initialized;
   if (layoutDone_) {
      TRACE(th, 1, "Tcam table manager Ctx already initialized");
      return;
   }
   if (invalidEntryManagerType() != 0) {
      // A platform with invalid entries installs its own manager before initialisation.
      VEXLO_ASSERT(invalidEntryManager_, "Please define new LPM InvalidEntryManager helper");
   } else {
      invalidEntryManager_ = std::make_shared<LpmInvalidEntryManagerDefault>();
      TRACE(th, 1, "handleInitialized", " using default invalid entry manager");
   }
   bool urpf = globalRoutingStatus() ? globalRoutingStatus()->urpfEnabled() : false;
   if (!v4Mcast()) {
      VEXLO_ASSERT(tcamMode() >= 1 && tcamMode() <= 4, "tcamMode() >= 1 && tcamMode() <= 4");
   }
   TRACE(th, 1, "TcamSize:", tcamSize(), ", tcamMode:", tcamMode(), ", urpfEnabled:", urpf);
   createMappings();
   if (v4Mcast()) {
      doCreateMulticastBlocks();
   } else {
      doCreateBlocks(urpf);
      urpfEnabled_ = urpf;
   }
   layoutDone_ = true;
}

bool L3TcamManagerContext::doCreateBlocks(bool urpf) {
   VEXLO_ASSERT(invalidEntryManager_, "invalidEntryManager()");
   const LayoutSizes s = layoutSizes(urpf);
   // Layouts that no placement can serve consistently are refused before anything changes.
   checkLayout(urpf, s);
   // A border that moves starts with no IPv6 partition; reallocation grows it on demand.
   v4V6Border_ = borderMoves() ? 0 : s.pairingBorder;
   TRACE(th, 1, "doCreateBlocks", " TcamSize: ", tcamSize(), ", tcamMode: ", tcamMode(),
         ", effective size: ", s.effective, ", blockSize: ", s.blockSize, ", border: ", s.border,
         ", urpfEnabled: ", urpf);

   effectiveSize_ = s.effective;
   for (RouteType t : allRouteTypes)
      blockIs(t, nullptr);
   bitmapDel();
   bitmapPairDel();
   numReservedEntriesInBitmap_ = 0;
   numReservedEntriesInBitmapPair_ = 0;
   createUnicastBlocks(s);
   reserveEntries(urpf, s);

   VEXLO_ASSERT(v6_, "v6()");
   // Where the border moves, every IPv6 route is double-size and lies below it.
   v6_->tcamBorderIs(borderMoves() ? v4V6Border_ : s.border);
   reserveSwapArea();
   return useSwapArea_;
}

L3TcamManagerContext::LayoutSizes L3TcamManagerContext::layoutSizes(bool urpf) const {
   const uint32_t size = tcamSize();
   const uint32_t mode = tcamMode();
   const uint32_t n = numUcastDefipBlocks();
   LayoutSizes s;
   if (urpf) {
      const uint32_t total = size + invalidEntryManager_->numInvalidEntriesBitmap();
      VEXLO_ASSERT(fallbackVrfId() == VrfId::invalidVrfId(),
                   "fallbackVrfId() == Ulo::VrfId::invalidVrfId()");
      VEXLO_ASSERT(mode == 2 || mode == 4, "mode == 2 || mode == 4");
      VEXLO_ASSERT(n != 0, "numUcastDefipBlocks()");
      s.effective = total >> 1;
      s.blockSize = total / n;
      s.border = (mode / 2) * s.blockSize * 2;
   } else if (fallbackVrfId() == VrfId::invalidVrfId()) {
      VEXLO_ASSERT(n != 0, "numUcastDefipBlocks()");
      s.effective = size;
      s.blockSize = size / n;
      s.border = s.blockSize * mode * 2;
      if (mode == 4 && n % 8 != 0) s.border = size;
   } else {
      VEXLO_ASSERT(mode == 2 || mode == 4, "mode == 2 || mode == 4");
      s.effective = size;
      s.blockSize = size >> 2;
      s.border = (mode / 2) * s.blockSize * 2;
   }
   if (!v4V6InterleavingDisabled()) s.border = 0;
   s.gap = (pairGap() != 0 && !tcamSizeOverridden()) ? pairGap() : s.blockSize;
   // The fixed IPv4/IPv6 border splits the full table in halves.
   s.pairingBorder = supportsDefipPairing() && !dynamicV4V6Boundary() ? size / 2 : v4V6Border_;
   return s;
}

void L3TcamManagerContext::checkLayout(bool urpf, const LayoutSizes& s) const {
   const uint32_t size = tcamSize();
   auto refuse = [&](const std::string& why) {
      throw std::range_error(fmt::format("doCreateBlocks: {} (tcamSize {}, tcamMode {}, {} blocks)",
                                         why, size, tcamMode(), uint32_t(numUcastDefipBlocks())));
   };
   // An IPv6 region larger than the table: more blocks than the table is made of.
   if (s.border > s.effective) {
      refuse(fmt::format("border {} beyond the {} usable entries", s.border, s.effective));
   }
   if (!supportsDefipPairing() || dynamicV4V6Boundary()) return;
   // uRPF and a fallback VRF divide the table differently and have no fixed pairing border.
   if (urpf || fallbackVrfId() != VrfId::invalidVrfId()) {
      refuse("a fixed pairing border needs a layout without uRPF and without a fallback VRF");
   }
   if (!v4V6InterleavingDisabled()) return;
   // Double-size routes lie below the pairing border, and the IPv6 mapping tells double from
   // single size by the IPv6 border: the two must agree.
   if (s.border < s.pairingBorder) {
      refuse(fmt::format("IPv6 border {} below the pairing border {}", s.border, s.pairingBorder));
   }
   // The last pair below the border must have its partner below it too.
   if (s.gap == 0 || s.pairingBorder % (2 * s.gap) != 0) {
      refuse(fmt::format("pairing border {} is not a whole number of double banks of {}",
                         s.pairingBorder, s.gap));
   }
}

void L3TcamManagerContext::createUnicastBlocks(const LayoutSizes& s) {
   const uint32_t last = s.effective - 1;
   const bool pairing = supportsDefipPairing();
   const bool fixedBorder = pairing && !dynamicV4V6Boundary();

   auto v4Block = std::make_shared<TcamBlock>(0, 32);
   v4Block->startIs(fixedBorder ? v4V6Border_ : 1);
   v4Block->endIs(last);
   v4Block->bitmapIs(0, s.effective, false);
   blockIs(RouteType::v4, v4Block);

   Ulo::Ptr<TcamBlock> half;
   if (tcamMode() != 4 && !pairing) {
      half = std::make_shared<TcamBlock>(0, 64);
      half->startIs(s.border);
      half->endIs(last);
   } else if (v4V6InterleavingDisabled()) {
      half = std::make_shared<TcamBlock>(0, 64);
   } else {
      half = std::make_shared<TcamBlock>(0, 128);
      half->startIs(1);
      half->endIs(last);
   }
   half->bitmapIs(0, s.effective, false);
   blockIs(RouteType::v6Half, half);

   auto full = std::make_shared<TcamBlock>(pairing ? 0 : 64, 128);
   if (!pairing) {
      full->startIs(1);
      full->endIs(s.border - 1);
   } else if (fixedBorder) {
      full->startIs(1);
      full->endIs(v4V6Border_ - 1);
   }
   if (!v4V6InterleavingDisabled()) {
      full->startIs(0);
      full->endIs(0);
   }
   full->bitmapIs(0, s.effective / 2, false);
   blockIs(RouteType::v6Full, full);
}

void L3TcamManagerContext::reserveEntries(bool urpf, const LayoutSizes& s) {
   const uint32_t effective = s.effective;
   bitmapIs(0, effective, false);
   occupancy_.entries()->setBit(0);
   numReservedEntriesInBitmapInc(1);

   occupancy_.gapIs(s.gap);
   // A gap at or beyond the end of the table has no entry of its own to reserve.
   if (v4V6InterleavingDisabled() && occupancy_.gap() < effective) {
      occupancy_.entries()->setBit(occupancy_.gap());
      numReservedEntriesInBitmapInc(1);
   }
   invalidEntryManager_->allocateInvalidEntries(urpf, occupancy_.entries());

   bitmapPairIs(0, effective / 2, false);
   occupancy_.pairs()->setBit(0);
   numReservedEntriesInBitmapPairInc(1);
   invalidEntryManager_->allocateInvalidEntriesPair(urpf, occupancy_.pairs());
   // A pair is only as usable as both of its entries: a reserved or invalid entry takes its pair.
   if (supportsDefipPairing() && occupancy_.gap() != 0) {
      for (uint32_t b = occupancy_.entries()->findFirstSet(0, effective - 1); b != HBitmap::npos;
           b = b + 1 < effective ? occupancy_.entries()->findFirstSet(b + 1, effective - 1)
                                 : HBitmap::npos) {
         const uint32_t pair = physicalToPair(b);
         if (pair < occupancy_.pairs()->size() && !occupancy_.pairs()->isBitSet(pair)) {
            occupancy_.pairs()->setBit(pair);
            numReservedEntriesInBitmapPairInc(1);
         }
      }
   }
}

// A table in the mode it asked for, and initialised, keeps a swap area free in the regions that
// shift entries.
void L3TcamManagerContext::reserveSwapArea() {
   if (currentTableMode() == requestedTableMode() && initialized_) {
      swapArea_ = 32;
      useSwapArea_ = true;
      swapAreaHalf_ = tcamMode() != 4;
   } else {
      swapArea_ = 0;
      useSwapArea_ = false;
      swapAreaHalf_ = false;
   }
   regions_[RouteType::v4].swapReserveIs(swapArea_);
   regions_[RouteType::v6Full].swapReserveIs(swapArea_);
   regions_[RouteType::v6Half].swapReserveIs(swapAreaHalf_ ? swapArea_ : 0);
   regions_[RouteType::v4Mcast].swapReserveIs(0);
   swapReserveKept_ = entriesFree(RouteType::v4) >= regions_[RouteType::v4].swapReserve();
}

void L3TcamManagerContext::doCreateMulticastBlocks() {
   TRACE(th, 1, "doCreateMulticastBlocks");
   blockIs(RouteType::v4Mcast, nullptr);
   bitmapDel();
   const uint32_t size = tcamSize();
   auto mcast = std::make_shared<TcamBlock>(0, 90);
   mcast->startIs(1);
   mcast->endIs(size - 1);
   mcast->bitmapIs(0, size, false);
   blockIs(RouteType::v4Mcast, mcast);
   // The multicast mapping reaches the statistics through this context, so replacing them here
   // is seen by it at once.
   stats_ = tcamStatsFactory();
   // Not part of the multicast arithmetic; kept so that size-based checks see the whole table.
   effectiveSize_ = size;
   bitmapIs(0, size, false);
   occupancy_.entries()->setBit(0);
   if (pairGap() != 0 && !tcamSizeOverridden() && pairGap() < size) {
      occupancy_.entries()->setBit(pairGap());
      occupancy_.gapIs(pairGap());
   } else {
      occupancy_.entries()->setBit(0);
      occupancy_.gapIs(0);
   }
   bitmapPairIs(0, size / 2, false);
   occupancy_.pairs()->setBit(0);
}

// ---- pair indices ------------------------------------------------------------------------

uint32_t L3TcamManagerContext::pairToPhysical(uint32_t logical) const {
   return occupancy_.pairToPhysical(logical);
}

uint32_t L3TcamManagerContext::physicalToPair(uint32_t physical) const {
   return occupancy_.physicalToPair(physical);
}

uint32_t L3TcamManagerContext::physicalBoundToPair(uint32_t bound) const {
   return occupancy_.physicalBoundToPair(bound);
}

}  // namespace VexloL3Common

// The one seam between the model and the hardware writer: the move and merge records, and the
// publisher through which every move and merge of a context goes.
//
// Synopsis
//   RoutePosition{count, oldRouteId, newRouteId, v4, type}      payload of a move
//   RouteMergeInfo{count, srcRouteId, srcRouteType, dstRouteId, dstRouteType}   payload of a merge
//   RouteMove / RouteMerge     the records: posIs(p) / mergeIs(m) notifies the writer
//   TcamPublisher              counts each move and merge in TcamStats and, unless the model runs
//                              without hardware, publishes it and checks the acknowledgement
//
// The model changes the hardware only through these records. The writer subscribes to a record
// (`changed()`), carries out each value it is handed and copies it into the status twin it owns;
// it must do so before the publication returns, which the publisher asserts right after
// publishing. Every write notifies, even an equal value: a suppressed notification would be a
// move the hardware never made.
//
// A minimal writer, for a context built with `move`, `moveStatus`, `merge` and `mergeStatus`:
//
//   Ulo::Subscription onMove = move->changed().subscribe([&](const RoutePosition& p) {
//      hw.copyEntry(p.oldRouteId, p.newRouteId);   // write the new entry, then invalidate the old
//      hw.invalidate(p.oldRouteId);
//      moveStatus->posIs(p);                       // the acknowledgement
//   });
//   Ulo::Subscription onMerge = merge->changed().subscribe([&](const RouteMergeInfo& m) {
//      hw.copyHalf(m.srcRouteId, m.srcRouteType, m.dstRouteId, m.dstRouteType);
//      mergeStatus->mergeIs(m);
//   });
//
// Publication allocates nothing.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <string>

#include "VexloL3Common/tcam/L3Stats.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

struct RoutePosition {
   uint64_t count = 0;  // running move count of the route type after this move
   uint32_t oldRouteId = 0;
   uint32_t newRouteId = 0;
   bool v4 = false;
   EntryType type = EntryType::none;

   bool operator==(const RoutePosition&) const = default;
   std::string toString() const;
};

struct RouteMergeInfo {
   uint64_t count = 0;  // running merge count after this merge
   uint32_t srcRouteId = 0;
   EntryType srcRouteType = EntryType::none;
   uint32_t dstRouteId = 0;
   EntryType dstRouteType = EntryType::none;

   bool operator==(const RouteMergeInfo&) const = default;
   std::string toString() const;
};

class RouteMove {
 public:
   const RoutePosition& pos() const { return pos_; }
   void posIs(const RoutePosition& p) {
      pos_ = p;
      changed_.notify(pos_);
   }
   Ulo::Notifier<RoutePosition>& changed() { return changed_; }

 private:
   RoutePosition pos_;
   Ulo::Notifier<RoutePosition> changed_;
};

class RouteMerge {
 public:
   const RouteMergeInfo& merge() const { return merge_; }
   void mergeIs(const RouteMergeInfo& m) {
      merge_ = m;
      changed_.notify(merge_);
   }
   Ulo::Notifier<RouteMergeInfo>& changed() { return changed_; }

 private:
   RouteMergeInfo merge_;
   Ulo::Notifier<RouteMergeInfo> changed_;
};

inline Ulo::Ptr<RouteMove> routeMoveFactory() {
   return std::make_shared<RouteMove>();
}
inline Ulo::Ptr<RouteMerge> routeMergeFactory() {
   return std::make_shared<RouteMerge>();
}

class TcamPublisher {
 public:
   // The acknowledgement check of a move, as the IPv4 and IPv6 mappings word it.
   static constexpr const char* moveAckText = "routeMove()->pos() == routeMoveStatus()->pos()";

   // notify false: moves and merges are counted, never published (a model without hardware).
   TcamPublisher(Ulo::Ptr<TcamStats> stats, Ulo::Ptr<RouteMove> routeMove,
                 Ulo::Ptr<const RouteMove> routeMoveStatus, Ulo::Ptr<RouteMerge> routeMerge,
                 Ulo::Ptr<const RouteMerge> routeMergeStatus, bool notify = true);

   const Ulo::Ptr<TcamStats>& stats() const { return stats_; }
   const Ulo::Ptr<RouteMove>& routeMove() const { return routeMove_; }
   const Ulo::Ptr<const RouteMove>& routeMoveStatus() const { return routeMoveStatus_; }
   const Ulo::Ptr<RouteMerge>& routeMerge() const { return routeMerge_; }
   const Ulo::Ptr<const RouteMerge>& routeMergeStatus() const { return routeMergeStatus_; }
   bool notify() const { return notify_; }

   // Counts a move of an entry of route type `counted` from oldPos to newPos and, when `notify`
   // (the caller's flag, and this publisher's), publishes it; `ackText` is the assertion text of
   // the acknowledgement check. The published count is the running move count of `counted`.
   void move(RouteType counted, uint32_t oldPos, uint32_t newPos, EntryType type, bool notify,
             const char* ackText = moveAckText);
   // Counts a merge of the IPv4 half at srcPos into the free half of dstPos and, when `notify`,
   // publishes it and checks the acknowledgement.
   void merge(uint32_t srcPos, EntryType srcType, uint32_t dstPos, EntryType dstType, bool notify);

 private:
   Ulo::Ptr<TcamStats> stats_;
   Ulo::Ptr<RouteMove> routeMove_;
   Ulo::Ptr<const RouteMove> routeMoveStatus_;
   Ulo::Ptr<RouteMerge> routeMerge_;
   Ulo::Ptr<const RouteMerge> routeMergeStatus_;
   bool notify_;
};

inline Ulo::Ptr<TcamPublisher> tcamPublisherFactory(Ulo::Ptr<TcamStats> stats,
                                                    Ulo::Ptr<RouteMove> routeMove,
                                                    Ulo::Ptr<const RouteMove> routeMoveStatus,
                                                    Ulo::Ptr<RouteMerge> routeMerge,
                                                    Ulo::Ptr<const RouteMerge> routeMergeStatus,
                                                    bool notify = true) {
   return std::make_shared<TcamPublisher>(std::move(stats), std::move(routeMove),
                                          std::move(routeMoveStatus), std::move(routeMerge),
                                          std::move(routeMergeStatus), notify);
}

}  // namespace VexloL3Common

template <>
struct fmt::formatter<VexloL3Common::RoutePosition>
    : Ulo::ToStringFormatter<VexloL3Common::RoutePosition> {};
template <>
struct fmt::formatter<VexloL3Common::RouteMergeInfo>
    : Ulo::ToStringFormatter<VexloL3Common::RouteMergeInfo> {};

// TcamEmulator: the faulty writer, which makes one chosen mistake so that tests can show the
// checks catch it. Each mistake is made the way a real writer would make it, below the checks:
// nothing here reports anything itself.
#include "platform/Assert.h"
#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorCells.h"

namespace VexloL3Common::sim {

using namespace internal;

std::string_view toString(WriterFault f) {
   switch (f) {
      case WriterFault::none:
         return "none";
      case WriterFault::dropMove:
         return "dropMove";
      case WriterFault::wrongIndex:
         return "wrongIndex";
      case WriterFault::wrongHalf:
         return "wrongHalf";
      case WriterFault::sourceLeftValid:
         return "sourceLeftValid";
      case WriterFault::partnerLeftBehind:
         return "partnerLeftBehind";
      case WriterFault::wrongAck:
         return "wrongAck";
   }
   return "unknown";
}

void TcamEmulator::injectFault(WriterFault f, uint32_t skip) {
   fault_ = f;
   faultSkip_ = skip;
   faultMade_ = false;
   faultRoutes_.clear();
}

bool TcamEmulator::faultDue(bool isMerge, const RoutePosition* p) {
   if (fault_ == WriterFault::none || faultMade_) return false;
   bool applies = false;
   switch (fault_) {
      case WriterFault::dropMove:
      case WriterFault::wrongIndex:
      case WriterFault::sourceLeftValid:
         applies = !isMerge;
         break;
      case WriterFault::wrongHalf:
         applies = isMerge;
         break;
      case WriterFault::partnerLeftBehind:
         applies = !isMerge && p->type == EntryType::v6 && posValid(p->oldRouteId, false) &&
                   index_->cells[p->oldRouteId].kind == EntryKind::v6DoubleFirst &&
                   (!doubleSizeAt_ || doubleSizeAt_(p->newRouteId)) &&
                   posValid(p->newRouteId, true);
         break;
      case WriterFault::wrongAck:
         applies = true;
         break;
      case WriterFault::none:
         break;
   }
   if (!applies) return false;
   if (faultSkip_ > 0) {
      --faultSkip_;
      return false;
   }
   faultMade_ = true;
   return true;
}

void TcamEmulator::noteFaultRoutes(uint32_t pos, std::optional<EntryType> half) {
   if (pos == 0 || pos >= size()) return;
   const TcamEntry e = index_->entryAt(pos);
   if (half) {
      const Ipv4UcastKey& k = *half == EntryType::v4Left ? e.v4.left : e.v4.right;
      if (e.kind == EntryKind::v4 && !k.isNull()) faultRoutes_.push_back(k.toString());
      return;
   }
   visitKeys(e, pos, size(),
             [&](const auto& k, uint32_t) { faultRoutes_.push_back(k.toString()); });
}

void TcamEmulator::applyFaultyMove(const RoutePosition& p) {
   const uint32_t src = p.oldRouteId;
   const bool checks = checkEveryMove_;
   checkEveryMove_ = false;  // the check runs once the mistake is complete
   switch (fault_) {
      case WriterFault::dropMove:
         break;
      case WriterFault::wrongIndex: {
         RoutePosition q = p;
         q.newRouteId = p.newRouteId + 1 < size() ? p.newRouteId + 1 : p.newRouteId - 1;
         applyMove(q);
         break;
      }
      case WriterFault::sourceLeftValid: {
         const TcamEntry from = src < size() ? index_->entryAt(src) : TcamEntry{};
         applyMove(p);
         if (from.kind != EntryKind::empty) store(src, from);
         break;
      }
      case WriterFault::partnerLeftBehind: {
         // The first entry lands; its partner stays where the pair was.
         const TcamEntry from = index_->entryAt(src);
         const uint32_t dst = p.newRouteId;
         vacate(dst);
         setRaw(dst, from);
         auto& idx = index_->v6;
         if (uint32_t id = idx.findId(from.v6); id && idx.slots[id].homeRank == src) {
            idx.homeIs(id, dst);
         }
         setRaw(src, TcamEntry{});
         ++moves_;
         break;
      }
      default:
         VEXLO_UNREACHABLE("not a fault of a move");
   }
   checkEveryMove_ = checks;
   afterChange();
}

void TcamEmulator::applyFaultyMerge(const RouteMergeInfo& m) {
   VEXLO_ASSERT(fault_ == WriterFault::wrongHalf, "TcamEmulator: a fault of a merge");
   const TcamEntry from = index_->entryAt(m.srcRouteId);
   const Ipv4UcastKey key = m.srcRouteType == EntryType::v4Left ? from.v4.left : from.v4.right;
   TcamEntry to = index_->entryAt(m.dstRouteId);
   // The key field of an entry of another kind is a default key, not a null one: copying it
   // would install a route nobody wrote.
   if (from.kind != EntryKind::v4 || to.kind != EntryKind::v4 || key.isNull()) {
      return afterChange();
   }
   (m.dstRouteType == EntryType::v4Left ? to.v4.right : to.v4.left) = key;
   setRaw(m.dstRouteId, to);
   if (uint32_t id = index_->v4.findId(key)) index_->v4.homeIs(id, m.dstRouteId);
   pendingMergeSources_.push_back(m.srcRouteId);
   ++merges_;
   afterChange();
}

}  // namespace VexloL3Common::sim

// An agent in miniature, built against the installed library: a TCAM manager wired to a hardware
// writer that carries out every move and merge on its own copy of the table and acknowledges it.
// Exits 0 only when the writer's table agrees with the model after every operation.
#include <VexloL3Common/tcam/L3TcamManager.h>
#include <VexloL3Common/tcam/L3TcamPublisher.h>
#include <VexloL3Common/types/L3RouteTypes.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

using namespace VexloL3Common;

namespace {

// The hardware as the writer sees it: what each TCAM entry holds (left and right IPv4 halves).
struct Entry {
   Ipv4UcastKey left, right;
   bool valid = false;
};

class Writer {
 public:
   explicit Writer(uint32_t size) : table_(size) {}

   // Subscribes to the model's records; the status twins are the writer's acknowledgements.
   void attach(const L3TcamManagerContext::Config& cfg, Ulo::Ptr<RouteMove> moveStatus,
               Ulo::Ptr<RouteMerge> mergeStatus) {
      onMove_ = cfg.routeMove->changed().subscribe([this, moveStatus](const RoutePosition& p) {
         // Write the entry at its new place first, then invalidate the old one: the route is
         // never missing from the hardware.
         table_[p.newRouteId] = table_[p.oldRouteId];
         table_[p.oldRouteId] = Entry{};
         ++moves_;
         moveStatus->posIs(p);
      });
      onMerge_ = cfg.routeMerge->changed().subscribe([this, mergeStatus](const RouteMergeInfo& m) {
         Entry& src = table_[m.srcRouteId];
         Entry& dst = table_[m.dstRouteId];
         const Ipv4UcastKey key = m.srcRouteType == EntryType::v4Right ? src.right : src.left;
         (m.dstRouteType == EntryType::v4Right ? dst.right : dst.left) = key;
         src = Entry{};
         mergeStatus->mergeIs(m);
      });
   }

   // What the agent writes itself: a new route in the half the model chose, a deleted one gone.
   void write(const Ipv4UcastKey& key, const RouteReturnCode& rc) {
      Entry& e = table_[rc.routeId];
      (rc.tcamV4RightKey ? e.right : e.left) = key;
      e.valid = true;
   }
   void erase(const RouteReturnCode& rc) {
      Entry& e = table_[rc.routeId];
      (rc.tcamV4RightKey ? e.right : e.left) = Ipv4UcastKey();
      if (e.left == Ipv4UcastKey() && e.right == Ipv4UcastKey()) e = Entry{};
   }

   // The entry that holds key, 0 when none.
   uint32_t find(const Ipv4UcastKey& key) const {
      for (uint32_t i = 1; i < table_.size(); ++i) {
         const Entry& e = table_[i];
         if (e.valid && (e.left == key || e.right == key)) return i;
      }
      return 0;
   }
   uint64_t moves() const { return moves_; }

 private:
   std::vector<Entry> table_;
   Ulo::Subscription onMove_, onMerge_;
   uint64_t moves_ = 0;
};

// The n-th route (from 1) of a prefix length.
Ipv4UcastKey key(uint32_t n, uint8_t len) {
   return Ipv4UcastKey(VrfId(0), Ulo::Prefix(n << (32 - len), len));
}

}  // namespace

int main() {
   constexpr uint32_t size = 1024;
   auto moveStatus = routeMoveFactory();
   auto mergeStatus = routeMergeFactory();
   L3TcamManagerContext::Config cfg;
   cfg.tcamSize = size;
   cfg.tcamMode = 1;
   cfg.numUcastDefipBlocks = 2;
   cfg.twoV4RoutesPerEntry = true;
   cfg.routeMove = routeMoveFactory();
   cfg.routeMoveStatus = moveStatus;
   cfg.routeMerge = routeMergeFactory();
   cfg.routeMergeStatus = mergeStatus;

   Writer writer(size);
   writer.attach(cfg, moveStatus, mergeStatus);
   L3TcamManager mgr;
   mgr.tcamManagerCtxIs(cfg);
   mgr.tcamManagerCtx()->handleInitialized(true);

   // Short prefixes first and longer ones after: every longer route must be shifted in below the
   // shorter ones, so the writer carries out moves.
   std::map<Ipv4UcastKey, uint32_t> placed;
   for (uint8_t len : {8, 24, 16, 20, 12, 28, 22, 18}) {
      for (uint32_t i = 0; i < 120; ++i) {
         const Ipv4UcastKey k = key(i + 1, len);
         const RouteReturnCode rc = mgr.addRoute4(k, false);
         if (rc.routeId == 0) {
            std::fprintf(stderr, "no room for %s\n", k.toString().c_str());
            return 1;
         }
         writer.write(k, rc);
         placed[k] = rc.routeId;
      }
   }
   uint64_t seq = 0;
   for (uint32_t i = 0; i < 120; i += 2) {  // withdraw every other /16, merging half-full entries
      const Ipv4UcastKey k = key(i + 1, 16);
      writer.erase(mgr.deleteRoute4(k, /*merge*/ true, ++seq));
      placed.erase(k);
   }
   for (const auto& [k, unused] : placed) {
      const uint32_t model = mgr.tcamManagerCtx()->getKeyV4ToEntryId(k);
      if (model == 0 || writer.find(k) != model) {
         std::fprintf(stderr, "%s: model entry %u, hardware entry %u\n", k.toString().c_str(),
                      model, writer.find(k));
         return 1;
      }
   }
   mgr.tcamManagerCtx()->verify();
   if (writer.moves() == 0) {
      std::fprintf(stderr, "expected the writer to carry out moves\n");
      return 1;
   }
   std::printf("vexlo consumer: ok, %zu routes, %llu moves carried out\n", placed.size(),
               static_cast<unsigned long long>(writer.moves()));
   return 0;
}

// One TCAM context as an agent drives it: the model decides, the agent writes the entries it is
// told about (a new route, the entry a delete or merge left behind), and a writer carries out the
// moves and merges the model publishes. With an emulator the writer is `TcamEmulator`; without
// one it is a writer that acknowledges at once and writes nothing, which is how the simulator
// times the model (and its publication) on its own.
//
// Synopsis
//   EmulatedTable t(cfg, /*urpf*/ false, /*emulate*/ true);   std::range_error if refused
//   bool placed = t.add(route);           false: no room, or no entry of the size the route
//                                         needs (the model is unchanged)
//   t.del(route);                         the route must be installed
//   t.ctx(), t.emu()                      the context; the emulator (null when software-only)
//
// A multicast table is a context of its own: route families must match the table (unicast
// routes to a unicast context, multicast to a multicast one).
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "sim/Route.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::sim {

class EmulatedTable {
 public:
   // The writer handles and routing status of cfg are replaced by the table's own. beforeInit
   // runs between construction and initialisation (a platform installing its own invalid-entry
   // manager). The layout's refusals (range errors, fatal checks) pass through unchanged.
   EmulatedTable(L3TcamManagerContext::Config cfg, bool urpf, bool emulate,
                 const std::function<void(L3TcamManagerContext&)>& beforeInit = {});
   ~EmulatedTable();
   EmulatedTable(const EmulatedTable&) = delete;
   EmulatedTable& operator=(const EmulatedTable&) = delete;

   L3TcamManagerContext& ctx() { return *ctx_; }
   const L3TcamManagerContext& ctx() const { return *ctx_; }
   TcamEmulator* emu() { return emu_.get(); }
   const TcamEmulator* emu() const { return emu_.get(); }

   RouteMove& move() { return *move_; }
   RouteMove& moveStatus() { return *moveStatus_; }
   RouteMerge& merge() { return *merge_; }

   bool add(const Route& r);
   void del(const Route& r);

   // Moves and merges made so far, over every route type.
   uint64_t moves() const;
   uint64_t merges() const;
   // Entries in use: IPv4 entries, single-size IPv6 entries, both entries of each double-size
   // pair, multicast entries.
   uint32_t usedEntries() const;
   // Whether an IPv6 entry at pos is double-size (what the writer must know).
   bool doubleSizeAt(uint32_t pos) const;
   // Reshapes a paired table with interleaving allowed into separate single- and double-size
   // IPv6 regions split at `border`, the IPv4 block spanning both: IPv4 entries may then stand in
   // either region and the conversion ladder has work to do. Call on an empty table.
   void shareRegions(uint32_t border);
   // The agent's write after an IPv4 delete or merge: what the model still holds at pos, or
   // nothing.
   void rewriteV4(uint32_t pos);
   // Whether the layout has entries for an IPv6 route of this length at all. Without pairing
   // there are no double-size entries, and an agent never offers a route longer than the
   // single-size entries take (the model treats that as a broken caller): add() refuses it.
   bool v6Placeable(uint32_t len) const;
   // The entries touched since the last touchedDelAll: both ends of every published move and
   // merge, and the entries of the routes added and deleted through this table or noted by a
   // caller that drives the context itself. Recorded once tracking is on. For checking after
   // each operation only what it touched (L3TcamManagerContext::verifyEntries).
   void trackTouchedIs(bool on);
   void noteTouched(uint32_t pos) {
      if (tracking_) touched_.push_back(pos);
   }
   const std::vector<uint32_t>& touched() const { return touched_; }
   void touchedDelAll() { touched_.clear(); }

   // Where the model has each route, for the emulator to cross-check the hardware against
   // (`emu()->modelViewIs(modelView())`: then check between operations, not during one).
   ModelView modelView() const;

 private:
   Ulo::Ptr<RouteMove> move_, moveStatus_;
   Ulo::Ptr<RouteMerge> merge_, mergeStatus_;
   Ulo::Ptr<Ulo::RoutingStatus> routing_;
   Ulo::Ptr<L3TcamManagerContext> ctx_;
   std::unique_ptr<TcamEmulator> emu_;
   Ulo::Subscription ackMove_, ackMerge_;
   Ulo::Subscription touchMove_, touchMerge_;
   bool tracking_ = false;
   std::vector<uint32_t> touched_;
   uint64_t sequence_ = 0;
};

}  // namespace VexloL3Common::sim

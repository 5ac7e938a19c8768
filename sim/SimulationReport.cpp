// The figures of the HTML report taken from a simulation: the map of each table as the emulated
// hardware holds it, the moves-per-update histogram, and the occupancy samples.
#include <algorithm>

#include "sim/Simulation.h"

namespace VexloL3Common::sim {

namespace {

ReportData::TableMap mapOf(const EmulatedTable& t, std::string name) {
   ReportData::TableMap m;
   m.name = std::move(name);
   const TcamEmulator& emu = *t.emu();
   m.entries.resize(emu.size());
   const L3TcamManagerContext& c = t.ctx();
   // Entries the layout keeps out of use (index 0, the invalid-entry manager's) show as reserved
   // unless something sits there.
   if (!m.entries.empty()) m.entries[0].cell = ReportData::Cell::reserved;
   if (c.invalidEntryManager()) {
      for (uint32_t i = 1; i < emu.size(); ++i) {
         if (c.invalidEntryManager()->isEntryInvalid(i))
            m.entries[i].cell = ReportData::Cell::reserved;
      }
   }
   emu.forEachEntry([&](uint32_t pos, const TcamEntry& e) {
      ReportData::MapEntry& me = m.entries[pos];
      switch (e.kind) {
         case EntryKind::empty:
            break;
         case EntryKind::v4: {
            me.cell = ReportData::Cell::v4;
            const uint32_t l = e.v4.left.isNull() ? 0 : e.v4.left.len();
            const uint32_t r = e.v4.right.isNull() ? 0 : e.v4.right.len();
            me.len = uint8_t(std::max(l, r));
            break;
         }
         case EntryKind::v6Single:
            me = {ReportData::Cell::v6Single, uint8_t(e.v6.len())};
            break;
         case EntryKind::v6DoubleFirst:
            me = {ReportData::Cell::v6Double, uint8_t(e.v6.len())};
            break;
         case EntryKind::v6DoubleSecond:
            me = {ReportData::Cell::v6DoubleSecond, uint8_t(e.v6.len())};
            break;
         case EntryKind::mcast:
            me = {ReportData::Cell::mcast, e.mcast.len};
            break;
      }
   });
   if (c.borderMoves() || (c.supportsDefipPairing() && c.v4V6Border()))
      m.v4V6Border = c.v4V6Border();
   return m;
}

}  // namespace

ReportData Simulation::reportData() const {
   ReportData d;
   if (unicast_) d.maps.push_back(mapOf(*unicast_, "unicast table"));
   if (mcast_ && stats_.routes[size_t(Region::mcast)] + stats_.family[2].refused > 0)
      d.maps.push_back(mapOf(*mcast_, "multicast table"));
   d.movesPerUpdate = movesBars(stats_.movesPerUpdate.counts());
   d.tableEntries = (unicast_ ? unicast_->ctx().tcamSize() : 0) + (mcast_ ? cfg_.mcastSize : 0);
   for (unsigned i = 0; i < numRegions; ++i)
      d.occupancyRegions.emplace_back(regionName(Region(i)));
   d.occupancy = samples_;
   if (d.occupancy.empty() || d.occupancy.back().op != stats_.operations)
      d.occupancy.push_back(currentSample());
   return d;
}

}  // namespace VexloL3Common::sim

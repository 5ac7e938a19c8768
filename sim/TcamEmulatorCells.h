// What the emulator keeps of its table: the entries (as cells naming the key states they hold),
// the key index of each family and each family's length order, changed together through cellIs.
// Shared by the emulator's own source files only.
#pragma once

#include <algorithm>
#include <vector>

#include "VexloL3Common/internal/FlatHashMap.h"
#include "sim/TcamEmulator.h"
#include "sim/TcamEmulatorIndex.h"
#include "sim/TcamEmulatorKeys.h"
#include "sim/TcamEmulatorOrder.h"

namespace VexloL3Common::sim {

struct TcamEmulator::Index {
   explicit Index(uint32_t size)
       : v4(size),
         v6(size),
         mcast(size),
         cells(size),
         v4Order(size),
         v6Order(2 * size),
         mcastOrder(size) {}

   internal::KeyIndex<Ipv4UcastKey> v4;
   internal::KeyIndex<Ipv6UcastKey> v6;
   internal::KeyIndex<IpMcastPrefixKey> mcast;
   std::vector<internal::Cell> cells;  // the entries
   // The key of each second entry of a double-size pair, by position.
   VexloL3Common::internal::FlatHashMap<uint32_t, Ipv6UcastKey> secondKeys;
   uint32_t stamp = 0;

   // The length order of each family's entries (TcamEmulatorOrder.h); IPv6 ranks run to twice
   // the size.
   internal::LengthOrder v4Order, v6Order, mcastOrder;

   uint32_t size() const { return uint32_t(cells.size()); }

   // Where a cell stands in its family's order, and what it holds there.
   struct Place {
      internal::LengthOrder* order = nullptr;
      uint32_t rank = 0;
      internal::Span span;
   };
   Place placeOf(const internal::Cell& c, uint32_t pos) {
      const internal::Span span{true, c.shortest, c.longest};
      switch (c.kind) {
         case EntryKind::v4:
            if (internal::Cell::isKey(c.ids[0]) || internal::Cell::isKey(c.ids[1]))
               return Place{&v4Order, pos, span};
            break;
         case EntryKind::v6Single:
            return Place{&v6Order, size() + pos, span};
         case EntryKind::v6DoubleFirst:
            return Place{&v6Order, pos, span};
         case EntryKind::mcast:
            return Place{&mcastOrder, pos, span};
         case EntryKind::empty:
         case EntryKind::v6DoubleSecond:
            break;
      }
      return Place{};
   }

   // What the entry at a rank of the order holds.
   auto spanAt(const internal::LengthOrder* o) const {
      const uint32_t wrap = o == &v6Order ? size() : internal::npos;
      return [this, wrap](uint32_t rank) {
         const uint32_t p = rank >= wrap ? rank - wrap : rank;
         return internal::Span{true, cells[p].shortest, cells[p].longest};
      };
   }

   // A move of the cell at src into the empty one at dst: what cellIs(dst, ...) and
   // cellIs(src, empty) amount to, with the lengths carried along.
   void moveCell(uint32_t src, uint32_t dst) {
      const internal::Cell c = cells[src];
      cells[dst] = c;
      cells[src] = internal::Cell{};
      const Place from = placeOf(c, src), to = placeOf(c, dst);
      if (!from.order) return;
      from.order->change(from.rank, from.span, internal::Span{}, spanAt(from.order));
      to.order->change(to.rank, internal::Span{}, to.span, spanAt(to.order));
   }

   // Every change of an entry goes through here (or moveCell), so that the orders follow: the
   // keys' states must be indexed already.
   void cellIs(uint32_t pos, internal::Cell now) {
      bool first = true;
      forHeld(now, pos, [&](auto& idx, uint32_t id, uint32_t, unsigned) {
         const uint8_t d = idx.slots[id].depth();
         now.shortest = first ? d : std::min(now.shortest, d);
         now.longest = first ? d : std::max(now.longest, d);
         first = false;
      });
      const Place was = placeOf(cells[pos], pos);
      cells[pos] = now;
      const Place is = placeOf(now, pos);
      if (was.order && was.order == is.order && was.rank == is.rank) {
         was.order->change(was.rank, was.span, is.span, spanAt(was.order));
         return;
      }
      if (was.order) was.order->change(was.rank, was.span, internal::Span{}, spanAt(was.order));
      if (is.order) is.order->change(is.rank, internal::Span{}, is.span, spanAt(is.order));
   }

   // Calls f(index, id, rank, half) for every key the cell at pos holds, in the order of
   // visitHeldKeys.
   template <class F>
   void forHeld(const internal::Cell& c, uint32_t pos, F&& f) {
      forHeldOf(*this, c, pos, f);
   }
   template <class F>
   void forHeld(const internal::Cell& c, uint32_t pos, F&& f) const {
      forHeldOf(*this, c, pos, f);
   }
   template <class Self, class F>
   static void forHeldOf(Self& ix, const internal::Cell& c, uint32_t pos, F& f) {
      switch (c.kind) {
         case EntryKind::v4:
            if (internal::Cell::isKey(c.ids[0])) f(ix.v4, c.ids[0], pos, 0u);
            if (internal::Cell::isKey(c.ids[1])) f(ix.v4, c.ids[1], pos, 1u);
            break;
         case EntryKind::v6Single:
            f(ix.v6, c.ids[0], ix.size() + pos, 0u);
            break;
         case EntryKind::v6DoubleFirst:
            f(ix.v6, c.ids[0], pos, 0u);
            break;
         case EntryKind::mcast:
            f(ix.mcast, c.ids[0], pos, 0u);
            break;
         case EntryKind::empty:
         case EntryKind::v6DoubleSecond:
            break;
      }
   }

   Ipv4UcastKey v4Half(uint32_t id) const {
      return internal::Cell::isKey(id)
                 ? v4.slots[id].key
                 : Ipv4UcastKey::nullKey(VrfId(id & ~internal::Cell::nullHalf));
   }

   // The entry at pos, keys and all.
   TcamEntry entryAt(uint32_t pos) const {
      const internal::Cell& c = cells[pos];
      TcamEntry e;
      e.kind = c.kind;
      switch (c.kind) {
         case EntryKind::v4:
            e.v4.right = v4Half(c.ids[0]);
            e.v4.left = v4Half(c.ids[1]);
            break;
         case EntryKind::v6Single:
         case EntryKind::v6DoubleFirst:
            e.v6 = v6.slots[c.ids[0]].key;
            break;
         case EntryKind::v6DoubleSecond:
            e.v6 = *secondKeys.find(pos);
            break;
         case EntryKind::mcast:
            e.mcast = mcast.slots[c.ids[0]].key;
            break;
         case EntryKind::empty:
            break;
      }
      return e;
   }

   template <class Key>
   void uninstallAt(internal::KeyIndex<Key>& idx, uint32_t pos) {
      while (uint32_t id = idx.homeHead[pos])
         idx.homeIs(id, 0);
   }
   void uninstallAt(uint32_t pos) {
      uninstallAt(v4, pos);
      uninstallAt(v6, pos);
      uninstallAt(mcast, pos);
   }

   internal::KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) { return v4; }
   internal::KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) { return v6; }
   internal::KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) { return mcast; }
   const internal::KeyIndex<Ipv4UcastKey>& of(const Ipv4UcastKey&) const { return v4; }
   const internal::KeyIndex<Ipv6UcastKey>& of(const Ipv6UcastKey&) const { return v6; }
   const internal::KeyIndex<IpMcastPrefixKey>& of(const IpMcastPrefixKey&) const { return mcast; }
};

}  // namespace VexloL3Common::sim

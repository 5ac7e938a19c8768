// TcamEmulator without its prefix tries while a family stands in length order: two emulators fed
// the same random writes and publications, one of which keeps its tries throughout, must give the
// same verdicts at every check. The tables are kept mostly in order and broken now and then, with
// several unchecked writes between checks, so that the tries are built and dropped again many
// times, from keys most of which did not change since the last check.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "TcamFixture.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::sim {
namespace {

// Double-size IPv6 entries below the border, whose pairs end inside the table.
constexpr uint32_t tableSize = 72, gap = 20, bands = 6, doubleBorder = 30;

uint64_t topMask(unsigned n) {
   return n == 0 ? 0 : n >= 64 ? ~0ull : ~0ull << (64 - n);
}

// Keys from a few nested leaves, so that a key out of its band mostly shadows or is shadowed. A
// table that takes the lengths of the bands from their entries stands in length order: longer
// keys first, double-size IPv6 keys all longer than single-size ones.
struct Lengths {
   static constexpr uint8_t v4[bands] = {30, 26, 22, 18, 14, 10};
   static constexpr uint8_t v6Double[bands] = {64, 60, 56, 52, 48, 44};
   static constexpr uint8_t v6Single[bands] = {40, 36, 32, 28, 24, 20};
   static constexpr uint8_t mcast[bands] = {140, 110, 80, 64, 48, 32};
};
constexpr uint32_t leaves[] = {0x0A000000, 0x0A000004, 0x0A000100, 0x0A010000, 0x0A800000};

uint32_t bandOf(uint32_t pos) {
   return pos * bands / tableSize;
}

// Two emulators fed the same writes and publications: one drops its tries while a family stands
// in length order, the other keeps them throughout. Every verdict must be the same.
class Twins {
 public:
   Twins(uint32_t seed, bool checkEveryMove) : rng_(seed) {
      for (TcamEmulator* e : {&lean, &full}) {
         e->onErrorIs(TcamEmulator::OnError::record);
         e->checkEveryMoveIs(checkEveryMove);
      }
      lean.attach(move_, leanMoveStatus_, merge_, leanMergeStatus_);
      full.attach(move_, fullMoveStatus_, merge_, fullMergeStatus_);
      full.keepsTreesIs(true);
      // A moved IPv6 route takes the size of the region it lands in, now and then not its own.
      for (TcamEmulator* e : {&lean, &full})
         e->doubleSizeAtIs([](uint32_t pos) { return isDoubleRegion(pos); });
   }

   static bool isDoubleRegion(uint32_t pos) { return pos < doubleBorder; }

   uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

   // One step; mostly in band, now and then a key of any length, and strays cleared up again.
   void step() {
      const uint32_t what = below(14), pos = 1 + below(tableSize - 1);
      if (what < 4) {
         writeV4(pos);
      } else if (what < 5) {
         writeV6(pos);
      } else if (what < 6) {
         const IpMcastPrefixKey k = mcastKey(band(pos));
         write([&](TcamEmulator& e) { e.writeMcast(pos, k); });
      } else if (what < 7) {
         write([&](TcamEmulator& e) { e.clear(pos); });
      } else if (what < 10) {
         publishMove();
      } else if (what < 12) {
         publishMerge();
      } else if (what < 13) {
         rewriteLost(pos);
      } else if (uint32_t stray = strayEntry()) {
         write([&](TcamEmulator& e) { e.clear(stray); });
      }
      if (below(40) == 0) {
         static constexpr WriterFault faults[] = {
             WriterFault::dropMove,        WriterFault::wrongIndex,        WriterFault::wrongHalf,
             WriterFault::sourceLeftValid, WriterFault::partnerLeftBehind, WriterFault::wrongAck};
         const WriterFault f = faults[below(6)];
         lean.injectFault(f);
         full.injectFault(f);
      }
   }

   // The entries, and the home of every key written so far, by printed route.
   struct Snapshot {
      std::vector<TcamEntry> image;
      std::map<std::string, uint32_t> homes;
   };
   Snapshot snapshot() const {
      Snapshot s;
      for (uint32_t p = 0; p < tableSize; ++p)
         s.image.push_back(lean.entry(p));
      forEachKey([&](const auto& k) { s.homes[k.toString()] = lean.home(k); });
      return s;
   }
   // The printed routes whose entries or home differ between two snapshots.
   static std::set<std::string> changed(const Snapshot& a, const Snapshot& b) {
      std::set<std::string> out;
      for (uint32_t p = 0; p < tableSize; ++p) {
         if (a.image[p] == b.image[p]) continue;
         for (const TcamEntry* e : {&a.image[p], &b.image[p]})
            visitRoutes(*e, [&](const auto& k) { out.insert(k.toString()); });
      }
      for (const auto& [k, h] : b.homes)
         if (!a.homes.count(k) || a.homes.at(k) != h) out.insert(k);
      return out;
   }

   TcamEmulator lean{tableSize, gap};
   TcamEmulator full{tableSize, gap};

 private:
   template <class F>
   static void visitRoutes(const TcamEntry& e, F&& f) {
      if (e.kind == EntryKind::v4) {
         for (const auto* k : {&e.v4.left, &e.v4.right})
            if (!k->isNull()) f(*k);
      } else if (e.kind == EntryKind::v6Single || e.kind == EntryKind::v6DoubleFirst) {
         f(e.v6);
      } else if (e.kind == EntryKind::mcast) {
         f(e.mcast);
      }
   }

   template <class F>
   void write(F&& f) {
      f(lean);
      f(full);
   }

   // The band whose lengths a key written at pos takes: its own, or now and then any.
   uint32_t band(uint32_t pos) { return below(24) == 0 ? below(bands) : bandOf(pos); }
   // A leaf's leading `len` bits, the last two of them varied: nested in the keys of later bands,
   // and rarely the same key twice (a key written again elsewhere leaves a stale copy).
   uint64_t bits(uint64_t base, unsigned leafShift, unsigned len) {
      const unsigned n = std::min(len, 64u);
      const uint64_t leaf = uint64_t(leaves[below(std::size(leaves))]) << leafShift;
      return (base | leaf | uint64_t(below(4)) << (64 - n)) & topMask(n);
   }
   VrfId vrf() { return VrfId(below(8) == 0 ? 2 : 1); }

   Ipv4UcastKey v4Key(uint32_t b) {
      const uint8_t len = Lengths::v4[b];
      const VrfId v = vrf();
      return *v4s_.emplace(v, Ulo::Prefix(uint32_t(bits(0, 32, len) >> 32), len)).first;
   }
   Ipv6UcastKey v6Key(uint8_t len) {
      const uint64_t hi = bits(0x20010db8ull << 32, 0, len);
      Ulo::Ip6Prefix::Bytes bytes{};
      for (unsigned i = 0; i < 8; ++i)
         bytes[i] = uint8_t(hi >> (56 - 8 * i));
      return *v6s_.emplace(vrf(), Ulo::Ip6Prefix(bytes, len)).first;
   }
   IpMcastPrefixKey mcastKey(uint32_t b) {
      const uint8_t len = Lengths::mcast[b];
      const uint64_t gs = bits(uint64_t(0xEF010000) << 32, 0, len);
      const auto vrfIndex = uint16_t(vrf().value());
      return *mcasts_
                  .emplace(vrfIndex, 0, Ulo::IpGenAddr::v4(gs >> 32),
                           Ulo::IpGenAddr::v4(uint32_t(gs)), len)
                  .first;
   }

   void writeV4(uint32_t pos) {
      // Each half strays on its own: an entry holding two lengths is out of order by its shorter
      // key before and its longer key after.
      const uint32_t left = band(pos), right = band(pos);
      Ipv4Keys keys(v4Key(left), v4Key(right));
      if (below(3) == 0) (below(2) ? keys.left : keys.right) = Ipv4UcastKey::nullKey(VrfId(1));
      write([&](TcamEmulator& e) { e.writeV4(pos, keys); });
   }

   void writeV6(uint32_t pos) {
      const bool twice = below(8) == 0 ? pos + gap < tableSize && below(2) : isDoubleRegion(pos);
      const uint32_t b = band(pos);
      const Ipv6UcastKey k = v6Key(twice ? Lengths::v6Double[b] : Lengths::v6Single[b]);
      write([&](TcamEmulator& e) { e.writeV6(pos, k, twice); });
   }

   // Whether an entry holds only the lengths of its band.
   bool inBand(uint32_t pos) const {
      const TcamEntry e = lean.entry(pos);
      const uint32_t b = bandOf(pos);
      switch (e.kind) {
         case EntryKind::v4:
            return (e.v4.left.isNull() || e.v4.left.len() == Lengths::v4[b]) &&
                   (e.v4.right.isNull() || e.v4.right.len() == Lengths::v4[b]);
         case EntryKind::v6Single:
            return e.v6.len() == Lengths::v6Single[b];
         case EntryKind::v6DoubleFirst:
            return e.v6.len() == Lengths::v6Double[b];
         case EntryKind::mcast:
            return e.mcast.len == Lengths::mcast[b];
         case EntryKind::empty:
         case EntryKind::v6DoubleSecond:
            break;
      }
      return true;
   }
   template <class F>
   void forEachKey(F&& f) const {
      for (const auto& k : v4s_)
         f(k);
      for (const auto& k : v6s_)
         f(k);
      for (const auto& k : mcasts_)
         f(k);
   }

   // Whether an installed route is missing from its home.
   template <class Key>
   bool lost(const Key& k) const {
      const uint32_t home = lean.home(k);
      bool held = false;
      visitRoutes(lean.entry(home), [&](const auto& h) {
         if constexpr (std::is_same_v<decltype(&h), decltype(&k)>) held |= h == k;
      });
      return home && !held;
   }

   // The agent writes a route the hardware lost again, at pos (the state of the key outlived the
   // loss, since the route stayed installed).
   void rewriteLost(uint32_t pos) {
      std::function<void(TcamEmulator&)> w;
      forEachKey([&](const auto& k) {
         using Key = std::decay_t<decltype(k)>;
         if (w || !lost(k)) return;
         if constexpr (std::is_same_v<Key, Ipv4UcastKey>) {
            w = [=](TcamEmulator& e) {
               e.writeV4(pos, Ipv4Keys(Ipv4UcastKey::nullKey(k.vrfId), k));
            };
         } else if constexpr (std::is_same_v<Key, Ipv6UcastKey>) {
            w = [=](TcamEmulator& e) { e.writeV6(pos, k, isDoubleRegion(pos)); };
         } else {
            w = [=](TcamEmulator& e) { e.writeMcast(pos, k); };
         }
      });
      if (w) write(w);
   }

   // An entry out of its band, holding a stale copy or where a route it lost was installed,
   // searched from a random place: the agent clears it, which mends what it breaks.
   uint32_t strayEntry() {
      std::vector<bool> stray(tableSize);
      forEachKey([&](const auto& k) {
         if (lost(k)) stray[lean.home(k)] = true;
      });
      const uint32_t from = below(tableSize);
      for (uint32_t i = 0; i < tableSize; ++i) {
         const uint32_t p = (from + i) % tableSize;
         visitRoutes(lean.entry(p),
                     [&](const auto& k) { stray[p] = stray[p] || lean.home(k) != p; });
         if (p != 0 && (stray[p] || !inBand(p))) return p;
      }
      return 0;
   }

   // An entry of the source's band, empty when one is found quickly; now and then anywhere.
   uint32_t destinationFor(uint32_t src, const std::function<bool(uint32_t)>& fits) {
      const uint32_t lo = bandOf(src) * tableSize / bands;
      const uint32_t hi = (bandOf(src) + 1) * tableSize / bands;
      uint32_t dst = 1 + below(tableSize - 1);
      for (int tries = 0; tries < 12 && below(12) != 0; ++tries) {
         dst = std::max<uint32_t>(1, lo + below(hi - lo));
         if (fits(dst)) break;
      }
      return dst;
   }

   void publishMove() {
      const uint32_t src = 1 + below(tableSize - 1);
      const TcamEntry from = lean.entry(src);
      if (from.kind == EntryKind::empty || from.kind == EntryKind::v6DoubleSecond) return;
      const EntryType type = testing::moveTypeOf(from);
      const uint32_t dst =
          destinationFor(src, [&](uint32_t p) { return lean.entry(p).kind == EntryKind::empty; });
      move_.posIs(RoutePosition{++count_, src, dst, from.kind == EntryKind::v4, type});
   }

   // A half into a free half of an entry of its band; the agent then rewrites the source.
   void publishMerge() {
      const uint32_t src = 1 + below(tableSize - 1);
      const TcamEntry from = lean.entry(src);
      if (from.kind != EntryKind::v4) return;
      const bool left = from.v4.right.isNull() || (!from.v4.left.isNull() && below(2));
      const uint32_t dst = destinationFor(src, [&](uint32_t p) {
         const TcamEntry e = lean.entry(p);
         return p != src && e.kind == EntryKind::v4 && (e.v4.left.isNull() || e.v4.right.isNull());
      });
      const TcamEntry to = lean.entry(dst);
      const bool intoLeft = to.kind == EntryKind::v4 && to.v4.left.isNull();
      merge_.mergeIs(RouteMergeInfo{++count_, src, left ? EntryType::v4Left : EntryType::v4Right,
                                    dst, intoLeft ? EntryType::v4Left : EntryType::v4Right});
      if (below(3) == 0) return;  // rewritten later, or never
      Ipv4Keys rest = from.v4;
      (left ? rest.left : rest.right) = Ipv4UcastKey::nullKey(VrfId(1));
      write([&](TcamEmulator& e) { e.writeV4(src, rest); });
   }

   std::mt19937 rng_;
   RouteMove move_, leanMoveStatus_, fullMoveStatus_;
   RouteMerge merge_, leanMergeStatus_, fullMergeStatus_;
   uint64_t count_ = 0;
   std::set<Ipv4UcastKey> v4s_;  // every key written
   std::set<Ipv6UcastKey> v6s_;
   std::set<IpMcastPrefixKey> mcasts_;
};

std::vector<std::string> messages(const std::vector<Violation>& v) {
   std::vector<std::string> out;
   for (const auto& x : v)
      out.push_back(x.message);
   return out;
}

// A check after every batch of steps, and on even seeds after every move as well. The twins agree
// at each, what the incremental check reports is what the full check says, and without the checks
// after moves every route changed since the last check is judged.
TEST(TcamEmulatorOrderSteps, VerdictsWithoutTriesWhileInOrderAreThoseWithTriesKept) {
   uint64_t builds = 0, drops = 0, violations = 0, shadowed = 0, checks = 0;
   for (uint32_t seed = 1; seed <= 12; ++seed) {
      SCOPED_TRACE(fmt::format("seed {}", seed));
      const bool everyMove = seed % 2 == 0;
      Twins t(seed, everyMove);
      Twins::Snapshot before = t.snapshot();
      for (int batch = 0; batch < 120; ++batch) {
         SCOPED_TRACE(fmt::format("batch {}", batch));
         for (uint32_t n = 1 + t.below(6); n > 0; --n)
            t.step();
         const Twins::Snapshot after = t.snapshot();
         for (uint32_t p = 0; p < tableSize; ++p)
            ASSERT_EQ(t.lean.entry(p), t.full.entry(p)) << p;
         const std::vector<Violation> inc = t.lean.checkAfterMove();
         ASSERT_EQ(messages(inc), messages(t.full.checkAfterMove()));
         ASSERT_EQ(t.lean.errors(), t.full.errors());
         std::map<std::string, std::string> all;
         for (const auto& v : t.lean.checkAll()) {
            all[v.route] = v.message;
            shadowed += v.kind == Violation::Kind::shadowed;
         }
         violations += all.size();
         ++checks;
         std::set<std::string> reported;
         for (const auto& v : inc) {
            reported.insert(v.route);
            ASSERT_TRUE(all.count(v.route)) << v.message;
            ASSERT_EQ(all.at(v.route), v.message);
         }
         // Without checks after each move, the one check judges every route changed since.
         for (const std::string& route : Twins::changed(before, after)) {
            if (!everyMove && all.count(route)) {
               ASSERT_TRUE(reported.count(route)) << all[route];
            }
         }
         before = after;
      }
      builds += t.lean.treeBuilds();
      drops += t.lean.treeDrops();
   }
   // Both modes and the switches between them, broken tables and shadowed routes must come up.
   EXPECT_GT(builds, 30u);
   EXPECT_GT(drops, 30u);
   EXPECT_GT(violations, checks / 2);
   EXPECT_GT(shadowed, 100u);
}

}  // namespace
}  // namespace VexloL3Common::sim

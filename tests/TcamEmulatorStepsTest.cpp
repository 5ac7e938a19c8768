// TcamEmulator: random steps on a small table, odd states included (moves onto live entries,
// routes written at two entries, rewrites where a route is not homed, merges, injected faults).
// After every step the homes must match a plain model of the documented rules, and the incremental
// check must word every route whose entries or home changed exactly as the full check does.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TcamFixture.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::sim {
namespace {

using VexloL3Common::testing::k4;
using VexloL3Common::testing::k6;

constexpr uint32_t tableSize = 24, gap = 8;

IpMcastPrefixKey mc(uint8_t len, const char* source) {
   return IpMcastPrefixKey(1, 0, Ulo::IpGenAddr::fromString("239.1.0.0"),
                           Ulo::IpGenAddr::fromString(source), len);
}

// Nested prefixes, so that most pairs shadow one another. Multicast keys share a trie node when
// they differ only past the bits their length constrains (the two /40s), or only above 128.
struct Pool {
   std::vector<Ipv4UcastKey> v4{k4(1, "10.0.0.0/8"),  k4(1, "10.0.0.0/16"), k4(1, "10.1.0.0/16"),
                                k4(1, "10.0.0.0/24"), k4(1, "10.0.0.0/25"), k4(1, "10.1.2.0/24")};
   std::vector<Ipv6UcastKey> v6{k6(1, "2001:db8::/32"), k6(1, "2001:db8::/48")};
   std::vector<IpMcastPrefixKey> mcast{mc(40, "10.0.0.0"), mc(40, "10.1.0.0"), mc(64, "10.0.0.0"),
                                       mc(129, "10.0.0.0"), mc(130, "10.0.0.0")};
};

// The homes as the header states them, kept by printed route.
class Steps {
 public:
   explicit Steps(uint32_t seed) : rng_(seed) {
      emu.attach(move_, moveStatus_, merge_, mergeStatus_);
      emu.onErrorIs(TcamEmulator::OnError::record);
      emu.checkEveryMoveIs(false);  // the test calls checkAfterMove itself
   }

   uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

   // One random step; returns the routes it changed the entries or the home of.
   std::set<std::string> step() {
      const std::vector<TcamEntry> before = image();
      const std::map<std::string, uint32_t> homesBefore = homes_;
      const uint32_t what = below(12);
      if (what < 4) {
         writeV4(1 + below(tableSize - 1));
      } else if (what < 5) {
         writeOther(1 + below(tableSize - 1));
      } else if (what < 6) {
         const uint32_t pos = 1 + below(tableSize - 1);
         emu.clear(pos);
         last = fmt::format("clear {}", pos);
         callerWrote(pos, {});
      } else if (what < 10) {
         publishMove();
      } else {
         publishMerge();
      }
      if (below(16) == 0) {
         static constexpr WriterFault faults[] = {
             WriterFault::dropMove,        WriterFault::wrongIndex,        WriterFault::wrongHalf,
             WriterFault::sourceLeftValid, WriterFault::partnerLeftBehind, WriterFault::wrongAck};
         fault_ = faults[below(6)];
         emu.injectFault(fault_);
      }
      std::set<std::string> touched;
      const std::vector<TcamEntry> after = image();
      for (uint32_t p = 0; p < tableSize; ++p) {
         if (before[p] == after[p]) continue;
         for (const TcamEntry* e : {&before[p], &after[p]})
            for (const std::string& k : keysOf(*e))
               touched.insert(k);
      }
      for (const auto& [k, h] : homes_)
         if (homesBefore.count(k) == 0 || homesBefore.at(k) != h) touched.insert(k);
      return touched;
   }

   // The emulator's homes against the model's.
   std::string homeMismatch() const {
      size_t installed = 0;
      std::string out;
      auto compare = [&](const auto& keys) {
         for (const auto& k : keys) {
            const auto it = homes_.find(k.toString());
            const uint32_t want = it == homes_.end() ? 0 : it->second;
            installed += want != 0;
            if (emu.home(k) != want)
               out += fmt::format(" {} home {} want {};", k, emu.home(k), want);
         }
      };
      compare(pool_.v4);
      compare(pool_.v6);
      compare(pool_.mcast);
      if (emu.installedRoutes() != installed)
         out += fmt::format(" installed {} want {};", emu.installedRoutes(), installed);
      return out;
   }

   TcamEmulator emu{tableSize, gap};
   uint64_t relocations = 0;  // moves into an empty entry, carried out
   uint64_t rewrites = 0;     // caller writes over an IPv4 entry
   std::string last;          // the step, printed

 private:
   std::vector<TcamEntry> image() const {
      std::vector<TcamEntry> v;
      for (uint32_t p = 0; p < tableSize; ++p)
         v.push_back(emu.entry(p));
      return v;
   }
   static std::vector<std::string> keysOf(const TcamEntry& e) {
      switch (e.kind) {
         case EntryKind::v4: {
            std::vector<std::string> v;
            for (const auto* k : {&e.v4.left, &e.v4.right})
               if (!k->isNull()) v.push_back(k->toString());
            return v;
         }
         case EntryKind::v6Single:
         case EntryKind::v6DoubleFirst:
            return {e.v6.toString()};
         case EntryKind::mcast:
            return {e.mcast.toString()};
         case EntryKind::v6DoubleSecond:  // repeats its pair's key but holds no route of its own
         case EntryKind::empty:
            break;
      }
      return {};
   }

   bool live(uint32_t pos) {
      const std::vector<std::string> keys = keysOf(emu.entry(pos));
      return !keys.empty() &&
             std::all_of(keys.begin(), keys.end(), [&](const auto& k) { return homes_[k] == pos; });
   }

   // The agent deletes what lived at pos and is not written again; what it writes lives there.
   void callerWrote(uint32_t pos, const std::vector<std::string>& keys) {
      for (auto& [k, h] : homes_)
         if (h == pos) h = 0;
      for (const auto& k : keys)
         homes_[k] = pos;
   }

   void writeV4(uint32_t pos) {
      auto pick = [&] {
         return below(3) == 0 ? Ipv4UcastKey::nullKey(VrfId(1)) : pool_.v4[below(6)];
      };
      Ipv4Keys keys(pick(), pick());
      const TcamEntry cur = emu.entry(pos);
      if (below(3) == 0 && cur.kind == EntryKind::v4) {
         keys = cur.v4;  // the agent rewrites one half and keeps the other
         (below(2) ? keys.left : keys.right) = pick();
      }
      rewrites += cur.kind == EntryKind::v4;
      emu.writeV4(pos, keys);
      last = fmt::format("writeV4 {} {}", pos, keys);
      TcamEntry e;
      e.kind = EntryKind::v4;
      e.v4 = keys;
      callerWrote(pos, keys ? keysOf(e) : std::vector<std::string>{});
   }

   void writeOther(uint32_t pos) {
      if (below(2)) {
         const IpMcastPrefixKey& k = pool_.mcast[below(uint32_t(pool_.mcast.size()))];
         emu.writeMcast(pos, k);
         last = fmt::format("writeMcast {} {}", pos, k);
         callerWrote(pos, {k.toString()});
         return;
      }
      const Ipv6UcastKey& k = pool_.v6[below(2)];
      const bool twice = pos + gap < tableSize && below(2);
      emu.writeV6(pos, k, twice);
      last = fmt::format("writeV6 {} {} double {}", pos, k, twice);
      callerWrote(pos, {k.toString()});
   }

   // A move from an entry chosen at random, to anywhere: live or empty, valid or not.
   void publishMove() {
      uint32_t src = 1 + below(tableSize - 1);
      // Half the moves start where their routes live, so that the writer carries them out.
      for (int tries = 0; tries < 16 && below(2) && !live(src); ++tries)
         src = 1 + below(tableSize - 1);
      uint32_t dst = 1 + below(tableSize - 1);
      // Half the moves look for an empty destination, as the model's moves mostly do.
      for (int tries = 0; tries < 8 && below(2) && emu.entry(dst).kind != EntryKind::empty; ++tries)
         dst = 1 + below(tableSize - 1);
      const TcamEntry from = emu.entry(src);
      const EntryType type = testing::moveTypeOf(from);
      const bool v4 = from.kind == EntryKind::v4;
      const bool faultBefore = emu.faultMade();
      const uint64_t errors = emu.errorCount();
      const bool dstEmpty = emu.entry(dst).kind == EntryKind::empty;
      move_.posIs(RoutePosition{++count_, src, dst, v4, type});
      last = fmt::format("move {} of {} (fault {})", move_.pos(), from, toString(fault_));
      if (emu.errorCount() != errors) return;
      const bool faulty = !faultBefore && emu.faultMade();
      uint32_t to = dst;
      if (faulty && fault_ == WriterFault::dropMove) return;
      if (faulty && fault_ == WriterFault::wrongIndex) to = dst + 1 < tableSize ? dst + 1 : dst - 1;
      relocations += !faulty && dstEmpty && src != dst;
      for (const auto& k : keysOf(from))
         if (homes_[k] == src) homes_[k] = to;
   }

   void publishMerge() {
      const uint32_t src = 1 + below(tableSize - 1), dst = 1 + below(tableSize - 1);
      const EntryType srcHalf = below(2) ? EntryType::v4Left : EntryType::v4Right;
      const EntryType dstHalf = below(2) ? EntryType::v4Left : EntryType::v4Right;
      const TcamEntry from = emu.entry(src);
      const Ipv4UcastKey& key = srcHalf == EntryType::v4Left ? from.v4.left : from.v4.right;
      const bool intoV4 = emu.entry(dst).kind == EntryKind::v4;
      const bool faultBefore = emu.faultMade();
      const uint64_t errors = emu.errorCount();
      merge_.mergeIs(RouteMergeInfo{++count_, src, srcHalf, dst, dstHalf});
      last = fmt::format("merge {} (fault {})", merge_.merge(), toString(fault_));
      // The faulty writer checks nothing but the kind of the destination.
      const bool faulty = !faultBefore && emu.faultMade() && fault_ == WriterFault::wrongHalf;
      if (faulty ? intoV4 && from.kind == EntryKind::v4 && !key.isNull()
                 : emu.errorCount() == errors)
         homes_[key.toString()] = dst;
   }

   std::mt19937 rng_;
   Pool pool_;
   std::map<std::string, uint32_t> homes_;
   RouteMove move_, moveStatus_;
   RouteMerge merge_, mergeStatus_;
   uint64_t count_ = 0;
   WriterFault fault_ = WriterFault::none;
};

std::map<std::string, std::string> byRoute(const std::vector<Violation>& v) {
   std::map<std::string, std::string> out;
   for (const auto& x : v)
      out[x.route] = x.message;
   return out;
}

TEST(TcamEmulatorSteps, HomesAndVerdictsOfChangedRoutesMatchTheFullCheck) {
   uint64_t relocations = 0, rewrites = 0, violations = 0, treeBuilds = 0, treeDrops = 0;
   for (uint32_t seed = 1; seed <= 8; ++seed) {
      SCOPED_TRACE(fmt::format("seed {}", seed));
      Steps s(seed);
      for (int i = 0; i < 400; ++i) {
         SCOPED_TRACE(fmt::format("step {}", i));
         const std::set<std::string> touched = s.step();
         ASSERT_EQ(s.homeMismatch(), "") << s.last;
         const auto inc = byRoute(s.emu.checkAfterMove());
         const auto full = byRoute(s.emu.checkAll());
         violations += full.size();
         // What the incremental check reports is true, and worded as the full check words it...
         for (const auto& [route, message] : inc) {
            ASSERT_TRUE(full.count(route)) << message << "\n" << s.last;
            ASSERT_EQ(full.at(route), message);
         }
         // ...and it judges every route whose entries or home changed.
         for (const auto& [route, message] : full) {
            if (touched.count(route)) {
               ASSERT_TRUE(inc.count(route)) << message << "\n" << s.last;
            }
         }
      }
      relocations += s.relocations;
      rewrites += s.rewrites;
      treeBuilds += s.emu.treeBuilds();
      treeDrops += s.emu.treeDrops();
   }
   // The fast paths, broken tables, and checks both with the tries and without them (while the
   // table is in length order) must actually be exercised.
   EXPECT_GT(relocations, 100u);
   EXPECT_GT(rewrites, 300u);
   EXPECT_GT(violations, 1000u);
   EXPECT_GT(treeBuilds, 20u);
   EXPECT_GT(treeDrops, 20u);
}

// A writer that merges into the wrong half copies a route it finds in the source half; from an
// entry that holds no IPv4 route it finds none, and installs nothing.
TEST(TcamEmulatorSteps, WrongHalfMergeFromAnEmptyEntryInstallsNothing) {
   RouteMove move, moveStatus;
   RouteMerge merge, mergeStatus;
   TcamEmulator emu(8, 0);
   emu.attach(move, moveStatus, merge, mergeStatus);
   emu.onErrorIs(TcamEmulator::OnError::record);
   const Ipv4UcastKey k = k4(1, "10.0.0.0/16");
   emu.writeV4(2, Ipv4Keys(Ipv4UcastKey::nullKey(VrfId(1)), k));
   emu.injectFault(WriterFault::wrongHalf);
   merge.mergeIs(RouteMergeInfo{1, 1, EntryType::v4Right, 2, EntryType::v4Right});
   EXPECT_TRUE(emu.faultMade());
   EXPECT_EQ(emu.installedRoutes(), 1u);
   EXPECT_EQ(emu.entry(2).v4, Ipv4Keys(Ipv4UcastKey::nullKey(VrfId(1)), k));
   EXPECT_EQ(emu.home(k), 2u);
}

}  // namespace
}  // namespace VexloL3Common::sim

// The fuzz target's run: the table or tables of one layout, the shadow sets of the installed
// routes, and the operations and checks an input drives (L3TcamFuzzSteps.cpp, L3TcamFuzzChecks.cpp;
// the opcodes are decoded in L3TcamFuzz.cpp).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "VexloL3Common/tcam/L3TcamTable.h"
#include "fuzz/L3TcamFuzzInput.h"
#include "platform/RoutingStatus.h"
#include "sim/EmulatedTable.h"
#include "sim/TcamEmulator.h"

namespace VexloL3Common::fuzz {

// Caps that keep one input fast: operations decoded, and single route operations (a fill or a
// drain makes many). VEXLO_FUZZ_MAX_STEPS lowers the second for long exploring runs: an input
// that fails under a lower cap fails the same way under a higher one, since every step before
// the cap runs the same.
constexpr uint32_t maxOps = 512;
extern const uint32_t maxSteps;
// The whole table is checked this often, and at the end.
constexpr uint32_t fullCheckEvery = 1024;
// After every step the model verifies the entries the step touched (verifyEntries), which costs
// the same on any table; it verifies itself whole (a pass over the table) after every
// (n / verifyDivisor)-th step on a table of n entries, at every layout change and at the end.
// VEXLO_FUZZ_FULL_VERIFY=1 verifies it whole after every step.
constexpr uint32_t verifyDivisor = 64;
// Lookups of a full check: every route of a small table, this many spread over a large one.
constexpr size_t fullCheckLookups = 16;

// VEXLO_FUZZ_FULL_VERIFY and VEXLO_FUZZ_SUMMARY, read once.
extern const bool fullVerify;
extern const bool summaryWanted;

// ---- the shadow: installed routes, pickable by index

template <class Key>
constexpr bool isMcast = std::is_same_v<Key, IpMcastPrefixKey>;

template <class Key>
struct Installed {
   std::vector<Key> keys;
   std::unordered_map<Key, size_t> where;
   std::array<uint32_t, 256> perLength{};  // lookups try only the lengths in use

   size_t size() const { return keys.size(); }
   bool has(const Key& k) const { return where.count(k) != 0; }
   bool lengthUsed(uint32_t len) const { return perLength[len] != 0; }
   void add(const Key& k) {
      where.emplace(k, keys.size());
      keys.push_back(k);
      ++perLength[lengthOf(k)];
   }
   void remove(const Key& k) {
      const size_t at = where.at(k);
      where[keys.back()] = at;
      keys[at] = keys.back();
      keys.pop_back();
      where.erase(k);
      --perLength[lengthOf(k)];
   }
   const Key& pick(uint32_t sel) const { return keys[sel % keys.size()]; }
   static uint32_t lengthOf(const Key& k) {
      if constexpr (isMcast<Key>)
         return k.len;
      else
         return k.len();
   }
};

class Run {
 public:
   explicit Run(const Layout& l);
   void execute(Input& in);

 private:
   L3TcamManagerContext& ctx() { return uc_->ctx(); }
   sim::TcamEmulator& emu() { return *uc_->emu(); }

   // Per route family: the table, the entry where the model has a route, the shadow set.
   template <class Key>
   sim::EmulatedTable& tableOf(const Key&) {
      return isMcast<Key> ? *mc_ : *uc_;
   }
   uint32_t modelPos(const Ipv4UcastKey& k) { return ctx().getKeyV4ToEntryId(k); }
   uint32_t modelPos(const Ipv6UcastKey& k) { return ctx().v6()->getEntryId(k); }
   uint32_t modelPos(const IpMcastPrefixKey& k) { return mc_->ctx().mcastV4()->entryId(k); }
   Installed<Ipv4UcastKey>& shadow(const Ipv4UcastKey&) { return in4_; }
   Installed<Ipv6UcastKey>& shadow(const Ipv6UcastKey&) { return in6_; }
   Installed<IpMcastPrefixKey>& shadow(const IpMcastPrefixKey&) { return inM_; }

   // ---- route operations

   bool add4(const Ipv4UcastKey& key, bool useSwapArea);
   bool add6(uint16_t x, bool useSwapArea);
   bool addMcast(const IpMcastPrefixKey& key);

   // The hardware written, an add's outcome is shadowed and tallied, then checked. Returns whether
   // the route was placed.
   template <class Key>
   bool added(const Key& key, const RouteReturnCode& rc, size_t family);

   // Deletes take their key by value: the caller's key usually lives in the shadow set, which the
   // delete changes.
   void del4(Ipv4UcastKey key, bool mergeAtOnce);
   void del6(Ipv6UcastKey key);
   void delMcast(IpMcastPrefixKey key);

   // After a route operation: the route is at the entry it named (0: gone) in the model and the
   // hardware, and once the model has verified itself its address is looked up.
   template <class Key>
   void checkRoute(const Key& key, uint32_t pos);

   // Where the border moves, a route is refused only when its own partition is down to its
   // reserve and could not grow; for IPv6, or when no pair is left whole (invalid entries and
   // pairs spoil pairs whose entries still count as free), which is all that counts when the
   // route may use the reserve.
   void refusedWithRoomIsAnError(RouteType t, bool useSwapArea);

   // Whole pairs free in the double-size block.
   static uint32_t freePairs(const L3TcamManagerContext& c);

   // ---- bulk operations

   void fill(uint8_t op, uint8_t count, uint8_t seed, uint8_t shape);
   void drain(uint8_t count, uint8_t seed, uint32_t which);

   // ---- layout operations

   void moveBorder(uint8_t sel);
   void switchUrpf(bool drainFirst);
   void restartUnicast(uint8_t how);

   // A fresh context of the same configuration, placed from the hardware image (rebuilt at once,
   // or entry by entry in an order drawn from `how`), must be the same model; the run goes on
   // with it and a new emulator given the same image.
   void restart(std::unique_ptr<sim::EmulatedTable>& t, std::unique_ptr<sim::EmulatedTable> next,
                bool entryByEntry, uint8_t how, std::optional<uint32_t> border, bool anyEmptyHalf);

   // An add of an installed route where re-adding is allowed reports where the route is and
   // changes nothing.
   void reAdd(uint16_t sel, bool v6);
   // Moves toward the weights' ideal, at most maxMoves, each published and carried out; the
   // routes stay where lookups find them.
   void rebalance(uint32_t maxMoves);

   // Single- and double-size IPv6 regions side by side in a paired table that allows
   // interleaving, the IPv4 block spanning both: IPv4 entries stand in either region and the
   // conversion ladder has work to do. Only on an empty table; false (nothing changed) where the
   // double-size pairs below the border would not end inside the table.
   bool shareRegions();

   // ---- checks (the comment at the top of L3TcamFuzz.cpp says which run when)

   // The route counts of a table and its shadow, the hardware check of what changed since the
   // last one, and the model's own verify(): whole with `verify`, else of the entries touched.
   void check(sim::EmulatedTable& t, bool verify);

   // A layout change (border move, uRPF switch, restart) checks or rebuilds the whole table; it
   // counts against the step budget as that many route operations, so that inputs full of them
   // stay as fast as the others.
   uint32_t layoutChangeCost() const {
      return 16 + uint32_t(in4_.size() + in6_.size() + inM_.size());
   }
   void charge(uint32_t steps) { steps_ += steps; }

   // Returns whether the model verified itself whole (the caller then looks the route up).
   bool afterStep(sim::EmulatedTable& t);

   // Every table checked and its hardware checked from scratch; every installed route at the
   // entry the model names; lookups of a sample.
   void fullCheck();
   template <class Key>
   void fullCheck(const Installed<Key>& in);

   // A lookup of the route's own address hits the longest installed prefix that holds it, at the
   // entry where the model has that prefix; nothing when none does. atLength(len): the address
   // as a prefix of that length.
   template <class Key, class Hit, class AtLength>
   void probe(const Key& key, const std::optional<Hit>& hit, int longest, AtLength atLength);
   void probe(const Ipv4UcastKey& key);
   void probe(const Ipv6UcastKey& key);

   // Lengths past 64 constrain no more bits, but are more specific.
   void probe(const IpMcastPrefixKey& key);

   // The unicast table of this layout, with the platform's invalid entries if it has any; the
   // multicast table. Both emulators cross-check the model's view.
   std::unique_ptr<sim::EmulatedTable> unicastTable(bool urpf) const;
   std::unique_ptr<sim::EmulatedTable> mcastTable() const;
   static std::unique_ptr<sim::EmulatedTable> crossChecked(std::unique_ptr<sim::EmulatedTable> t);

   // Places an image one route at a time (each half of an IPv4 entry on its own) in an order
   // drawn from seed, as a platform resynchronising entry by entry does; every route must land
   // where the image has it.
   static void placeAtIndex(L3TcamManagerContext& ctx, const std::vector<TcamHardwareEntry>& image,
                            uint64_t seed);

   // Every mapping's (entry, route) pairs, in its order.
   static auto routesOf(const L3TcamManagerContext& c, bool anyEmptyHalf);

   // The model as a rebuild must reproduce it: layout, blocks with their ranges and occupancy,
   // both bitmaps, and every mapping (statistics start again from zero and are left out).
   // Placed entry by entry, an IPv4 entry with one route fills its empty half with that route's
   // VRF, whatever VRF the half had before: empty halves compare equal then.
   static void sameModel(const L3TcamManagerContext& a, const L3TcamManagerContext& b,
                         bool anyEmptyHalf);

   // The caller's writes that give a new emulator the old one's image.
   static void install(const sim::TcamEmulator& from, sim::TcamEmulator& to);

   // What an input did, printed with VEXLO_FUZZ_SUMMARY=1 (to see what a corpus covers).
   struct Tally {
      std::array<uint32_t, 3> placed{}, refused{};  // IPv4, IPv6, multicast
      uint32_t mergedAfterwards = 0, borderMoves = 0, borderRefusals = 0, urpfSwitches = 0,
               urpfRefusals = 0, restarts = 0, peakUnicast = 0, peakMcast = 0, rebalances = 0;
      uint64_t rebalanceMoves = 0;
   };
   void summary() const;

   Tally tally_;
   Layout layout_;
   Ulo::Ptr<Ulo::SegmentSecurityStatus> segmentSecurity_;
   std::unique_ptr<sim::EmulatedTable> uc_, mc_;
   Installed<Ipv4UcastKey> in4_;
   Installed<Ipv6UcastKey> in6_;
   Installed<IpMcastPrefixKey> inM_;
   uint64_t sequence_ = 0;
   uint32_t steps_ = 0;
   uint32_t sinceVerify_ = 0, sinceVerifyMcast_ = 0;
   bool shared_ = false;  // the side-by-side IPv6 regions are in place
   bool emptyHalvesMayDiffer_ = false;
   uint32_t fills_ = 0;
};

}  // namespace VexloL3Common::fuzz

// TcamEmulator: a first-match model of the hardware LPM TCAM that plays the hardware writer,
// and checks after every move that no installed route has become unreachable.
//
// Synopsis
//   TcamEmulator emu(size, pairGap);       entries 1 .. size-1 (index 0 is never a route's)
//   emu.attach(move, moveStatus, merge, mergeStatus);   carry out what the model publishes
//   emu.doubleSizeAtIs(f)                  which IPv6 entries are double-size (for conversions)
//   emu.detach();
//   emu.writeV4(pos, keys), writeV6(pos, key, doubleSize), writeMcast(pos, key), clear(pos)
//   emu.lookup4(vrf, addr), lookup6(vrf, bytes), lookupMcast(vrfIndex, tableId, group, source)
//   emu.checkAll()                         full consistency check
//   emu.checkAfterMove()                   incremental check of what changed since the last one
//   emu.checkEveryMoveIs(true)             run it after every move and merge (the default)
//   emu.onErrorIs(OnError::record)         keep going on errors (default: fatal assertion)
//   emu.acknowledgesIs(false)              a broken writer that never fills the status records
//   emu.entry(pos), emu.forEachEntry(f)    the image, to rebuild the model from (by value)
//
// The table. Entry p is empty, an IPv4 entry (two halves; a half holding a null prefix is empty),
// a single-size IPv6 entry, the first entry of a double-size IPv6 entry (whose partner p + pairGap
// is marked as its second half and matches nothing on its own), or a multicast entry. Lookups
// search IPv4 and multicast entries in ascending index; IPv6 searches every double-size entry
// before any single-size one, each in ascending index. Two IPv4 halves are tried right first.
//
// Writer role. For each published move the destination is overwritten with the source's contents
// (both entries of a double-size pair) and then the source is emptied: the route is never absent,
// and an entry that the model frees by moving its route away (a conversion, a border move) holds
// no copy that could outlive the route's deletion. An IPv6 route keeps its size unless the writer
// was told which entries are double-size (doubleSizeAtIs): then it takes the size of the region
// it lands in, as a route converted between the two IPv6 sizes does. A merge copies the route in
// one half of the source into the empty half of the destination and leaves the source alone (the
// agent rewrites it). Then the value is copied into the status record, inside the
// publication, which is what the model asserts right after publishing. A move or merge whose
// source does not hold what it claims, whose destination half is not free, or that starts from a
// stale copy (the routes there live elsewhere) is a writer error: it is recorded and not carried
// out (but still acknowledged, so that in record mode the model goes on and the test reads the
// error list). Errors are fatal by default (Ulo::assertFailed with the text "TcamEmulator: writer
// error" or "TcamEmulator: table inconsistent"), so a model bug stops the test at the move that
// made it.
//
// Installed routes. The emulator keeps the routes the agent believes are installed, each with
// its home: the entry where it lives. A caller write installs every route it writes, at that
// entry (a later write of the same route elsewhere moves its home there). A caller write or
// clear of entry p uninstalls the routes whose home is p and that the new contents do not hold
// (whether p still held them or not): the agent rewrote the entry without them, so it deleted
// them. A write over a stale copy therefore uninstalls nothing. Moves and merges never install or
// uninstall; they carry the home of the routes they move along with them. Everything else that
// takes a route from its home (a move onto a live entry, a write that breaks a live double-size
// pair by landing on one of its two entries) leaves the route installed, and the check reports it.
//
// Consistency. For every installed route R (per VRF and family; a multicast key's VRF is its
// vrfIndex and tableId):
//   (a) R's home entry still holds R;
//   (b) no entry holding a strictly shorter prefix that contains R comes before the first entry
//       holding R in search order. Stale copies count on both sides.
// Multicast keys are compared as 64 bits, group then source; a key of length L constrains the first
// min(L, 64) of them, and a longer key is more specific than a shorter one with the same leading
// bits (lengths above 128 count as 128). A route is reported once, (a) before (b), and the
// shadowing prefix named is the earliest one (then the shortest, then the smallest key); so both
// checks word a violation identically.
//
// Complexity (L = 32, 128 or the multicast key length; n = number of entries; d = how deeply the
// installed prefixes nest, a handful in routing tables; k = keys of the family):
//   move, merge                     O(1) per key moved while its family is in length order (see
//                                   below), O(d) otherwise; no hashing (an entry is kept as the
//                                   states of the keys it holds, 16 bytes, and entry() rebuilds it)
//   write, clear                    one hash lookup per key written, plus, while the family is out
//                                   of order, a trie descent of O(L) for a key new to the index
//   checkAfterMove                  O(1) per key changed since the last check in order, O(d) plus
//                                   O(d) per violation out of order; O(k L) when the order has
//                                   just broken (the trie is built), amortised over k changes
//   checkAll                        O(n L) with hash lookups of every truncation
//   lookups                         O(n)
// Length order. Per family the emulator counts the neighbouring entries (in search order) where
// the earlier one holds a key shorter than one the later holds. While that count is zero no
// route can be shadowed, whatever the prefixes (TcamEmulatorOrder.h has the argument), and the
// shadowing checks have nothing to search; a model that keeps longer prefixes first keeps its
// tables so. Only while the count is not zero does the emulator keep the tries below.
// Per VRF and family a path-compressed binary trie holds every key that some entry holds or that
// is installed. The trie nodes holding keys form a tree of their own (each links to its nearest
// ancestor holding a key), and each keeps the largest first-holding rank of the installed routes
// strictly below it (rank = position in search order). A key that gained or lost an entry is
// checked upward (climb the key-holding ancestors: is one held earlier than it?) and downward
// (descend only into subtrees whose largest rank exceeds the key's first rank: each such subtree
// holds a route the key shadows). A rank change climbs the key-holding ancestors and stops at the
// first whose value does not change.
//
// Single event-loop thread: nothing here is locked. Attach only records that outlive the
// attachment (or detach first).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VexloL3Common/tcam/L3TcamPublisher.h"
#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/NetTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common::sim {

enum class EntryKind : uint8_t { empty, v4, v6Single, v6DoubleFirst, v6DoubleSecond, mcast };
std::string_view toString(EntryKind kind);

// One physical entry. Only the field that belongs to `kind` is meaningful; the others stay at
// their defaults. The second entry of a double-size pair repeats its pair's key.
struct TcamEntry {
   EntryKind kind = EntryKind::empty;
   Ipv4Keys v4;
   Ipv6UcastKey v6;
   IpMcastPrefixKey mcast;

   bool operator==(const TcamEntry&) const = default;
   std::string toString() const;
};

// What a lookup hits: the index of the first matching entry and the key it matched.
struct Hit4 {
   uint32_t pos = 0;
   Ipv4UcastKey key;
   bool right = false;
};

struct Hit6 {
   uint32_t pos = 0;
   Ipv6UcastKey key;
   bool doubleSize = false;
};

struct HitMcast {
   uint32_t pos = 0;
   IpMcastPrefixKey key;
};

struct Violation {
   enum class Kind : uint8_t { notHeld, shadowed, misplaced, copied, brokenPair };
   Kind kind = Kind::notHeld;
   std::string route;    // the installed route concerned, printed
   std::string message;  // names both entries and their indices

   auto operator<=>(const Violation&) const = default;
};

// Where the agent's model has a route: its entry (0: nowhere) and, for IPv4, the half.
struct ModelPlace {
   uint32_t pos = 0;
   bool right = false;

   bool operator==(const ModelPlace&) const = default;
};

// The model's answers the emulator cross-checks the hardware against (see "The model's view").
struct ModelView {
   std::function<ModelPlace(const Ipv4UcastKey&)> v4;
   std::function<uint32_t(const Ipv6UcastKey&)> v6;
   std::function<uint32_t(const IpMcastPrefixKey&)> mcast;
   std::function<size_t()> routes;  // routes the model has placed, every family
};

// The mistakes a faulty writer makes, for proving that the checks catch each one.
enum class WriterFault : uint8_t {
   none,
   dropMove,           // a move acknowledged and not carried out
   wrongIndex,         // a move carried out to the entry after the one published
   wrongHalf,          // a merge into the other half of the destination
   sourceLeftValid,    // a move that copies and leaves the source as it was
   partnerLeftBehind,  // a double-size move that writes only the first entry of the new pair
   wrongAck,           // a move or merge acknowledged with the record before it
};
std::string_view toString(WriterFault f);

class TcamEmulator {
 public:
   enum class OnError : uint8_t { fatal, record };

   // size: entries 0 .. size-1, at most 2^30 (range error otherwise). pairGap: distance from the
   // first to the second entry of a double-size IPv6 entry; with 0, or a gap that leaves no room
   // for a pair, the table holds none.
   TcamEmulator(uint32_t size, uint32_t pairGap);
   ~TcamEmulator();
   TcamEmulator(const TcamEmulator&) = delete;
   TcamEmulator& operator=(const TcamEmulator&) = delete;

   uint32_t size() const { return size_; }
   uint32_t pairGap() const { return pairGap_; }

   // ---- writer role ----
   // Subscribes to the two published records and writes the two status records. A second attach
   // replaces the first.
   void attach(RouteMove& move, RouteMove& moveStatus, RouteMerge& merge, RouteMerge& mergeStatus);
   void detach();
   bool attached() const { return moveStatus_ != nullptr; }
   // Carry out a move or merge as if it had been published (the status records are not touched).
   void applyMove(const RoutePosition& p);
   void applyMerge(const RouteMergeInfo& m);
   // The layout as the writer knows it: whether an IPv6 entry at pos is double-size. Unset, a
   // moved IPv6 route keeps its size.
   void doubleSizeAtIs(std::function<bool(uint32_t pos)> f) { doubleSizeAt_ = std::move(f); }
   // false: moves and merges are carried out but never copied into the status records.
   void acknowledgesIs(bool on) { acknowledges_ = on; }
   bool acknowledges() const { return acknowledges_; }
   uint64_t moves() const { return moves_; }
   uint64_t merges() const { return merges_; }

   // ---- caller writes: what the agent writes itself. Range error for index 0, an index past the
   // table, or a double-size entry whose partner would lie past it. ----
   // An entry whose halves are both empty is cleared instead.
   void writeV4(uint32_t pos, const Ipv4Keys& keys);
   void writeV6(uint32_t pos, const Ipv6UcastKey& key, bool doubleSize);
   void writeMcast(uint32_t pos, const IpMcastPrefixKey& key);
   // Empties the entry; the first entry of a double-size pair takes its partner with it.
   void clear(uint32_t pos);

   // The entry where an installed route lives; 0 when the route is not installed.
   uint32_t home(const Ipv4UcastKey& key) const;
   uint32_t home(const Ipv6UcastKey& key) const;
   uint32_t home(const IpMcastPrefixKey& key) const;
   size_t installedRoutes() const;

   // ---- lookups ----
   std::optional<Hit4> lookup4(VrfId vrf, uint32_t addr) const;
   std::optional<Hit6> lookup6(VrfId vrf, const Ulo::IpGenAddr::Bytes& addr) const;
   std::optional<HitMcast> lookupMcast(uint16_t vrfIndex, uint16_t tableId, uint32_t group,
                                       uint32_t source) const;

   // ---- consistency ----
   // Every violation of the table, sorted by message. Changes nothing.
   std::vector<Violation> checkAll() const;
   // The violations that involve a route or prefix whose entries or installation changed since the
   // last call (a violation found earlier and untouched since is not repeated), sorted by message.
   std::vector<Violation> checkAfterMove();
   // Run checkAfterMove after every move and merge and report what it finds as errors. Caller
   // writes are not checked on their own: the next check, explicit or after a move, covers them.
   void checkEveryMoveIs(bool on) { checkEveryMove_ = on; }
   bool checkEveryMove() const { return checkEveryMove_; }
   // Keep the prefix tries even while every family stands in length order, when no route can be
   // shadowed and the checks need none (slower; the verdicts are the same).
   void keepsTreesIs(bool on) { keepsTrees_ = on; }
   bool keepsTrees() const { return keepsTrees_; }
   // How often a family's trie was built because its order broke, and dropped once it held again.
   uint64_t treeBuilds() const { return treeBuilds_; }
   uint64_t treeDrops() const { return treeDrops_; }

   // ---- the model's view: also check that routes stand where the model has them ----
   void modelViewIs(ModelView view);

   // ---- fault injection: the writer makes mistake f once, at the (skip + 1)-th publication from
   // now that it can be made on (a move, a merge, or a move of a double-size route) ----
   void injectFault(WriterFault f, uint32_t skip = 0);
   // Whether the injected fault has been made, and the routes its publication named, printed.
   bool faultMade() const { return faultMade_; }
   const std::vector<std::string>& faultRoutes() const { return faultRoutes_; }

   // ---- errors: writer errors, and violations found by the automatic check ----
   void onErrorIs(OnError policy) { onError_ = policy; }
   OnError onError() const { return onError_; }
   uint64_t errorCount() const { return errorCount_; }
   // The first maxKeptErrors messages.
   const std::vector<std::string>& errors() const { return errors_; }
   void errorsDelAll();
   static constexpr size_t maxKeptErrors = 1000;

   // ---- image ----
   // Range error past the table.
   TcamEntry entry(uint32_t pos) const;
   // Calls f(pos, entry) for every non-empty entry in ascending index.
   void forEachEntry(const std::function<void(uint32_t, const TcamEntry&)>& f) const;

 private:
   struct Index;  // the cells, key states, tries and orders, in TcamEmulatorCells.h

   void checkPos(const char* what, uint32_t pos, bool doubleSize) const;
   void checkImage() const;
   void treesFollowOrder();
   bool posValid(uint32_t pos, bool doubleSize) const;
   void store(uint32_t pos, const TcamEntry& e, const std::array<uint32_t, 2>* ids = nullptr);
   void vacate(uint32_t pos);
   void setRaw(uint32_t pos, const TcamEntry& e, const std::array<uint32_t, 2>* ids = nullptr);
   void setCell(uint32_t pos, EntryKind kind, const std::array<uint32_t, 2>& ids);
   void callerWrite(uint32_t pos, const TcamEntry& e);
   void relocate(uint32_t src, uint32_t dst);
   bool rewriteV4(uint32_t pos, const TcamEntry& e);
   void settleMergeSource(uint32_t pos);
   uint32_t rankOf(uint32_t pos, EntryKind kind) const;
   void afterChange();
   // The incremental check; within an operation the model's view is not asked (the model and
   // the agent's own writes agree only once the operation is over).
   std::vector<Violation> checkChanged(bool withinOperation);
   void report(const char* text, std::string message);
   void onMove(const RoutePosition& p);
   void onMerge(const RouteMergeInfo& m);
   // Fault injection (TcamEmulatorFaults.cpp): whether this publication gets the fault, and the
   // faulty ways of carrying it out.
   bool faultDue(bool isMerge, const RoutePosition* p);
   void touchKeysAt(uint32_t pos);
   void applyFaultyMove(const RoutePosition& p);
   void applyFaultyMerge(const RouteMergeInfo& m);
   void noteFaultRoutes(uint32_t pos, std::optional<EntryType> half);

   uint32_t size_;
   uint32_t pairGap_;
   std::unique_ptr<Index> index_;

   RouteMove* moveStatus_ = nullptr;
   RouteMerge* mergeStatus_ = nullptr;
   Ulo::Subscription moveSub_;
   Ulo::Subscription mergeSub_;
   std::function<bool(uint32_t)> doubleSizeAt_;
   bool acknowledges_ = true;
   bool checkEveryMove_ = true;
   bool keepsTrees_ = false;
   uint64_t treeBuilds_ = 0;
   uint64_t treeDrops_ = 0;
   OnError onError_ = OnError::fatal;
   uint64_t moves_ = 0;
   uint64_t merges_ = 0;
   uint64_t errorCount_ = 0;
   std::vector<std::string> errors_;

   ModelView model_;
   // Sources of merges the agent has yet to rewrite: the copy there is expected.
   std::vector<uint32_t> pendingMergeSources_;

   WriterFault fault_ = WriterFault::none;
   uint32_t faultSkip_ = 0;
   bool faultMade_ = false;
   std::vector<std::string> faultRoutes_;
   RoutePosition lastMoveAck_;
   RouteMergeInfo lastMergeAck_;
};

}  // namespace VexloL3Common::sim

template <>
struct fmt::formatter<VexloL3Common::sim::TcamEntry>
    : Ulo::ToStringFormatter<VexloL3Common::sim::TcamEntry> {};

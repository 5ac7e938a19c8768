// The fuzz target's checks: after every step, now and then over the whole table, and of a
// restarted model against the one it replaces; the summary of what an input did.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <utility>

#include "fuzz/L3TcamFuzzRun.h"
#include "platform/Assert.h"

namespace VexloL3Common::fuzz {

namespace {

bool envFlag(const char* name) {
   const char* v = std::getenv(name);
   return v && *v && *v != '0';
}

}  // namespace

const bool fullVerify = envFlag("VEXLO_FUZZ_FULL_VERIFY");
const uint32_t maxSteps = [] {
   const char* v = std::getenv("VEXLO_FUZZ_MAX_STEPS");
   const unsigned long n = v && *v ? std::strtoul(v, nullptr, 10) : 0;
   return n > 0 && n < 1024 ? uint32_t(n) : 1024u;
}();
const bool summaryWanted = envFlag("VEXLO_FUZZ_SUMMARY");

void Run::check(sim::EmulatedTable& t, bool verify) {
   const bool m = &t == mc_.get();
   const L3TcamManagerContext& c = t.ctx();
   const bool modelAgrees =
       m ? c.mcastV4()->entryIdSize() == inM_.size()
         : c.v4()->keyToEntryIdSize() == in4_.size() && c.v6()->keyToEntryIdSize() == in6_.size();
   VEXLO_ASSERT_MSG(
       modelAgrees && t.emu()->installedRoutes() == (m ? inM_.size() : in4_.size() + in6_.size()),
       "fuzz: model and hardware hold the installed routes", "hardware ",
       t.emu()->installedRoutes(), ", IPv4 ", in4_.size(), ", IPv6 ", in6_.size(), ", multicast ",
       inM_.size());
   const std::vector<sim::Violation> v = t.emu()->checkAfterMove();
   VEXLO_ASSERT_MSG(v.empty(), "fuzz: hardware table consistent", v.empty() ? "" : v[0].message);
   if (verify) {
      c.verify();
      (m ? sinceVerifyMcast_ : sinceVerify_) = 0;
   } else {
      c.verifyEntries(t.touched());
   }
   t.touchedDelAll();
}

bool Run::afterStep(sim::EmulatedTable& t) {
   ++steps_;
   if (summaryWanted) {
      uint32_t& peak = &t == mc_.get() ? tally_.peakMcast : tally_.peakUnicast;
      peak = std::max(peak, t.usedEntries() * 100 / t.ctx().effectiveSize());
   }
   uint32_t& since = &t == mc_.get() ? sinceVerifyMcast_ : sinceVerify_;
   const uint32_t stride = fullVerify ? 1 : std::max(1u, t.ctx().tcamSize() / verifyDivisor);
   const bool verified = ++since >= stride;
   check(t, verified);
   if (steps_ % fullCheckEvery == 0) fullCheck();
   return verified;
}

void Run::fullCheck() {
   for (sim::EmulatedTable* t : {uc_.get(), mc_.get()}) {
      if (!t) continue;
      check(*t, true);
      const std::vector<sim::Violation> v = t->emu()->checkAll();
      VEXLO_ASSERT_MSG(v.empty(), "fuzz: hardware table consistent (full check)",
                       v.empty() ? "" : v[0].message);
   }
   fullCheck(in4_);
   fullCheck(in6_);
   fullCheck(inM_);
}

template <class Key>
void Run::fullCheck(const Installed<Key>& in) {
   for (const Key& k : in.keys) {
      VEXLO_ASSERT_MSG(modelPos(k) == tableOf(k).emu()->home(k) && modelPos(k) != 0,
                       "fuzz: route where the model says", k);
   }
   for (size_t i = 0; i < in.size(); i += in.size() / fullCheckLookups + 1)
      probe(in.keys[i]);
}

template <class Key, class Hit, class AtLength>
void Run::probe(const Key& key, const std::optional<Hit>& hit, int longest, AtLength atLength) {
   const Installed<Key>& in = shadow(key);
   std::optional<Key> best;
   for (int len = longest; len >= 0 && !best; --len) {
      if (!in.lengthUsed(uint32_t(len))) continue;
      const Key k = atLength(uint32_t(len));
      if (in.has(k)) best = k;
   }
   VEXLO_ASSERT_MSG(hit.has_value() == best.has_value() &&
                        (!hit || (hit->key == *best && hit->pos == modelPos(*best))),
                    "fuzz: lookup hits the longest installed prefix", "address of ", key, ": hit ",
                    hit ? hit->key.toString() : "nothing", ", expected ",
                    best ? best->toString() : "nothing");
}

void Run::probe(const Ipv4UcastKey& key) {
   const uint32_t addr = key.prefix.addr();
   probe(key, emu().lookup4(key.vrfId, addr), 32, [&](uint32_t len) {
      return Ipv4UcastKey(key.vrfId, Ulo::Prefix(addr & mask4(len), uint8_t(len)));
   });
}

void Run::probe(const Ipv6UcastKey& key) {
   probe(key, emu().lookup6(key.vrfId, key.prefix.bytes()), 128, [&](uint32_t len) {
      Ulo::Ip6Prefix::Bytes b = key.prefix.bytes();
      mask6(b, len);
      return Ipv6UcastKey(key.vrfId, Ulo::Ip6Prefix(b, uint8_t(len)));
   });
}

void Run::probe(const IpMcastPrefixKey& key) {
   const uint32_t g = key.group.v4Addr(), s = key.source.v4Addr();
   probe(key, mc_->emu()->lookupMcast(key.vrfIndex, key.tableId, g, s), 90,
         [&](uint32_t len) { return mcastKeyOf(key.vrfIndex, uint64_t(g) << 32 | s, len); });
}

void Run::placeAtIndex(L3TcamManagerContext& ctx, const std::vector<TcamHardwareEntry>& image,
                       uint64_t seed) {
   using Kind = TcamHardwareEntry::Kind;
   std::vector<std::pair<const TcamHardwareEntry*, bool>> routes;  // an entry, its right half?
   for (const TcamHardwareEntry& e : image) {
      if (e.kind == Kind::v4) {
         if (!e.v4.right.isNull()) routes.emplace_back(&e, true);
         if (!e.v4.left.isNull()) routes.emplace_back(&e, false);
      } else if (e.kind != Kind::v6DoubleSecond) {
         routes.emplace_back(&e, true);
      }
   }
   for (size_t i = routes.size(); i > 1; --i)
      std::swap(routes[i - 1], routes[mix(seed << 32 | i) % i]);
   for (const auto& [e, right] : routes) {
      RouteReturnCode rc;
      if (e->kind == Kind::v4) {
         rc = ctx.addRoute4AtIndex(right ? e->v4.right : e->v4.left, e->pos, right);
      } else if (e->kind == Kind::mcast) {
         rc = ctx.addMroute4AtIndex(e->mcast, e->pos);
      } else {
         rc = ctx.addRoute6AtIndex(e->v6, e->pos);
      }
      VEXLO_ASSERT_MSG(rc.routeId == e->pos && (e->kind != Kind::v4 || rc.tcamV4RightKey == right),
                       "fuzz: placed at the image's entry", "entry ", e->pos, ", right ", right,
                       ": ", rc.toString());
   }
}

auto Run::routesOf(const L3TcamManagerContext& c, bool anyEmptyHalf) {
   std::vector<std::pair<uint32_t, Ipv4Keys>> v4;
   std::vector<std::pair<uint32_t, Ipv6UcastKey>> v6;
   std::vector<std::pair<uint32_t, IpMcastPrefixKey>> mcast;
   if (c.v4()) {
      c.v4()->forEachKeys([&](uint32_t pos, Ipv4Keys k) {
         if (anyEmptyHalf && k.left.isNull()) k.left = Ipv4UcastKey::nullKey(VrfId());
         if (anyEmptyHalf && k.right.isNull()) k.right = Ipv4UcastKey::nullKey(VrfId());
         v4.emplace_back(pos, k);
      });
   }
   if (c.v6()) c.v6()->forEachEntryIdToKey([&](uint32_t p, auto& k) { v6.emplace_back(p, k); });
   if (c.mcastV4()) c.mcastV4()->forEachKey([&](uint32_t p, auto& k) { mcast.emplace_back(p, k); });
   return std::tuple(v4, v6, mcast);
}

void Run::sameModel(const L3TcamManagerContext& a, const L3TcamManagerContext& b,
                    bool anyEmptyHalf) {
   VEXLO_ASSERT_MSG(a.effectiveSize() == b.effectiveSize() && a.v4V6Border() == b.v4V6Border() &&
                        a.lpmPairGap() == b.lpmPairGap() && a.urpfEnabled() == b.urpfEnabled(),
                    "fuzz: restart keeps the layout", "border ", a.v4V6Border(), "/",
                    b.v4V6Border());
   for (RouteType t : allRouteTypes) {
      const TcamBlock* x = a.block(t).get();
      const TcamBlock* y = b.block(t).get();
      VEXLO_ASSERT_MSG(!x == !y && (!x || *x == *y), "fuzz: restart rebuilds the block",
                       toString(t));
   }
   VEXLO_ASSERT_MSG(*a.bitmap() == *b.bitmap() && *a.bitmapPair() == *b.bitmapPair(),
                    "fuzz: restart rebuilds the occupancy", "");
   VEXLO_ASSERT_MSG(routesOf(a, anyEmptyHalf) == routesOf(b, anyEmptyHalf) &&
                        (!a.v6() || a.v6()->tcamBorder() == b.v6()->tcamBorder()),
                    "fuzz: restart rebuilds every route at its entry", "");
   for (uint32_t len = 0; a.v4() && len <= 32; ++len) {
      VEXLO_ASSERT_MSG(a.v4()->halfFull(len) == b.v4()->halfFull(len),
                       "fuzz: restart rebuilds the half-full entries", "length ", len);
   }
}

void Run::install(const sim::TcamEmulator& from, sim::TcamEmulator& to) {
   from.forEachEntry([&](uint32_t pos, const sim::TcamEntry& e) {
      using K = sim::EntryKind;
      if (e.kind == K::v4)
         to.writeV4(pos, e.v4);
      else if (e.kind == K::mcast)
         to.writeMcast(pos, e.mcast);
      else if (e.kind == K::v6Single || e.kind == K::v6DoubleFirst)
         to.writeV6(pos, e.v6, e.kind == K::v6DoubleFirst);
   });
}

void Run::summary() const {
   const L3TcamManagerContext& c = uc_->ctx();
   const TcamStats& st = *c.stats();
   std::fprintf(
       stderr,
       "fuzz: %u entries, mode %u, %u blocks, two per entry %d, pairing %d, moving %d, "
       "interleaving %d, uRPF %d, shared regions %d, multicast %u entries, gap %u, border %u\n",
       c.tcamSize(), c.tcamMode(), unsigned(c.numUcastDefipBlocks()), c.twoV4RoutesPerEntry(),
       c.supportsDefipPairing(), c.dynamicV4V6Boundary(), !c.v4V6InterleavingDisabled(),
       c.urpfEnabled(), shared_, mc_ ? mc_->ctx().tcamSize() : 0, c.lpmPairGap(), c.v4V6Border());
   std::fprintf(stderr,
                "fuzz: %u steps; placed/refused IPv4 %u/%u, IPv6 %u/%u, multicast %u/%u; "
                "merged afterwards %u; peak use %u%% (multicast %u%%); border moves %u, "
                "refused %u; uRPF switches %u, refused %u; restarts %u; moves since the last "
                "restart IPv4 %llu, v6Full %llu, v6Half %llu\n",
                steps_, tally_.placed[0], tally_.refused[0], tally_.placed[1], tally_.refused[1],
                tally_.placed[2], tally_.refused[2], tally_.mergedAfterwards, tally_.peakUnicast,
                tally_.peakMcast, tally_.borderMoves, tally_.borderRefusals, tally_.urpfSwitches,
                tally_.urpfRefusals, tally_.restarts,
                (unsigned long long)st.moveRoute(RouteType::v4),
                (unsigned long long)st.moveRoute(RouteType::v6Full),
                (unsigned long long)st.moveRoute(RouteType::v6Half));
   // Only inputs that choose the opt-in placement say so, so that the others print as before.
   if (c.placementPolicy() == PlacementPolicy::weighted || c.borderMoveInRanges()) {
      std::fprintf(stderr, "fuzz: placement %s, border in ranges %d; rebalances %u, %llu moves\n",
                   c.placementPolicy() == PlacementPolicy::weighted ? "weighted" : "classic",
                   c.borderMoveInRanges(), tally_.rebalances,
                   (unsigned long long)tally_.rebalanceMoves);
   }
}

}  // namespace VexloL3Common::fuzz

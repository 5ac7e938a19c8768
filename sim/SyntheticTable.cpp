#include "sim/SyntheticTable.h"

#include <algorithm>
#include <array>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>

#include "platform/Trace.h"

namespace VexloL3Common::sim {

namespace {

Ulo::TraceHandle th("SyntheticTable");

using Rng = std::mt19937_64;

// ---- drawing -----------------------------------------------------------------------------
// Only the engine's raw output is used: its sequence is fixed by the standard, whereas the
// distributions' algorithms are left to each library.

// Uniform in [0, bound), bound > 0, without modulo bias.
uint64_t below(Rng& rng, uint64_t bound) {
   uint64_t rem = (~0ull % bound + 1) % bound;  // 2^64 mod bound
   if (rem == 0) return rng() % bound;
   uint64_t limit = 0 - rem;  // largest multiple of bound that fits, as 2^64 - rem
   uint64_t r = rng();
   while (r >= limit)
      r = rng();
   return r % bound;
}

bool percentChance(Rng& rng, uint64_t percent) {
   return below(rng, 100) < percent;
}

// A prefix as 128 bits, most significant first; IPv4 uses the top 32.
struct Bits {
   uint64_t hi = 0;
   uint64_t lo = 0;

   Bits operator&(const Bits& o) const { return {hi & o.hi, lo & o.lo}; }
   Bits operator|(const Bits& o) const { return {hi | o.hi, lo | o.lo}; }
   bool operator==(const Bits&) const = default;
};

// The leading n bits set.
Bits topMask(unsigned n) {
   auto word = [](unsigned k) { return k == 0 ? 0 : k >= 64 ? ~0ull : ~0ull << (64 - k); };
   return {word(std::min(n, 64u)), word(n > 64 ? n - 64 : 0)};
}

// Bits [from, to) set.
Bits bitRange(unsigned from, unsigned to) {
   Bits a = topMask(to), b = topMask(from);
   return {a.hi & ~b.hi, a.lo & ~b.lo};
}

Bits randomBits(Rng& rng) {
   Bits b;
   b.hi = rng();
   b.lo = rng();
   return b;
}

// ---- a set of placed prefixes ------------------------------------------------------------
// Open addressing with a capacity fixed up front (at least twice the number of insertions, so it
// never fills): a 1 M route table needs no rehash and no per-route allocation.
class PrefixSet {
 public:
   explicit PrefixSet(size_t maxEntries) {
      size_t cap = 16;
      while (cap < 2 * maxEntries + 16)
         cap *= 2;
      bits_.resize(cap);
      lens_.assign(cap, emptyLen);
      mask_ = cap - 1;
   }

   // False when the prefix is already present.
   bool insert(const Bits& b, unsigned len) {
      uint64_t h = b.hi * 0x9e3779b97f4a7c15ull ^ (b.lo + len) * 0xc2b2ae3d27d4eb4full;
      h ^= h >> 29;
      for (size_t i = size_t(h) & mask_;; i = (i + 1) & mask_) {
         if (lens_[i] == emptyLen) {
            bits_[i] = b;
            lens_[i] = uint8_t(len);
            return true;
         }
         if (lens_[i] == len && bits_[i] == b) return false;
      }
   }

 private:
   static constexpr uint8_t emptyLen = 0xFF;  // above every prefix length
   std::vector<Bits> bits_;
   std::vector<uint8_t> lens_;
   size_t mask_ = 0;
};

// ---- length shares -----------------------------------------------------------------------

struct Share {
   uint8_t len;
   uint32_t perHundredThousand;
};
constexpr uint32_t shareTotal = 100000;

constexpr Share v4Shares[] = {
    {8, 2},      {9, 2},      {10, 4},     {11, 10},   {12, 30},   {13, 60},   {14, 110},
    {15, 200},   {16, 1400},  {17, 850},   {18, 1400}, {19, 1632}, {20, 5000}, {21, 6000},
    {22, 12000}, {23, 10000}, {24, 60000}, {25, 250},  {26, 250},  {27, 200},  {28, 200},
    {29, 150},   {30, 100},   {31, 20},    {32, 130},
};

constexpr Share v6Shares[] = {
    {29, 2000}, {30, 300},  {31, 300},  {32, 13000}, {33, 1300}, {34, 500},  {35, 400},  {36, 4000},
    {37, 400},  {38, 700},  {39, 500},  {40, 7000},  {41, 400},  {42, 1700}, {43, 300},  {44, 9000},
    {45, 600},  {46, 3000}, {47, 1500}, {48, 45000}, {49, 200},  {50, 200},  {51, 100},  {52, 500},
    {53, 100},  {54, 100},  {55, 100},  {56, 2000},  {57, 50},   {58, 100},  {59, 50},   {60, 400},
    {61, 50},   {62, 100},  {63, 50},   {64, 1500},  {96, 300},  {112, 500}, {120, 200}, {124, 200},
    {126, 300}, {127, 400}, {128, 600},
};

constexpr uint32_t sumOf(std::span<const Share> shares) {
   uint32_t s = 0;
   for (const Share& sh : shares)
      s += sh.perHundredThousand;
   return s;
}
static_assert(sumOf(v4Shares) == shareTotal);
static_assert(sumOf(v6Shares) == shareTotal);

// ---- address space of a family -----------------------------------------------------------

struct Space {
   unsigned width;               // 32 or 128
   unsigned leadBits;            // the leading bits are one of `leads`
   std::vector<uint16_t> leads;  // where real tables have their routes
   unsigned aggregateMax;        // covering blocks are at most this long
   std::span<const Share> shares;
};

Space v4Space() {
   Space s{32, 8, {}, 20, v4Shares};
   for (uint16_t octet = 1; octet < 224; ++octet) {
      if (octet != 10 && octet != 127) s.leads.push_back(octet);  // private and loopback
   }
   return s;
}

Space v6Space() {
   // Global unicast /16s of the address registries.
   Space s{128, 16, {0x2001}, 32, v6Shares};
   for (uint16_t base : {0x2400, 0x2600, 0x2800, 0x2a00, 0x2c00}) {
      for (uint16_t i = 0; i < 16; ++i)
         s.leads.push_back(uint16_t(base + i));
   }
   return s;
}

// Prefixes of length `len` the space offers outside any container, saturated far above any
// table size.
uint64_t slotsAt(const Space& s, unsigned len) {
   unsigned free = len - s.leadBits;
   return free >= 40 ? uint64_t(1) << 48 : uint64_t(s.leads.size()) << free;
}

// Routes per length: the shares of n rounded by largest remainder (so they add up to n exactly),
// then each length held to half of its slots, the excess moving on to the next longer length so
// that random placement keeps finding free prefixes quickly.
std::vector<uint64_t> countsPerLength(const Space& s, uint64_t n) {
   std::vector<uint64_t> counts(s.width + 1, 0);
   struct Rem {
      uint64_t rem;
      unsigned len;
   };
   std::vector<Rem> rems;
   uint64_t given = 0;
   for (const Share& sh : s.shares) {
      uint64_t scaled = n * sh.perHundredThousand;
      counts[sh.len] = scaled / shareTotal;
      given += counts[sh.len];
      rems.push_back({scaled % shareTotal, sh.len});
   }
   std::sort(rems.begin(), rems.end(), [](const Rem& a, const Rem& b) {
      return a.rem != b.rem ? a.rem > b.rem : a.len < b.len;
   });
   for (size_t i = 0; given < n; ++i, ++given)
      ++counts[rems[i].len];
   uint64_t carry = 0;
   for (unsigned len = s.leadBits; len <= s.width; ++len) {
      uint64_t want = counts[len] + carry;
      uint64_t cap = slotsAt(s, len) / 2;
      counts[len] = std::min(want, cap);
      carry = want - counts[len];
   }
   if (carry) throw std::range_error(fmt::format("{} routes do not fit a synthetic table", n));
   return counts;
}

// ---- unicast -----------------------------------------------------------------------------

struct Block {
   Bits bits;
   unsigned len;
};

class UnicastGenerator {
 public:
   UnicastGenerator(const Space& space, Rng& rng, uint64_t n) : s_(space), rng_(rng), placed_(n) {}

   // Calls emit(bits, len) for each of n distinct routes.
   template <class Emit>
   void run(uint64_t n, Emit&& emit) {
      std::vector<uint64_t> counts = countsPerLength(s_, n);
      uint64_t carry = 0;
      for (unsigned len = s_.leadBits; len <= s_.width; ++len) {
         bool aggregate = len <= s_.aggregateMax;
         uint64_t want = counts[len] + carry;
         carry = 0;
         // Covering blocks nest among themselves a little; the shorter ones are all in place
         // already, as lengths go up.
         size_t shorter = containers_.size();
         for (uint64_t i = 0; i < want; ++i) {
            const Block* in = aggregate ? nestedIn(shorter, 25) : moreSpecificHome();
            std::optional<Bits> b = place(in, len);
            if (!b) {
               ++carry;
               continue;
            }
            emit(*b, len);
            if (aggregate) {
               announced_.push_back(containers_.size());
               containers_.push_back({*b, len});
            }
         }
         // As many blocks again that are handed out but never announced as a whole.
         for (uint64_t i = 0; aggregate && i < counts[len]; ++i) {
            const Block* in = nestedIn(shorter, 25);
            containers_.push_back({in ? inside(*in, len) : standalone(len), len});
         }
      }
      if (carry) throw std::range_error("no room left for a synthetic route");
   }

 private:
   // One of the first `count` blocks, `percent` of the time.
   const Block* nestedIn(size_t count, uint64_t percent) {
      if (count == 0 || !percentChance(rng_, percent)) return nullptr;
      return &containers_[below(rng_, count)];
   }

   // A more-specific goes inside an announced covering block, inside one that is not announced,
   // or stands alone.
   const Block* moreSpecificHome() {
      uint64_t r = below(rng_, 100);
      if (r < 45 && !announced_.empty()) {
         return &containers_[announced_[below(rng_, announced_.size())]];
      }
      if (r < 70 && !containers_.empty()) return &containers_[below(rng_, containers_.size())];
      return nullptr;
   }

   Bits standalone(unsigned len) {
      uint64_t lead = s_.leads[below(rng_, s_.leads.size())];
      Bits b = randomBits(rng_) & bitRange(s_.leadBits, len);
      b.hi |= lead << (64 - s_.leadBits);
      return b;
   }

   Bits inside(const Block& c, unsigned len) {
      return c.bits | (randomBits(rng_) & bitRange(c.len, len));
   }

   // A free prefix of length len: a few tries inside the block, then anywhere.
   std::optional<Bits> place(const Block* in, unsigned len) {
      for (int i = 0; in && i < 8; ++i) {
         Bits b = inside(*in, len);
         if (placed_.insert(b, len)) return b;
      }
      for (int i = 0; i < 64; ++i) {
         Bits b = standalone(len);
         if (placed_.insert(b, len)) return b;
      }
      return std::nullopt;
   }

   const Space& s_;
   Rng& rng_;
   PrefixSet placed_;
   std::vector<Block> containers_;
   std::vector<size_t> announced_;
};

Ulo::Ip6Prefix::Bytes bytesOf(const Bits& b) {
   Ulo::Ip6Prefix::Bytes out{};
   for (unsigned i = 0; i < 8; ++i) {
      out[i] = uint8_t(b.hi >> (56 - 8 * i));
      out[8 + i] = uint8_t(b.lo >> (56 - 8 * i));
   }
   return out;
}

// ---- multicast ---------------------------------------------------------------------------

constexpr uint32_t ssmBase = 0xE8000000;    // 232.0.0.0/8, source-specific
constexpr uint32_t adminBase = 0xEF000000;  // 239.0.0.0/8, administratively scoped

void generateMcast(Rng& rng, uint64_t n, uint16_t vrf, std::vector<Route>& out) {
   uint64_t sg = (n * 80 + 50) / 100;
   uint64_t ranges = std::min((n * 3 + 50) / 100, n - sg);
   uint64_t starG = n - sg - ranges;
   PrefixSet placed(n);
   Space sources = v4Space();
   // Several sources send to one group, as on a real source-specific service.
   std::vector<uint32_t> groups(std::max<uint64_t>(1, sg / 3));
   for (uint32_t& g : groups)
      g = ssmBase | uint32_t(rng() & 0xFFFFFF);

   auto add = [&](uint32_t group, uint32_t source, unsigned len) {
      if (!placed.insert({(uint64_t(group) << 32) | source, 0}, len)) return false;
      out.push_back(Route::of(
          IpMcastPrefixKey(vrf, 0, Ulo::IpGenAddr::v4(group), Ulo::IpGenAddr::v4(source), len)));
      return true;
   };
   auto keepTrying = [&](auto&& once) {
      for (int i = 0; i < 64; ++i) {
         if (once()) return;
      }
      throw std::range_error("no room left for a synthetic multicast route");
   };
   for (uint64_t i = 0; i < sg; ++i) {
      keepTrying([&] {
         uint32_t lead = sources.leads[below(rng, sources.leads.size())];
         uint32_t source = (lead << 24) | uint32_t(rng() & 0xFFFFFF);
         return add(groups[below(rng, groups.size())], source, 64);
      });
   }
   for (uint64_t i = 0; i < starG; ++i) {
      keepTrying([&] { return add(adminBase | uint32_t(rng() & 0xFFFFFF), 0, 32); });
   }
   for (uint64_t i = 0; i < ranges; ++i) {
      keepTrying([&] {
         unsigned len = 12 + unsigned(below(rng, 17));  // /12 to /28
         uint32_t hostMask = ~uint32_t(0) >> len;
         return add(adminBase | (uint32_t(rng() & 0xFFFFFF) & ~hostMask), 0, len);
      });
   }
}

}  // namespace

std::vector<Route> syntheticTable(const SyntheticMix& mix) {
   VrfId vrf(mix.vrf);  // range error past the largest VRF
   if (!vrf.isValid()) throw std::range_error("synthetic table in the invalid VRF");
   if (mix.mcast && mix.vrf > 0xFFFF) {
      throw std::range_error(fmt::format("multicast VRF index {} is not below 65536", mix.vrf));
   }
   Rng rng(mix.seed);
   std::vector<Route> out;
   out.reserve(mix.v4 + mix.v6 + mix.mcast);

   Space v4 = v4Space();
   UnicastGenerator(v4, rng, mix.v4).run(mix.v4, [&](const Bits& b, unsigned len) {
      out.push_back(Route::of(Ipv4UcastKey(vrf, Ulo::Prefix(uint32_t(b.hi >> 32), uint8_t(len)))));
   });
   Space v6 = v6Space();
   UnicastGenerator(v6, rng, mix.v6).run(mix.v6, [&](const Bits& b, unsigned len) {
      out.push_back(Route::of(Ipv6UcastKey(vrf, Ulo::Ip6Prefix(bytesOf(b), uint8_t(len)))));
   });
   generateMcast(rng, mix.mcast, uint16_t(mix.vrf), out);

   for (size_t i = out.size(); i > 1; --i)
      std::swap(out[i - 1], out[below(rng, i)]);
   TRACE(th, 1, "synthetic table seed ", mix.seed, ": ", mix.v4, " IPv4, ", mix.v6, " IPv6, ",
         mix.mcast, " multicast");
   return out;
}

}  // namespace VexloL3Common::sim

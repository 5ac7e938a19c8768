// TCAM statistics.
//
// Synopsis
//   TcamStats        moves, merges, conversions and reallocations per route type; routes per
//                    prefix length
//   ArmStats         updates that needed no hardware write
//   RouteTypeArray   a fixed array with one slot per route type
//
// The move and merge records that the statistics count are in L3TcamPublisher.h.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Reactor.h"

namespace VexloL3Common {

[[noreturn]] void throwRouteTypeIndexError(unsigned index, unsigned size);

// A fixed array with one slot per route type. Indices above 3 raise
// "cannot access index <i> of an array with size 4".
template <class T>
class RouteTypeArray {
 public:
   T& operator[](RouteType t) { return at(unsigned(t)); }
   const T& operator[](RouteType t) const { return at(unsigned(t)); }
   T& at(unsigned i) {
      check(i);
      return a_[i];
   }
   const T& at(unsigned i) const {
      check(i);
      return a_[i];
   }
   void fill(const T& v) { a_.fill(v); }
   bool operator==(const RouteTypeArray&) const = default;

 private:
   static void check(unsigned i) {
      if (i >= numRouteTypes) [[unlikely]]
         throwRouteTypeIndexError(i, numRouteTypes);
   }
   std::array<T, numRouteTypes> a_{};
};

class TcamStats {
 public:
   // Moves per route type.
   uint64_t moveRoute(RouteType t) const { return moveRoute_[t]; }
   void moveRouteInc(RouteType t, uint64_t n = 1) { moveRoute_[t] += n; }
   void moveRouteDec(RouteType t, uint64_t n = 1) { moveRoute_[t] -= n; }
   void moveRouteIs(RouteType t, uint64_t v) { moveRoute_[t] = v; }
   void moveRouteDel(RouteType t) { moveRoute_[t] = 0; }
   void moveRouteDelAll() { moveRoute_.fill(0); }

   // Merges per route type; only the IPv4 unicast slot is used.
   uint64_t mergeRoute(RouteType t) const { return mergeRoute_[t]; }
   void mergeRouteInc(RouteType t, uint64_t n = 1) { mergeRoute_[t] += n; }
   void mergeRouteDec(RouteType t, uint64_t n = 1) { mergeRoute_[t] -= n; }
   void mergeRouteIs(RouteType t, uint64_t v) { mergeRoute_[t] = v; }
   void mergeRouteDel(RouteType t) { mergeRoute_[t] = 0; }
   void mergeRouteDelAll() { mergeRoute_.fill(0); }

   // Entries that changed region to make room for an IPv6 route, per route type they left: an
   // IPv4 entry moved across the IPv6 border, an IPv6 route moved to the other entry size.
   uint64_t conversion(RouteType t) const { return conversion_[t]; }
   void conversionInc(RouteType t, uint64_t n = 1) { conversion_[t] += n; }

   uint32_t reallocation() const { return reallocation_; }
   void reallocationInc(uint32_t n = 1) { reallocation_ += n; }
   void reallocationDec(uint32_t n = 1) { reallocation_ -= n; }

   // Nanoseconds of the steady clock at the last add, delete or reallocation; 0 before any.
   uint64_t lastActivityTime() const { return lastActivityTime_; }
   void lastActivityTimeIs(uint64_t ns) { lastActivityTime_ = ns; }

   // Routes per prefix length. The arrays grow on demand; a length never counted reads as 0.
   uint32_t maskLengthsIpv4(uint32_t len) const { return get(maskLengthsIpv4_, len); }
   void maskLengthsIpv4Inc(uint32_t len, uint32_t n = 1) { grow(maskLengthsIpv4_, len) += n; }
   void maskLengthsIpv4Dec(uint32_t len, uint32_t n = 1) { grow(maskLengthsIpv4_, len) -= n; }
   void maskLengthsIpv4Is(uint32_t len, uint32_t v) { grow(maskLengthsIpv4_, len) = v; }
   void maskLengthsIpv4Del(uint32_t len) { set0(maskLengthsIpv4_, len); }
   void maskLengthsIpv4DelAll() { maskLengthsIpv4_.clear(); }

   uint32_t maskLengthsIpv6(uint32_t len) const { return get(maskLengthsIpv6_, len); }
   void maskLengthsIpv6Inc(uint32_t len, uint32_t n = 1) { grow(maskLengthsIpv6_, len) += n; }
   void maskLengthsIpv6Dec(uint32_t len, uint32_t n = 1) { grow(maskLengthsIpv6_, len) -= n; }
   void maskLengthsIpv6Is(uint32_t len, uint32_t v) { grow(maskLengthsIpv6_, len) = v; }
   void maskLengthsIpv6Del(uint32_t len) { set0(maskLengthsIpv6_, len); }
   void maskLengthsIpv6DelAll() { maskLengthsIpv6_.clear(); }

   uint32_t maskLengthsMcastIpv4(uint32_t len) const { return get(maskLengthsMcastIpv4_, len); }
   void maskLengthsMcastIpv4Inc(uint32_t len, uint32_t n = 1) {
      grow(maskLengthsMcastIpv4_, len) += n;
   }
   void maskLengthsMcastIpv4Dec(uint32_t len, uint32_t n = 1) {
      grow(maskLengthsMcastIpv4_, len) -= n;
   }
   void maskLengthsMcastIpv4Is(uint32_t len, uint32_t v) { grow(maskLengthsMcastIpv4_, len) = v; }
   void maskLengthsMcastIpv4Del(uint32_t len) { set0(maskLengthsMcastIpv4_, len); }
   void maskLengthsMcastIpv4DelAll() { maskLengthsMcastIpv4_.clear(); }

   bool operator==(const TcamStats&) const = default;

 private:
   static uint32_t get(const std::vector<uint32_t>& v, uint32_t len) {
      return len < v.size() ? v[len] : 0;
   }
   static uint32_t& grow(std::vector<uint32_t>& v, uint32_t len) {
      if (len >= v.size()) v.resize(len + 1, 0);
      return v[len];
   }
   static void set0(std::vector<uint32_t>& v, uint32_t len) {
      if (len < v.size()) v[len] = 0;
   }

   RouteTypeArray<uint64_t> moveRoute_;
   RouteTypeArray<uint64_t> mergeRoute_;
   RouteTypeArray<uint64_t> conversion_;
   uint32_t reallocation_ = 0;
   uint64_t lastActivityTime_ = 0;
   std::vector<uint32_t> maskLengthsIpv4_;
   std::vector<uint32_t> maskLengthsIpv6_;
   std::vector<uint32_t> maskLengthsMcastIpv4_;
};

inline Ulo::Ptr<TcamStats> tcamStatsFactory() {
   return std::make_shared<TcamStats>();
}

class ArmStats {
 public:
   uint32_t noUpdate() const { return noUpdate_; }
   void noUpdateInc(uint32_t n = 1) { noUpdate_ += n; }
   void noUpdateDec(uint32_t n = 1) { noUpdate_ -= n; }

 private:
   uint32_t noUpdate_ = 0;
};

}  // namespace VexloL3Common

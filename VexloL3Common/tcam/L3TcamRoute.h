// One route of any route type, as the placement engine handles it.
//
// Synopsis
//   TcamRoute::v4(key)              an IPv4 unicast route
//   TcamRoute::v6(key, type)        an IPv6 unicast route of v6Half (single size) or v6Full
//   (double) TcamRoute::mcast(key)           an IPv4 multicast route r.type(), r.len() its route
//   type and prefix length r.v4Key(), r.v6Key(), r.mcastKey()   the key (fatal for another type)
//   r.as(RouteType::v6Full)         the same IPv6 route in the other entry size
//
// A TcamRoute refers to a key that the caller keeps alive; it is two words and copied freely.
// Everything that depends on the route type (the key's length, the trace text of the key, the
// mapping that records it) is derived here or by the region of the type, so the engine passes one
// value where it would otherwise carry a route type and three keys of which one is meaningful.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>

#include "VexloL3Common/types/L3RouteTypes.h"
#include "platform/Assert.h"

namespace VexloL3Common {

class TcamRoute {
 public:
   static TcamRoute v4(const Ipv4UcastKey& key) { return TcamRoute(RouteType::v4, &key); }
   static TcamRoute v6(const Ipv6UcastKey& key, RouteType type) {
      VEXLO_ASSERT_MSG(type == RouteType::v6Half || type == RouteType::v6Full,
                       "an IPv6 route is v6Half or v6Full", "type: ", type);
      return TcamRoute(type, &key);
   }
   static TcamRoute mcast(const IpMcastPrefixKey& key) {
      return TcamRoute(RouteType::v4Mcast, &key);
   }
   // The route of type t out of one key per family, as the positional entry points take them.
   static TcamRoute of(RouteType t, const Ipv4UcastKey& key4, const Ipv6UcastKey& key6,
                       const IpMcastPrefixKey& keyMcast) {
      switch (t) {
         case RouteType::v4:
            return v4(key4);
         case RouteType::v6Half:
         case RouteType::v6Full:
            return v6(key6, t);
         case RouteType::v4Mcast:
            return mcast(keyMcast);
      }
      VEXLO_UNREACHABLE("Invalid route type");
   }

   RouteType type() const { return type_; }
   bool isV6() const { return type_ == RouteType::v6Half || type_ == RouteType::v6Full; }
   uint32_t len() const {
      switch (type_) {
         case RouteType::v4:
            return v4Key().len();
         case RouteType::v6Half:
         case RouteType::v6Full:
            return v6Key().len();
         case RouteType::v4Mcast:
            return mcastKey().len;
      }
      VEXLO_UNREACHABLE("Invalid route type");
   }

   const Ipv4UcastKey& v4Key() const {
      VEXLO_ASSERT_MSG(type_ == RouteType::v4, "type() == v4", "type: ", type_);
      return *static_cast<const Ipv4UcastKey*>(key_);
   }
   const Ipv6UcastKey& v6Key() const {
      VEXLO_ASSERT_MSG(isV6(), "type() is v6Half or v6Full", "type: ", type_);
      return *static_cast<const Ipv6UcastKey*>(key_);
   }
   const IpMcastPrefixKey& mcastKey() const {
      VEXLO_ASSERT_MSG(type_ == RouteType::v4Mcast, "type() == v4Mcast", "type: ", type_);
      return *static_cast<const IpMcastPrefixKey*>(key_);
   }

   // The same IPv6 route placed in the other entry size.
   TcamRoute as(RouteType type) const { return v6(v6Key(), type); }

 private:
   TcamRoute(RouteType type, const void* key) : type_(type), key_(key) {}

   RouteType type_;
   const void* key_;
};

}  // namespace VexloL3Common

// Global routing status and segment-security status, as the shared state database publishes them.
//
// Synopsis
//   auto rs = std::make_shared<Ulo::RoutingStatus>();
//   rs->routingEnabledIs(true); rs->routing6Enabled(); rs->urpfEnabled();
//   rs->urpfConfiguredOnAnyIntf()          some interface has uRPF configured
//   fmt::format("{}", *rs)                 "routingEnabled:1 routing6Enabled:0 urpfEnabled:0 ..."
//   auto ss = std::make_shared<Ulo::SegmentSecurityStatus>(); ss->enabled();
//
// Readers hold them read-only (Ptr<const ...>) and look at them when they need to; the agents
// that own them write the attributes.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

namespace Ulo {

class RoutingStatus {
 public:
   bool routingEnabled() const { return routingEnabled_; }
   void routingEnabledIs(bool v) { routingEnabled_ = v; }
   bool routing6Enabled() const { return routing6Enabled_; }
   void routing6EnabledIs(bool v) { routing6Enabled_ = v; }
   // The uRPF flag: the TCAM layout reserves room for uRPF lookups when it is set.
   bool urpfEnabled() const { return urpfEnabled_; }
   void urpfEnabledIs(bool v) { urpfEnabled_ = v; }
   bool urpfConfiguredOnAnyIntf() const { return urpfConfiguredOnAnyIntf_; }
   void urpfConfiguredOnAnyIntfIs(bool v) { urpfConfiguredOnAnyIntf_ = v; }

 private:
   bool routingEnabled_ = false;
   bool routing6Enabled_ = false;
   bool urpfEnabled_ = false;
   bool urpfConfiguredOnAnyIntf_ = false;
};

class SegmentSecurityStatus {
 public:
   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { enabled_ = v; }

 private:
   bool enabled_ = false;
};

}  // namespace Ulo

template <>
struct fmt::formatter<Ulo::RoutingStatus> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(const Ulo::RoutingStatus& s, Ctx& ctx) const {
      return fmt::format_to(ctx.out(),
                            "routingEnabled:{:d} routing6Enabled:{:d} urpfEnabled:{:d} "
                            "urpfConfiguredOnAnyIntf:{:d}",
                            s.routingEnabled(), s.routing6Enabled(), s.urpfEnabled(),
                            s.urpfConfiguredOnAnyIntf());
   }
};

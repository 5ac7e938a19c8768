// Per-VRF L3 status of the forwarding-abstraction layer: which route version each VRF has
// programmed, per address family.
//
// Synopsis
//   VrfName("red")                                at most 100 bytes; longer is a range error
//   auto all = std::make_shared<Ulo::VrfL3StatusAll>();
//   all->vrfNameIs(VrfId(5), VrfName("red"));     the VrfId-to-name index
//   all->vrfName(VrfId(5))                        the name, or the empty name when unknown
//   auto red = all->vrfL3StatusIs(VrfName("red")); find-or-create the per-VRF status
//   red->afStatus(true)->latestProgrammedRouteVersionIdIs(UloPdVersionId(10));   IPv4
//   red->afStatus(false)                          IPv6
//
// The index and the per-VRF statuses are separate collections, as in the shared state database:
// a VRF can be named before its status exists and the other way round.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"
#include "platform/VersionId.h"

namespace Ulo {

// A VRF name of at most 100 bytes.
class VrfName {
 public:
   static constexpr size_t maxLength = 100;
   static constexpr const char* rangeErrorText =
       "Ulo::VrfName::value length > Ulo::VrfName::maxLength not allowed";

   VrfName() = default;
   explicit VrfName(std::string_view value);

   const std::string& value() const { return value_; }
   bool empty() const { return value_.empty(); }
   auto operator<=>(const VrfName&) const = default;
   const std::string& toString() const { return value_; }

 private:
   std::string value_;
};

// The status of one address family of one VRF.
class VrfL3AfStatus {
 public:
   UloPdVersionId latestProgrammedRouteVersionId() const { return latestProgrammedRouteVersionId_; }
   void latestProgrammedRouteVersionIdIs(UloPdVersionId v);

   // Fires with the new version whenever it changes.
   Notifier<UloPdVersionId>& latestProgrammedRouteVersionIdChanged() const { return changed_; }

 private:
   UloPdVersionId latestProgrammedRouteVersionId_;
   mutable Notifier<UloPdVersionId> changed_;
};

// The status of one VRF: one address-family status each for IPv4 and IPv6, created with it.
class VrfL3Status {
 public:
   explicit VrfL3Status(VrfName name) : name_(std::move(name)) {}

   const VrfName& name() const { return name_; }
   const Ptr<VrfL3AfStatus>& afStatus(bool v4) const { return v4 ? v4Status_ : v6Status_; }

 private:
   VrfName name_;
   Ptr<VrfL3AfStatus> v4Status_ = std::make_shared<VrfL3AfStatus>();
   Ptr<VrfL3AfStatus> v6Status_ = std::make_shared<VrfL3AfStatus>();
};

class VrfL3StatusAll {
 public:
   // The VrfId-to-name index. An unknown identifier has the empty name.
   VrfName vrfName(VrfId vrfId) const;
   void vrfNameIs(VrfId vrfId, const VrfName& name) { vrfName_[vrfId] = name; }
   void vrfNameDel(VrfId vrfId) { vrfName_.erase(vrfId); }
   void vrfNameDelAll() { vrfName_.clear(); }

   // Per-VRF statuses by name; lookup returns null when absent.
   Ptr<VrfL3Status> vrfL3Status(const VrfName& name) const;
   Ptr<VrfL3Status> vrfL3StatusIs(const VrfName& name);  // find-or-create
   void vrfL3StatusDel(const VrfName& name) { vrfL3Status_.erase(name.value()); }
   void vrfL3StatusDelAll() { vrfL3Status_.clear(); }
   size_t vrfL3StatusSize() const { return vrfL3Status_.size(); }

 private:
   std::unordered_map<VrfId, VrfName> vrfName_;
   std::unordered_map<std::string, Ptr<VrfL3Status>> vrfL3Status_;
};

}  // namespace Ulo

template <>
struct std::hash<Ulo::VrfName> {
   size_t operator()(const Ulo::VrfName& n) const noexcept {
      return std::hash<std::string>()(n.value());
   }
};

template <>
struct fmt::formatter<Ulo::VrfName> : fmt::formatter<std::string_view> {
   template <class Ctx>
   auto format(const Ulo::VrfName& n, Ctx& ctx) const {
      return fmt::formatter<std::string_view>::format(n.value(), ctx);
   }
};

#include "VexloL3Common/mcast/VexloMcastDirs.h"

#include <fmt/ranges.h>

#include <stdexcept>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

bool isMulticast(const Ulo::IpGenAddr& a) {
   if (a.isV4()) return (a.bytes()[0] & 0xF0) == 0xE0;  // 224.0.0.0/4
   if (a.isV6()) return a.bytes()[0] == 0xFF;           // ff00::/8
   return false;
}

std::string_view trim(std::string_view s) {
   while (!s.empty() && s.front() == ' ')
      s.remove_prefix(1);
   while (!s.empty() && s.back() == ' ')
      s.remove_suffix(1);
   return s;
}

}  // namespace

// ---- McastSourceGroup --------------------------------------------------------------------

McastSourceGroup::McastSourceGroup(const Ulo::IpGenAddr& source, const Ulo::IpGenAddr& group)
    : source_(source), group_(group) {
   if (!isMulticast(group))
      throw std::range_error(fmt::format("group \"{}\" is not a multicast address", group));
   if (source.af() != Ulo::AddressFamily::ipunknown && source.af() != group.af())
      throw std::range_error(
          fmt::format("source \"{}\" and group \"{}\" differ in family", source, group));
}

McastSourceGroup McastSourceGroup::fromString(std::string_view text) {
   std::string_view t = trim(text);
   const size_t comma = t.find(',');
   if (t.size() < 2 || t.front() != '(' || t.back() != ')' || comma == std::string_view::npos)
      throw std::range_error(fmt::format("invalid McastSourceGroup \"{}\"", text));
   const std::string_view source = trim(t.substr(1, comma - 1));
   const std::string_view group = trim(t.substr(comma + 1, t.size() - comma - 2));
   return McastSourceGroup(source == "*" ? Ulo::IpGenAddr() : Ulo::IpGenAddr::fromString(source),
                           Ulo::IpGenAddr::fromString(group));
}

size_t McastSourceGroup::hash(size_t seed) const {
   return Ulo::hashValue(group_, Ulo::hashValue(source_, seed));
}

std::string McastSourceGroup::toString() const {
   return anySource() ? fmt::format("(*, {})", group_) : fmt::format("({}, {})", source_, group_);
}

// ---- PortVlan and PortVlanSet ------------------------------------------------------------

PortVlan PortVlan::fromString(std::string_view text) {
   const size_t colon = text.rfind(':');
   if (colon == std::string_view::npos)
      throw std::range_error(fmt::format("invalid PortVlan \"{}\"", text));
   return PortVlan(Ulo::IntfId::fromString(text.substr(0, colon)),
                   Ulo::VlanId::fromString(text.substr(colon + 1)));
}

size_t PortVlan::hash(size_t seed) const {
   return Ulo::hashValue(vlan, Ulo::hashValue(intf, seed));
}

std::string PortVlan::toString() const {
   return fmt::format("{}:{}", intf, vlan);
}

PortVlanSet PortVlanSet::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for PortVlanSet - has collection");
   __builtin_unreachable();
}

size_t PortVlanSet::hash(size_t seed) const {
   for (const auto& pv : portVlan_)
      seed = pv.hash(seed);
   return Ulo::hashMix(seed, portVlan_.size());
}

std::string PortVlanSet::toString() const {
   return fmt::format("{{{}}}", fmt::join(portVlan_, ", "));
}

// ---- FilteredOifSet ----------------------------------------------------------------------

FilteredOifSet FilteredOifSet::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for FilteredOifSet - has collection");
   __builtin_unreachable();
}

size_t FilteredOifSet::size() const {
   size_t n = 0;
   forEachEffective([&n](const PortVlan&) { ++n; });
   return n;
}

PortVlanSet FilteredOifSet::effective() const {
   PortVlanSet out;
   forEachEffective([&out](const PortVlan& pv) { out.portVlanIs(pv); });
   return out;
}

size_t FilteredOifSet::hash(size_t seed) const {
   return filter_.hash(oif_.hash(seed));
}

std::string FilteredOifSet::toString() const {
   return fmt::format("oif: {} filter: {}", oif_, filter_);
}

// ---- VfiMcastGroups ----------------------------------------------------------------------

VfiMcastGroups VfiMcastGroups::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for VfiMcastGroups - has collection");
   __builtin_unreachable();
}

Ulo::Ptr<McastGroup> VfiMcastGroups::group(const McastSourceGroup& sg) const {
   auto it = group_.find(sg);
   return it == group_.end() ? nullptr : it->second;
}

Ulo::Ptr<McastGroup> VfiMcastGroups::groupIs(const McastSourceGroup& sg) {
   auto& slot = group_[sg];
   if (!slot) slot = std::make_shared<McastGroup>(sg);
   return slot;
}

Ulo::Ptr<McastGroup> VfiMcastGroups::lookup(const Ulo::IpGenAddr& source,
                                            const Ulo::IpGenAddr& group) const {
   if (!isMulticast(group)) return nullptr;
   if (source.af() == group.af()) {
      if (auto sg = this->group(McastSourceGroup(source, group))) return sg;
   }
   return this->group(McastSourceGroup(Ulo::IpGenAddr(), group));
}

// ---- VfiMcastGroupsDir -------------------------------------------------------------------

VfiMcastGroupsDir VfiMcastGroupsDir::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for VfiMcastGroupsDir - has collection");
   __builtin_unreachable();
}

Ulo::Ptr<VfiMcastGroups> VfiMcastGroupsDir::vfiMcastGroups(uint32_t vfi) const {
   auto it = map_.find(vfi);
   return it == map_.end() ? nullptr : it->second;
}

Ulo::Ptr<VfiMcastGroups> VfiMcastGroupsDir::vfiMcastGroupsIs(uint32_t vfi) {
   auto& slot = map_[vfi];
   if (!slot) slot = std::make_shared<VfiMcastGroups>(vfi);
   return slot;
}

Ulo::Ptr<VfiMcastGroupsDir> vfiMcastGroupsDirFactory(const std::string& name) {
   return std::make_shared<VfiMcastGroupsDir>(name);
}

}  // namespace VexloL3Common

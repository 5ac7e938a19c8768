#include "VexloL3Common/vxlan/VexloVxlanTypes.h"

#include <fmt/ranges.h>

#include <charconv>
#include <stdexcept>
#include <vector>

#include "platform/Assert.h"

namespace VexloL3Common {

namespace {

template <class Map>
auto findOrNull(const Map& map, const typename Map::key_type& key) -> typename Map::mapped_type {
   auto it = map.find(key);
   return it == map.end() ? nullptr : it->second;
}

template <class Map>
auto findOrNone(const Map& map, const typename Map::key_type& key)
    -> std::optional<typename Map::mapped_type> {
   auto it = map.find(key);
   if (it == map.end()) return std::nullopt;
   return it->second;
}

std::string_view trim(std::string_view s) {
   while (!s.empty() && s.front() == ' ')
      s.remove_prefix(1);
   while (!s.empty() && s.back() == ' ')
      s.remove_suffix(1);
   return s;
}

[[noreturn]] void badKeyText(std::string_view why, std::string_view text) {
   throw std::range_error(fmt::format("invalid VxlanTunnelKey {} \"{}\"", why, text));
}

// Whole-text decimal no larger than `max`.
uint32_t parseUnsigned(std::string_view text, uint32_t max, std::string_view what) {
   uint32_t v = 0;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() || v > max)
      badKeyText(what, text);
   return v;
}

bool parseBool(std::string_view text, std::string_view what) {
   if (text == "true") return true;
   if (text == "false") return false;
   badKeyText(what, text);
}

}  // namespace

// ---- VexloVxlanState ---------------------------------------------------------------------

VexloVxlanState::VexloVxlanState(std::string name)
    : name_(std::move(name)),
      localVtep_(IpGenAddr::v4(0)),
      localVtep6_(IpGenAddr::v6({})),
      vArpVtepAddr_(IpGenAddr::v4(0)),
      vArpVtepAddr6_(IpGenAddr::v6({})),
      mlagVtepAddr_(IpGenAddr::v4(0)),
      mlagVtepAddr6_(IpGenAddr::v6({})) {}

const IpGenAddr& VexloVxlanState::getLocalVtep(AddressFamily af) const {
   switch (af) {
      case AddressFamily::ipv4:
         return localVtep_;
      case AddressFamily::ipv6:
         return localVtep6_;
      default:
         throw std::range_error("Invalid AddressFamily type");
   }
}

void VexloVxlanState::setLocalVtep(const IpGenAddr& addr) {
   switch (addr.af()) {
      case AddressFamily::ipv4:
         localVtep_ = addr;
         break;
      case AddressFamily::ipv6:
         localVtep6_ = addr;
         break;
      default:
         throw std::range_error("Invalid AddressFamily type");
   }
}

Ulo::Ptr<VexloVxlanState> vexloVxlanStateFactory(const std::string& name) {
   return std::make_shared<VexloVxlanState>(name);
}

Ulo::Ptr<VexloVxlanBootStatus> vexloVxlanBootStatusFactory(const std::string& name) {
   return std::make_shared<VexloVxlanBootStatus>(name);
}

// ---- Configuration and status ------------------------------------------------------------

std::optional<uint32_t> VlanMappingDir::vlanMapping(VlanId vlan) const {
   return findOrNone(vlanMapping_, vlan);
}

std::optional<uint32_t> VxlanL3StatusEntryDir::vxlanL3StatusEntry(Ulo::VrfId vrf) const {
   return findOrNone(entries_, vrf);
}

Ulo::Ptr<VexloVxlanConfig> vexloVxlanConfigFactory(const std::string& name) {
   return std::make_shared<VexloVxlanConfig>(name);
}

Ulo::Ptr<VexloVxlanStatus> vexloVxlanStatusFactory() {
   return std::make_shared<VexloVxlanStatus>();
}

// ---- VxlanTunnelKey ----------------------------------------------------------------------

VxlanTunnelKey::VxlanTunnelKey(IntfId vti, const IpGenAddr& sip, uint16_t dstPort,
                               bool srcPortValid, uint16_t srcPort, uint8_t ttl)
    : vti_(vti),
      sip_(sip),
      dstPort_(dstPort),
      srcPortValid_(srcPortValid),
      srcPort_(srcPort),
      ttl_(ttl) {
   if (ttl < vxlanMinTtl || ttl > vxlanMaxTtl) throw std::range_error(ttlRangeErrorText);
}

VxlanTunnelKey VxlanTunnelKey::fromString(std::string_view text) {
   VxlanTunnelKey d;
   IntfId vti = d.vti_;
   IpGenAddr sip = d.sip_;
   uint32_t dstPort = d.dstPort_, srcPort = d.srcPort_, ttl = d.ttl_;
   bool srcPortValid = d.srcPortValid_;
   unsigned seen = 0;
   for (std::string_view rest = text; !trim(rest).empty();) {
      const size_t comma = rest.find(',');
      std::string_view item = rest.substr(0, comma);
      rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
      const size_t colon = item.find(':');
      if (colon == std::string_view::npos) badKeyText("item", item);
      // The value may itself hold colons (IPv6), so split at the first one only.
      const std::string_view name = trim(item.substr(0, colon));
      const std::string_view value = trim(item.substr(colon + 1));
      static constexpr std::string_view names[] = {"vti",          "sip",     "dstPort",
                                                   "srcPortValid", "srcPort", "ttl"};
      unsigned i = 0;
      while (i < std::size(names) && names[i] != name)
         ++i;
      if (i == std::size(names)) badKeyText("attribute", name);
      if (seen & (1u << i)) badKeyText("repeated attribute", name);
      seen |= 1u << i;
      switch (i) {
         case 0:
            vti = IntfId::fromString(value);
            break;
         case 1:
            sip = IpGenAddr::fromString(value);
            break;
         case 2:
            dstPort = parseUnsigned(value, 0xFFFF, "dstPort");
            break;
         case 3:
            srcPortValid = parseBool(value, "srcPortValid");
            break;
         case 4:
            srcPort = parseUnsigned(value, 0xFFFF, "srcPort");
            break;
         // Anything that is a number goes through the constructor's ttl check.
         case 5:
            ttl = parseUnsigned(value, 0xFFFFFFFF, "ttl");
            break;
      }
   }
   if (ttl > vxlanMaxTtl) throw std::range_error(ttlRangeErrorText);
   return VxlanTunnelKey(vti, sip, uint16_t(dstPort), srcPortValid, uint16_t(srcPort),
                         uint8_t(ttl));
}

size_t VxlanTunnelKey::hash(size_t seed) const {
   seed = Ulo::hashValue(vti_, seed);
   seed = Ulo::hashValue(sip_, seed);
   return Ulo::hashMix(seed, (uint64_t(dstPort_) << 32) | (uint64_t(srcPort_) << 16) |
                                 (uint64_t(srcPortValid_) << 8) | ttl_);
}

std::string VxlanTunnelKey::toString() const {
   return fmt::format("vti: {}, sip: {}, dstPort: {}, srcPortValid: {}, srcPort: {}, ttl: {}", vti_,
                      sip_, dstPort_, srcPortValid_, srcPort_, ttl_);
}

// ---- Maps from hardware indices back to VTEPs --------------------------------------------

std::optional<IpGenAddr> VxlanDvpToVtepMap::dvpToVtepMap(uint16_t dvp) const {
   return findOrNone(map_, dvp);
}

std::optional<IpGenAddr> VxlanTunnelIndexToVtepMap::tunnelIndexToVtepMap(uint16_t index) const {
   return findOrNone(map_, index);
}

// ---- BUM replication ---------------------------------------------------------------------

EncapId EncapId::fromString(std::string_view text) {
   uint32_t v = 0;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (text.empty() || ec != std::errc() || ptr != text.data() + text.size())
      throw std::range_error(fmt::format("invalid EncapId \"{}\"", text));
   return EncapId(v);
}

Ulo::Ptr<VexloVxlanVtepNextHop> VexloVxlanBumVtepConfig::nextHops(IntfId l3Intf) const {
   return findOrNull(nextHops_, l3Intf);
}

Ulo::Ptr<VexloVxlanVtepNextHop> VexloVxlanBumVtepConfig::nextHopsIs(IntfId l3Intf,
                                                                    const IpGenAddr& nexthopIp,
                                                                    const EthAddr& nexthopMac) {
   auto& slot = nextHops_[l3Intf];
   if (slot && slot->nexthopIp() == nexthopIp && slot->nexthopMac() == nexthopMac) return slot;
   slot = std::make_shared<VexloVxlanVtepNextHop>(l3Intf, nexthopIp, nexthopMac);
   notify("nextHops");
   return slot;
}

Ulo::Ptr<VexloVxlanBumVtepConfig> VexloVxlanBumVtepConfigDir::bumVtepConfig(
    const IpGenAddr& vtepIp) const {
   return findOrNull(map_, vtepIp);
}

Ulo::Ptr<VexloVxlanBumVtepConfig> VexloVxlanBumVtepConfigDir::bumVtepConfigIs(
    const IpGenAddr& vtepIp, EncapId encapId) {
   auto& slot = map_[vtepIp];
   if (slot && slot->encapId() == encapId) return slot;
   slot = std::make_shared<VexloVxlanBumVtepConfig>(vtepIp, encapId);
   notify("bumVtepConfig");
   return slot;
}

Ulo::Ptr<VexloVxlanBumVtepConfigDir> vexloVxlanBumVtepConfigDirFactory(const std::string& name) {
   return std::make_shared<VexloVxlanBumVtepConfigDir>(name);
}

Ulo::Ptr<EncapIdToBumVtepIpConfig> EncapIdToBumVtepIpConfigDir::vxlanReverseConfig(
    EncapId encapId) const {
   return findOrNull(map_, encapId);
}

Ulo::Ptr<EncapIdToBumVtepIpConfig> EncapIdToBumVtepIpConfigDir::vxlanReverseConfigIs(
    EncapId encapId) {
   auto& slot = map_[encapId];
   if (!slot) {
      slot = std::make_shared<EncapIdToBumVtepIpConfig>(encapId);
      notify("vxlanReverseConfig");
   }
   return slot;
}

Ulo::Ptr<EncapIdToBumVtepIpConfigDir> encapIdToBumVtepIpConfigDirFactory(const std::string& name) {
   return std::make_shared<EncapIdToBumVtepIpConfigDir>(name);
}

void syncReverseConfig(const VexloVxlanBumVtepConfigDir& forward,
                       EncapIdToBumVtepIpConfigDir& reverse) {
   std::unordered_map<EncapId, IpGenAddr> wanted;
   for (const auto& [vtep, config] : forward.bumVtepConfig()) {
      auto [it, inserted] = wanted.try_emplace(config->encapId(), vtep);
      VEXLO_ASSERT_MSG(inserted, "encapId used by two VTEPs", "encapId ", config->encapId(), ": ",
                       it->second, " and ", vtep);
   }
   std::vector<EncapId> stale;
   for (const auto& [encapId, entry] : reverse.vxlanReverseConfig()) {
      if (!wanted.contains(encapId)) stale.push_back(encapId);
   }
   for (EncapId e : stale)
      reverse.vxlanReverseConfigDel(e);
   for (const auto& [encapId, vtep] : wanted)
      reverse.vxlanReverseConfigIs(encapId)->vtepIpIs(vtep);
}

// ---- Flood lists -------------------------------------------------------------------------

FloodUnderlayVlanToVtepList FloodUnderlayVlanToVtepList::fromString(std::string_view) {
   VEXLO_ASSERT(false, "No String constructor for FloodUnderlayVlanToVtepList - has collection");
   __builtin_unreachable();
}

size_t FloodUnderlayVlanToVtepList::hash(size_t seed) const {
   for (const auto& a : vtepIpList_)
      seed = Ulo::hashValue(a, seed);
   return Ulo::hashMix(seed, vtepIpList_.size());
}

std::string FloodUnderlayVlanToVtepList::toString() const {
   return fmt::format("{{{}}}", fmt::join(vtepIpList_, ", "));
}

std::optional<FloodUnderlayVlanToVtepList>
FloodUnderlayVlanToVtepListDir::floodUnderlayVlanToVtepList(VlanId vlan) const {
   return findOrNone(map_, vlan);
}

Ulo::Ptr<FloodUnderlayVlanToVtepListDir> floodUnderlayVlanToVtepListDirFactory(
    const std::string& name) {
   return std::make_shared<FloodUnderlayVlanToVtepListDir>(name);
}

// ---- VTEP-to-VTEP bridging ---------------------------------------------------------------

void VtepToVtepBridgingAttrs::copyFrom(const VtepToVtepBridgingAttrs& o) {
   vtepToVtepBridgingIs(o.vtepToVtepBridging_);
   vtepSourcePruningAllIs(o.vtepSourcePruningAll_);
   update(pruning_, o.pruning_, "vtepSetForSourcePruning");
}

Ulo::Ptr<VtepToVtepBridgingConfig> vtepToVtepBridgingConfigFactory(const std::string& name) {
   return std::make_shared<VtepToVtepBridgingConfig>(name);
}

Ulo::Ptr<VtepToVtepBridgingStatus> vtepToVtepBridgingStatusFactory() {
   return std::make_shared<VtepToVtepBridgingStatus>();
}

}  // namespace VexloL3Common

#include "platform/VrfL3Status.h"

#include <stdexcept>

namespace Ulo {

VrfName::VrfName(std::string_view value) {
   if (value.size() > maxLength) throw std::range_error(rangeErrorText);
   value_ = value;
}

void VrfL3AfStatus::latestProgrammedRouteVersionIdIs(UloPdVersionId v) {
   if (v == latestProgrammedRouteVersionId_) return;
   latestProgrammedRouteVersionId_ = v;
   changed_.notify(v);
}

VrfName VrfL3StatusAll::vrfName(VrfId vrfId) const {
   auto it = vrfName_.find(vrfId);
   return it == vrfName_.end() ? VrfName() : it->second;
}

Ptr<VrfL3Status> VrfL3StatusAll::vrfL3Status(const VrfName& name) const {
   auto it = vrfL3Status_.find(name.value());
   return it == vrfL3Status_.end() ? nullptr : it->second;
}

Ptr<VrfL3Status> VrfL3StatusAll::vrfL3StatusIs(const VrfName& name) {
   Ptr<VrfL3Status>& slot = vrfL3Status_[name.value()];
   if (!slot) slot = std::make_shared<VrfL3Status>(name);
   return slot;
}

}  // namespace Ulo

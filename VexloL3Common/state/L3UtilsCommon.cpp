#include "VexloL3Common/state/L3UtilsCommon.h"

#include "platform/Trace.h"

namespace VexloL3Common {

namespace {
Ulo::TraceHandle th("L3UtilsCommon");
}

void ackSequence(Ulo::VrfL3StatusAll& status, uint64_t seq, Ulo::VrfId vrfId, uint32_t traceLevel,
                 bool v4) {
   if (seq == 0) return;
   const Ulo::Ptr<Ulo::VrfL3Status> vrfStatus = status.vrfL3Status(status.vrfName(vrfId));
   if (!vrfStatus) return;
   Ulo::VrfL3AfStatus& afStatus = *vrfStatus->afStatus(v4);
   const uint64_t seqSet = afStatus.latestProgrammedRouteVersionId().version();
   if (seqSet >= seq) return;
   TRACE(th, traceLevel, "ackSequence", " vrfId ", vrfId.value(), ", seq ", seq, ", v4 ", v4,
         ", seqSet ", seqSet);
   afStatus.latestProgrammedRouteVersionIdIs(Ulo::UloPdVersionId(seq));
}

bool isPortReady(Ulo::IntfId intf, const VexloCentral::FeatureAgentCommonSmData& fcsd,
                 uint16_t& virtualPort) {
   if (intf.isPortChannel()) {
      const bool assigned = fcsd.isVirtualPortAssigned(intf);
      TRACE(th, 5, "isPortReady", " isVirtualPortValid for: ", intf, " is ", assigned);
      if (!assigned) {
         TRACE(th, 5, "isPortReady", " returns false");
         return false;
      }
      virtualPort = fcsd.vexloIntfToVirtualPort(intf).value_or(unmappedVirtualPort);
      return true;
   }
   if (auto port = fcsd.vexloIntfToVirtualPort(intf)) {
      virtualPort = *port;
      return true;
   }
   TRACE(th, 5, "isPortReady", " returns false");
   return false;
}

}  // namespace VexloL3Common

// FIB acknowledgement bookkeeping of a route-programming agent: per VRF, the highest route
// version received and not yet acknowledged, and the highest one programmed.
//
// Synopsis
//   FibAckState state("fibAck");                 both children exist from the start
//   state.v4Seq()->pendingSeqIs(vrf, UloPdVersionId(12));
//   state.v4Seq()->completedSeq(vrf)             UloPdVersionId(0) when absent
//   state.v6SeqDel(); state.handleInitialized(); v6Seq() exists again
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <string>
#include <unordered_map>

#include "platform/NetTypes.h"
#include "platform/Reactor.h"
#include "platform/VersionId.h"

namespace VexloL3Common {

class CurrSequences {
 public:
   using Map = std::unordered_map<Ulo::VrfId, Ulo::UloPdVersionId>;

   // Lookups give version 0 for a VRF that has none.
   Ulo::UloPdVersionId pendingSeq(Ulo::VrfId vrfId) const { return find(pendingSeq_, vrfId); }
   const Map& pendingSeq() const { return pendingSeq_; }
   void pendingSeqIs(Ulo::VrfId vrfId, Ulo::UloPdVersionId seq) { pendingSeq_[vrfId] = seq; }
   void pendingSeqDel(Ulo::VrfId vrfId) { pendingSeq_.erase(vrfId); }
   void pendingSeqDelAll() { pendingSeq_.clear(); }

   Ulo::UloPdVersionId completedSeq(Ulo::VrfId vrfId) const { return find(completedSeq_, vrfId); }
   const Map& completedSeq() const { return completedSeq_; }
   void completedSeqIs(Ulo::VrfId vrfId, Ulo::UloPdVersionId seq) { completedSeq_[vrfId] = seq; }
   void completedSeqDel(Ulo::VrfId vrfId) { completedSeq_.erase(vrfId); }
   void completedSeqDelAll() { completedSeq_.clear(); }

 private:
   static Ulo::UloPdVersionId find(const Map& m, Ulo::VrfId vrfId) {
      auto it = m.find(vrfId);
      return it == m.end() ? Ulo::UloPdVersionId() : it->second;
   }
   Map pendingSeq_;
   Map completedSeq_;
};

class FibAckState {
 public:
   explicit FibAckState(std::string name);

   const std::string& name() const { return name_; }
   // Null after the matching Del until the next Is (or handleInitialized).
   const Ulo::Ptr<CurrSequences>& v4Seq() const { return v4Seq_; }
   const Ulo::Ptr<CurrSequences>& v6Seq() const { return v6Seq_; }
   // Find-or-create.
   Ulo::Ptr<CurrSequences> v4SeqIs();
   Ulo::Ptr<CurrSequences> v6SeqIs();
   void v4SeqDel() { v4Seq_.reset(); }
   void v6SeqDel() { v6Seq_.reset(); }

   // Makes sure both children exist, whatever was deleted since construction.
   void handleInitialized();

 private:
   std::string name_;
   Ulo::Ptr<CurrSequences> v4Seq_;
   Ulo::Ptr<CurrSequences> v6Seq_;
};

}  // namespace VexloL3Common

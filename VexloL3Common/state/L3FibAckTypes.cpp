#include "VexloL3Common/state/L3FibAckTypes.h"

#include <utility>

namespace VexloL3Common {

FibAckState::FibAckState(std::string name) : name_(std::move(name)) {
   v4SeqIs();
   v6SeqIs();
}

Ulo::Ptr<CurrSequences> FibAckState::v4SeqIs() {
   if (!v4Seq_) v4Seq_ = std::make_shared<CurrSequences>();
   return v4Seq_;
}

Ulo::Ptr<CurrSequences> FibAckState::v6SeqIs() {
   if (!v6Seq_) v6Seq_ = std::make_shared<CurrSequences>();
   return v6Seq_;
}

void FibAckState::handleInitialized() {
   v4SeqIs();
   v6SeqIs();
}

}  // namespace VexloL3Common

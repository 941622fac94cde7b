#pragma once
// IpfixInitSm builds the information element catalogue once; every user obtains the
// catalogue from it.

#include "ipfix/Ipfix.h"

namespace Ipfix {

class IpfixInitSm : public Zub::Reactor {
 public:
  IpfixInitSm() = default;
  void handleInitialized() override;
  const Zub::Ptr<ElementIdColl>& elementIdCollection() const { return elementIdCollection_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<ElementIdColl> elementIdCollection_;
  bool initialized_ = false;
};

Zub::Ptr<IpfixInitSm> ipfixInitSmFactory();

}  // namespace Ipfix

#include "ipfix/IpfixSm.h"

#include "ipfix/Trace.h"

namespace Ipfix {

void IpfixInitSm::handleInitialized() {
  if (initialized_) return;
  GLINT(ipfixTrace(), 8) << "IpfixInitSm::"
                         << "handleInitialized";
  Zub::Ptr<ElementIdColl> coll(new ElementIdColl());
  coll->doInitialize();
  elementIdCollection_ = coll;
  initialized_ = true;
}

Zub::Ptr<IpfixInitSm> ipfixInitSmFactory() { return Zub::makeReactor<IpfixInitSm>(); }

}  // namespace Ipfix

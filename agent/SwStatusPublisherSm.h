#pragma once
// The hardware side for hosts without a forwarding chip: publishes, for every flow
// group of the hardware configuration, the status a chip would publish: the data
// template's field list (lengths and enterprise flags from the element catalogue, in
// flow parameter order) under the group's template id, following the group's
// generation.

#include <map>

#include "platform/zub/ChildMap.h"

#include "config/HwFlowTrackingConfig.h"
#include "config/HwFlowTrackingStatus.h"
#include "ipfix/Ipfix.h"

namespace Agent {

class SwStatusPublisherSm : public Zub::Reactor {
 public:
  SwStatusPublisherSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                      const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                      const Zub::Ptr<Ipfix::ElementIdColl>& catalogue);
  ~SwStatusPublisherSm() override;  // where TrackerSm is complete
  void handleInitialized() override;
  void handleHwFtConfig(const Zub::Name& tracker);

 private:
  class TrackerSm;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::Status> hwStatus_;
  Zub::Ptr<Ipfix::ElementIdColl> catalogue_;
  Zub::ChildMap<Zub::Name, TrackerSm> tracker_;  // initialised where TrackerSm is complete
};

}  // namespace Agent

#pragma once
// Requests from the configuration side to the exporters: clear-counters.

#include "platform/zub/Entity.h"

namespace FlowTracking {

// Clear the statistics of one tracker (and one exporter of it), or of all: empty names
// match everything. reqTime 0 means no request.
struct ClearCountersReq {
  Zub::String tracker;
  Zub::String exporter;
  Zub::Seconds reqTime = 0;
  friend bool operator==(const ClearCountersReq&, const ClearCountersReq&) = default;
  std::string stringValue() const {
    return Zub::str("Value('FlowTracking::ClearCountersReq', ** {'tracker': ", tracker,
                    ", 'exporter': ", exporter, ", 'reqTime': ", reqTime, "})");
  }
};

class ConfigReq : public Zub::Entity {
 public:
  explicit ConfigReq(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(ClearCountersReq, clearCounters)
};

}  // namespace FlowTracking

#include "ipfix/FlowTrackingTypes.h"

#include <array>

namespace FlowTracking {

namespace {
constexpr std::array<std::string_view, 8> kStaticTemplateNames = {
    "optionsTemplateVrfTable",
    "optionsTemplateIntfTable",
    "optionsTemplateFlowKeys",
    "optionsTemplateFlowTrackerTable",
    "optionsTemplateMeteringProcessStats",
    "dataTemplateIpv4",
    "dataTemplateIpv6",
    "staticTemplateIdMax",
};
}  // namespace

std::string stringValue(StaticTemplateId id) {
  auto n = static_cast<uint32_t>(id);
  return n < kStaticTemplateNames.size() ? std::string(kStaticTemplateNames[n])
                                         : "StaticTemplateId(" + std::to_string(n) + ")";
}

std::optional<StaticTemplateId> staticTemplateIdFromString(std::string_view name) {
  for (uint32_t i = 0; i < kStaticTemplateNames.size(); ++i) {
    if (kStaticTemplateNames[i] == name) return static_cast<StaticTemplateId>(i);
  }
  return std::nullopt;
}

std::optional<StaticTemplateId> staticTemplateIdFromNumber(uint32_t n) {
  if (n >= kStaticTemplateNames.size()) return std::nullopt;
  return static_cast<StaticTemplateId>(n);
}

TemplateId Constants::reservedTemplateId(StaticTemplateId which) {
  return TemplateId(static_cast<long long>(templateIdBase().value()) +
                    static_cast<long long>(which));
}

}  // namespace FlowTracking

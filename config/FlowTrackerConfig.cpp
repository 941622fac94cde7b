#include "config/FlowTrackerConfig.h"

#include <charconv>

#include "config/HwFlowTrackingStatus.h"

namespace FlowTracking {

namespace {
constexpr std::string_view kFlowParamHead = "Value('FlowTracking::FlowParam', ** {'seqno': ";
}

std::string FlowParam::stringValue() const {
  return Zub::str(kFlowParamHead, seqno, ", 'type': ", type, ", 'flowKey': ", flowKey, "})");
}

std::optional<FlowParam> FlowParam::parse(std::string_view text) {
  auto take = [&text](std::string_view literal) {
    if (text.substr(0, literal.size()) != literal) return false;
    text.remove_prefix(literal.size());
    return true;
  };
  auto until = [&text](char stop) {
    size_t n = text.find(stop);
    std::string_view part = text.substr(0, n);
    text.remove_prefix(n == std::string_view::npos ? text.size() : n);
    return part;
  };
  FlowParam p;
  if (!take(kFlowParamHead)) return std::nullopt;
  std::string_view seqno = until(',');
  auto [end, ec] = std::from_chars(seqno.data(), seqno.data() + seqno.size(), p.seqno);
  if (ec != std::errc() || end != seqno.data() + seqno.size() || seqno.empty()) {
    return std::nullopt;
  }
  if (!take(", 'type': ")) return std::nullopt;
  auto type = Ipfix::recordTypeFromString(until(','));
  if (!type) return std::nullopt;
  p.type = *type;
  if (!take(", 'flowKey': ")) return std::nullopt;
  std::string_view key = until('}');
  if (key == "true") {
    p.flowKey = true;
  } else if (key != "false") {
    return std::nullopt;
  }
  if (text != "})") return std::nullopt;
  return p;
}

}  // namespace FlowTracking

namespace HwFlowTracking {

std::string FtTemplateEntry::stringValue() const {
  return Zub::str(seqno_, ": ", fieldId_, " len ", fieldLen(), enterpriseIe() ? " enterprise" : "",
                  flowKey() ? " key" : "");
}

}  // namespace HwFlowTracking

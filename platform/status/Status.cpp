#include "platform/status/Interface.h"
#include "platform/status/Ip.h"

namespace Interface {

std::string stringValue(LinkStatus s) {
  switch (s) {
    case LinkStatus::linkUnknown:
      return "linkUnknown";
    case LinkStatus::linkDown:
      return "linkDown";
    case LinkStatus::linkUp:
      return "linkUp";
    case LinkStatus::linkNotPresent:
      return "linkNotPresent";
  }
  return std::to_string(static_cast<uint32_t>(s));
}

std::string stringValue(ForwardingModel m) {
  switch (m) {
    case ForwardingModel::intfForwardingModelUnknown:
      return "intfForwardingModelUnknown";
    case ForwardingModel::intfForwardingModelInactive:
      return "intfForwardingModelInactive";
    case ForwardingModel::intfForwardingModelDataLink:
      return "intfForwardingModelDataLink";
    case ForwardingModel::intfForwardingModelQuiet:
      return "intfForwardingModelQuiet";
    case ForwardingModel::intfForwardingModelBridged:
      return "intfForwardingModelBridged";
    case ForwardingModel::intfForwardingModelRouted:
      return "intfForwardingModelRouted";
  }
  return std::to_string(static_cast<uint32_t>(m));
}

}  // namespace Interface

namespace Ip {

std::string stringValue(VrfState s) {
  switch (s) {
    case VrfState::vrfInitializing:
      return "vrfInitializing";
    case VrfState::vrfActive:
      return "vrfActive";
    case VrfState::vrfDeleting:
      return "vrfDeleting";
  }
  return std::to_string(static_cast<uint32_t>(s));
}

}  // namespace Ip

#pragma once
// The trace facilities of export: "FtExport" for templates, endpoints and collector
// channels, "FtOptions" for options templates and options data.

#include "platform/zub/Glint.h"

namespace FlowTracking {

inline Zub::Glint::Facility& exportTrace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("FtExport");
  return f;
}
inline Zub::Glint::Facility& optionsTrace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("FtOptions");
  return f;
}
using Zub::Glint::kDiag;
using Zub::Glint::kDump;
using Zub::Glint::kEntry;
using Zub::Glint::kLife;
using Zub::Glint::kState;

}  // namespace FlowTracking

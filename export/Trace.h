#pragma once
// The trace facility of the export subsystem ("FtExport").

#include "platform/zub/Glint.h"

namespace FlowTracking {

inline Zub::Glint::Facility& exportTrace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("FtExport");
  return f;
}
using Zub::Glint::kDiag;
using Zub::Glint::kDump;
using Zub::Glint::kEntry;
using Zub::Glint::kLife;
using Zub::Glint::kState;

}  // namespace FlowTracking

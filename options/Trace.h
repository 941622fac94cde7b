#pragma once
// The trace facility of the options subsystem ("FtOptions").

#include "platform/zub/Glint.h"

namespace FlowTracking {

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

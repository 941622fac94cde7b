#pragma once
// The trace facility of the options subsystem ("FtOptions"); the level names are the
// export subsystem's.

#include "export/Trace.h"

namespace FlowTracking {

inline Zub::Glint::Facility& optionsTrace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("FtOptions");
  return f;
}

}  // namespace FlowTracking

#pragma once
// The trace facility of the IPFIX encoding core ("Ipfix").

#include "platform/zub/Glint.h"

inline Zub::Glint::Facility& ipfixTrace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("Ipfix");
  return f;
}

#include "platform/zub/Signal.h"

#include <algorithm>

namespace Zub {

void SignalCore::remove(Slot* s) {
  if (!s) return;
  if (depth_ > 0) {
    // A delivery is walking the slots: retire now, free after the delivery.
    s->alive = false;
    dirty_ = true;
    return;
  }
  auto it = std::find(slots_.begin(), slots_.end(), s);
  if (it != slots_.end()) slots_.erase(it);
  delete s;
}

size_t SignalCore::size() const {
  return static_cast<size_t>(
      std::count_if(slots_.begin(), slots_.end(), [](const Slot* s) { return s->alive; }));
}

void SignalCore::compact() {
  dirty_ = false;
  auto dead =
      std::stable_partition(slots_.begin(), slots_.end(), [](const Slot* s) { return s->alive; });
  for (auto it = dead; it != slots_.end(); ++it) delete *it;
  slots_.erase(dead, slots_.end());
}

}  // namespace Zub

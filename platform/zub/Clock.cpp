#include "platform/zub/Clock.h"

#include <time.h>

namespace Zub {

namespace {
Nanoseconds read(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return static_cast<Nanoseconds>(ts.tv_sec) * 1'000'000'000LL + ts.tv_nsec;
}
SystemClock systemClock;
Clock* current = &systemClock;
}  // namespace

Nanoseconds SystemClock::monotonicNs() const { return read(CLOCK_MONOTONIC); }
Nanoseconds SystemClock::wallNs() const { return read(CLOCK_REALTIME); }

namespace System {
Clock& clock() { return *current; }
void clockIs(Clock* c) { current = c ? c : &systemClock; }
Seconds now() { return secondsFromNs(current->wallNs()); }
Nanoseconds monotonicNs() { return current->monotonicNs(); }
}  // namespace System

}  // namespace Zub

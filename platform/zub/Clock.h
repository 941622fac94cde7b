#pragma once
// Time comes from one injectable clock. The scheduler reads its monotonic time, and
// everything that stamps a wall time (IPFIX export times, statistics, log lines)
// reads Zub::System::now(). Tests install a ManualClock and move it forward.

#include "platform/zub/Types.h"

namespace Zub {

class Clock {
 public:
  virtual ~Clock() = default;
  // Monotonic time in nanoseconds from an arbitrary origin.
  virtual Nanoseconds monotonicNs() const = 0;
  // UTC wall time in nanoseconds since the epoch.
  virtual Nanoseconds wallNs() const = 0;
};

class SystemClock final : public Clock {
 public:
  Nanoseconds monotonicNs() const override;
  Nanoseconds wallNs() const override;
};

// A clock that moves only when told to. Wall time moves together with monotonic time.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Nanoseconds wallStartNs = 1'800'000'000LL * 1'000'000'000LL)
      : wallOffsetNs_(wallStartNs) {}
  Nanoseconds monotonicNs() const override { return monoNs_; }
  Nanoseconds wallNs() const override { return wallOffsetNs_ + monoNs_; }
  // Moves time forward only; nothing runs. (Orrin::TaskScheduler::advance also runs
  // the tasks that fall due.)
  void tick(Nanoseconds d) { monoNs_ += d; }
  void monotonicNsIs(Nanoseconds t) { monoNs_ = t; }

 private:
  Nanoseconds monoNs_ = 0;
  Nanoseconds wallOffsetNs_;
};

namespace System {
// The process-wide clock (a SystemClock unless a test or tool installs another).
Clock& clock();
// Installs `c` (not owned) as the process-wide clock; nullptr restores the system clock.
void clockIs(Clock* c);
// UTC wall time in seconds since the epoch.
Seconds now();
Nanoseconds monotonicNs();
}  // namespace System

// Installs a clock for the lifetime of the object (tests) and then puts back the one it
// replaced, so scopes nest.
class ScopedClock {
 public:
  explicit ScopedClock(Clock& c) : previous_(&System::clock()) { System::clockIs(&c); }
  ~ScopedClock() { System::clockIs(previous_); }
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

}  // namespace Zub

#pragma once
// Glint: leveled text tracing, off by default and switched on per facility and level
// at run time, from the GLINT environment variable or the agent's --trace flag:
//   GLINT="FlowTracking/0-5,Orrin/*"   levels 0..9; "*" all levels; "*/1" all facilities.
// Every line is also offered to the Twyx ring, which keeps the low levels always.
//
//   GLINT(ftTrace(), 5) << "Updated IPv4 Addr to " << addr;
//
// Nothing is formatted unless the facility has the level on or Twyx keeps it.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/zub/Twyx.h"
#include "platform/zub/Types.h"

namespace Zub::Glint {

constexpr int kMaxLevel = 9;

// The levels the agent uses: 0 errors, 1 lifecycle (created / deleted), 3 state
// changes, 5 diagnostics, 8 handler entry, 9 packet dumps. Twyx keeps 0..3 always.
constexpr int kError = 0;
constexpr int kLife = 1;
constexpr int kState = 3;
constexpr int kDiag = 5;
constexpr int kEntry = 8;
constexpr int kDump = 9;

class Facility {
 public:
  explicit Facility(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  bool enabled(int level) const { return (mask_ >> level) & 1u; }
  uint32_t levels() const { return mask_; }
  void levelsIs(uint32_t mask) { mask_ = mask; }

 private:
  std::string name_;
  uint32_t mask_ = 0;
};

// The facility of that name, created on first use. The reference stays valid.
Facility& facility(std::string_view name);

// Applies a setting such as "FtConfig/0-5,Orrin/*,Ipfix/1;3". Facilities
// named later also get their levels. Returns false with a reason when malformed.
bool configure(std::string_view spec, std::string* error = nullptr);
// Applies $GLINT if set.
void configureFromEnvironment();
// Switches every facility off and forgets the settings applied so far.
void reset();

struct Record {
  const Facility& facility;
  int level;
  std::string_view text;
};
using Sink = std::function<void(const Record&)>;
// Where enabled lines go; the default writes "facility/level text" to stderr.
// Returns the previous sink.
Sink sinkIs(Sink sink);

// One trace line; it is emitted when the object goes out of scope.
class Line {
 public:
  Line(const Facility& f, int level) : facility_(f), level_(level) {}
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  template <class T>
  Line& operator<<(const T& v) {
    appendTo(text_, v);
    return *this;
  }

 private:
  const Facility& facility_;
  int level_;
  std::string text_;
};

// Routes lines to a function for the lifetime of the object and switches the given
// facility's levels on (tests that check trace texts).
class Capture {
 public:
  Capture(Facility& f, uint32_t levels, std::function<void(const Record&)> fn);
  ~Capture();

 private:
  Facility& facility_;
  uint32_t savedLevels_;
  Sink saved_;
};

}  // namespace Zub::Glint

#define GLINT(fac, lvl)                                      \
  if (!((fac).enabled(lvl) || ::Zub::Twyx::captures(lvl))) { \
  } else                                                     \
    ::Zub::Glint::Line((fac), (lvl))

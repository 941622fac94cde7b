#pragma once
// Twyx: an always-on ring of the most recent trace lines, written out when a fatal
// assertion fires. It records the trace levels up to levelMax() (default 3) whether
// or not Glint tracing of the facility is switched on.

#include <string>
#include <string_view>
#include <vector>

namespace Zub::Twyx {

constexpr int kLines = 512;      // lines kept
constexpr int kLineBytes = 240;  // longer lines are cut

// The highest level kept (default 3).
inline int levelMaxValue = 3;
inline int levelMax() { return levelMaxValue; }
inline void levelMaxIs(int level) { levelMaxValue = level; }
inline bool captures(int level) { return level <= levelMaxValue; }

void record(std::string_view facility, int level, std::string_view text);
// The lines kept, oldest first (tests, and the dump).
std::vector<std::string> lines();
void clear();
// Writes the ring to a file descriptor; used on the fatal path, so it allocates nothing.
void dump(int fd);

}  // namespace Zub::Twyx

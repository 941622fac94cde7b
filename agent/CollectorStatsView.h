#pragma once
// The statistics table as flowexportctl shows it: a table for people, JSON, or the
// Prometheus text format. The rows come from memory another process wrote, so nothing
// in them is trusted: names are escaped, set counts are bounded by the row's array, and
// times and errors are shown only for what they can be.

#include <string>
#include <vector>

#include "export/CollectorStats.h"

namespace Agent {

enum class StatsFormat { table, json, prometheus };

// Rows in key order; a row without a collector records when a tracker's counters were
// cleared.
std::string renderCollectorStats(std::vector<Stova::Ipfix::CollectorStatisticsEntry> entries,
                                 StatsFormat format);

// A JSON string of `s` (quoted, escaped), and `s` as a Prometheus label value.
std::string jsonString(const std::string& s);
std::string promLabel(const std::string& s);

// A time for people: local time to the second, "never" for none, "invalid" for a value
// no calendar holds.
std::string timeText(double unixSeconds);

}  // namespace Agent

#include "agent/CollectorStatsView.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "platform/zub/Text.h"

namespace Agent {

namespace {

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buf) {
    out.append(buf, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  va_start(ap, format);
  std::vsnprintf(big.data(), big.size(), format, ap);
  va_end(ap);
  big.pop_back();
  out += big;
}

}  // namespace

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

std::string promLabel(const std::string& v) {
  std::string out;
  for (char c : Zub::printable(v)) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out;
}

namespace {

std::string json(const std::string& s) { return jsonString(s); }

// What a collector receives in a set, by set id.
std::string setName(uint16_t setId) {
  switch (setId) {
    case 2:
      return "data templates";
    case 3:
      return "options templates";
    case 256:
      return "VRF table";
    case 257:
      return "interface table";
    case 258:
      return "flow keys";
    case 259:
      return "flow tracker table";
    default:
      return "flow records";
  }
}

// A number for JSON: a non-finite one has no JSON form.
std::string num(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[400];
  std::snprintf(buf, sizeof buf, "%.3f", v);
  return buf;
}

// The set slots a row really has: the count comes from shared memory and is not
// trusted beyond the array.
size_t setSlots(const Stova::Ipfix::CollectorStatisticsEntry& e) {
  return std::min<size_t>(e.setEntryCount, std::size(e.setEntryStorage));
}

// The Prometheus text exposition format, for node_exporter's textfile collector: one
// metric family per counter, labelled by tracker, exporter, collector (and set id).
std::string prometheus(const std::vector<const Stova::Ipfix::CollectorStatisticsEntry*>& rows) {
  using Entry = Stova::Ipfix::CollectorStatisticsEntry;
  auto label = [](const std::string& v) { return promLabel(v); };
  auto labels = [&](const Entry& e) {
    return "tracker=\"" + label(e.key.tracker()) + "\",exporter=\"" + label(e.key.exporter()) +
           "\",collector=\"" + label(e.key.collector.stringValue()) + "\"";
  };
  std::string out;
  auto family = [&](const char* name, const char* type, const char* help, auto value) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    for (const Entry* e : rows) {
      out += std::string(name) + "{" + labels(*e) + "} " + value(*e) + "\n";
    }
  };
  // Per kind of message: the kinds add up to the totals of the table.
  auto byKind = [&](const char* name, const char* help,
                    std::initializer_list<std::pair<const char*, uint64_t Entry::*>> kinds) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " counter\n";
    for (const Entry* e : rows) {
      for (const auto& [kind, field] : kinds) {
        out += std::string(name) + "{" + labels(*e) + ",kind=\"" + kind + "\"} " +
               std::to_string(e->*field) + "\n";
      }
    }
  };
  byKind("flowexport_messages_total",
         "IPFIX messages sent to the collector, by kind: templates (data and options "
         "templates), flow_data (flow records), options_data.",
         {{"templates", &Entry::exportedTemplateMessageCount},
          {"flow_data", &Entry::exportedDataMessageCount},
          {"options_data", &Entry::exportedOptionsDataMessageCount}});
  byKind("flowexport_records_total",
         "Data records sent to the collector, by kind: flow_data (flow records), options_data "
         "(rows of the options tables).",
         {{"flow_data", &Entry::exportedDataRecordCount},
          {"options_data", &Entry::exportedOptionsDataRecordCount}});
  family("flowexport_bytes_total", "counter", "Bytes of IPFIX messages sent to the collector.",
         [](const Entry& e) { return std::to_string(e.exportedOctetTotalCount); });
  family("flowexport_send_errors_total", "counter",
         "Messages to the collector that the kernel refused.",
         [](const Entry& e) { return std::to_string(e.sendErrorCount); });
  family("flowexport_last_sent_timestamp_seconds", "gauge",
         "When a message last went to the collector (Unix time, 0 never).", [](const Entry& e) {
           const double t = e.lastSentTime;
           return std::isnan(t)   ? std::string("NaN")
                  : std::isinf(t) ? std::string(t > 0 ? "+Inf" : "-Inf")
                                  : num(t);
         });
  auto perSet = [&](const char* name, const char* help, bool templates) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " counter\n";
    for (const Entry* e : rows) {
      for (size_t i = 0; i < setSlots(*e); ++i) {
        const auto& set = e->setEntryStorage[i];
        if (set.setId.isFree() || (set.setId.value < 256) != templates) continue;
        const uint64_t v = templates ? set.exportedTemplateCount : set.exportedFlowRecordCount;
        out += std::string(name) + "{" + labels(*e) + ",set_id=\"" +
               std::to_string(set.setId.value) + "\"} " + std::to_string(v) + "\n";
      }
    }
  };
  perSet("flowexport_set_templates_total",
         "Templates sent to the collector (set_id 2 data templates, 3 options templates).", true);
  perSet("flowexport_set_records_total", "Data records sent to the collector, per data set.",
         false);
  return out;
}

}  // namespace

std::string timeText(double t) {
  if (t == 0 || (std::isfinite(t) && t < 0)) return "never";
  // Up to the end of year 9999: what strftime's four-digit year shows.
  if (!std::isfinite(t) || t >= 253402300800.0) return "invalid";
  const auto s = static_cast<time_t>(t);
  struct tm tm;
  if (!localtime_r(&s, &tm)) return "invalid";
  char buf[32];
  if (std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm) == 0) return "invalid";
  return buf;
}

std::string renderCollectorStats(std::vector<Stova::Ipfix::CollectorStatisticsEntry> entries,
                                 StatsFormat format) {
  std::string out;
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.key < b.key; });
  std::vector<const Stova::Ipfix::CollectorStatisticsEntry*> rows, cleared;
  for (const auto& e : entries) (!e.key.collector ? cleared : rows).push_back(&e);

  if (format == StatsFormat::prometheus) {
    return prometheus(rows);
  }
  if (format == StatsFormat::json) {
    out = "{\"collectors\": [";
    for (size_t i = 0; i < rows.size(); ++i) {
      const auto& e = *rows[i];
      out += std::string(i ? ", " : "") + "{\"tracker\": " + json(Zub::printable(e.key.tracker())) +
             ", \"exporter\": " + json(Zub::printable(e.key.exporter())) +
             ", \"collector\": " + json(e.key.collector.stringValue()) +
             ", \"address\": " + json(e.key.collector.addr.stringValue()) +
             ", \"port\": " + std::to_string(e.key.collector.port) +
             ", \"messages\": " + std::to_string(e.exportedMessageTotalCount) +
             ", \"records\": " + std::to_string(e.exportedFlowRecordTotalCount) +
             ", \"messagesByKind\": {\"templates\": " +
             std::to_string(e.exportedTemplateMessageCount) +
             ", \"flowData\": " + std::to_string(e.exportedDataMessageCount) +
             ", \"optionsData\": " + std::to_string(e.exportedOptionsDataMessageCount) +
             "}, \"recordsByKind\": {\"flowData\": " + std::to_string(e.exportedDataRecordCount) +
             ", \"optionsData\": " + std::to_string(e.exportedOptionsDataRecordCount) + "}" +
             ", \"octets\": " + std::to_string(e.exportedOctetTotalCount) +
             ", \"lastSent\": " + num(e.lastSentTime) +
             ", \"lastTemplateSent\": " + num(e.lastTemplateSentTime) +
             ", \"lastDataRecordSent\": " + num(e.lastDataRecordSentTime) +
             ", \"lastOptionsDataSent\": " + num(e.lastOptionsDataSentTime) +
             ", \"sendErrors\": " + std::to_string(e.sendErrorCount) + ", \"lastSendError\": " +
             json(e.sendErrorCount ? std::strerror(e.lastSendErrno) : "") +
             ", \"lastSendErrorTime\": " + num(e.lastSendErrorTime) + ", \"sets\": [";
      bool first = true;
      for (size_t s = 0; s < setSlots(e); ++s) {
        const auto& set = e.setEntryStorage[s];
        if (set.setId.isFree()) continue;
        out += std::string(first ? "" : ", ") + "{\"setId\": " + std::to_string(set.setId.value) +
               ", \"name\": " + json(setName(set.setId.value)) +
               ", \"records\": " + std::to_string(set.exportedFlowRecordCount) +
               ", \"templates\": " + std::to_string(set.exportedTemplateCount) + "}";
        first = false;
      }
      out += "]}";
    }
    out += "], \"cleared\": [";
    for (size_t i = 0; i < cleared.size(); ++i) {
      out += std::string(i ? ", " : "") +
             "{\"tracker\": " + json(Zub::printable(cleared[i]->key.tracker())) +
             ", \"time\": " + num(cleared[i]->lastClearedTime) + "}";
    }
    out += "]}\n";
    return out;
  }

  appendf(out, "%-16s %-16s %-28s %9s %9s %9s %11s %9s %9s  %s\n", "Tracker", "Exporter",
          "Collector", "Messages", "FlowRecs", "OptRecs", "Octets", "Templates", "OptTmpl",
          "Last sent");
  using ull = unsigned long long;
  for (const auto* e : rows) {
    const auto templates = e->setEntry(Stova::Ipfix::SetId(2)).exportedTemplateCount;
    const auto options = e->setEntry(Stova::Ipfix::SetId(3)).exportedTemplateCount;
    appendf(out, "%-16s %-16s %-28s %9llu %9llu %9llu %11llu %9llu %9llu  %s\n",
            Zub::printable(e->key.tracker()).c_str(), Zub::printable(e->key.exporter()).c_str(),
            e->key.collector.stringValue().c_str(), static_cast<ull>(e->exportedMessageTotalCount),
            static_cast<ull>(e->exportedDataRecordCount),
            static_cast<ull>(e->exportedOptionsDataRecordCount),
            static_cast<ull>(e->exportedOctetTotalCount), static_cast<ull>(templates),
            static_cast<ull>(options), timeText(e->lastSentTime).c_str());
    appendf(out, "    messages: %llu templates, %llu flow data, %llu options data\n",
            static_cast<ull>(e->exportedTemplateMessageCount),
            static_cast<ull>(e->exportedDataMessageCount),
            static_cast<ull>(e->exportedOptionsDataMessageCount));
    // Below each collector: the records of every data set it received.
    for (size_t i = 0; i < setSlots(*e); ++i) {
      const auto& set = e->setEntryStorage[i];
      if (set.setId.isFree() || set.setId.value < 256) continue;
      appendf(out, "    set %-5u %-20s %9llu records\n", static_cast<unsigned>(set.setId.value),
              setName(set.setId.value).c_str(),
              static_cast<unsigned long long>(set.exportedFlowRecordCount));
    }
    if (e->sendErrorCount > 0) {
      appendf(out, "    send errors %llu, last %s: %s\n",
              static_cast<unsigned long long>(e->sendErrorCount),
              timeText(e->lastSendErrorTime).c_str(), std::strerror(e->lastSendErrno));
    }
    if (e->lastDataRecordSentTime > 0) {
      appendf(out, "    flow records last sent %s\n", timeText(e->lastDataRecordSentTime).c_str());
    }
    if (e->lastOptionsDataSentTime > 0) {
      appendf(out, "    options data last sent %s\n", timeText(e->lastOptionsDataSentTime).c_str());
    }
  }
  if (rows.empty()) appendf(out, "(nothing exported yet)\n");
  for (const auto* e : cleared) {
    appendf(out, "Counters of tracker %s last cleared %s\n",
            Zub::printable(e->key.tracker()).c_str(), timeText(e->lastClearedTime).c_str());
  }
  return out;
}

}  // namespace Agent

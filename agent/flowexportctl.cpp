// flowexportctl: shows what flowexportd exported and asks it to clear its counters.
//
//   flowexportctl show collectors [--json]
//   flowexportctl clear counters [TRACKER [EXPORTER]]
//
// Statistics are read from the daemon's shared memory in this process; requests go to
// the daemon's control socket.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "agent/ControlServer.h"
#include "agent/Paths.h"
#include "export/CollectorStats.h"
#include "platform/zub/Text.h"

namespace {

int usage(FILE* out, int rc) {
  std::fprintf(out,
               "usage: flowexportctl [--stats-name NAME] [--control-socket PATH] COMMAND\n"
               "       flowexportctl --help | --version\n"
               "  show collectors [--json | --format table|json|prometheus]\n"
               "                                      export statistics per collector\n"
               "  clear counters [TRACKER [EXPORTER]] reset them (all, one tracker, or one\n"
               "                                      exporter of a tracker)\n");
  return rc;
}

std::string timeText(double t) {
  if (t <= 0) return "never";
  const auto s = static_cast<time_t>(t);
  struct tm tm;
  localtime_r(&s, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  return buf;
}

std::string json(const std::string& s) {
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

std::string num(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", v);
  return buf;
}

// The set slots a row really has: the count comes from shared memory and is not
// trusted beyond the array.
size_t setSlots(const Stova::Ipfix::CollectorStatisticsEntry& e) {
  return std::min<size_t>(e.setEntryCount, std::size(e.setEntryStorage));
}

// Whether the process that wrote the table still runs.
bool writerRuns(uint64_t pid) {
  if (pid == 0 || pid > static_cast<uint64_t>(std::numeric_limits<pid_t>::max())) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// The Prometheus text exposition format, for node_exporter's textfile collector: one
// metric family per counter, labelled by tracker, exporter, collector (and set id).
std::string prometheus(const std::vector<const Stova::Ipfix::CollectorStatisticsEntry*>& rows) {
  using Entry = Stova::Ipfix::CollectorStatisticsEntry;
  auto label = [](const std::string& v) {
    std::string out;
    for (char c : Zub::printable(v)) {
      if (c == '\\' || c == '"') out += '\\';
      out += c;
    }
    return out;
  };
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
  family("flowexport_messages_total", "counter", "IPFIX messages sent to the collector.",
         [](const Entry& e) { return std::to_string(e.exportedMessageTotalCount); });
  family("flowexport_records_total", "counter", "Data records sent to the collector.",
         [](const Entry& e) { return std::to_string(e.exportedFlowRecordTotalCount); });
  family("flowexport_octets_total", "counter", "Octets of IPFIX messages sent to the collector.",
         [](const Entry& e) { return std::to_string(e.exportedOctetTotalCount); });
  family("flowexport_send_errors_total", "counter",
         "Messages to the collector that the kernel refused.",
         [](const Entry& e) { return std::to_string(e.sendErrorCount); });
  family("flowexport_last_sent_timestamp_seconds", "gauge",
         "When a message last went to the collector (Unix time, 0 never).",
         [](const Entry& e) { return num(e.lastSentTime); });
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

enum class Format { table, json, prometheus };

int showCollectors(const std::string& statsName, Format format) {
  std::vector<Stova::Ipfix::CollectorStatisticsEntry> entries;
  size_t busy = 0;
  uint64_t writerPid = 0;
  try {
    auto segment = Stova::Segment::open(statsName);
    // Anybody may create a name in /dev/shm: only a table of this user, root or the
    // packaged service is read.
    if (!Agent::trustedDaemonUid(segment->ownerUid())) {
      std::fprintf(stderr,
                   "flowexportctl: shared memory %s belongs to uid %u, neither this user, root "
                   "nor the flowexport service: not reading it\n",
                   statsName.c_str(), static_cast<unsigned>(segment->ownerUid()));
      return 1;
    }
    Stova::Ipfix::CollectorStatisticsReader reader(std::move(segment));
    writerPid = reader.writerPid();
    entries = reader.all(&busy);
  } catch (const std::exception& e) {
    std::fprintf(stderr,
                 "flowexportctl: no statistics in shared memory %s (%s): is flowexportd "
                 "running?\n",
                 statsName.c_str(), e.what());
    return 1;
  }
  int rc = 0;
  if (!writerRuns(writerPid)) {
    // A daemon killed without its cleanup leaves its last counters behind: they are
    // shown, but as what they are.
    double asOf = 0;
    for (const auto& e : entries) asOf = std::max({asOf, e.lastSentTime, e.lastClearedTime});
    std::fprintf(stderr,
                 "flowexportctl: flowexportd (pid %llu) is not running; statistics as of %s\n",
                 static_cast<unsigned long long>(writerPid), timeText(asOf).c_str());
    rc = 1;
  }
  if (busy) {
    std::fprintf(stderr, "flowexportctl: %zu row(s) were being written and are not shown\n", busy);
  }
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.key < b.key; });
  std::vector<const Stova::Ipfix::CollectorStatisticsEntry*> rows, cleared;
  for (const auto& e : entries) (!e.key.collector ? cleared : rows).push_back(&e);

  if (format == Format::prometheus) {
    std::fputs(prometheus(rows).c_str(), stdout);
    return rc;
  }
  if (format == Format::json) {
    std::string out = "{\"collectors\": [";
    for (size_t i = 0; i < rows.size(); ++i) {
      const auto& e = *rows[i];
      out += std::string(i ? ", " : "") + "{\"tracker\": " + json(Zub::printable(e.key.tracker())) +
             ", \"exporter\": " + json(Zub::printable(e.key.exporter())) +
             ", \"collector\": " + json(e.key.collector.stringValue()) +
             ", \"address\": " + json(e.key.collector.addr.stringValue()) +
             ", \"port\": " + std::to_string(e.key.collector.port) +
             ", \"messages\": " + std::to_string(e.exportedMessageTotalCount) +
             ", \"records\": " + std::to_string(e.exportedFlowRecordTotalCount) +
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
    std::fputs(out.c_str(), stdout);
    return rc;
  }

  std::printf("%-16s %-16s %-28s %9s %9s %11s %9s %9s  %s\n", "Tracker", "Exporter", "Collector",
              "Messages", "Records", "Octets", "Templates", "OptTmpl", "Last sent");
  for (const auto* e : rows) {
    const auto templates = e->setEntry(Stova::Ipfix::SetId(2)).exportedTemplateCount;
    const auto options = e->setEntry(Stova::Ipfix::SetId(3)).exportedTemplateCount;
    std::printf("%-16s %-16s %-28s %9llu %9llu %11llu %9llu %9llu  %s\n",
                Zub::printable(e->key.tracker()).c_str(), Zub::printable(e->key.exporter()).c_str(),
                e->key.collector.stringValue().c_str(),
                static_cast<unsigned long long>(e->exportedMessageTotalCount),
                static_cast<unsigned long long>(e->exportedFlowRecordTotalCount),
                static_cast<unsigned long long>(e->exportedOctetTotalCount),
                static_cast<unsigned long long>(templates),
                static_cast<unsigned long long>(options), timeText(e->lastSentTime).c_str());
    // Below each collector: the records of every data set it received.
    for (size_t i = 0; i < setSlots(*e); ++i) {
      const auto& set = e->setEntryStorage[i];
      if (set.setId.isFree() || set.setId.value < 256) continue;
      std::printf("    set %-5u %-20s %9llu records\n", static_cast<unsigned>(set.setId.value),
                  setName(set.setId.value).c_str(),
                  static_cast<unsigned long long>(set.exportedFlowRecordCount));
    }
    if (e->sendErrorCount > 0) {
      std::printf("    send errors %llu, last %s: %s\n",
                  static_cast<unsigned long long>(e->sendErrorCount),
                  timeText(e->lastSendErrorTime).c_str(), std::strerror(e->lastSendErrno));
    }
    if (e->lastOptionsDataSentTime > 0) {
      std::printf("    options data last sent %s\n", timeText(e->lastOptionsDataSentTime).c_str());
    }
  }
  if (rows.empty()) std::printf("(nothing exported yet)\n");
  for (const auto* e : cleared) {
    std::printf("Counters of tracker %s last cleared %s\n",
                Zub::printable(e->key.tracker()).c_str(), timeText(e->lastClearedTime).c_str());
  }
  return rc;
}

int clearCounters(const std::string& socket, const std::vector<std::string>& names) {
  std::vector<std::string> words = {"clear-counters"};
  words.insert(words.end(), names.begin(), names.end());
  std::string error;
  auto reply = Agent::controlRequest(socket, words, &error);
  if (!reply) {
    std::fprintf(stderr, "flowexportctl: cannot reach flowexportd at %s: %s (is it running?)\n",
                 socket.c_str(), error.c_str());
    return 1;
  }
  if (*reply != "ok") {
    std::fprintf(stderr, "flowexportctl: %s\n", reply->c_str());
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string statsName = Agent::defaultStatsName();
  std::string socket = Agent::defaultClientControlSocket();
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if ((a == "--stats-name" || a == "--control-socket") && i + 1 < argc) {
      (a == "--stats-name" ? statsName : socket) = argv[++i];
    } else if (a == "--help" || a == "-h") {
      return usage(stdout, 0);
    } else if (a == "--version") {
      std::printf("flowexportctl %s\n", FLOWEXPORT_VERSION);
      return 0;
    } else {
      args.push_back(a);
    }
  }
  if (args.size() >= 2 && args[0] == "show" && args[1] == "collectors") {
    if (args.size() == 2) return showCollectors(statsName, Format::table);
    if (args.size() == 3 && args[2] == "--json") return showCollectors(statsName, Format::json);
    if (args.size() == 4 && args[2] == "--format") {
      if (args[3] == "table") return showCollectors(statsName, Format::table);
      if (args[3] == "json") return showCollectors(statsName, Format::json);
      if (args[3] == "prometheus") return showCollectors(statsName, Format::prometheus);
    }
  }
  if (args.size() >= 2 && args.size() <= 4 && args[0] == "clear" && args[1] == "counters") {
    return clearCounters(socket, std::vector<std::string>(args.begin() + 2, args.end()));
  }
  return usage(stderr, 2);
}

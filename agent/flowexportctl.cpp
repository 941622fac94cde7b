// flowexportctl: shows what flowexportd exported and asks it to clear its counters.
//
//   flowexportctl show collectors [--json]
//   flowexportctl clear counters [TRACKER [EXPORTER]]
//
// Statistics are read from the daemon's shared memory in this process; requests go to
// the daemon's control socket.

#include <getopt.h>
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

#include "agent/CollectorStatsView.h"
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
               "  show datapath [--json]              the software data path's counters (sources,\n"
               "                                      samples, flows, parse errors, ring drops,\n"
               "                                      records that reached no collector)\n"
               "  clear counters [TRACKER [EXPORTER]] reset them (all, one tracker, or one\n"
               "                                      exporter of a tracker)\n");
  return rc;
}

// Whether the process that wrote the table still runs.
bool writerRuns(uint64_t pid) {
  if (pid == 0 || pid > static_cast<uint64_t>(std::numeric_limits<pid_t>::max())) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

int showCollectors(const std::string& statsName, Agent::StatsFormat format) {
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
                 static_cast<unsigned long long>(writerPid), Agent::timeText(asOf).c_str());
    rc = 1;
  }
  if (busy) {
    std::fprintf(stderr, "flowexportctl: %zu row(s) were being written and are not shown\n", busy);
  }
  std::fputs(Agent::renderCollectorStats(std::move(entries), format).c_str(), stdout);
  return rc;
}

// The software data path's counters: a line each, or one JSON object of numbers.
int showDataPath(const std::string& socket, bool json) {
  std::string error;
  auto reply = Agent::controlRequest(socket, {"datapath"}, &error);
  if (!reply) {
    std::fprintf(stderr, "flowexportctl: cannot reach flowexportd at %s: %s\n", socket.c_str(),
                 error.c_str());
    return 1;
  }
  if (reply->rfind("ok ", 0) != 0) {
    std::fprintf(stderr, "flowexportctl: %s\n", Zub::printable(*reply).c_str());
    return 1;
  }
  // "ok name value name value ...": names and values.
  std::vector<std::string> words;
  for (size_t at = 3; at < reply->size();) {
    const size_t end = std::min(reply->find(' ', at), reply->size());
    words.push_back(reply->substr(at, end - at));
    at = end + 1;
  }
  std::string out = json ? "{" : "";
  for (size_t i = 0; i + 1 < words.size(); i += 2) {
    const std::string name = Zub::printable(words[i]);
    const std::string& value = words[i + 1];
    if (!json) {
      out += Zub::str(name, std::string(name.size() < 28 ? 28 - name.size() : 1, ' '),
                      Zub::printable(value), "\n");
      continue;
    }
    // Names are words and values counts: anything else would be a daemon of another
    // version, and is left out or null rather than trusted.
    if (name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") != std::string::npos) {
      continue;
    }
    const bool number = !value.empty() && value.size() <= 20 &&
                        value.find_first_not_of("0123456789") == std::string::npos;
    out += Zub::str(out.size() > 1 ? ", " : "", "\"", name, "\": ", number ? value : "null");
  }
  if (json) out += "}\n";
  std::fputs(out.c_str(), stdout);
  return 0;
}

int clearCounters(const std::string& socket, const std::vector<std::string>& names) {
  std::vector<std::string> words = {"clear-counters"};
  words.insert(words.end(), names.begin(), names.end());
  std::string error;
  auto reply = Agent::controlRequest(socket, words, &error);
  if (!reply) {
    std::fprintf(stderr, "flowexportctl: cannot reach flowexportd at %s: %s\n", socket.c_str(),
                 error.c_str());
    return 1;
  }
  if (*reply != "ok") {
    std::fprintf(stderr, "flowexportctl: %s\n", reply->c_str());
    return 1;
  }
  return 0;
}

// The options after a command's words: --json, --format table|json|prometheus.
struct CommandOptions {
  Agent::StatsFormat format = Agent::StatsFormat::table;
  std::vector<std::string> words;
  bool ok = true;
};

CommandOptions commandOptions(std::vector<char*> argv) {
  CommandOptions o;
  static const option longOptions[] = {{"json", no_argument, nullptr, 'j'},
                                       {"format", required_argument, nullptr, 'f'},
                                       {nullptr, 0, nullptr, 0}};
  optind = 0;  // 0: getopt starts afresh (the first pass stopped at the command)
  for (int c; (c = ::getopt_long(static_cast<int>(argv.size()) - 1, argv.data(), "", longOptions,
                                 nullptr)) != -1;) {
    if (c == 'j') {
      o.format = Agent::StatsFormat::json;
    } else if (c == 'f' && std::string(optarg) == "table") {
      o.format = Agent::StatsFormat::table;
    } else if (c == 'f' && std::string(optarg) == "json") {
      o.format = Agent::StatsFormat::json;
    } else if (c == 'f' && std::string(optarg) == "prometheus") {
      o.format = Agent::StatsFormat::prometheus;
    } else {
      if (c == 'f')
        std::fprintf(stderr, "flowexportctl: --format takes table, json or prometheus\n");
      o.ok = false;
    }
  }
  for (int i = optind; i + 1 < static_cast<int>(argv.size()); ++i) o.words.push_back(argv[i]);
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  std::string statsName = Agent::defaultStatsName();
  std::string socket = Agent::defaultClientControlSocket();
  // The options before the command ("+": the first word that is not one ends them).
  static const option longOptions[] = {{"stats-name", required_argument, nullptr, 's'},
                                       {"control-socket", required_argument, nullptr, 'c'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {nullptr, 0, nullptr, 0}};
  for (int c; (c = ::getopt_long(argc, argv, "+h", longOptions, nullptr)) != -1;) {
    switch (c) {
      case 's':
        statsName = optarg;
        break;
      case 'c':
        socket = optarg;
        break;
      case 'h':
        return usage(stdout, 0);
      case 'V':
        std::printf("flowexportctl %s\n", FLOWEXPORT_VERSION);
        return 0;
      default:
        return usage(stderr, 2);
    }
  }
  // The command's own words and options, as an argument vector of their own.
  std::vector<char*> rest = {argv[0]};
  for (int i = optind; i < argc; ++i) rest.push_back(argv[i]);
  rest.push_back(nullptr);
  const CommandOptions cmd = commandOptions(rest);
  const std::vector<std::string>& args = cmd.words;
  if (!cmd.ok) return usage(stderr, 2);
  if (args.size() == 2 && args[0] == "show" && args[1] == "collectors") {
    return showCollectors(statsName, cmd.format);
  }
  if (args.size() == 2 && args[0] == "show" && args[1] == "datapath") {
    return showDataPath(socket, cmd.format == Agent::StatsFormat::json);
  }
  if (args.size() >= 2 && args.size() <= 4 && args[0] == "clear" && args[1] == "counters") {
    return clearCounters(socket, std::vector<std::string>(args.begin() + 2, args.end()));
  }
  return usage(stderr, 2);
}

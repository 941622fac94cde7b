// flowexportctl: shows what flowexportd exported and asks it to clear its counters.
//
//   flowexportctl show collectors|flows|trackers|exporters|datapath [--json]
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
               "  show flows [--top N] [--sort bytes|packets]\n"
               "                                      the flows in the caches now, the largest\n"
               "                                      first (default 20 by bytes)\n"
               "  show trackers                       each tracker: id, rate, timeouts, cache\n"
               "                                      use, its interfaces and their state\n"
               "  show exporters                      each exporter: state, source, message\n"
               "                                      size, its collectors' addresses and state\n"
               "  show datapath                       each sampled interface: samples, parse\n"
               "                                      errors, ring drops; records that reached\n"
               "                                      no collector\n"
               "  every show takes --json (with a schemaVersion) or --format\n"
               "  table|json|prometheus\n"
               "  clear counters [TRACKER [EXPORTER]] reset them (all, one tracker, or one\n"
               "                                      exporter of a tracker)\n");
  return rc;
}

// Whether the process that wrote the table still runs.
bool writerRuns(uint64_t pid) {
  if (pid == 0 || pid > static_cast<uint64_t>(std::numeric_limits<pid_t>::max())) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// For a metrics collector: whether the daemon runs, and which version this is.
void promHeader(bool up) {
  std::printf(
      "# HELP flowexport_up Whether flowexportd runs (1) or its counters are missing or left "
      "behind (0).\n# TYPE flowexport_up gauge\nflowexport_up %d\n"
      "# HELP flowexport_build_info The version of flowexport.\n"
      "# TYPE flowexport_build_info gauge\nflowexport_build_info{version=\"%s\"} 1\n",
      up ? 1 : 0, FLOWEXPORT_VERSION);
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
    if (format == Agent::StatsFormat::prometheus) promHeader(false);
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
  if (format == Agent::StatsFormat::prometheus) promHeader(rc == 0);
  std::fputs(Agent::renderCollectorStats(std::move(entries), format).c_str(), stdout);
  return rc;
}

// A view the daemon renders: "show WHAT FORMAT [TOP SORT]"; the reply's text as it is.
int showView(const std::string& socket, std::vector<std::string> words) {
  std::string error;
  auto reply = Agent::controlRequest(socket, words, &error);
  if (!reply) {
    std::fprintf(stderr, "flowexportctl: cannot reach flowexportd at %s: %s\n", socket.c_str(),
                 error.c_str());
    return 1;
  }
  if (reply->rfind("ok\n", 0) != 0) {
    std::fprintf(stderr, "flowexportctl: %s\n", Zub::printable(*reply).c_str());
    return 1;
  }
  std::fputs(reply->c_str() + 3, stdout);
  if (reply->back() != '\n') std::fputs("\n", stdout);
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
  std::string top = "20";
  std::string sort = "bytes";
  std::vector<std::string> words;
  bool ok = true;
};

CommandOptions commandOptions(std::vector<char*> argv) {
  CommandOptions o;
  static const option longOptions[] = {{"json", no_argument, nullptr, 'j'},
                                       {"format", required_argument, nullptr, 'f'},
                                       {"top", required_argument, nullptr, 't'},
                                       {"sort", required_argument, nullptr, 's'},
                                       {nullptr, 0, nullptr, 0}};
  optind = 0;  // 0: getopt starts afresh (the first pass stopped at the command)
  for (int c; (c = ::getopt_long(static_cast<int>(argv.size()) - 1, argv.data(), "", longOptions,
                                 nullptr)) != -1;) {
    if (c == 't') {
      o.top = optarg;
    } else if (c == 's') {
      o.sort = optarg;
    } else if (c == 'j') {
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
  static const char* formats[] = {"table", "json", "prometheus"};
  const std::string format = formats[static_cast<int>(cmd.format)];
  if (args.size() == 2 && args[0] == "show" &&
      (args[1] == "flows" || args[1] == "trackers" || args[1] == "exporters" ||
       args[1] == "datapath")) {
    std::vector<std::string> words = {"show", args[1], format};
    if (args[1] == "flows") words.insert(words.end(), {cmd.top, cmd.sort});
    return showView(socket, words);
  }
  if (args.size() >= 2 && args.size() <= 4 && args[0] == "clear" && args[1] == "counters") {
    return clearCounters(socket, std::vector<std::string>(args.begin() + 2, args.end()));
  }
  return usage(stderr, 2);
}

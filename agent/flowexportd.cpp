// flowexportd: the flow-export daemon.
//
//   flowexportd                      run the embedded default configuration
//   flowexportd --config FILE        run FILE, re-read on change and on SIGHUP
//
// Operator log messages go to stderr (a terminal) or syslog (a service); --trace turns
// on traces per facility (FtConfig, FtExport, Agent, Orrin, Nelo, Ipfix, ...).

#include <grp.h>
#include <sys/resource.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "agent/FlowExportAgent.h"
#include "agent/Paths.h"
#include "platform/zub/Assert.h"
#include "platform/zub/Glint.h"

namespace {

void usage(FILE* out) {
  std::fprintf(out,
               "usage: flowexportd [options]\n"
               "  --config FILE          configuration file (YAML); without it the embedded\n"
               "                         default runs: one tracker exporting to 127.0.0.1:4739\n"
               "  --state-file FILE      where tracker ids are kept across restarts\n"
               "                         (default %s; '' to keep none)\n"
               "  --stats-name NAME      shared-memory name of the statistics (default %s)\n"
               "  --control-socket PATH  control socket for flowexportctl (default %s)\n"
               "  --control-group GROUP  group allowed to use the control socket (else 0600)\n"
               "  --log stderr|syslog|both  where operator log messages go (default stderr; a\n"
               "                         service runs with --log syslog)\n"
               "  --trace FACILITY/LEVELS  switch traces on, e.g. FtExport/0-5 or '*/1'\n"
               "  --default-config       print the embedded default configuration\n"
               "  --help, --version\n",
               Agent::defaultStateFile().c_str(), Agent::defaultStatsName().c_str(),
               Agent::defaultControlSocket().c_str());
}

bool toStderr = true;
bool toSyslog = false;

void logLine(const Zub::LogRecord& r) {
  if (toStderr) {
    char stamp[32];
    const auto t = static_cast<time_t>(r.time);
    struct tm tm;
    localtime_r(&t, &tm);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    std::fprintf(stderr, "%s %s\n", stamp, r.line().c_str());
  }
  if (toSyslog) ::syslog(LOG_DAEMON | (r.severity & 7), "%s", r.line().c_str());
}

void flushOnFatal() {
  std::fflush(stderr);
  if (toSyslog) ::closelog();
}

}  // namespace

int main(int argc, char** argv) {
  Agent::AgentOptions opt;
  opt.stateFile = Agent::defaultStateFile();
  opt.statsName = Agent::defaultStatsName();
  opt.controlSocket = Agent::defaultControlSocket();
  std::string logMode = "stderr";
  Zub::Glint::configureFromEnvironment();
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "flowexportd: %s needs a value\n", a.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--config") {
      opt.configFile = value();
    } else if (a == "--state-file") {
      opt.stateFile = value();
    } else if (a == "--stats-name") {
      opt.statsName = value();
    } else if (a == "--control-socket") {
      opt.controlSocket = value();
    } else if (a == "--control-group") {
      const std::string g = value();
      struct group* gr = ::getgrnam(g.c_str());
      if (!gr) {
        std::fprintf(stderr, "flowexportd: no group named %s\n", g.c_str());
        return 2;
      }
      opt.controlGroup = gr->gr_gid;
    } else if (a == "--log") {
      logMode = value();
      if (logMode != "stderr" && logMode != "syslog" && logMode != "both") {
        std::fprintf(stderr, "flowexportd: --log takes stderr, syslog or both\n");
        return 2;
      }
    } else if (a == "--trace") {
      std::string error;
      if (!Zub::Glint::configure(value(), &error)) {
        std::fprintf(stderr, "flowexportd: --trace: %s\n", error.c_str());
        return 2;
      }
    } else if (a == "--help" || a == "-h") {
      usage(stdout);
      return 0;
    } else if (a == "--default-config") {
      std::fputs(Agent::embeddedDefaultConfig().c_str(), stdout);
      return 0;
    } else if (a == "--version") {
      std::printf("flowexportd %s\n", FLOWEXPORT_VERSION);
      return 0;
    } else {
      std::fprintf(stderr, "flowexportd: unknown option %s\n", a.c_str());
      usage(stderr);
      return 2;
    }
  }
  toStderr = logMode != "syslog";
  toSyslog = logMode != "stderr";
  if (toSyslog) ::openlog("flowexportd", LOG_PID, LOG_DAEMON);
  Zub::logSinkIs(logLine);
  Zub::fatalHookIs(flushOnFatal);

  if (!opt.controlSocket.empty() && opt.controlSocket == Agent::defaultControlSocket()) {
    // The default may lie in a directory of the user's that does not exist yet.
    std::error_code ec;
    const auto dir = std::filesystem::path(opt.controlSocket).parent_path();
    if (std::filesystem::create_directories(dir, ec)) {
      std::filesystem::permissions(dir, std::filesystem::perms::owner_all, ec);
    }
  }
  // Each exporter holds sockets: the soft descriptor limit (1024 under systemd unless
  // the unit says otherwise) would cap the trackers that export. The hard limit is
  // ours to take.
  if (rlimit nofile{};
      ::getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur < nofile.rlim_max) {
    nofile.rlim_cur = nofile.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &nofile);
  }
  try {
    Hollin::CAgent::blockSignals();
    Zub::Ptr<Agent::FlowExportAgent> agent(new Agent::FlowExportAgent(opt));
    agent->start();
    // Under systemd (Type=notify): started means the configuration is applied, so a
    // reload or a dependent unit never finds the daemon half-started.
    ::sd_notifyf(0, "READY=1\nSTATUS=running %s",
                 opt.configFile.empty() ? "the embedded default" : opt.configFile.c_str());
    std::fprintf(stderr,
                 "flowexportd: running %s; statistics in shared memory %s; control socket %s; "
                 "SIGHUP re-reads the configuration, SIGTERM or Ctrl-C stops\n",
                 opt.configFile.empty() ? "the embedded default configuration (collector "
                                          "127.0.0.1:4739)"
                                        : opt.configFile.c_str(),
                 opt.statsName.c_str(),
                 opt.controlSocket.empty() ? "(none)" : opt.controlSocket.c_str());
    agent->run();
  } catch (const Agent::ConfigError& e) {
    std::fprintf(stderr, "flowexportd: configuration refused: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "flowexportd: %s\n", e.what());
    return 1;
  }
  if (toSyslog) ::closelog();
  return 0;
}

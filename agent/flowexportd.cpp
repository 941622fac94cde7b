// flowexportd: the flow-export daemon.
//
//   flowexportd                      run the embedded default configuration
//   flowexportd --config FILE        run FILE, re-read on change and on SIGHUP
//   flowexportd --check --config FILE   validate FILE and exit (0 valid, 1 refused)
//
// Operator log messages go to stderr (a terminal) or syslog (a service); --trace turns
// on traces per facility (FtConfig, FtExport, Agent, Orrin, Nelo, Ipfix, ...).

#include <getopt.h>
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
               "                         default runs: this host's links, sampled one in 100,\n"
               "                         exported to 127.0.0.1:4739\n"
               "  --state-file FILE      where tracker ids are kept across restarts\n"
               "                         (default %s; '' to keep none)\n"
               "  --stats-name NAME      shared-memory name of the statistics (default %s)\n"
               "  --control-socket PATH  control socket for flowexportctl (default %s)\n"
               "  --control-group GROUP  group allowed to use the control socket (else 0600)\n"
               "  --log stderr|syslog|both  where operator log messages go (default stderr; a\n"
               "                         service runs with --log syslog)\n"
               "  --trace FACILITY/LEVELS  switch traces on, e.g. FtExport/0-5 or '*/1'\n"
               "  --check                validate the configuration (--config FILE, or the\n"
               "                         embedded default) and exit: 0 valid, 1 refused\n"
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
  bool check = false;
  static const option longOptions[] = {{"config", required_argument, nullptr, 'c'},
                                       {"state-file", required_argument, nullptr, 's'},
                                       {"stats-name", required_argument, nullptr, 'n'},
                                       {"control-socket", required_argument, nullptr, 'S'},
                                       {"control-group", required_argument, nullptr, 'g'},
                                       {"log", required_argument, nullptr, 'l'},
                                       {"trace", required_argument, nullptr, 't'},
                                       {"check", no_argument, nullptr, 'k'},
                                       {"default-config", no_argument, nullptr, 'd'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {nullptr, 0, nullptr, 0}};
  for (int c; (c = ::getopt_long(argc, argv, "h", longOptions, nullptr)) != -1;) {
    switch (c) {
      case 'c':
        opt.configFile = optarg;
        break;
      case 's':
        opt.stateFile = optarg;
        break;
      case 'n':
        opt.statsName = optarg;
        break;
      case 'S':
        opt.controlSocket = optarg;
        break;
      case 'g': {
        struct group* gr = ::getgrnam(optarg);
        if (!gr) {
          std::fprintf(stderr, "flowexportd: no group named %s\n", optarg);
          return 2;
        }
        opt.controlGroup = gr->gr_gid;
        break;
      }
      case 'l':
        logMode = optarg;
        if (logMode != "stderr" && logMode != "syslog" && logMode != "both") {
          std::fprintf(stderr, "flowexportd: --log takes stderr, syslog or both\n");
          return 2;
        }
        break;
      case 't': {
        std::string error;
        if (!Zub::Glint::configure(optarg, &error)) {
          std::fprintf(stderr, "flowexportd: --trace: %s\n", error.c_str());
          return 2;
        }
        break;
      }
      case 'k':
        check = true;
        break;
      case 'd':
        std::fputs(Agent::embeddedDefaultConfig().c_str(), stdout);
        return 0;
      case 'h':
        usage(stdout);
        return 0;
      case 'V':
        std::printf("flowexportd %s\n", FLOWEXPORT_VERSION);
        return 0;
      default:  // getopt_long said what it did not understand
        usage(stderr);
        return 2;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "flowexportd: unexpected argument %s\n", argv[optind]);
    usage(stderr);
    return 2;
  }
  if (check) {
    // The file is read and validated as a reload would, and nothing else is touched.
    try {
      if (opt.configFile.empty()) {
        Agent::parseConfig(Agent::embeddedDefaultConfig(), "(embedded default)");
      } else {
        Agent::loadConfigFile(opt.configFile);
      }
    } catch (const Agent::ConfigError& e) {
      std::fprintf(stderr, "flowexportd: configuration refused: %s\n", e.what());
      return 1;
    }
    std::printf("flowexportd: %s is valid\n",
                opt.configFile.empty() ? "the embedded default" : opt.configFile.c_str());
    return 0;
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

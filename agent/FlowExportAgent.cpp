#include "agent/FlowExportAgent.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/zub/Clock.h"
#include "platform/zub/Glint.h"

namespace Agent {

namespace {
Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Agent");
  return f;
}
constexpr const char* kFacility = "FLOWEXPORT";
}  // namespace

const Zub::LogHandle FLOWEXPORT_CONFIG_LOADED(
    "FLOWEXPORT_CONFIG_LOADED", 6, "Configuration %s applied.",
    "The agent read its configuration file and applied the differences.", Zub::NoActionRequired,
    0.0, 1.0, kFacility);
const Zub::LogHandle FLOWEXPORT_CONFIG_UNCHANGED(
    "FLOWEXPORT_CONFIG_UNCHANGED", 6, "Configuration %s is unchanged; nothing to apply.",
    "The configuration file was read again and holds what the agent runs on.",
    Zub::NoActionRequired, 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWEXPORT_KERNEL_STATUS_FAILED(
    "FLOWEXPORT_KERNEL_STATUS_FAILED", 3,
    "Cannot follow the kernel's interfaces (%s); export goes on with the last known status. "
    "Retrying in %s s.",
    "The agent could not open or read its rtnetlink socket.",
    "Check that the agent may open netlink sockets (RestrictAddressFamilies= must allow "
    "AF_NETLINK).",
    60.0, 1.0, kFacility);
const Zub::LogHandle FLOWEXPORT_CONFIG_REFUSED(
    "FLOWEXPORT_CONFIG_REFUSED", 3, "Configuration refused: %s",
    "The configuration file could not be read or holds a value out of range; the agent "
    "keeps running on its last good configuration.",
    "Correct the file at the line and field named; the agent reads it again when it is "
    "saved or on SIGHUP.",
    0.0, 1.0, kFacility);
const Zub::LogHandle FLOWEXPORT_STATE_ERROR(
    "FLOWEXPORT_STATE_ERROR", 4, "Tracker id state file: %s",
    "The file that keeps each tracker's observation domain id across restarts could not be "
    "written, or held lines that were dropped (damaged, or edited by hand); the trackers "
    "concerned get new ids.",
    "Check that the state directory exists and is writable, and do not edit the file.", 60.0, 1.0,
    kFacility);

const Zub::LogHandle FLOWEXPORT_INTERFACE_MISSING(
    "FLOWEXPORT_INTERFACE_MISSING", 4,
    "Interface %s is tracked by flow tracker %s but does not exist; sampling starts when it "
    "appears.",
    "The configuration binds an interface that the platform (the kernel, or the file's "
    "platform section) does not have.",
    "Check the name (ip link); nothing needs doing if the link is created later.", 0.0, 1.0,
    kFacility);
const Zub::LogHandle FLOWEXPORT_INTERFACE_UNTRACKABLE(
    "FLOWEXPORT_INTERFACE_UNTRACKABLE", 4,
    "Interface %s is tracked by flow tracker %s but cannot be sampled: only Ethernet links "
    "and port-channels (bonds, teams) are.",
    "The configuration binds an interface such as a loopback, bridge, VRF device or tunnel.",
    "Track the Ethernet links or bonds that carry the traffic instead.", 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWEXPORT_INTERFACE_APPEARED(
    "FLOWEXPORT_INTERFACE_APPEARED", 5,
    "Interface %s, tracked by flow tracker %s, now exists; it is sampled while it is up.",
    "An interface that the configuration binds and that did not exist has appeared.",
    Zub::NoActionRequired, 0.0, 1.0, kFacility);

FlowExportAgent::FlowExportAgent(AgentOptions options) : options_(std::move(options)) {
  // One daemon per statistics name and per control socket: a second one stops here,
  // before it could replace the first one's table or socket.
  statsLock_ = std::make_unique<InstanceLock>(InstanceLock::forStatsName(options_.statsName),
                                              "statistics name " + options_.statsName);
  if (!options_.controlSocket.empty()) {
    controlLock_ =
        std::make_unique<InstanceLock>(InstanceLock::forControlSocket(options_.controlSocket),
                                       "control socket " + options_.controlSocket);
  }
  stats_ = Stova::Ipfix::CollectorStatistics::createShared(options_.statsName);
  if (!options_.stateFile.empty()) stateFile_ = std::make_unique<FtIdStateFile>(options_.stateFile);
}

// The members go in reverse order of declaration: tasks and the state-file subscription,
// then the reactors (each deletes what it wrote, in whatever order they go), then the
// control socket, the statistics table and the entities.
FlowExportAgent::~FlowExportAgent() {
  if (inotifyFd_ >= 0) {
    scheduler().fdDel(inotifyFd_);
    ::close(inotifyFd_);
  }
  if (!stats_->segment().replaced()) stats_->segment().unlink();
}

void FlowExportAgent::start() {
  if (!options_.configFile.empty()) appliedText_ = readConfigFile(options_.configFile);
  const AgentConfig cfg = options_.configFile.empty()
                              ? parseConfig(embeddedDefaultConfig(), "(embedded default)")
                              : parseConfig(appliedText_, options_.configFile);
  restoreFtIds_();
  ringKiB_ = cfg.ringKiB;
  applyPlatformFrom_(cfg);
  applyFlowTracking_(cfg);

  // The top-level reactors may be created in any order. The one ordering that matters
  // between them, a collector's information (FlowTrackingInfoSm) created inside the
  // notification of the collector itself, which the template exporters also watch, is
  // handled by the template exporters: a collector gets the templates once, when it
  // becomes complete, whichever of the two notifications it hears first.
  ipfixInitSm_ = Ipfix::ipfixInitSmFactory();
  statusPublisherSm_ = Zub::makeReactor<SwStatusPublisherSm>(hwConfig_, hwStatus_,
                                                             ipfixInitSm_->elementIdCollection());
  flowTrackingInfoSm_ =
      FlowTracking::flowTrackingInfoSmFactory(hwConfig_, info_, scheduler(), stats_.get());
  templateSm_ = FlowTracking::templateSmFactory(config_, configReq_, hwConfig_, hwStatus_, info_,
                                                stats_.get(), scheduler());
  optionsDataManagerSm_ = FlowTracking::optionsDataManagerSmFactory(
      hwConfig_, hwStatus_, info_, status_.intfIndexMap, status_.vrfIdMap, scheduler());
  configSm_ =
      flowExportConfigSmFactory(config_, agentDir_, hwConfig_, status_.ethPhy, status_.ethLag,
                                status_.ip, status_.ip6, status_.vrfs, status_.allIntf);
  names_ = std::make_shared<FlowTracking::NameResolver>(
      std::make_shared<FlowTracking::SystemResolver>(), &scheduler());
  configSm_->namesIs(names_);

  if (stateFile_) {
    saveTask_ = new Orrin::Task(scheduler(), "FtIdStateSave", 2, [this] { saveFtIds_(); });
    stateSubs_.add(hwConfig_->hwFtConfigSignal().connect(
        nullptr, [this](const Zub::Name&) { saveTask_->schedule(); }));
  }
  configSm_->handleStartup();
  if (stateFile_) saveTask_->schedule();
  if (!options_.controlSocket.empty()) {
    control_ = std::make_unique<ControlServer>(
        scheduler(), options_.controlSocket, options_.controlGroup,
        [this](const std::vector<std::string>& w) { return handleControl(w); });
  }
  if (!options_.configFile.empty()) watchConfigFile_();
  dataPathIs_(cfg.platformSource == PlatformSource::kernel);
  FLOWEXPORT_CONFIG_LOADED.log(options_.configFile.empty() ? "(embedded default)"
                                                           : options_.configFile);
}

void FlowExportAgent::dataPathIs_(bool on) {
  if (!on) {
    if (dataPathSm_) dataPathSm_->flushAll();
    dataPathSm_ = nullptr;
    routes_.reset();
    return;
  }
  if (dataPathSm_) return;
  routes_ = std::make_unique<FlowTracking::RouteLookup>(
      scheduler(), [this](const FlowTracking::FlowKey& key, uint32_t egressIf) {
        if (dataPathSm_) dataPathSm_->egressIs(key, egressIf);
      });
  std::string error;
  if (!routes_->start(&error)) {
    // Flows still go, without their egress interface.
    GLINT(trace(), 0) << "route lookups: " << error;
    routes_.reset();
  }
  FlowTracking::DataPathSm::Options dataPathOptions;
  dataPathSm_ = Zub::makeReactor<FlowTracking::DataPathSm>(
      hwConfig_, hwStatus_, status_.intfIndexMap, info_,
      [this](const Nelo::IntfId& intf) { return vrfIdOf_(intf); },
      [this](const FlowTracking::FlowKey& key) { return routes_ ? routes_->egress(key) : 0; },
      scheduler(), dataPathOptions,
      FlowTracking::packetSocketSources(scheduler(), [this] { return ringKiB_ * 1024; }));
}

uint32_t FlowExportAgent::vrfIdOf_(const Nelo::IntfId& intf) const {
  auto l3 = status_.l3.find(intf);
  if (l3 == status_.l3.end() || !l3->second) return 0;
  for (const auto& [id, name] : status_.vrfIdMap->vrfIdToNameColl()) {
    if (name == l3->second->vrf()) return id;
  }
  return 0;
}

bool FlowExportAgent::reload() {
  if (options_.configFile.empty() || shuttingDown_) return false;
  AgentConfig cfg;
  std::string text;
  try {
    text = readConfigFile(options_.configFile);
    // The same text is the same configuration: a large file is not parsed and compared
    // again for nothing.
    if (text == appliedText_) {
      FLOWEXPORT_CONFIG_UNCHANGED.log(options_.configFile);
      return true;
    }
    cfg = parseConfig(text, options_.configFile);
  } catch (const ConfigError& e) {
    FLOWEXPORT_CONFIG_REFUSED.log(e.what());
    return false;
  }
  GLINT(trace(), 1) << "Applying " << options_.configFile;
  if (cfg.enabled && !config_->enabled()) {
    // Coming back from disabled: the trackers are put in place while still disabled,
    // given the ids the state file kept for them, and only then switched on.
    AgentConfig staged = cfg;
    staged.enabled = false;
    applyFlowTracking_(staged);
    restoreFtIds_();
  }
  applyPlatformFrom_(cfg);
  // Trackers that the file drops (or all, when it disables flow tracking) end their flows
  // in the data path now (reason 4), while their exporters are still there to send them;
  // with a new sampling rate every flow ends now, while collectors still know the rate
  // it was sampled at (they are told the new one as it is applied).
  if (dataPathSm_ && cfg.enabled && config_->enabled() &&
      !(cfg.sampleRate == config_->sampleRate())) {
    dataPathSm_->flushAll();
  }
  if (dataPathSm_) {
    for (const Zub::Name& name : hwConfig_->hwFtConfigColl().keys()) {
      const bool kept =
          cfg.enabled && std::any_of(cfg.trackers.begin(), cfg.trackers.end(),
                                     [&](const TrackerSpec& t) { return t.name == name; });
      if (!kept) dataPathSm_->endFlows(name);
    }
  }
  applyFlowTracking_(cfg);
  if (cfg.ringKiB != ringKiB_) {
    ringKiB_ = cfg.ringKiB;
    if (dataPathSm_) dataPathSm_->reopenSources();
  }
  dataPathIs_(cfg.platformSource == PlatformSource::kernel);
  appliedText_ = std::move(text);
  FLOWEXPORT_CONFIG_LOADED.log(options_.configFile);
  return true;
}

void FlowExportAgent::shutdown() {
  if (shuttingDown_) return;
  shuttingDown_ = true;
  // The ids stay as they were: a restart gives every tracker the same one again.
  stateSubs_.clear();
  if (saveTask_) saveTask_->unschedule();
  // The flows in the data path end now (reason 4), while their exporters still send.
  if (dataPathSm_) dataPathSm_->flushAll();
  config_->enabledIs(false);
  if (configSm_) configSm_->handleShutdown(this);
  exitIs(true);
}

void FlowExportAgent::handleTerminate(int signal) {
  GLINT(trace(), 1) << "signal " << signal << ": shutting down";
  shutdown();
}

void FlowExportAgent::handleHangup() {
  GLINT(trace(), 1) << "SIGHUP: reloading";
  reload();
  // Every collector name is looked up again: an address that moved is followed, and the
  // collectors whose address stayed keep their sequence numbers.
  if (names_) names_->refresh();
}

void FlowExportAgent::flushEntityLog() { std::fflush(stderr); }

std::string FlowExportAgent::handleControl(const std::vector<std::string>& words) {
  if (words.empty()) return "error: empty request";
  if (words[0] == "ping") return "ok";
  if (words[0] == "show") return show_(words);
  if (words[0] == "clear-counters") {
    if (words.size() > 3) return "error: clear-counters takes at most a tracker and an exporter";
    FlowTracking::ClearCountersReq req;
    req.tracker = words.size() > 1 ? words[1] : "";
    req.exporter = words.size() > 2 ? words[2] : "";
    // Clearing what does not exist clears nothing: say so rather than "ok".
    auto ft = req.tracker.empty() ? nullptr : config_->flowTrackerConfig(req.tracker);
    if (!req.tracker.empty() && !ft) return "error: no tracker named " + req.tracker;
    if (!req.exporter.empty() && !ft->expConfig(req.exporter)) {
      return "error: tracker " + req.tracker + " has no exporter named " + req.exporter;
    }
    req.reqTime = Zub::System::now();
    configReq_->clearCountersIs(req);
    return "ok";
  }
  return "error: unknown request '" + words[0] + "'";
}

void FlowExportAgent::restoreFtIds_() {
  if (!stateFile_) return;
  std::string warning;
  for (const auto& [name, id] : stateFile_->load(&warning)) {
    // The configuration reactor keeps the id of a tracker it finds in the hardware
    // configuration, and removes the entries of trackers that are gone.
    hwConfig_->hwFtConfigIs(name, FlowTracking::FtId(id));
    GLINT(trace(), 1) << "Restored FtId " << id << " for " << name;
  }
  if (!warning.empty()) FLOWEXPORT_STATE_ERROR.log(warning);
}

void FlowExportAgent::saveFtIds_() {
  // While flow tracking is disabled the trackers are gone from the hardware
  // configuration but keep their ids: the file is left as it is and read again when
  // tracking comes back. A file that could not be read was reported at start and is
  // left alone too.
  if (!config_->enabled() || !stateFile_->readable()) return;
  std::map<std::string, uint32_t> ids;
  for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) ids[name] = ft->ftId().value();
  std::string error;
  if (!stateFile_->save(ids, &error)) FLOWEXPORT_STATE_ERROR.log(error);
}

void FlowExportAgent::applyPlatformFrom_(const AgentConfig& cfg) {
  kernelNames_ = cfg.kernelNames;
  if (cfg.platformSource == PlatformSource::file) {
    kernel_.reset();
    if (kernelRetry_) kernelRetry_->unschedule();
    applyPlatform(status_, cfg);
    return;
  }
  if (kernel_) {
    applyKernel_();
  } else {
    startKernel_();
  }
}

void FlowExportAgent::startKernel_() {
  if (!kernelRetry_) {
    kernelRetry_ = new Orrin::TimerTask(scheduler(), "KernelStatusRetry", 2, [this] {
      if (kernel_ && !kernel_->broken()) return;
      kernel_.reset();
      startKernel_();
    });
  }
  kernel_ = std::make_unique<KernelStatusSource>(
      scheduler(), [this](const KernelStatus&) { applyKernel_(); },
      [this](const std::string& error) {
        // The broken source keeps the last known status until the retry replaces it.
        FLOWEXPORT_KERNEL_STATUS_FAILED.log(error, "5");
        kernelRetry_->scheduleTaskAfter(std::chrono::seconds(5));
      });
  std::string error;
  if (!kernel_->start(&error)) {
    kernel_.reset();
    FLOWEXPORT_KERNEL_STATUS_FAILED.log(error, "5");
    kernelRetry_->scheduleTaskAfter(std::chrono::seconds(5));
    return;
  }
  applyKernel_();
}

void FlowExportAgent::applyKernel_() {
  AgentConfig platform;
  kernel_->status().platform(kernelNames_, platform);
  applyPlatform(status_, platform);
  if (dataPathSm_) dataPathSm_->vrfsChanged();
  // Links come and go: "*" follows them, and bound names that appear are said so.
  if (bindingsWritten_) {
    applyInterfaceBindings(config_, expandInterfaceBindings(status_, *bindingsWritten_));
    reportBindings_();
  }
}

void FlowExportAgent::applyFlowTracking_(AgentConfig cfg) {
  bindingsWritten_ = cfg.interfaceTracker;
  cfg.interfaceTracker = expandInterfaceBindings(status_, cfg.interfaceTracker);
  applyFlowTracking(config_, cfg);
  reportBindings_();
}

void FlowExportAgent::reportBindings_() {
  std::map<std::string, BindingState> now;
  for (const auto& [name, tracker] : *bindingsWritten_) {
    if (name == "*") continue;
    const Nelo::IntfId id(name);
    BindingState state = BindingState::trackable;
    if (!status_.allIntf->intfStatus(id)) {
      state = BindingState::missing;
    } else if (!status_.ethPhy->intfStatus(id) && !status_.ethLag->intfStatus(id)) {
      state = BindingState::untrackable;
    }
    now[name] = state;
    auto before = bindingStates_.find(name);
    const BindingState was =
        before == bindingStates_.end() ? BindingState::trackable : before->second;
    if (state == was) continue;
    if (state == BindingState::missing) {
      FLOWEXPORT_INTERFACE_MISSING.log(name, tracker);
    } else if (state == BindingState::untrackable) {
      FLOWEXPORT_INTERFACE_UNTRACKABLE.log(name, tracker);
    } else if (was == BindingState::missing) {
      FLOWEXPORT_INTERFACE_APPEARED.log(name, tracker);
    }
  }
  bindingStates_ = std::move(now);
}

void FlowExportAgent::watchConfigFile_() {
  inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd_ < 0) {
    GLINT(trace(), 0) << "cannot watch " << options_.configFile << ": " << std::strerror(errno)
                      << "; reload with SIGHUP";
    return;
  }
  reloadTask_ = new Orrin::TimerTask(scheduler(), "ConfigReload", 2, [this] {
    // A directory being replaced may not be back yet: try again shortly.
    if (!watchConfigDirs_()) {
      reloadTask_->scheduleTaskAfter(std::chrono::seconds(1));
      return;
    }
    reload();
  });
  scheduler().fdIs(inotifyFd_, EPOLLIN, [this](uint32_t) { handleInotify_(); });
  watchConfigDirs_();
}

bool FlowExportAgent::watchConfigDirs_() {
  // The directories are watched, not the file: editors replace files by renaming a new
  // one over them. A symbolic link is followed to the file it names, whose directory is
  // watched too; a directory that is deleted or moved away is watched again once back.
  namespace fs = std::filesystem;
  std::vector<fs::path> paths = {fs::path(options_.configFile)};
  std::error_code ec;
  const fs::path target = fs::canonical(paths[0], ec);
  if (!ec && target != fs::absolute(paths[0], ec)) paths.push_back(target);
  const uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
  configWatches_.clear();
  bool ok = true;
  for (const fs::path& p : paths) {
    std::string dir = p.parent_path().string();
    if (dir.empty()) dir = ".";
    const int wd = ::inotify_add_watch(inotifyFd_, dir.c_str(), mask);
    if (wd < 0) {
      GLINT(trace(), 0) << "cannot watch " << dir << ": " << std::strerror(errno);
      ok = false;
      continue;
    }
    configWatches_.push_back({wd, p.filename().string()});
  }
  return ok;
}

void FlowExportAgent::handleInotify_() {
  alignas(inotify_event) char buf[4096];
  bool ours = false;
  for (;;) {
    ssize_t n = ::read(inotifyFd_, buf, sizeof buf);
    if (n <= 0) break;
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      if (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) ours = true;
      for (const ConfigWatch& w : configWatches_) {
        if (w.wd == ev->wd && ev->len && w.name == ev->name) ours = true;
      }
      p += sizeof(inotify_event) + ev->len;
    }
  }
  // Several events come with one save: read once they have settled.
  if (ours) reloadTask_->scheduleTaskLowestDelay(std::chrono::milliseconds(200));
}

}  // namespace Agent

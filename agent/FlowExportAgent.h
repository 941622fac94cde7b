#pragma once
// The flow-export agent: owns every entity, the scheduler and the statistics table,
// feeds the configuration and platform status from its configuration file, runs the
// configuration, endpoint and template reactors and the software status publisher,
// keeps tracker ids across restarts, answers the control socket, and shuts down on
// SIGTERM / SIGINT.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/AgentConfig.h"
#include "agent/ConfigApplier.h"
#include "agent/ControlServer.h"
#include "agent/FlowExportConfigSm.h"
#include "agent/FtIdStateFile.h"
#include "agent/InstanceLock.h"
#include "agent/KernelStatusSource.h"
#include "agent/SwStatusPublisherSm.h"
#include "datapath/DataPathSm.h"
#include "datapath/RouteLookup.h"
#include "export/FlowTrackerTemplateSm.h"
#include "ipfix/IpfixSm.h"
#include "options/OptionsDataManagerSm.h"
#include "platform/hollin/CAgent.h"
#include "platform/zub/LogHandle.h"

namespace Agent {

extern const Zub::LogHandle FLOWEXPORT_CONFIG_LOADED;
extern const Zub::LogHandle FLOWEXPORT_CONFIG_REFUSED;
extern const Zub::LogHandle FLOWEXPORT_STATE_ERROR;

struct AgentOptions {
  std::string configFile;  // empty: the embedded default
  std::string stateFile;   // empty: tracker ids are not kept
  std::string statsName = Stova::Ipfix::CollectorStatistics::kShmName;
  std::string controlSocket;  // empty: no control socket
  std::optional<gid_t> controlGroup;
};

class FlowExportAgent : public Hollin::CAgent {
 public:
  explicit FlowExportAgent(AgentOptions options);
  ~FlowExportAgent() override;

  // Loads the configuration (raises ConfigError when the first load fails), restores
  // tracker ids, applies the configuration, creates the reactors and starts.
  void start();
  // Re-reads the file and applies its differences; a file that fails to parse or
  // validate is refused with a log message and the agent keeps its configuration.
  bool reload();
  // Disables flow tracking, logs it inactive, removes the agent and ends the loop.
  void shutdown();
  // Control requests: "ping", "clear-counters [tracker [exporter]]".
  std::string handleControl(const std::vector<std::string>& words);

  void flushEntityLog() override;

  const Zub::Ptr<FlowTracking::Config>& config() const { return config_; }
  const Zub::Ptr<HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
  const Zub::Ptr<HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
  const Zub::Ptr<FlowTracking::FlowTrackingInfo>& flowTrackingInfo() const { return info_; }
  Stova::Ipfix::CollectorStatistics& stats() const { return *stats_; }
  const AgentOptions& options() const { return options_; }

 protected:
  void handleTerminate(int signal) override;
  void handleHangup() override;

 private:
  void restoreFtIds_();
  void saveFtIds_();
  // The platform section from the file, or from the kernel when the file says so.
  void applyPlatformFrom_(const AgentConfig& cfg);
  void startKernel_();
  void applyKernel_();
  // The views of `flowexportctl show` (AgentViews.cpp): "show WHAT FORMAT [TOP [SORT]]".
  std::string show_(const std::vector<std::string>& words);
  std::string showFlows_(const std::string& format, size_t top, bool byPackets);
  std::string showTrackers_(const std::string& format);
  std::string showExporters_(const std::string& format);
  std::string showDataPath_(const std::string& format);
  struct TrackedIntf {
    std::string name, kernelName, state;
  };
  std::map<Zub::Name, std::vector<TrackedIntf>> trackedIntfs_();
  std::string intfName_(uint32_t index) const;
  std::string kernelName_(const Nelo::IntfId& intf) const;
  // The file's flow-tracking section, its interface bindings expanded over the platform.
  void applyFlowTracking_(AgentConfig cfg);
  // Says which bound interfaces do not exist or cannot be sampled, and which appeared,
  // once per change.
  void reportBindings_();
  void watchConfigFile_();
  bool watchConfigDirs_();
  void handleInotify_();

  AgentOptions options_;
  Zub::Ptr<FlowTracking::Config> config_{new FlowTracking::Config("/flowtracking/config")};
  Zub::Ptr<FlowTracking::ConfigReq> configReq_{
      new FlowTracking::ConfigReq("/flowtracking/configReq")};
  Zub::Ptr<Zub::Dir> agentDir_{new Zub::Dir("/agent/activeAgentDir")};
  Zub::Ptr<HwFlowTracking::Config> hwConfig_{
      new HwFlowTracking::Config("/hardware/flowtracking/config")};
  Zub::Ptr<HwFlowTracking::Status> hwStatus_{
      new HwFlowTracking::Status("/hardware/flowtracking/status")};
  Zub::Ptr<FlowTracking::FlowTrackingInfo> info_{
      new FlowTracking::FlowTrackingInfo("/flowtracking/info")};
  StatusEntities status_;
  // Taken before the table and the socket they stand for are touched.
  std::unique_ptr<InstanceLock> statsLock_;
  std::unique_ptr<InstanceLock> controlLock_;
  std::unique_ptr<Stova::Ipfix::CollectorStatistics> stats_;
  std::unique_ptr<FtIdStateFile> stateFile_;
  std::unique_ptr<ControlServer> control_;
  // The kernel as the status source (platform source: kernel), its names map, and the
  // retry after it could not be opened.
  std::unique_ptr<KernelStatusSource> kernel_;
  // The software data path (with the kernel as the status source): the flows of the
  // tracked interfaces, and the route lookup that names their egress interfaces.
  void dataPathIs_(bool on);
  uint32_t vrfIdOf_(const Nelo::IntfId& intf) const;
  std::unique_ptr<FlowTracking::RouteLookup> routes_;
  Zub::Ptr<FlowTracking::DataPathSm> dataPathSm_;
  std::map<std::string, std::string> kernelNames_;
  uint32_t ringKiB_ = kDefaultRingKiB;
  // The interface bindings as the file wrote them (once applied), and how each bound
  // name stood when last reported.
  std::optional<std::map<std::string, std::string>> bindingsWritten_;
  enum class BindingState { trackable, missing, untrackable };
  std::map<std::string, BindingState> bindingStates_;
  Zub::Ptr<Orrin::TimerTask> kernelRetry_;

  // Collector names, looked up in the background; outlives the reactors that watch it.
  std::shared_ptr<FlowTracking::NameResolver> names_;
  Zub::Ptr<Ipfix::IpfixInitSm> ipfixInitSm_;
  Zub::Ptr<FlowTracking::ConfigSmBase> configSm_;
  Zub::Ptr<FlowTracking::FlowTrackingInfoSm> flowTrackingInfoSm_;
  Zub::Ptr<FlowTracking::TemplateSm> templateSm_;
  Zub::Ptr<SwStatusPublisherSm> statusPublisherSm_;
  Zub::Ptr<FlowTracking::OptionsDataManagerSm> optionsDataManagerSm_;

  Zub::Subscriptions stateSubs_;
  Zub::Ptr<Orrin::Task> saveTask_;
  Zub::Ptr<Orrin::TimerTask> reloadTask_;
  int inotifyFd_ = -1;
  // A watched directory and the name in it that is (or leads to) the configuration.
  struct ConfigWatch {
    int wd;
    std::string name;
  };
  std::vector<ConfigWatch> configWatches_;
  bool shuttingDown_ = false;
  // The text of the configuration file last applied.
  std::string appliedText_;
};

}  // namespace Agent

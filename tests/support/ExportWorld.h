#pragma once
// The export side on a manual clock: hardware configuration and status, run-time export
// state, statistics in heap memory, the endpoint and template reactors, and either a
// recorder in place of the UDP endpoints or real endpoints.

#include <memory>
#include <string>
#include <vector>

#include "export/FlowTrackerTemplateSm.h"
#include "platform/zub/Clock.h"

namespace TestSupport {

// One datagram handed to an endpoint.
struct SentPkt {
  std::string pam;  // endpoint name
  std::string src;
  std::string dst;  // "addr:port" / "[addr]:port"
  uint8_t dscp = 0;
  std::string bytes;
};

// Endpoints that record instead of sending; shared by all endpoints of a world.
class PamRecorder {
 public:
  FlowTracking::PamFactory factory();
  std::vector<SentPkt> sent;
  std::vector<std::string> events;  // "open udpPam4-T-E", "close udpPam4-T-E"
  bool failOpen = false;            // modeIs(on) raises ErrnoException
  int failSend = 0;                 // non-zero: every send is refused with this errno
  uint16_t failSet = 0;             // non-zero: messages of this (first) set are refused
  std::vector<SentPkt> take() {
    std::vector<SentPkt> s;
    s.swap(sent);
    return s;
  }
  // Takes everything sent; returns the messages whose (first) set has `setId`: 2 data
  // templates, 3 options templates, 256 and above options or flow data.
  std::vector<SentPkt> take(uint16_t setId);
  // Messages sent so far whose set has `setId`.
  size_t count(uint16_t setId) const;
};

struct FieldSpec {
  Ipfix::RecordType type;
  uint32_t len;
  bool enterprise = false;
  bool key = false;
};

struct ExportWorld {
  // With `hwConfig`, the world shares the configuration reactors' hardware configuration;
  // with `statsShmName`, the statistics live in that POSIX shared-memory object.
  explicit ExportWorld(bool realEndpoints = false,
                       Zub::Ptr<HwFlowTracking::Config> hwConfig = nullptr,
                       const std::string& statsShmName = "");
  ~ExportWorld();

  Zub::ManualClock clock;
  Zub::ScopedClock scopedClock{clock};
  Orrin::TaskScheduler sched{clock};
  Zub::Ptr<FlowTracking::Config> config;
  Zub::Ptr<FlowTracking::ConfigReq> configReq;
  Zub::Ptr<HwFlowTracking::Config> hwConfig;
  Zub::Ptr<HwFlowTracking::Status> hwStatus;
  Zub::Ptr<FlowTracking::FlowTrackingInfo> info;
  std::unique_ptr<Stova::Ipfix::CollectorStatistics> stats;
  PamRecorder recorder;
  bool realEndpoints;
  Zub::Ptr<FlowTracking::FlowTrackingInfoSm> infoSm;
  Zub::Ptr<FlowTracking::TemplateSm> templateSm;

  // Creates the reactors (the endpoint reactor first unless `templatesFirst`) and runs
  // what is due.
  void start(bool templatesFirst = false);
  void run() { sched.runReady(); }
  void advance(double seconds) {
    sched.advance(std::chrono::nanoseconds(Zub::nsFromSeconds(seconds)));
  }

  // Hardware configuration written directly (no configuration reactors).
  Zub::Ptr<HwFlowTracking::ExporterConfig> exporter(const std::string& tracker, uint32_t ftId,
                                                    const std::string& exporter,
                                                    const std::string& src4,
                                                    const std::string& src6 = "::");
  void collector4(const std::string& tracker, const std::string& exporter, const std::string& name,
                  const std::string& addr, uint16_t port);
  void collector6(const std::string& tracker, const std::string& exporter, const std::string& name,
                  const std::string& addr, uint16_t port);
  // A flow group's template in the hardware status; genId starts at 1.
  Zub::Ptr<HwFlowTracking::FgStatus> flowGroup(const std::string& tracker, uint16_t templateId,
                                               const std::vector<FieldSpec>& fields);

  FlowTracking::FtExporterSm* ftExporterSm(const std::string& tracker,
                                           const std::string& exporter) const;
  Zub::Ptr<FlowTracking::CollectorInfo> collInfo(const std::string& tracker,
                                                 const std::string& exporter,
                                                 const std::string& collector) const;
};

}  // namespace TestSupport

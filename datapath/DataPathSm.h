#pragma once
// The software data path: samples of the tracked interfaces' received packets, one flow
// cache per tracker, and the ended flows as data records of the tracker's templates 261
// (IPv4) and 262 (IPv6), handed to the tracker's exporters through its export state
// (FlowTrackerInfo::flowRecords); records that reach no collector are counted by reason.
//
// - An interface tracked by a tracker gets a sample source at the hardware's sample
//   rate, bound to the interface's index (the kernel's, with the kernel as the status
//   source).
// - A sample is parsed, keyed (addresses, protocol, ports, ingress interface and its
//   VRF) and added to its tracker's cache; a new flow asks the route of its packets for
//   the egress interface.
// - A tick ends the flows whose timeouts have passed, at most `batch` per tick: if more
//   are due the next tick comes at once, so the loop is never held.
// - A new sample rate, or the agent stopping, ends every flow (reason 4): no record
//   mixes two rates. A tracker that goes away takes its flows with it.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "config/HwFlowTrackingConfig.h"
#include "config/HwFlowTrackingStatus.h"
#include "datapath/FlowCache.h"
#include "datapath/FlowRecordEncoder.h"
#include "datapath/PacketSocketSource.h"
#include "export/FlowTrackerInfoSm.h"
#include "platform/orrin/TaskScheduler.h"
#include "platform/status/IntfIndexMap.h"
#include "platform/zub/Entity.h"

namespace FlowTracking {

// A parsed sample as its flow's key (on `ingressIf` in VRF `vrfId`) and what it adds.
FlowKey flowKeyOf(const PacketInfo& info, uint32_t ingressIf, uint32_t vrfId);
FlowSample flowSampleOf(const PacketInfo& info, int64_t wallNs);

// The egress of a flow when known (0 otherwise; the cache is told later).
using EgressOf = std::function<uint32_t(const FlowKey&)>;

// Adds a batch of one interface's samples to its tracker's cache at `nowNs`: each is
// parsed and keyed on `ingressIf` in `vrfId`; a flow it starts takes its egress from
// `egressOf` (when there is one). The batch goes in passes (parse and hash, then the
// records the slots name, then the adds), so that the cache's memory for all of its
// samples is on the way before the first add waits for it. Returns how many samples
// were IP packets that did not parse (truncated, malformed).
size_t addSamples(std::span<const Sample> samples, uint32_t ingressIf, uint32_t vrfId,
                  int64_t nowNs, FlowCache& cache, FlowSink& sink, const EgressOf& egressOf);

class DataPathSm : public Zub::Reactor {
 public:
  struct Options {
    uint32_t cacheCapacity = 0;  // flows per tracker; 0: the tracker's flow-cache setting
    size_t batch = 2048;         // flows ended per tick at most
    std::chrono::milliseconds tick{250};
    uint32_t snapLen = 192;
    std::chrono::seconds retry{30};  // a source that could not start is tried again
  };
  using SourceFactory = std::function<std::unique_ptr<SampleSource>(
      uint32_t ifindex, uint32_t rate, uint32_t snapLen, SampleSource::Handler handler)>;
  // The VRF id of an interface (0 for the default VRF or none).
  using VrfIdOf = std::function<uint32_t(const Nelo::IntfId&)>;
  // The egress of a flow when known (0 otherwise; `egressIs` tells it later).
  using EgressOf = FlowTracking::EgressOf;
  // Ended flows that reached no collector, by reason.
  struct Dropped {
    uint64_t noExporter = 0;        // the tracker has no exporter that could send
    uint64_t noReadyCollector = 0;  // no collector of its exporters has the data templates
    uint64_t oversized = 0;         // larger than a message of an exporter can carry
    uint64_t total() const { return noExporter + noReadyCollector + oversized; }
  };

  DataPathSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
             const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
             const Zub::Ptr<IntfIndexMap>& intfIndexMap,
             const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, VrfIdOf vrfIdOf, EgressOf egressOf,
             Orrin::TaskScheduler& scheduler, Options options, SourceFactory sourceFactory);
  void handleInitialized() override;
  void handleDestroyed() override;

  // The route lookup answered for a new flow.
  void egressIs(const FlowKey& key, uint32_t egressIf);
  // Ends every flow now (the agent stops).
  void flushAll();
  // Ends the flows of one tracker now (it is about to go, its exporters still send).
  void endFlows(const Zub::Name& tracker);
  // Closes every sample source and opens it again (with the factory's new ring size);
  // the flows in the caches stay.
  void reopenSources();
  // The platform changed: each tracked interface's VRF is read again (new flows of an
  // interface that moved are keyed with its new VRF).
  void vrfsChanged();

  void handleTracker(const Zub::Name& name);
  void handleIntf(const Nelo::IntfId& intf);
  void handleSampleRate();
  void handleTick();

  // Counters.
  uint64_t samples() const { return samples_; }
  uint64_t parseErrors() const { return parseErrors_; }
  uint64_t unencoded() const { return unencoded_; }
  const Dropped& dropped() const { return dropped_; }
  uint64_t ringDrops();
  size_t flows(const Zub::Name& tracker) const;
  size_t capacity(const Zub::Name& tracker) const;
  size_t sources() const;
  // A tracked interface as the views show it.
  struct PortView {
    Nelo::IntfId intf;
    Zub::Name tracker;
    uint32_t ifindex = 0;
    bool sampling = false;  // its packet socket is open
    uint64_t samples = 0, parseErrors = 0, ringDrops = 0;
  };
  std::vector<PortView> ports();
  // Calls `f` with each flow of every tracker, until it returns false.
  void forEachFlow(const std::function<bool(const Zub::Name&, const FlowRecord&)>& f) const;
  const Zub::Ptr<Orrin::TimerTask>& tickTask() const { return tick_; }

 private:
  struct Tracker;
  struct Port {
    Zub::Name tracker;
    uint32_t ifindex = 0;
    uint32_t vrfId = 0;
    std::unique_ptr<SampleSource> source;
    bool failed = false;  // the last start failed (logged once)
    uint64_t samples = 0;
    uint64_t parseErrors = 0;
    uint64_t ringDrops = 0;  // of the sources it had before this one
  };
  class Sink;

  void handleSamples_(const Nelo::IntfId& intf, std::span<const Sample> samples);
  void startPort_(const Nelo::IntfId& intf, Port& port);
  void publish_(Tracker& t);
  Tracker* tracker_(const Zub::Name& name);
  void scheduleTick_(bool now);

  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::Status> hwStatus_;
  Zub::Ptr<IntfIndexMap> intfIndexMap_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  VrfIdOf vrfIdOf_;
  EgressOf egressOf_;
  Orrin::TaskScheduler& scheduler_;
  Options options_;
  SourceFactory sourceFactory_;
  std::map<Zub::Name, std::unique_ptr<Tracker>> trackers_;
  Zub::KeyedSubscriptions<Zub::Name> trackerSubs_;
  std::map<Nelo::IntfId, Port> ports_;
  Zub::Ptr<Orrin::TimerTask> tick_;
  Zub::Ptr<Orrin::TimerTask> retryTask_;
  uint64_t samples_ = 0;
  uint64_t parseErrors_ = 0;
  uint64_t unencoded_ = 0;
  Dropped dropped_;
  uint64_t ringDropsGone_ = 0;  // of sources that no longer exist
};

// Packet sockets whose rings are `ringBytes()` large (taken when each opens), in blocks
// of the default size.
DataPathSm::SourceFactory packetSocketSources(Orrin::TaskScheduler& scheduler,
                                              std::function<uint32_t()> ringBytes);

}  // namespace FlowTracking

#include "datapath/DataPathSm.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "platform/zub/Glint.h"
#include "platform/zub/LogHandle.h"

namespace FlowTracking {

namespace {

Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("DataPath");
  return f;
}

const Zub::LogHandle FLOWTRACKING_SAMPLING_FAILED(
    "FLOWTRACKING_SAMPLING_FAILED", 3,
    "Cannot sample interface %s for flow tracker %s (%s); its templates and options are still "
    "sent. Retrying in %s s.",
    "The software data path could not open the packet socket that samples the interface.",
    "Give the agent CAP_NET_RAW (for the service: AmbientCapabilities=CAP_NET_RAW and "
    "CapabilityBoundingSet=CAP_NET_RAW, with AF_PACKET in RestrictAddressFamilies=).",
    60.0, 1.0, "FLOWTRACKING");
const Zub::LogHandle FLOWTRACKING_SAMPLING(
    "FLOWTRACKING_SAMPLING", 6, "Sampling interface %s for flow tracker %s, one packet in %s.",
    "The software data path samples the interface's received packets.", Zub::NoActionRequired, 0.0,
    1.0, "FLOWTRACKING");

// The data template of each family: 261 (IPv4), 262 (IPv6).
TemplateId templateOf(int family) {
  return Constants::reservedTemplateId(family == 0 ? StaticTemplateId::dataTemplateIpv4
                                                   : StaticTemplateId::dataTemplateIpv6);
}

}  // namespace

FlowKey flowKeyOf(const PacketInfo& info, uint32_t ingressIf, uint32_t vrfId) {
  // Made as six whole words and stored as such: the hash and the look-up read it as
  // words at once, and reading words over narrower stores stalls the load.
  uint64_t w[6] = {};
  if (info.ipVersion == 4) {
    uint32_t a;
    std::memcpy(&a, info.src.data(), 4);
    w[0] = a;
    std::memcpy(&a, info.dst.data(), 4);
    w[2] = a;
  } else {
    std::memcpy(&w[0], info.src.data(), 16);
    std::memcpy(&w[2], info.dst.data(), 16);
  }
  FlowKey key;
  static_assert(offsetof(FlowKey, ingressIf) == 32 && offsetof(FlowKey, srcPort) == 40 &&
                offsetof(FlowKey, protocol) == 44 && offsetof(FlowKey, ipVersion) == 45);
  static_assert(std::endian::native == std::endian::little);
  w[4] = ingressIf | uint64_t{vrfId} << 32;
  w[5] = info.srcPort | uint64_t{info.dstPort} << 16 | uint64_t{info.protocol} << 32 |
         uint64_t{info.ipVersion} << 40;
  std::memcpy(&key, w, sizeof w);
  return key;
}

FlowSample flowSampleOf(const PacketInfo& info, int64_t wallNs) {
  FlowSample s;
  s.packets = info.segments;
  s.octets = info.octets;
  s.tos = info.tos;
  s.tcpFlags = info.tcpFlags;
  s.wallMs = wallNs / 1'000'000;
  return s;
}

size_t addSamples(std::span<const Sample> samples, uint32_t ingressIf, uint32_t vrfId,
                  int64_t nowNs, FlowCache& cache, FlowSink& sink, const EgressOf& egressOf) {
  constexpr size_t kBatch = SampleSource::kBatch;
  // Storage for one pass, left uninitialised: each entry is written before it is read.
  union Pass {
    Pass() {}
    FlowKey keys[kBatch];
  } pass;
  union Adds {
    Adds() {}
    FlowSample adds[kBatch];
  } added;
  FlowKey* keys = pass.keys;
  FlowSample* adds = added.adds;
  uint64_t hashes[kBatch];
  size_t refused = 0;
  while (!samples.empty()) {
    const size_t n = std::min(samples.size(), kBatch);
    // Frames are fetched a few samples ahead of the parser.
    constexpr size_t kAhead = 6;
    for (size_t i = 0; i < std::min(n, kAhead); ++i) __builtin_prefetch(samples[i].frame);
    size_t m = 0;
    for (size_t i = 0; i < n; ++i) {
      if (i + kAhead < n) __builtin_prefetch(samples[i + kAhead].frame);
      const Sample& s = samples[i];
      PacketInfo info;
      const ParseResult r = parsePacket(s.frame, s.snapLen, s.wireLen, s.gso, s.vlan, info);
      if (r != ParseResult::ok) {
        if (r != ParseResult::notIp) ++refused;
        continue;
      }
      keys[m] = flowKeyOf(info, ingressIf, vrfId);
      adds[m] = flowSampleOf(info, s.wallNs);
      hashes[m] = cache.hashOf(keys[m]);
      cache.prefetchSlot(hashes[m]);
      ++m;
    }
    for (size_t i = 0; i < m; ++i) cache.prefetchRecord(hashes[i]);
    for (size_t i = 0; i < m; ++i) {
      FlowRecord* started = cache.sample(keys[i], hashes[i], adds[i], nowNs, sink);
      // Only a new flow asks for its route: most flows of sampled traffic have one sample.
      if (started && egressOf) started->egressIf = egressOf(keys[i]);
    }
    samples = samples.subspan(n);
  }
  return refused;
}

struct DataPathSm::Tracker {
  Tracker(const FlowCache::Config& config, const Zub::Ptr<HwFlowTracking::FtConfig>& hw)
      : cache(config), hw(hw) {}
  FlowCache cache;
  Zub::Ptr<HwFlowTracking::FtConfig> hw;
  FlowRecords pending;
  // Per family, the encoder of the published template and the group it was made from:
  // made again only when the template is published anew.
  std::optional<FlowRecordEncoder> encoders[2];
  Zub::Ptr<HwFlowTracking::FgStatus> encodedGroup[2];
};

// Ended flows of one tracker, encoded for the template of their family. A sink lives for
// one batch, tick or flush: each family's template is looked up once in it, not once per
// record.
class DataPathSm::Sink : public FlowSink {
 public:
  Sink(DataPathSm& sm, Tracker& t) : sm_(sm), t_(t) {}
  void flowEnded(const FlowRecord& r, FlowEndReason reason) override {
    const int family = r.key.ipVersion == 4 ? 0 : 1;
    const FlowRecordEncoder* encoder = encoderOf_(family);
    if (!encoder) {
      ++sm_.unencoded_;  // the template is not published (yet): nothing to send it as
      return;
    }
    encoder->encode(
        r, reason,
        t_.pending.append(templateOf(family), static_cast<uint16_t>(encoder->recordLength())));
  }

 private:
  // The encoder of the family's published template (made again only when the template
  // was published anew), null while there is none.
  const FlowRecordEncoder* encoderOf_(int family) {
    if (!looked_[family]) {
      looked_[family] = true;
      auto status = sm_.hwStatus_->hwFtStatus(t_.hw->name());
      auto group = status ? status->hwFgStatus(templateOf(family)) : nullptr;
      if (group && t_.encodedGroup[family] != group) {
        t_.encoders[family].emplace(*group);
        t_.encodedGroup[family] = group;
      }
      encoders_[family] = group ? &*t_.encoders[family] : nullptr;
    }
    return encoders_[family];
  }

  DataPathSm& sm_;
  Tracker& t_;
  bool looked_[2] = {false, false};
  const FlowRecordEncoder* encoders_[2] = {nullptr, nullptr};
};

DataPathSm::DataPathSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                       const Zub::Ptr<IntfIndexMap>& intfIndexMap,
                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, VrfIdOf vrfIdOf,
                       EgressOf egressOf, Orrin::TaskScheduler& scheduler, Options options,
                       SourceFactory sourceFactory)
    : hwConfig_(hwConfig),
      hwStatus_(hwStatus),
      intfIndexMap_(intfIndexMap),
      flowTrackingInfo_(flowTrackingInfo),
      vrfIdOf_(std::move(vrfIdOf)),
      egressOf_(std::move(egressOf)),
      scheduler_(scheduler),
      options_(options),
      sourceFactory_(std::move(sourceFactory)) {
  watch(hwConfig_->hwFtConfigSignal(), [this](const Zub::Name& n) { handleTracker(n); });
  watch(hwConfig_->hwIntfFtConfigSignal(), [this](const Nelo::IntfId& i) { handleIntf(i); });
  watch(hwConfig_->sampleRateSignal(), [this] { handleSampleRate(); });
  watch(intfIndexMap_->intfIndexSignal(), [this](const Nelo::IntfId& i) { handleIntf(i); });
}

void DataPathSm::handleInitialized() {
  tick_ = new Orrin::TimerTask(scheduler_, "DataPathTick", 2, [this] { handleTick(); });
  retryTask_ = new Orrin::TimerTask(scheduler_, "DataPathRetry", 2, [this] {
    for (auto& [intf, port] : ports_) {
      if (port.failed) startPort_(intf, port);
    }
  });
  for (const Zub::Name& name : hwConfig_->hwFtConfigColl().keys()) handleTracker(name);
  for (const Nelo::IntfId& intf : hwConfig_->hwIntfFtConfigColl().keys()) handleIntf(intf);
}

void DataPathSm::handleDestroyed() {
  if (tick_) tick_->unschedule();
  if (retryTask_) retryTask_->unschedule();
  ports_.clear();
}

DataPathSm::Tracker* DataPathSm::tracker_(const Zub::Name& name) {
  auto it = trackers_.find(name);
  return it == trackers_.end() ? nullptr : it->second.get();
}

void DataPathSm::handleTracker(const Zub::Name& name) {
  auto hw = hwConfig_->hwFtConfig(name);
  Tracker* t = tracker_(name);
  if (!hw) {
    if (t) {
      // The tracker goes: its flows end now, while its exporters may still send them.
      Sink sink(*this, *t);
      t->cache.flush(SIZE_MAX, sink);
      publish_(*t);
      trackers_.erase(name);
      trackerSubs_.erase(name);
    }
    return;
  }
  const int64_t idle = int64_t{hw->inactiveTimeout().value()} * 1'000'000;
  const int64_t active = int64_t{hw->activeInterval().value()} * 1'000'000;
  const uint32_t capacity =
      options_.cacheCapacity ? options_.cacheCapacity : hw->flowCacheSize().value();
  if (t && t->hw == hw && t->cache.capacity() != capacity) {
    // Another size: the flows so far end (reason 4) and a cache of the new size starts.
    Sink sink(*this, *t);
    t->cache.flush(SIZE_MAX, sink);
    publish_(*t);
    t = nullptr;
  }
  if (!t || t->hw != hw) {
    FlowCache::Config c;
    c.capacity = capacity;
    c.idleTimeoutNs = idle;
    c.activeTimeoutNs = active;
    trackers_[name] = std::make_unique<Tracker>(c, hw);
    // Timeouts follow the tracker's configuration.
    trackerSubs_.erase(name);
    watch(trackerSubs_, name, hw->inactiveTimeoutSignal(), [this, name] { handleTracker(name); });
    watch(trackerSubs_, name, hw->activeIntervalSignal(), [this, name] { handleTracker(name); });
    watch(trackerSubs_, name, hw->flowCacheSizeSignal(), [this, name] { handleTracker(name); });
  } else {
    t->cache.timeoutsIs(idle, active);
  }
  scheduleTick_(false);
}

void DataPathSm::handleIntf(const Nelo::IntfId& intf) {
  auto cfg = hwConfig_->hwIntfFtConfig(intf);
  const uint32_t ifindex = intfIndexMap_->intfIndexHas(intf) ? intfIndexMap_->intfIndex(intf) : 0;
  auto it = ports_.find(intf);
  const bool wanted = cfg && ifindex != 0;
  if (it != ports_.end()) {
    const Port& p = it->second;
    if (wanted && p.tracker == cfg->hwFtConfig()->name() && p.ifindex == ifindex) {
      it->second.vrfId = vrfIdOf_ ? vrfIdOf_(intf) : 0;
      return;
    }
    if (p.source) ringDropsGone_ += p.source->ringDrops();
    ports_.erase(it);
  }
  if (!wanted) return;
  Port& port = ports_[intf];
  port.tracker = cfg->hwFtConfig()->name();
  port.ifindex = ifindex;
  port.vrfId = vrfIdOf_ ? vrfIdOf_(intf) : 0;
  startPort_(intf, port);
}

void DataPathSm::startPort_(const Nelo::IntfId& intf, Port& port) {
  const uint32_t rate = hwConfig_->sampleRate();
  port.source =
      sourceFactory_(port.ifindex, rate, options_.snapLen,
                     [this, intf](std::span<const Sample> s) { handleSamples_(intf, s); });
  std::string error;
  if (port.source->start(&error)) {
    port.failed = false;
    FLOWTRACKING_SAMPLING.log(intf.name(), port.tracker, std::to_string(rate));
    return;
  }
  port.source.reset();
  if (!port.failed) {
    FLOWTRACKING_SAMPLING_FAILED.log(intf.name(), port.tracker, error,
                                     std::to_string(options_.retry.count()));
  }
  port.failed = true;
  if (!retryTask_->scheduled()) retryTask_->scheduleTaskAfter(options_.retry);
}

void DataPathSm::handleSampleRate() {
  // Records counted at the old rate end here (reason 4): none mixes two rates.
  flushAll();
  for (auto& [intf, port] : ports_) {
    std::string error;
    const uint32_t rate = hwConfig_->sampleRate();
    if (port.source && !port.source->sampleRateIs(rate, &error)) {
      GLINT(trace(), 0) << "sample rate of " << intf << ": " << error;
    }
  }
}

void DataPathSm::handleSamples_(const Nelo::IntfId& intf, std::span<const Sample> samples) {
  auto pit = ports_.find(intf);
  if (pit == ports_.end()) return;
  Tracker* t = tracker_(pit->second.tracker);
  if (!t) return;
  samples_ += samples.size();
  pit->second.samples += samples.size();
  Sink sink(*this, *t);
  const size_t errors = addSamples(samples, pit->second.ifindex, pit->second.vrfId,
                                   scheduler_.now(), t->cache, sink, egressOf_);
  parseErrors_ += errors;
  pit->second.parseErrors += errors;
  if (!t->pending.empty()) publish_(*t);  // ended by a sample (active timeout, room)
  scheduleTick_(false);
}

void DataPathSm::reopenSources() {
  for (auto& [intf, port] : ports_) {
    if (port.source) {
      const uint64_t drops = port.source->ringDrops();
      ringDropsGone_ += drops;
      port.ringDrops += drops;
    }
    port.source.reset();
    startPort_(intf, port);
  }
}

void DataPathSm::vrfsChanged() {
  for (auto& [intf, port] : ports_) port.vrfId = vrfIdOf_ ? vrfIdOf_(intf) : 0;
}

void DataPathSm::egressIs(const FlowKey& key, uint32_t egressIf) {
  for (auto& [name, t] : trackers_) t->cache.egressIs(key, egressIf);
}

// Hands the tracker's ended flows to its exporters; what reached no collector is counted.
void DataPathSm::publish_(Tracker& t) {
  if (t.pending.empty()) return;
  const uint64_t n = t.pending.size();
  auto ftInfo = flowTrackingInfo_->ftInfo(t.hw->name());
  if (!ftInfo || ftInfo->expInfoSize() == 0) {
    dropped_.noExporter += n;
  } else {
    const auto& batch = ftInfo->flowRecords();
    batch->records().swap(t.pending);
    batch->outcomeDel();
    batch->versionInc(1);
    batch->records().swap(t.pending);
    dropped_.oversized += batch->oversized();
    if (!batch->reached()) dropped_.noReadyCollector += n - batch->oversized();
  }
  t.pending.clear();
}

void DataPathSm::scheduleTick_(bool now) {
  if (!tick_) return;
  if (now) {
    tick_->scheduleTaskAfter(std::chrono::nanoseconds(0));
    return;
  }
  int64_t next = INT64_MAX;
  for (const auto& [name, t] : trackers_) next = std::min(next, t->cache.nextDeadlineNs());
  if (next == INT64_MAX) return;
  // Not before the tick's period: expiry is gathered, not one flow per wake-up.
  const int64_t at =
      std::max(next, scheduler_.now() + std::chrono::nanoseconds(options_.tick).count());
  tick_->scheduleTaskLowestDelay(std::chrono::nanoseconds(at - scheduler_.now()));
}

void DataPathSm::handleTick() {
  size_t left = options_.batch;
  bool more = false;
  const int64_t now = scheduler_.now();
  for (auto& [name, t] : trackers_) {
    Sink sink(*this, *t);
    const size_t before = t->pending.size();
    more = t->cache.expire(now, left, sink) || more;
    const size_t ended = t->pending.size() - before;
    left = ended < left ? left - ended : 0;
    publish_(*t);
  }
  scheduleTick_(more);
}

void DataPathSm::flushAll() {
  for (const auto& [name, t] : trackers_) endFlows(name);
}

void DataPathSm::endFlows(const Zub::Name& tracker) {
  Tracker* t = tracker_(tracker);
  if (!t) return;
  Sink sink(*this, *t);
  while (t->cache.flush(options_.batch, sink)) publish_(*t);
  publish_(*t);
}

uint64_t DataPathSm::ringDrops() {
  uint64_t n = ringDropsGone_;
  for (auto& [intf, port] : ports_) {
    if (port.source) n += port.source->ringDrops();
  }
  return n;
}

size_t DataPathSm::flows(const Zub::Name& tracker) const {
  auto it = trackers_.find(tracker);
  return it == trackers_.end() ? 0 : it->second->cache.size();
}

size_t DataPathSm::capacity(const Zub::Name& tracker) const {
  auto it = trackers_.find(tracker);
  return it == trackers_.end() ? 0 : it->second->cache.capacity();
}

std::vector<DataPathSm::PortView> DataPathSm::ports() {
  std::vector<PortView> out;
  for (auto& [intf, port] : ports_) {
    const uint64_t drops = port.ringDrops + (port.source ? port.source->ringDrops() : 0);
    out.push_back({intf, port.tracker, port.ifindex, bool(port.source), port.samples,
                   port.parseErrors, drops});
  }
  return out;
}

void DataPathSm::forEachFlow(
    const std::function<bool(const Zub::Name&, const FlowRecord&)>& f) const {
  bool more = true;
  for (const auto& entry : trackers_) {
    const Zub::Name& name = entry.first;
    entry.second->cache.forEach([&](const FlowRecord& r) { return more = f(name, r); });
    if (!more) return;
  }
}

size_t DataPathSm::sources() const {
  size_t n = 0;
  for (const auto& [intf, port] : ports_) n += port.source ? 1 : 0;
  return n;
}

DataPathSm::SourceFactory packetSocketSources(Orrin::TaskScheduler& scheduler,
                                              std::function<uint32_t()> ringBytes) {
  return [&scheduler, ringBytes](uint32_t ifindex, uint32_t rate, uint32_t snapLen,
                                 SampleSource::Handler handler) -> std::unique_ptr<SampleSource> {
    PacketSocketSource::Options o;
    o.blocks = std::max<uint32_t>(1, ringBytes() / o.blockBytes);
    o.ifindex = ifindex;
    o.sampleRate = rate;
    o.snapLen = snapLen;
    return std::make_unique<PacketSocketSource>(scheduler, o, std::move(handler));
  };
}

}  // namespace FlowTracking

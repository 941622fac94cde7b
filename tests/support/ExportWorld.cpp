#include "tests/support/ExportWorld.h"

#include <cerrno>

namespace TestSupport {

namespace {
uint16_t setIdOf(const std::string& bytes) {
  return bytes.size() >= 20
             ? Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(bytes.data()) + 16)
             : 0;
}
}  // namespace

namespace {

class RecordingPam : public Nelo::UdpPam {
 public:
  RecordingPam(const Zub::Name& name, PamRecorder* rec) : UdpPam(name), rec_(rec) {}
  using UdpPam::modeIs;
  void modeIs(Mode m) override {
    if (m == modeOn && rec_->failOpen) throw Zub::ErrnoException("socket for " + name(), EMFILE);
    if (m != mode_) rec_->events.push_back((m == modeOn ? "open " : "close ") + name());
    mode_ = m;
  }
  Mode mode() const override { return mode_; }
  int fd() const override { return mode_ == modeOn ? 1000 : -1; }
  size_t txPktBatch(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n) override {
    size_t sent = 0;
    for (size_t i = 0; i < n; ++i) sent += txPkt(pkts[i]) ? 1 : 0;
    return sent;
  }
  bool txPkt(const Zub::Ptr<Nelo::Pkt>& pkt) override {
    if (mode_ != modeOn) return false;
    if (rec_->failSend || (rec_->failSet && setIdOf(pkt->bytesString()) == rec_->failSet)) {
      lastErrnoIs(rec_->failSend ? rec_->failSend : ENOBUFS);
      return false;
    }
    SentPkt s;
    s.pam = name();
    if (ipv6En()) {
      s.src = txSrcIp6Addr().stringValue();
      s.dst = Nelo::Ip6AndPort{txDstIp6Addr(), txPort()}.stringValue();
    } else {
      s.src = txSrcIpAddr().stringValue();
      s.dst = Nelo::IpAndPort{txDstIpAddr(), txPort()}.stringValue();
    }
    s.dscp = txTos();
    s.bytes = pkt->bytesString();
    rec_->sent.push_back(std::move(s));
    return true;
  }

 private:
  PamRecorder* rec_;
  Mode mode_ = modeOff;
};

}  // namespace

std::vector<SentPkt> PamRecorder::take(uint16_t setId) {
  std::vector<SentPkt> out;
  for (SentPkt& p : take()) {
    if (setIdOf(p.bytes) == setId) out.push_back(std::move(p));
  }
  return out;
}

size_t PamRecorder::count(uint16_t setId) const {
  size_t n = 0;
  for (const SentPkt& p : sent) n += setIdOf(p.bytes) == setId;
  return n;
}

FlowTracking::PamFactory PamRecorder::factory() {
  return [this](const Zub::Name& name) {
    return Zub::Ptr<Nelo::UdpPam>(new RecordingPam(name, this));
  };
}

ExportWorld::ExportWorld(bool realEndpoints_, Zub::Ptr<HwFlowTracking::Config> hw,
                         const std::string& statsShmName)
    : config(new FlowTracking::Config("config")),
      configReq(new FlowTracking::ConfigReq("configReq")),
      hwConfig(hw ? hw : Zub::Ptr<HwFlowTracking::Config>(new HwFlowTracking::Config("hwConfig"))),
      hwStatus(new HwFlowTracking::Status("hwStatus")),
      info(new FlowTracking::FlowTrackingInfo()),
      stats(statsShmName.empty()
                ? Stova::Ipfix::CollectorStatistics::createLocal(256)
                : Stova::Ipfix::CollectorStatistics::createShared(statsShmName, 256)),
      realEndpoints(realEndpoints_) {}

// The reactors go first (they are declared after the entities and the table).
ExportWorld::~ExportWorld() { stats->segment().unlink(); }

void ExportWorld::start(bool templatesFirst) {
  auto makeTemplateSm = [&] {
    templateSm = FlowTracking::templateSmFactory(config, configReq, hwConfig, hwStatus, info,
                                                 stats.get(), sched);
  };
  if (templatesFirst) makeTemplateSm();
  infoSm = FlowTracking::flowTrackingInfoSmFactory(
      hwConfig, info, sched, stats.get(),
      realEndpoints ? FlowTracking::realPamFactory() : recorder.factory());
  if (!templatesFirst) makeTemplateSm();
  run();
}

Zub::Ptr<HwFlowTracking::ExporterConfig> ExportWorld::exporter(const std::string& tracker,
                                                               uint32_t ftId,
                                                               const std::string& exporter,
                                                               const std::string& src4,
                                                               const std::string& src6) {
  auto ft = hwConfig->hwFtConfigIs(tracker, FlowTracking::FtId(ftId));
  auto e = ft->expConfigIs(exporter);
  e->srcIpAddrIs(Nelo::IpAddr(src4));
  e->srcIp6AddrIs(Nelo::Ip6Addr(src6));
  e->exporterReadyIs(true);
  return e;
}

void ExportWorld::collector4(const std::string& tracker, const std::string& exporter,
                             const std::string& name, const std::string& addr, uint16_t port) {
  hwConfig->hwFtConfig(tracker)->expConfig(exporter)->collectorIpAndPortIs(
      name, Nelo::IpAndPort{Nelo::IpAddr(addr), port});
}

void ExportWorld::collector6(const std::string& tracker, const std::string& exporter,
                             const std::string& name, const std::string& addr, uint16_t port) {
  hwConfig->hwFtConfig(tracker)->expConfig(exporter)->collectorIp6AndPortIs(
      name, Nelo::Ip6AndPort{Nelo::Ip6Addr(addr), port});
}

Zub::Ptr<HwFlowTracking::FgStatus> ExportWorld::flowGroup(const std::string& tracker,
                                                          uint16_t templateId,
                                                          const std::vector<FieldSpec>& fields) {
  auto ft = hwStatus->hwFtStatusIs(tracker);
  const FlowTracking::TemplateId id(templateId);
  // Entries first, then the group: readers see a complete template when it appears.
  Zub::Ptr<HwFlowTracking::FgStatus> fg(
      new HwFlowTracking::FgStatus(id, "fg" + std::to_string(templateId)));
  uint32_t seq = 0;
  for (const FieldSpec& f : fields) {
    auto e = fg->templateEntryIs(seq++, f.type);
    e->fieldLenIs(f.len);
    e->enterpriseIeIs(f.enterprise);
    e->flowKeyIs(f.key);
  }
  fg->genIdIs(1);
  ft->hwFgStatusColl().insert(id, fg);
  return fg;
}

FlowTracking::FtExporterSm* ExportWorld::ftExporterSm(const std::string& tracker,
                                                      const std::string& exporter) const {
  auto* t = templateSm->ftTemplateSm().get(tracker);
  return t ? t->ftExporterSm().get(exporter) : nullptr;
}

Zub::Ptr<FlowTracking::CollectorInfo> ExportWorld::collInfo(const std::string& tracker,
                                                            const std::string& exporter,
                                                            const std::string& collector) const {
  auto ft = info->ftInfo(tracker);
  auto ex = ft ? ft->expInfo(exporter) : nullptr;
  return ex ? ex->collInfo(collector) : nullptr;
}

}  // namespace TestSupport

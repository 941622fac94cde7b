// Template sending on loopback: one template pass to 64 IPv4 collectors through the
// exporter (sequence number stamping, per-packet source, statistics), beside a plain
// sendto loop over the same socket, destinations and bytes measured in the same run.
// Also the cost of one statistics update.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "bench/Harness.h"
#include "export/FlowTrackerTemplateSm.h"

namespace {

constexpr int kCollectors = 64;

struct Rig {
  Orrin::TaskScheduler sched;
  Zub::Ptr<HwFlowTracking::Config> hw{new HwFlowTracking::Config("hw")};
  Zub::Ptr<HwFlowTracking::Status> status{new HwFlowTracking::Status("status")};
  Zub::Ptr<FlowTracking::FlowTrackingInfo> info{new FlowTracking::FlowTrackingInfo()};
  Zub::Ptr<FlowTracking::Config> config{new FlowTracking::Config("config")};
  Zub::Ptr<FlowTracking::ConfigReq> req{new FlowTracking::ConfigReq("req")};
  std::unique_ptr<Stova::Ipfix::CollectorStatistics> stats =
      Stova::Ipfix::CollectorStatistics::createLocal(256);
  std::vector<int> sinks;  // bound receiving sockets, never read: the kernel drops
  std::vector<sockaddr_in> dsts;
  Zub::Ptr<FlowTracking::FlowTrackingInfoSm> infoSm;
  Zub::Ptr<FlowTracking::TemplateSm> templateSm;

  explicit Rig(bool withStats) {
    auto ft = hw->hwFtConfigIs("T", FlowTracking::FtId(1));
    auto exp = ft->expConfigIs("E");
    exp->srcIpAddrIs(Nelo::IpAddr("127.0.0.1"));
    for (int i = 0; i < kCollectors; ++i) {
      int fd = -1;
      const sockaddr_in a = Bench::loopbackSink(&fd);
      sinks.push_back(fd);
      dsts.push_back(a);
      exp->collectorIpAndPortIs("c" + std::to_string(i),
                                Nelo::IpAndPort{Nelo::IpAddr("127.0.0.1"), ntohs(a.sin_port)});
    }
    auto fg = status->hwFtStatusIs("T")->hwFgStatusIs(FlowTracking::TemplateId(261), "v4");
    uint32_t seq = 0;
    for (auto t : {Ipfix::RecordType::srcIp, Ipfix::RecordType::dstIp, Ipfix::RecordType::srcL4Port,
                   Ipfix::RecordType::dstL4Port, Ipfix::RecordType::ipProtocol,
                   Ipfix::RecordType::byteCount, Ipfix::RecordType::packetCount}) {
      fg->templateEntryIs(seq++, t)->fieldLenIs(4);
    }
    infoSm = FlowTracking::flowTrackingInfoSmFactory(hw, info, sched, nullptr);
    templateSm = FlowTracking::templateSmFactory(config, req, hw, status, info,
                                                 withStats ? stats.get() : nullptr, sched);
    sched.runReady();
    exp->exporterReadyIs(true);  // sends the first pass
  }
  ~Rig() {
    for (int fd : sinks) ::close(fd);
  }
  FlowTracking::FtExporterSm* exporter() const {
    return templateSm->ftTemplateSm().get("T")->ftExporterSm().get("E");
  }
};

}  // namespace

int main() {
  const long passes = 2000;
  Rig rig(true);
  auto sm = rig.exporter();
  double passNs = Bench::nsPerOp(passes, [&](long) { sm->maybeTxTemplate4_(); });

  // The same socket, destinations and bytes with plain sendto.
  const int fd = rig.info->ftInfo("T")->expInfo("E")->udpPam4()->fd();
  const auto& pkt = sm->templatePkt();
  double plainNs = Bench::nsPerOp(passes, [&](long) {
    for (const auto& d : rig.dsts) {
      ::sendto(fd, pkt->data(), pkt->bytes(), 0, reinterpret_cast<const sockaddr*>(&d), sizeof d);
    }
  });
  const double rate = kCollectors / (passNs / 1e9), plainRate = kCollectors / (plainNs / 1e9);
  std::printf("template message: %zu bytes to %d collectors per pass\n", pkt->bytes(), kCollectors);
  std::printf("exporter: %9.0f sends/s (%.0f ns per send)\n", rate, passNs / kCollectors);
  std::printf("sendto  : %9.0f sends/s (%.0f ns per send)\n", plainRate, plainNs / kCollectors);
  std::printf("ratio exporter/sendto: %.2f (target >= 0.80)\n", rate / plainRate);

  // One statistics update: the same passes without a statistics table, and the table's
  // read-modify-write on its own.
  Rig bare(false);
  auto bareSm = bare.exporter();
  double bareNs = Bench::nsPerOp(passes, [&](long) { bareSm->maybeTxTemplate4_(); });
  std::printf("statistics update: %.0f ns per send (passes with and without the table)\n",
              (passNs - bareNs) / kCollectors);
  auto table = Stova::Ipfix::CollectorStatistics::createLocal(256);
  const Stova::Ipfix::CollectorStatisticsKey key(
      Stova::Ipfix::CollectorInfo::fromIpAndPort({Nelo::IpAddr("127.0.0.1"), 4739}), "T", "E");
  table->statsIs(Stova::Ipfix::CollectorStatisticsEntry(key));
  double updNs = Bench::nsPerOp(1'000'000, [&](long) {
    table->statsUpdate(key, [](Stova::Ipfix::CollectorStatisticsEntry& e) {
      e.exportedMessageTotalCount += 1;
      auto s = e.setEntry(Stova::Ipfix::SetId(2));
      s.setId = Stova::Ipfix::SetId(2);
      s.exportedTemplateCount += 1;
      e.setEntryIs(s);
    });
  });
  std::printf("statistics update alone (lookup, set slot, seqlocked write): %.0f ns\n", updNs);
  return 0;
}

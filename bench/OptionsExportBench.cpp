// Options export on loopback, on the workload of ../shared/peer-bench (libfixbuf's
// numbers for the same rows, message limits and collectors): an interface table of N
// rows whose names follow the peer's formula, exporter MTU 1500 or 9152 (message limits
// 1452 and 9104). Each figure is printed beside a baseline measured in the same run:
//   - cache build (records/s) against one memcpy per encoded record into messages of
//     the same limit;
//   - a full transmission from the cache to 1 and 4 collectors (datagrams/s) against a
//     sendmmsg loop over the same datagrams from the same socket;
//   - 10,000 interface changes within one second: update messages per collector against
//     ceil(bytes / limit) + 1, and when the first one left;
//   - peak RSS per interface row at the largest N.
// Usage: options_export_bench [N ...]   (default: 100000 1000000)

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/Harness.h"
#include "export/FlowTrackerTemplateSm.h"
#include "options/OptionsDataManagerSm.h"

namespace {

using namespace FlowTracking;

// The peer's row names (pb_name_format).
std::string rowName(uint32_t i) {
  char buf[64];
  switch (i % 4) {
    case 0:
    case 1:
      std::snprintf(buf, sizeof buf, "Ethernet%u/%u", 1 + i / 64, 1 + i % 64);
      break;
    case 2:
      std::snprintf(buf, sizeof buf, "Ethernet%u/%u/%u", 1 + i / 256, 1 + (i / 4) % 64, 1 + i % 3);
      break;
    default:
      std::snprintf(buf, sizeof buf, "Port-Channel%u", i);
  }
  return buf;
}

long maxRssKb() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// Median of `reps` timed runs of `body`, in seconds.
template <class F>
double median(int reps, F&& body) {
  std::vector<double> t;
  for (int r = 0; r < reps; ++r) {
    auto start = std::chrono::steady_clock::now();
    body();
    t.push_back(seconds(std::chrono::steady_clock::now() - start));
  }
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}

struct Rig {
  Zub::ManualClock clock;
  Zub::ScopedClock scoped{clock};
  Orrin::TaskScheduler sched{clock};
  Zub::Ptr<HwFlowTracking::Config> hw{new HwFlowTracking::Config("hw")};
  Zub::Ptr<HwFlowTracking::Status> status{new HwFlowTracking::Status("status")};
  Zub::Ptr<FlowTrackingInfo> info{new FlowTrackingInfo()};
  Zub::Ptr<Config> config{new Config("config")};
  Zub::Ptr<ConfigReq> req{new ConfigReq("req")};
  Zub::Ptr<IntfIndexMap> intfMap{new IntfIndexMap()};
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfMap{new Vrf::VrfIdMap::Status()};
  std::unique_ptr<Stova::Ipfix::CollectorStatistics> stats =
      Stova::Ipfix::CollectorStatistics::createLocal(256);
  std::vector<int> sinks;  // bound receiving sockets, never read: the kernel drops
  std::vector<sockaddr_in> dsts;
  Zub::Ptr<FlowTrackingInfoSm> infoSm;
  Zub::Ptr<TemplateSm> templateSm;
  Zub::Ptr<OptionsDataManagerSm> manager;

  // `compatible`: the compatible layout's rows too. Off, the work is the peer's: the
  // standard interface table alone.
  Rig(uint32_t rows, uint32_t mtu, int collectors, bool compatible = false) {
    hw->compatibleOptionsIs(compatible);
    auto ft = hw->hwFtConfigIs("T", FtId(1));
    ft->activeIntervalIs(ActiveInterval(ActiveInterval::kMax));  // no period during a run
    auto exp = ft->expConfigIs("E");
    exp->srcIpAddrIs(Nelo::IpAddr("127.0.0.1"));
    exp->ipfixMtuIs(IpfixMtu(mtu));
    exp->exporterReadyIs(true);
    for (int i = 0; i < collectors; ++i) {
      int fd = -1;
      const sockaddr_in a = Bench::loopbackSink(&fd);
      sinks.push_back(fd);
      dsts.push_back(a);
      exp->collectorIpAndPortIs("c" + std::to_string(i),
                                Nelo::IpAndPort{Nelo::IpAddr("127.0.0.1"), ntohs(a.sin_port)});
    }
    auto fg = status->hwFtStatusIs("T")->hwFgStatusIs(TemplateId(261), "v4");
    uint32_t seq = 0;
    for (auto t : {Ipfix::RecordType::srcIp, Ipfix::RecordType::dstIp}) {
      auto e = fg->templateEntryIs(seq++, t);
      e->fieldLenIs(4);
      e->flowKeyIs(true);
    }
    fg->genIdIs(1);
    for (uint32_t i = 1; i <= rows; ++i) intfMap->intfIs(rowName(i), i);
    infoSm = flowTrackingInfoSmFactory(hw, info, sched, stats.get());
    templateSm = templateSmFactory(config, req, hw, status, info, stats.get(), sched);
    manager = optionsDataManagerSmFactory(hw, status, info, intfMap, vrfMap, sched);
    sched.runReady();  // templates, options templates, then each collector's own table
  }
  ~Rig() {
    for (int fd : sinks) ::close(fd);
  }
  OptionsDataExporterSm* sm() const {
    return manager->ftManagerSm().get("T")->exporterSm().get("E");
  }
  OptionsDataSource& intfSource() const { return *manager->intfTableSm()->dataSource(); }
  uint64_t messagesTo(size_t collector) const {
    const Stova::Ipfix::CollectorStatisticsKey key(
        Stova::Ipfix::CollectorInfo::fromIpAndPort(
            {Nelo::IpAddr("127.0.0.1"), ntohs(dsts[collector].sin_port)}),
        "T", "E");
    return stats->stats(key).exportedMessageTotalCount;
  }
};

void cacheBuild(uint32_t rows, uint32_t mtu, bool compatible) {
  Rig rig(rows, mtu, 1, compatible);
  auto* sm = rig.sm();
  const uint32_t limit = mtu - 48;
  const size_t n = rig.intfSource().dataRecordSize();
  const size_t records = n * (compatible ? 2 : 1) + 5;  // and the other tables' rows
  const double ours = median(9, [&] {
    rig.intfSource().versionInc(1);  // the cache is stale
    sm->maybeBuildMsgCache();
  });
  // Baseline: the same encoded records, one memcpy each into messages of the same limit.
  std::vector<std::string> encoded;
  for (const auto& r : rig.intfSource().dataRecordColl()) {
    encoded.emplace_back(r->data());
    if (compatible) encoded.emplace_back(FixedNameRow::kBytes, 'x');  // index, name of 32
  }
  std::vector<std::vector<char>> messages;
  const double copy = median(9, [&] {
    messages.clear();
    messages.emplace_back(limit);
    size_t off = 20;
    for (const std::string& r : encoded) {
      if (off + r.size() > limit) {
        messages.emplace_back(limit);
        off = 20;
      }
      std::memcpy(messages.back().data() + off, r.data(), r.size());
      off += r.size();
    }
    Bench::keep(messages.back()[0]);
  });
  std::printf(
      "cache build%-4s N=%-8u limit=%-5u %9.3f ms %11.0f records/s %6zu msgs | memcpy "
      "%9.3f ms %11.0f records/s | ratio %.2f (target >= 0.5)\n",
      compatible ? " +c" : "", rows, limit, ours * 1e3, records / ours, sm->msgCache().size(),
      copy * 1e3, encoded.size() / copy, (records / ours) / (encoded.size() / copy));
}

void fullTransmission(uint32_t rows, uint32_t mtu, int collectors) {
  Rig rig(rows, mtu, collectors);
  auto* sm = rig.sm();
  sm->maybeBuildMsgCache();
  const uint32_t builds = sm->msgCacheBuildCount();
  const size_t datagrams = sm->msgCache().size() * static_cast<size_t>(collectors);
  const double ours = median(5, [&] { sm->maybeBeginPeriodicTransmission(); });
  // Baseline: sendmmsg in batches of 64 over the same datagrams from the same socket.
  const int fd = rig.info->ftInfo("T")->expInfo("E")->udpPam4()->fd();
  std::vector<mmsghdr> batch(64);
  std::vector<iovec> iov(64);
  const double mmsg = median(5, [&] {
    size_t n = 0;
    auto flush = [&] {
      if (n) ::sendmmsg(fd, batch.data(), static_cast<unsigned>(n), 0);
      n = 0;
    };
    for (const auto& msg : sm->msgCache()) {
      const auto& pkt = msg->msg()->pkt();
      for (const auto& d : rig.dsts) {
        iov[n] = {pkt->data(), pkt->bytes()};
        batch[n].msg_hdr = {};
        batch[n].msg_hdr.msg_name = const_cast<sockaddr_in*>(&d);
        batch[n].msg_hdr.msg_namelen = sizeof d;
        batch[n].msg_hdr.msg_iov = &iov[n];
        batch[n].msg_hdr.msg_iovlen = 1;
        if (++n == batch.size()) flush();
      }
    }
    flush();
  });
  std::printf(
      "full tx  k=%d   N=%-8u limit=%-5u %9.3f ms %11.0f dgrams/s %11.0f records/s | "
      "sendmmsg %9.3f ms %11.0f dgrams/s | ratio %.2f (target >= 0.8) | cache builds "
      "%s\n",
      collectors, rows, mtu - 48, ours * 1e3, datagrams / ours, rows / ours, mmsg * 1e3,
      datagrams / mmsg, (datagrams / ours) / (datagrams / mmsg),
      sm->msgCacheBuildCount() == builds ? "unchanged" : "REBUILT");
}

void burstOfChanges(uint32_t mtu) {
  const uint32_t rows = 1000, changes = 10000;
  Rig rig(rows, mtu, 2);
  const uint32_t limit = mtu - 48;
  const uint64_t before = rig.messagesTo(0), before1 = rig.messagesTo(1);
  size_t bytes = 0;
  double firstAt = -1;
  for (uint32_t i = 0; i < changes; ++i) {
    const std::string name = rowName(rows + 1 + i);
    rig.intfMap->intfIs(name, rows + 1 + i);
    bytes += 5 + name.size();
    rig.sched.advance(std::chrono::microseconds(100));  // 10,000 changes in one second
    if (firstAt < 0 && rig.messagesTo(0) > before) firstAt = (i + 1) * 100e-6;
  }
  rig.sched.advance(std::chrono::seconds(2));
  if (firstAt < 0 && rig.messagesTo(0) > before) firstAt = 1.0 + 2.0;
  const uint64_t sent = rig.messagesTo(0) - before, sent1 = rig.messagesTo(1) - before1;
  // Each message also carries its message and set headers.
  const uint64_t bound = static_cast<uint64_t>(std::ceil(double(bytes) / (limit - 20))) + 1;
  std::printf(
      "10000 changes in 1 s, limit=%-5u %zu record bytes: %llu / %llu update messages "
      "per collector (bound %llu), first after %.4f s (target <= 1 s)\n",
      limit, bytes, static_cast<unsigned long long>(sent), static_cast<unsigned long long>(sent1),
      static_cast<unsigned long long>(bound), firstAt);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint32_t> ns;
  for (int i = 1; i < argc; ++i) ns.push_back(static_cast<uint32_t>(std::atol(argv[i])));
  if (ns.empty()) ns = {100000, 1000000};
  const uint32_t largest = *std::max_element(ns.begin(), ns.end());

  // Memory first, in a process that has done nothing else yet.
  {
    const long startKb = maxRssKb();
    Rig rig(largest, 1500, 1);
    rig.sm()->maybeBuildMsgCache();
    const long peakKb = maxRssKb();
    std::printf(
        "memory   N=%-8u peak RSS %ld KiB over %ld KiB at start: %.0f bytes per row "
        "(target <= 200)\n",
        largest, peakKb, startKb, (peakKb - startKb) * 1024.0 / largest);
  }
  for (uint32_t n : ns) {
    for (uint32_t mtu : {1500u, 9152u}) cacheBuild(n, mtu, false);
    cacheBuild(n, 1500, true);
  }
  for (uint32_t n : ns) {
    fullTransmission(n, 1500, 1);
    fullTransmission(n, 9152, 1);
    fullTransmission(n, 1500, 4);
  }
  burstOfChanges(1500);
  burstOfChanges(9152);
  return 0;
}

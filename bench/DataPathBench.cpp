// The software data path's speed and memory.
//
// 1. Samples through parser and flow cache into records, against a loop that only reads
//    the ring, in the same run: frames written onto a veth pair in a network namespace of
//    the benchmark's own (root only; skipped otherwise) are sampled one in one on the far
//    end, and the time spent handling the ring's blocks is measured with a handler that
//    does nothing and with the data path's work (parse, key, cache, encode what ends).
//    Target: at least 0.5 of the bare loop's rate.
// 2. Cache operations per second with 1M flows in it: new flows, samples of existing ones,
//    and new flows into a full cache (each evicting the least recently seen).
// 3. Memory per flow: what the cache allocates, and the resident set it adds.

#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench/Harness.h"
#include "datapath/DataPathSm.h"
#include "datapath/FlowCache.h"
#include "datapath/FlowRecordEncoder.h"
#include "datapath/PacketParser.h"
#include "datapath/PacketSocketSource.h"

namespace {

using namespace FlowTracking;

long rssKb() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// IPv4 UDP frames of `flows` distinct 5-tuples.
std::vector<std::string> frames(int flows) {
  std::vector<std::string> out;
  for (int i = 0; i < flows; ++i) {
    std::string f(14 + 28 + 64, '\0');
    const unsigned char head[] = {2,  0, 0, 0, 0, 2,  2,  0, 0, 0,   0,  1, 0x08, 0x00, 0x45, 0, 0,
                                  92, 0, 1, 0, 0, 64, 17, 0, 0, 198, 18, 1, 2,    198,  18,   2, 2};
    std::copy(std::begin(head), std::end(head), f.begin());
    f[34] = static_cast<char>(i >> 8);
    f[35] = static_cast<char>(i);
    f[36] = 0x13;
    f[37] = static_cast<char>(0x89);
    f[39] = 72;
    out.push_back(f);
  }
  return out;
}

// Ends flows into records of template 261.
struct EncodeSink : FlowSink {
  FlowRecordEncoder encoder{{{Ipfix::RecordType::srcIp, 4},
                             {Ipfix::RecordType::dstIp, 4},
                             {Ipfix::RecordType::ipProtocol, 1},
                             {Ipfix::RecordType::srcL4Port, 2},
                             {Ipfix::RecordType::dstL4Port, 2},
                             {Ipfix::RecordType::ingressInterface, 4},
                             {Ipfix::RecordType::vrfId, 4},
                             {Ipfix::RecordType::ipClassOfService, 1},
                             {Ipfix::RecordType::tcpControlBits, 2},
                             {Ipfix::RecordType::egressInterface, 4},
                             {Ipfix::RecordType::byteCount, 8},
                             {Ipfix::RecordType::packetCount, 8},
                             {Ipfix::RecordType::timeStampFlowStart, 8},
                             {Ipfix::RecordType::timeStampFlowEnd, 8},
                             {Ipfix::RecordType::flowEndReason, 1}}};
  size_t records = 0;
  void flowEnded(const FlowRecord& r, FlowEndReason reason) override {
    Bench::keep(encoder.encode(r, reason));
    ++records;
  }
};

// The same work on frames in memory: what the parser and the cache cost by themselves.
void pipelineBenchmark() {
  const auto fs = frames(1000);
  FlowCache::Config c;
  c.capacity = 4096;
  FlowCache cache(c);
  EncodeSink sink;
  int64_t now = 0;
  const double parse = Bench::nsPerOp(1 << 20, [&](long i) {
    const std::string& f = fs[static_cast<size_t>(i) % fs.size()];
    PacketInfo info;
    parsePacket(reinterpret_cast<const uint8_t*>(f.data()), f.size(),
                static_cast<uint32_t>(f.size()), {}, 0, info);
    Bench::keep(info.dstPort);
  });
  const double full = Bench::nsPerOp(1 << 20, [&](long i) {
    const std::string& f = fs[static_cast<size_t>(i) % fs.size()];
    PacketInfo info;
    parsePacket(reinterpret_cast<const uint8_t*>(f.data()), f.size(),
                static_cast<uint32_t>(f.size()), {}, 0, info);
    cache.sample(flowKeyOf(info, 2, 0), flowSampleOf(info, 0), ++now, sink);
  });
  const double hash = Bench::nsPerOp(1 << 20, [&](long i) {
    FlowKey k;
    k.srcPort = static_cast<uint16_t>(i);
    Bench::keep(FlowCache::keyedHash(k, {1, 2}));
  });
  const double sip = Bench::nsPerOp(1 << 20, [&](long i) {
    FlowKey k;
    k.srcPort = static_cast<uint16_t>(i);
    Bench::keep(FlowCache::sipHash(k, {1, 2}));
  });
  Bench::report("in memory: parse + key + cache (1000 flows)", full, "parse alone", parse);
  Bench::report("hash: keyed multiply-mix", hash, "SipHash-1-3", sip);
}

void ringBenchmark() {
  if (::unshare(CLONE_NEWNET) != 0 ||
      std::system("ip link add s0 type veth peer name s1 && ip link set s0 up && "
                  "ip link set s1 up") != 0) {
    std::printf("ring: skipped (needs root for a network namespace of its own)\n");
    return;
  }
  const int tx = ::socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll sll{};
  sll.sll_family = AF_PACKET;
  sll.sll_ifindex = static_cast<int>(::if_nametoindex("s0"));
  ::bind(tx, reinterpret_cast<sockaddr*>(&sll), sizeof sll);
  const auto fs = frames(1000);
  const long total = 200000;

  auto run = [&](bool work) {
    Orrin::TaskScheduler sched;
    FlowCache::Config c;
    c.capacity = 4096;
    c.idleTimeoutNs = 1'000'000;  // flows end all the time: the encoder works too
    FlowCache cache(c);
    EncodeSink sink;
    long seen = 0;
    int64_t now = 0;
    PacketSocketSource::Options o;
    o.ifindex = ::if_nametoindex("s1");
    o.blocks = 64;
    PacketSocketSource src(sched, o, [&](const Sample& s) {
      ++seen;
      if (!work) {
        Bench::keep(s.wireLen);
        return;
      }
      PacketInfo info;
      if (parsePacket(s.frame, s.snapLen, s.wireLen, s.gso, s.vlan, info) != ParseResult::ok) {
        return;
      }
      now += 1000;
      cache.sample(flowKeyOf(info, o.ifindex, 0), flowSampleOf(info, s.wallNs), now, sink);
      if ((seen & 255) == 0) cache.expire(now, 2048, sink);
    });
    std::string error;
    if (!src.start(&error)) {
      std::printf("ring: %s\n", error.c_str());
      return 0.0;
    }
    double handling = 0;
    for (long sent = 0; sent < total;) {
      for (int i = 0; i < 512 && sent < total; ++i, ++sent) {
        const std::string& f = fs[static_cast<size_t>(sent) % fs.size()];
        ::send(tx, f.data(), f.size(), 0);
      }
      const auto t0 = std::chrono::steady_clock::now();
      src.drain();
      handling +=
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    }
    for (int i = 0; i < 20 && seen < total; ++i) {
      sched.pollFds(std::chrono::milliseconds(30));
      const auto t0 = std::chrono::steady_clock::now();
      src.drain();
      handling +=
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    }
    if (work)
      std::printf("ring: %ld samples, %zu records, %llu ring drops\n", seen, sink.records,
                  static_cast<unsigned long long>(src.ringDrops()));
    return seen ? handling / static_cast<double>(seen) : 0.0;
  };
  const double bare = run(false);
  const double full = run(true);
  if (bare <= 0 || full <= 0) return;
  std::printf("%-44s %9.0f samples/s | %-34s %9.0f samples/s | ratio %6.2f (target >= 0.5)\n",
              "parse + cache + records", 1e9 / full, "ring read only", 1e9 / bare, bare / full);
  ::close(tx);
}

void cacheBenchmark() {
  constexpr uint32_t kFlows = 1 << 20;
  const long before = rssKb();
  FlowCache::Config c;
  c.capacity = kFlows;
  FlowCache cache(c);
  EncodeSink sink;
  auto keyOf = [](uint64_t i) {
    FlowKey k;
    k.ipVersion = 4;
    k.protocol = 17;
    k.src = {10, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8),
             static_cast<uint8_t>(i)};
    k.dst = {192, 0, 2, 1};
    k.srcPort = static_cast<uint16_t>(i * 7);
    k.dstPort = 53;
    k.ingressIf = 2;
    return k;
  };
  FlowSample s;
  s.octets = 100;
  int64_t now = 0;
  const double insert = Bench::nsPerOp(
      kFlows, [&](long i) { cache.sample(keyOf(static_cast<uint64_t>(i)), s, ++now, sink); }, 1);
  const long after = rssKb();
  std::mt19937_64 rng(1);
  std::vector<uint32_t> order(1 << 22);
  for (auto& o : order) o = static_cast<uint32_t>(rng() % kFlows);
  const double hit = Bench::nsPerOp(static_cast<long>(order.size()), [&](long i) {
    cache.sample(keyOf(order[static_cast<size_t>(i)]), s, ++now, sink);
  });
  uint64_t next = kFlows;
  const double evict = Bench::nsPerOp(
      1 << 20, [&](long) { cache.sample(keyOf(next++), s, ++now, sink); }, 1);
  const double copy = Bench::nsPerOp(1 << 22, [&](long i) {
    FlowKey k = keyOf(order[static_cast<size_t>(i)]);
    Bench::keep(k);
  });
  Bench::report("cache: new flow (to 1M flows)", insert, "building the key alone", copy);
  Bench::report("cache: sample of one of 1M flows", hit, "building the key alone", copy);
  Bench::report("cache: new flow into a full cache (evicts)", evict, "building the key alone",
                copy);
  std::printf("cache: %.1f M operations/s on samples of 1M flows; %zu evictions\n", 1e3 / hit,
              static_cast<size_t>(cache.evictions()));
  std::printf(
      "memory: %zu bytes per flow allocated (record %zu + slots), %.0f bytes per flow "
      "resident (target <= 160)\n",
      FlowCache::kBytesPerFlow, sizeof(FlowRecord),
      static_cast<double>(after - before) * 1024 / kFlows);
}

}  // namespace

// "ring" or "cache" runs that part alone (for a profiler).
int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  if (only != "ring") cacheBenchmark();
  if (only != "cache") pipelineBenchmark();
  if (only != "cache") ringBenchmark();
  return 0;
}

// The software data path's speed and memory.
//
// 1. Samples through parser and flow cache into records, against a loop that only reads
//    the ring, in the same run. Frames are written onto a veth pair in a network namespace
//    of the benchmark's own (root only; skipped otherwise) and sampled one in one on the
//    far end, in two workloads: 1000 flows that go on, and one sample per flow (each
//    sample starts a flow that ends as a record, the common case of sampled traffic).
//    a. The handling alone: the time spent in the ring's blocks per sample, frames sent
//       and handled in turns on one CPU, with the data path's work, the read loop, and a
//       walk of the ring's headers alone. Rounds alternate; the best of each counts.
//    b. End to end, as the agent runs: a thread on the other CPU sends as fast as it can
//       (the kernel fills the ring on that CPU) and the loop handles the ring as blocks
//       come. Samples handled per second, with the data path's work and with a handler
//       that reads every byte of each sample and nothing more; and the ring's drops.
//       Target: at least 0.5 of the read loop's rate.
// 2. The same work on frames in memory, the hash against SipHash-1-3.
// 3. Cache operations per second with 1M flows in it: new flows, samples of existing ones,
//    and new flows into a full cache (each evicting the least recently seen).
// 4. Memory per flow: what the cache allocates, and the resident set it adds.

#include <linux/if_packet.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <thread>
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
  FlowRecordEncoder encoder{FlowRecordEncoder::fieldsOf(flowTemplateFields(false))};
  size_t records = 0;
  FlowRecords pending;  // as the data path keeps them until they are handed over
  void flowEnded(const FlowRecord& r, FlowEndReason reason) override {
    encoder.encode(r, reason,
                   pending.append(TemplateId(261), static_cast<uint16_t>(encoder.recordLength())));
    ++records;
    if (pending.size() == 4096) handOver();
  }
  void handOver() {
    Bench::keep(pending.bytes(pending.list().front()));
    pending.clear();
  }
};

// The same work on frames in memory: what the parser and the cache cost by themselves.
void pipelineBenchmark() {
  const auto fs = frames(1024);
  std::vector<Sample> samples(fs.size());
  for (size_t i = 0; i < fs.size(); ++i) {
    samples[i].frame = reinterpret_cast<const uint8_t*>(fs[i].data());
    samples[i].snapLen = samples[i].wireLen = static_cast<uint32_t>(fs[i].size());
  }
  FlowCache::Config c;
  c.capacity = 4096;
  FlowCache cache(c);
  EncodeSink sink;
  int64_t now = 0;
  const double parse = Bench::nsPerOp(1 << 20, [&](long i) {
    const Sample& s = samples[static_cast<size_t>(i) & 1023];
    PacketInfo info;
    parsePacket(s.frame, s.snapLen, s.wireLen, {}, 0, info);
    Bench::keep(info.dstPort);
  });
  constexpr long kBatch = SampleSource::kBatch;
  const double full = Bench::nsPerOp((1 << 20) / kBatch, [&](long i) {
    const auto batch =
        std::span<const Sample>(samples).subspan(static_cast<size_t>(i * kBatch) & 1023, kBatch);
    addSamples(batch, 2, 0, ++now, cache, sink, nullptr);
  });
  // One sample per flow: each starts a flow that ends (1 ms idle, samples 1 us apart)
  // and is encoded.
  const auto many = frames(65536);
  std::vector<Sample> churn(many.size());
  for (size_t i = 0; i < many.size(); ++i) {
    churn[i].frame = reinterpret_cast<const uint8_t*>(many[i].data());
    churn[i].snapLen = churn[i].wireLen = static_cast<uint32_t>(many[i].size());
  }
  c.idleTimeoutNs = 1'000'000;
  FlowCache churnCache(c);
  const double churned = Bench::nsPerOp((1 << 20) / kBatch, [&](long i) {
    const auto batch =
        std::span<const Sample>(churn).subspan(static_cast<size_t>(i * kBatch) & 65535, kBatch);
    now += 1000 * kBatch;
    addSamples(batch, 2, 0, now, churnCache, sink, nullptr);
    churnCache.expire(now, 2048, sink);
    if (!sink.pending.empty()) sink.handOver();
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
  Bench::report("in memory: parse + key + cache (1024 flows)", full / kBatch, "parse alone", parse);
  Bench::report("in memory: one sample per flow, each a record", churned / kBatch, "parse alone",
                parse);
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
  const long total = 100000;
  // Two workloads: 1000 flows that go on (a sample adds to a flow in the cache), and
  // 65536 flows of one sample each (each sample starts a flow that ends as a record: the
  // common case of sampled traffic). Samples are 1 us apart, flows end after 1 ms idle.
  const std::vector<std::string> workloads[2] = {frames(1000), frames(65536)};
  const char* names[2] = {"long flows", "one sample per flow"};
  const std::vector<std::string>* fs = &workloads[0];
  Orrin::TaskScheduler sched;
  FlowCache::Config c;
  c.capacity = 4096;
  c.idleTimeoutNs = 1'000'000;
  std::unique_ptr<FlowCache> cache;
  EncodeSink sink;
  enum Mode { walk, read, work };
  Mode mode = walk;
  long seen = 0;
  int64_t now = 0;
  uint64_t folded = 0;
  PacketSocketSource::Options o;
  o.ifindex = ::if_nametoindex("s1");
  // The default ring, as the agent opens it.
  // One source for every round, as in the agent: its ring has been written before.
  PacketSocketSource src(sched, o, [&](std::span<const Sample> batch) {
    seen += static_cast<long>(batch.size());
    if (mode == walk) {
      for (const Sample& s : batch) folded += s.wireLen;
    } else if (mode == read) {
      for (const Sample& s : batch) {
        for (size_t i = 0; i + 8 <= s.snapLen; i += 8) {
          uint64_t w;
          std::memcpy(&w, s.frame + i, 8);
          folded ^= w;
        }
      }
    } else {
      now += 1000 * static_cast<int64_t>(batch.size());
      addSamples(batch, o.ifindex, 0, now, *cache, sink, nullptr);
      cache->expire(now, 2048, sink);
      if (!sink.pending.empty()) sink.handOver();
    }
  });
  std::string error;
  if (!src.start(&error)) {
    std::printf("ring: %s\n", error.c_str());
    return;
  }
  // Nanoseconds of ring handling per sample over one round of `total` frames.
  auto round = [&](Mode m) {
    mode = m;
    seen = 0;
    double handling = 0;
    auto timedDrain = [&] {
      const auto t0 = std::chrono::steady_clock::now();
      src.drain();
      handling +=
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    };
    for (long sent = 0; sent < total;) {
      for (int i = 0; i < 512 && sent < total; ++i, ++sent) {
        const std::string& f = (*fs)[static_cast<size_t>(sent) % fs->size()];
        ::send(tx, f.data(), f.size(), 0);
      }
      timedDrain();
    }
    // The last block is handed over when its timeout passes.
    for (int i = 0; i < 20 && seen < total; ++i) {
      sched.pollFds(std::chrono::milliseconds(30));
      timedDrain();
    }
    return seen ? handling / static_cast<double>(seen) : 0.0;
  };
  for (int w = 0; w < 2; ++w) {
    fs = &workloads[w];
    cache = std::make_unique<FlowCache>(c);
    sink.records = 0;
    double best[3] = {1e300, 1e300, 1e300};
    long worked = 0;
    for (int r = 0; r < 5; ++r) {
      for (Mode m : {walk, read, work}) {
        best[m] = std::min(best[m], round(m));
        if (m == work) worked += seen;
      }
    }
    if (best[read] <= 0 || best[work] <= 0 || best[walk] <= 0) return;
    std::printf("handling, %s: %.2f records per sample\n", names[w],
                static_cast<double>(sink.records) / static_cast<double>(worked));
    std::printf("%-44s %9.0f samples/s | %-34s %9.0f samples/s | ratio %6.2f\n",
                "handling: parse + cache + records", 1e9 / best[work], "ring read (every byte)",
                1e9 / best[read], best[read] / best[work]);
    std::printf("%-44s %9.0f samples/s | %-34s %9.0f samples/s | ratio %6.2f\n",
                "handling: parse + cache + records", 1e9 / best[work], "ring walk (headers only)",
                1e9 / best[walk], best[walk] / best[work]);
  }

  // End to end, as the agent runs: a thread on the other CPU sends frames as fast as it
  // can (the kernel samples each into the ring on that CPU), and this thread handles the
  // ring from its loop as blocks are handed over. Samples handled per second while the
  // sender runs, and what the ring had no room for.
  auto pin = [](int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    ::pthread_setaffinity_np(::pthread_self(), sizeof set, &set);
  };
  const bool twoCpus = std::thread::hardware_concurrency() >= 2;
  if (twoCpus) pin(0);
  auto stream = [&](Mode m, long count, uint64_t* drops) {
    mode = m;
    seen = 0;
    src.ringDrops();  // reading the kernel's counter resets it
    const uint64_t dropsBefore = src.ringDrops();
    std::atomic<bool> done{false};
    std::chrono::steady_clock::time_point t1;
    const auto t0 = std::chrono::steady_clock::now();
    std::thread sender([&] {
      if (twoCpus) pin(1);
      mmsghdr msgs[64] = {};
      iovec iov[64];
      for (long sent = 0; sent < count;) {
        const int n = static_cast<int>(std::min<long>(64, count - sent));
        for (int i = 0; i < n; ++i) {
          const std::string& f = (*fs)[static_cast<size_t>(sent + i) % fs->size()];
          iov[i] = {const_cast<char*>(f.data()), f.size()};
          msgs[i].msg_hdr.msg_iov = &iov[i];
          msgs[i].msg_hdr.msg_iovlen = 1;
        }
        const int r = ::sendmmsg(tx, msgs, static_cast<unsigned>(n), 0);
        if (r <= 0) break;
        sent += r;
      }
      t1 = std::chrono::steady_clock::now();
      done = true;
    });
    // When each wake-up ended and how many samples were handled by then.
    std::vector<std::pair<std::chrono::steady_clock::time_point, long>> progress;
    progress.reserve(100000);
    for (int turns = 0; turns < 20000 && !done; ++turns) {  // the sender needs well under 1 s
      sched.pollFds(std::chrono::milliseconds(5));
      progress.emplace_back(std::chrono::steady_clock::now(), seen);
    }
    sender.join();
    for (int i = 0; i < 10; ++i) sched.pollFds(std::chrono::milliseconds(5));  // the rest
    *drops = src.ringDrops() - dropsBefore;
    long handled = 0;
    for (const auto& [at, n] : progress) {
      if (at <= t1) handled = n;
    }
    return static_cast<double>(handled) / std::chrono::duration<double>(t1 - t0).count();
  };
  for (int w = 0; w < 2; ++w) {
    fs = &workloads[w];
    cache = std::make_unique<FlowCache>(c);
    double best[3] = {0, 0, 0};
    uint64_t drops[3] = {0, 0, 0};
    for (int r = 0; r < 3; ++r) {
      for (Mode m : {read, work}) {
        uint64_t d = 0;
        best[m] = std::max(best[m], stream(m, 300000, &d));
        drops[m] += d;
      }
    }
    std::printf("%-44s %9.0f samples/s | %-34s %9.0f samples/s | ratio %6.2f (target >= 0.5)\n",
                (std::string("end to end, ") + names[w]).c_str(), best[work],
                "ring read (every byte)", best[read], best[work] / best[read]);
    std::printf(
        "end to end, %s: ring drops %llu with the data path, %llu with the read loop (the "
        "default ring, %u KiB)\n",
        names[w], static_cast<unsigned long long>(drops[work]),
        static_cast<unsigned long long>(drops[read]), o.blocks * o.blockBytes / 1024);
  }
  ::close(tx);
  Bench::keep(folded);
}

void cacheBenchmark() {
  {
    // A cache takes memory as flows arrive: one of the largest size, idle, holds nearly
    // nothing (the peak resident set is measured, so this goes first).
    const long idleBefore = rssKb();
    FlowCache::Config c;
    c.capacity = 1 << 22;
    FlowCache idle(c);
    std::printf("memory: an idle cache of %u flows adds %ld KiB resident (target <= 8192)\n",
                c.capacity, rssKb() - idleBefore);
  }
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
  // The same samples in batches, as the data path adds them: hashes and home slots first,
  // then the records, then the adds.
  const double inBatches = Bench::nsPerOp(static_cast<long>(order.size()) / 64,
                                          [&](long b) {
                                            FlowKey keys[64];
                                            uint64_t hashes[64];
                                            for (size_t i = 0; i < 64; ++i) {
                                              keys[i] =
                                                  keyOf(order[static_cast<size_t>(b) * 64 + i]);
                                              hashes[i] = cache.hashOf(keys[i]);
                                              cache.prefetchSlot(hashes[i]);
                                            }
                                            for (size_t i = 0; i < 64; ++i)
                                              cache.prefetchRecord(hashes[i]);
                                            for (size_t i = 0; i < 64; ++i)
                                              cache.sample(keys[i], hashes[i], s, ++now, sink);
                                          }) /
                           64;
  uint64_t next = kFlows;
  const double evict = Bench::nsPerOp(
      1 << 20, [&](long) { cache.sample(keyOf(next++), s, ++now, sink); }, 1);
  const double copy = Bench::nsPerOp(1 << 22, [&](long i) {
    FlowKey k = keyOf(order[static_cast<size_t>(i)]);
    Bench::keep(k);
  });
  Bench::report("cache: new flow (to 1M flows)", insert, "building the key alone", copy);
  Bench::report("cache: sample of one of 1M flows", hit, "building the key alone", copy);
  Bench::report("cache: the same, in batches of 64", inBatches, "one at a time", hit);
  Bench::report("cache: new flow into a full cache (evicts)", evict, "building the key alone",
                copy);
  std::printf(
      "cache: %.1f M operations/s on samples of 1M flows, %.1f M in batches; %zu evictions\n",
      1e3 / hit, 1e3 / inBatches, static_cast<size_t>(cache.evictions()));
  {
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
      if (line.rfind("AnonHugePages:", 0) == 0) std::printf("memory: %s\n", line.c_str());
    }
  }
  std::printf(
      "memory: %zu bytes per flow allocated (record %zu + slots), %.0f bytes per flow "
      "resident (target <= 160)\n",
      FlowCache::kBytesPerFlow, sizeof(FlowRecord),
      static_cast<double>(after - before) * 1024 / kFlows);
}

}  // namespace

// "ring", "memory" or "cache" runs that part alone (for a profiler).
int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  if (only.empty() || only == "cache") cacheBenchmark();
  if (only.empty() || only == "memory") pipelineBenchmark();
  if (only.empty() || only == "ring") ringBenchmark();
  return 0;
}

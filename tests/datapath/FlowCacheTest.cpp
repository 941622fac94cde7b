// The flow cache on a clock the test moves: timeouts at their boundaries, end reasons,
// eviction, the expiry budget, and a model-based run against a plain map with a hash
// that collides on purpose.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "datapath/FlowCache.h"

namespace {

using FlowTracking::FlowCache;
using FlowTracking::FlowEndReason;
using FlowTracking::FlowKey;
using FlowTracking::FlowRecord;
using FlowTracking::FlowSample;

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kS = 1'000 * kMs;

struct Ended {
  FlowKey key;
  uint64_t packets;
  uint64_t octets;
  int reason;
  friend bool operator<(const Ended& a, const Ended& b) {
    return std::tie(a.key.srcPort, a.packets, a.reason) <
           std::tie(b.key.srcPort, b.packets, b.reason);
  }
  friend bool operator==(const Ended& a, const Ended& b) {
    return a.key == b.key && a.packets == b.packets && a.octets == b.octets && a.reason == b.reason;
  }
};

void PrintTo(const Ended& e, std::ostream* os) {
  *os << "{port " << e.key.srcPort << ", " << e.packets << " packets, reason " << e.reason << "}";
}

struct Sink : FlowTracking::FlowSink {
  std::vector<Ended> ended;
  std::vector<FlowRecord> records;
  void flowEnded(const FlowRecord& r, FlowEndReason reason) override {
    ended.push_back({r.key, r.packets, r.octets, reason});
    records.push_back(r);
  }
};

FlowKey key(uint16_t port) {
  FlowKey k;
  k.ipVersion = 4;
  k.protocol = 17;
  k.src = {192, 0, 2, 1};
  k.dst = {198, 51, 100, 2};
  k.srcPort = port;
  k.dstPort = 53;
  k.ingressIf = 2;
  return k;
}

FlowSample packet(uint64_t octets = 100, uint8_t flags = 0, int64_t wallMs = 0) {
  FlowSample s;
  s.octets = octets;
  s.tcpFlags = flags;
  s.wallMs = wallMs;
  return s;
}

FlowCache::Config config(uint32_t capacity, int64_t idle, int64_t active) {
  FlowCache::Config c;
  c.capacity = capacity;
  c.idleTimeoutNs = idle;
  c.activeTimeoutNs = active;
  return c;
}

TEST(FlowCache, IdleAndActiveTimeoutsAtTheirBoundaries) {
  FlowCache cache(config(16, 15 * kS, 60 * kS));
  Sink sink;
  EXPECT_TRUE(cache.sample(key(1), packet(100, 0, 5000), 0, sink));  // a new flow
  EXPECT_FALSE(cache.sample(key(1), packet(200, 0, 6000), 1 * kS, sink));
  EXPECT_EQ(cache.nextDeadlineNs(), 16 * kS);
  EXPECT_FALSE(cache.expire(16 * kS - kMs, 100, sink));  // a millisecond early: kept
  EXPECT_TRUE(sink.ended.empty());
  EXPECT_FALSE(cache.expire(16 * kS, 100, sink));
  ASSERT_EQ(sink.ended.size(), 1u);
  EXPECT_EQ(sink.ended[0], (Ended{key(1), 2, 300, FlowEndReason::idleTimeout}));
  EXPECT_EQ(sink.records[0].firstWallMs, 5000);
  EXPECT_EQ(sink.records[0].lastWallMs, 6000);
  EXPECT_EQ(cache.size(), 0u);

  // Active: a flow seen every 10 s is cut at 60 s from its start, by the tick...
  sink.ended.clear();
  const int64_t t0 = 100 * kS;
  for (int i = 0; i < 6; ++i) cache.sample(key(2), packet(), t0 + i * 10 * kS, sink);
  EXPECT_FALSE(cache.expire(t0 + 60 * kS - kMs, 100, sink));
  EXPECT_TRUE(sink.ended.empty());
  EXPECT_FALSE(cache.expire(t0 + 60 * kS, 100, sink));
  ASSERT_EQ(sink.ended.size(), 1u);
  EXPECT_EQ(sink.ended[0], (Ended{key(2), 6, 600, FlowEndReason::activeTimeout}));
  // ...and then silence: no empty record when it goes idle.
  EXPECT_FALSE(cache.expire(t0 + 200 * kS, 100, sink));
  EXPECT_EQ(sink.ended.size(), 1u);
  EXPECT_EQ(cache.size(), 0u);

  // By the sample path: a sample past the active timeout ends the record and starts the
  // next with itself.
  sink.ended.clear();
  cache.sample(key(3), packet(), t0, sink);
  cache.sample(key(3), packet(50), t0 + 60 * kS, sink);
  ASSERT_EQ(sink.ended.size(), 1u);
  EXPECT_EQ(sink.ended[0].reason, FlowEndReason::activeTimeout);
  EXPECT_EQ(sink.ended[0].packets, 1u);
  ASSERT_TRUE(cache.find(key(3)));
  EXPECT_EQ(cache.find(key(3))->octets, 50u);
}

TEST(FlowCache, FinOrRstEndsAsEndOfFlowAndFlushEndsEverything) {
  FlowCache cache(config(16, 15 * kS, 60 * kS));
  Sink sink;
  cache.sample(key(1), packet(60, 0x02), 0, sink);  // SYN
  cache.sample(key(2), packet(60, 0x04), 0, sink);  // RST
  cache.sample(key(3), packet(60, 0x10), 0, sink);
  cache.sample(key(1), packet(60, 0x11), kS, sink);  // FIN+ACK: the flow goes on until idle
  EXPECT_EQ(cache.size(), 3u);
  cache.expire(15 * kS, 100, sink);
  ASSERT_EQ(sink.ended.size(), 2u);
  EXPECT_EQ(sink.ended[0].key, key(2));
  EXPECT_EQ(sink.ended[0].reason, FlowEndReason::endOfFlow);
  EXPECT_EQ(sink.ended[1].key, key(3));
  EXPECT_EQ(sink.ended[1].reason, FlowEndReason::idleTimeout);
  cache.expire(16 * kS, 100, sink);
  EXPECT_EQ(sink.ended[2].reason, FlowEndReason::endOfFlow);
  EXPECT_EQ(sink.records[2].tcpFlags, 0x13);

  sink.ended.clear();
  for (uint16_t p = 10; p < 15; ++p) cache.sample(key(p), packet(), 20 * kS, sink);
  EXPECT_TRUE(cache.flush(3, sink));  // bounded: more to come
  EXPECT_EQ(sink.ended.size(), 3u);
  EXPECT_FALSE(cache.flush(3, sink));
  EXPECT_EQ(sink.ended.size(), 5u);
  for (const auto& e : sink.ended) EXPECT_EQ(e.reason, FlowEndReason::forcedEnd);
  EXPECT_EQ(cache.nextDeadlineNs(), INT64_MAX);
}

TEST(FlowCache, AFullCacheEndsItsLeastRecentlySeenFlow) {
  FlowCache cache(config(4, 15 * kS, 60 * kS));
  Sink sink;
  for (uint16_t p = 1; p <= 4; ++p) cache.sample(key(p), packet(), p * kMs, sink);
  cache.sample(key(1), packet(), 10 * kMs, sink);  // 1 is recent again: 2 is the oldest
  cache.sample(key(5), packet(), 11 * kMs, sink);
  ASSERT_EQ(sink.ended.size(), 1u);
  EXPECT_EQ(sink.ended[0], (Ended{key(2), 1, 100, FlowEndReason::lackOfResources}));
  EXPECT_EQ(cache.evictions(), 1u);
  EXPECT_EQ(cache.size(), 4u);
  EXPECT_TRUE(cache.find(key(5)) && cache.find(key(1)) && !cache.find(key(2)));
  EXPECT_LE(FlowCache::kBytesPerFlow, 160u);
}

TEST(FlowCache, ExpiryEndsABoundedBatchAndContinuesAtOnce) {
  FlowCache cache(config(16384, 15 * kS, 60 * kS));
  Sink sink;
  for (uint16_t p = 0; p < 10000; ++p) cache.sample(key(p), packet(), 0, sink);
  EXPECT_TRUE(cache.expire(15 * kS, 2048, sink));
  EXPECT_EQ(sink.ended.size(), 2048u);
  EXPECT_EQ(cache.nextDeadlineNs(), 15 * kS);  // due now: the caller goes on at once
  int ticks = 1;
  while (cache.expire(15 * kS, 2048, sink)) ++ticks;
  EXPECT_EQ(ticks, 4);  // 2048 * 4 + 1808
  EXPECT_EQ(sink.ended.size(), 10000u);
}

// Random samples and ticks against a plain map, with a hash that sends every key to one
// of four homes, so probe runs are long and deletion shifts entries all the time.
uint64_t weakHash(const FlowKey& k, const std::array<uint64_t, 2>&) {
  return (k.srcPort % 4) * 0x9E3779B97F4A7C15ULL;
}

TEST(FlowCache, BehavesAsAPlainMapUnderCollisions) {
  const std::array<uint64_t, 2> secret{1, 2};
  for (auto hash : {&weakHash, &FlowCache::keyedHash, &FlowCache::sipHash}) {
    FlowCache cache(config(32, 2 * kS, 5 * kS), hash, &secret);
    Sink sink;
    struct Model {
      uint64_t packets = 0;
      int64_t lastSeen = 0, start = 0;
    };
    std::map<uint16_t, Model> model;
    std::vector<Ended> expected;
    std::mt19937 rng(7);
    int64_t now = 0;
    for (int step = 0; step < 20000; ++step) {
      now += 1 + static_cast<int64_t>(rng() % 50) * kMs;
      if (rng() % 8 == 0) {
        cache.expire(now, SIZE_MAX, sink);
        for (auto it = model.begin(); it != model.end();) {
          auto& m = it->second;
          if (now - m.lastSeen >= 2 * kS) {
            if (m.packets) expected.push_back({key(it->first), m.packets, m.packets * 100, 1});
            it = model.erase(it);
            continue;
          }
          if (now - m.start >= 5 * kS) {
            if (m.packets) expected.push_back({key(it->first), m.packets, m.packets * 100, 2});
            m.packets = 0;
            m.start = now;
          }
          ++it;
        }
      } else {
        const auto port = static_cast<uint16_t>(rng() % 64);
        auto it = model.find(port);
        if (it == model.end()) {
          if (model.size() == 32) {
            auto oldest = model.begin();
            for (auto j = model.begin(); j != model.end(); ++j) {
              if (j->second.lastSeen < oldest->second.lastSeen) oldest = j;
            }
            if (oldest->second.packets) {
              expected.push_back(
                  {key(oldest->first), oldest->second.packets, oldest->second.packets * 100, 5});
            }
            model.erase(oldest);
          }
          it = model.emplace(port, Model{0, now, now}).first;
        } else if (now - it->second.start >= 5 * kS) {
          if (it->second.packets) {
            expected.push_back({key(port), it->second.packets, it->second.packets * 100, 2});
          }
          it->second.packets = 0;
          it->second.start = now;
        }
        ++it->second.packets;
        it->second.lastSeen = now;
        cache.sample(key(port), packet(), now, sink);
      }
      ASSERT_EQ(cache.size(), model.size()) << "step " << step;
    }
    for (const auto& [port, m] : model) {
      const FlowRecord* r = cache.find(key(port));
      ASSERT_TRUE(r) << port;
      EXPECT_EQ(r->packets, m.packets) << port;
    }
    auto got = sink.ended;
    std::sort(got.begin(), got.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(got == expected) << got.size() << " ended, " << expected.size() << " expected";
    EXPECT_GT(expected.size(), 1000u);
  }
}

}  // namespace

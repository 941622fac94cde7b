// The data path reactor on a manual clock with a fake sample source and recording
// endpoints: samples become records of template 261 that reach the collector after its
// data templates; records that reach no collector are counted by reason; a batch of
// samples counts each once; records take the layout of the template as published now,
// and flows of an unpublished template end unencoded; a source that cannot start is
// logged once and retried; expiry goes in bounded batches; a tracker that goes ends its
// flows; a new sample rate or cache size ends the flows so far.

#include <gtest/gtest.h>

#include <map>

#include "datapath/DataPathSm.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/LogHandle.h"
#include "tests/support/Bytes.h"
#include "tests/support/ExportWorld.h"

namespace {

using namespace FlowTracking;
using RT = Ipfix::RecordType;
using TestSupport::ExportWorld;
using TestSupport::hexBytes;
using TestSupport::SentPkt;

struct FakeSource : SampleSource {
  Handler handler;
  bool fail = false;
  uint32_t rate = 0;
  bool start(std::string* error) override {
    if (fail) *error = "Operation not permitted";
    return !fail;
  }
  bool sampleRateIs(uint32_t r, std::string*) override {
    rate = r;
    return true;
  }
  uint64_t ringDrops() override { return 0; }
};

std::vector<TestSupport::FieldSpec> fields4() {
  std::vector<TestSupport::FieldSpec> out;
  for (const auto& f : flowTemplateFields(false)) out.push_back({f.type, f.len, false, f.key});
  return out;
}

// An IPv4 UDP frame 192.0.2.1:`sport` -> 198.51.100.2:53 with 100 bytes of payload.
std::string frame(uint16_t sport) {
  std::string f = hexBytes("020000000002 020000000001 0800 4510 0080 0001 0000 4011 0000");
  f += hexBytes("c0000201 c6336402");
  f += std::string{char(sport >> 8), char(sport & 0xFF)} + hexBytes("0035 006c 0000");
  return f + std::string(100, 'x');
}

uint16_t firstSetOf(const SentPkt& p) {
  return Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 16);
}
uint32_t seqOf(const SentPkt& p) {
  return Nelo::NetU32::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 8);
}

class DataPathSmTest : public ::testing::Test {
 protected:
  ExportWorld w;
  Zub::Ptr<IntfIndexMap> intfIndexMap{new IntfIndexMap()};
  Zub::Ptr<DataPathSm> sm;
  std::vector<FakeSource*> sources;
  bool failSources = false;
  uint32_t vrfId = 3;
  DataPathSm::Options options;

  void SetUp() override {
    auto hw = w.exporter("T", 7, "E", "10.0.0.1");
    hw->ipfixMtuIs(IpfixMtu(1500));
    auto ft = w.hwConfig->hwFtConfig("T");
    ft->activeIntervalIs(ActiveInterval(60000));
    ft->inactiveTimeoutIs(InactiveTimeout(15000));
    w.hwConfig->sampleRateIs(1);
    w.flowGroup("T", 261, fields4());
    intfIndexMap->intfIs(Nelo::IntfId("Ethernet1"), 5);
    w.hwConfig->hwIntfFtConfigIs(Nelo::IntfId("Ethernet1"), ft);
    w.start();
  }
  void startDataPath() {
    sm = Zub::makeReactor<DataPathSm>(
        w.hwConfig, w.hwStatus, intfIndexMap, w.info, [this](const Nelo::IntfId&) { return vrfId; },
        [](const FlowKey&) { return 9u; }, w.sched, options,
        [this](uint32_t ifindex, uint32_t rate, uint32_t, SampleSource::Handler h) {
          EXPECT_EQ(ifindex, 5u);
          auto s = std::make_unique<FakeSource>();
          s->handler = std::move(h);
          s->rate = rate;
          s->fail = failSources;
          sources.push_back(s.get());
          return s;
        });
  }
  Sample sampleOf(const std::string& f) {
    Sample s;
    s.frame = reinterpret_cast<const uint8_t*>(f.data());
    s.snapLen = s.wireLen = static_cast<uint32_t>(f.size());
    s.ifindex = 5;
    s.wallNs = w.clock.wallNs();
    return s;
  }
  void sample(uint16_t sport) {
    const std::string f = frame(sport);
    const Sample s = sampleOf(f);
    sources.back()->handler({&s, 1});
  }
  // The records of set 261 sent since the last call, as hex, and the messages' numbers.
  std::vector<std::string> records(std::vector<uint32_t>* seqs = nullptr) {
    std::vector<std::string> out;
    for (const SentPkt& p : w.recorder.take()) {
      if (firstSetOf(p) != 261) continue;
      if (seqs) seqs->push_back(seqOf(p));
      const uint16_t len =
          Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 18);
      for (size_t at = 20; at + 61 <= 16u + len; at += 61) {
        out.push_back(TestSupport::toHex(p.bytes.substr(at, 61)));
      }
    }
    return out;
  }
};

TEST_F(DataPathSmTest, SamplesBecomeRecordsSentAfterTheDataTemplates) {
  startDataPath();
  ASSERT_EQ(sources.size(), 1u);
  // Before any collector: the flow's record reaches nobody, and is counted so.
  sample(999);
  w.advance(15.25);
  EXPECT_EQ(sm->dropped().noReadyCollector, 1u);
  w.collector4("T", "E", "a", "192.0.2.9", 4739);
  w.run();
  w.recorder.take();  // the templates
  const int64_t startMs = w.clock.wallNs() / 1'000'000;
  sample(1000);
  w.advance(2);
  sample(1000);
  sample(2000);
  w.advance(15 - 0.001);  // the first flow was seen 2 s in: 1 ms short of its idle end
  EXPECT_TRUE(records().empty());
  w.advance(0.25);
  std::vector<uint32_t> seqs;
  const auto got = records(&seqs);
  ASSERT_EQ(got.size(), 2u);
  const auto ms = [](int64_t v) {
    char b[17];
    std::snprintf(b, sizeof b, "%016llx", static_cast<unsigned long long>(v));
    return std::string(b);
  };
  // 192.0.2.1:1000 -> 198.51.100.2:53 UDP in on 5 (VRF 3), out on 9, ToS 0x10, 2 packets of
  // 128 bytes, idle end.
  EXPECT_EQ(got[0], TestSupport::toHex(hexBytes("c0000201 c6336402 11 03e8 0035 00000005 00000003"
                                                "10 0000 00000009 0000000000000100"
                                                "0000000000000002" +
                                                ms(startMs) + ms(startMs + 2000) + "01")));
  EXPECT_EQ(got[1].substr(0, 24), TestSupport::toHex(hexBytes("c0000201 c6336402 11 07d0")));
  EXPECT_EQ(seqs, (std::vector<uint32_t>{0}));
  EXPECT_EQ(w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNo().value, 2u);
  const auto stats = w.stats->stats(w.collInfo("T", "E", "a")->channel4()->statsKey());
  EXPECT_EQ(stats.exportedDataRecordCount, 2u);
  EXPECT_EQ(stats.exportedDataMessageCount, 1u);
  EXPECT_EQ(stats.exportedOptionsDataMessageCount, 0u);
  EXPECT_NEAR(stats.lastDataRecordSentTime, Zub::System::now(), 0.25);
  EXPECT_EQ(stats.lastOptionsDataSentTime, 0);
  EXPECT_EQ(sm->samples(), 4u);
  EXPECT_EQ(sm->flows("T"), 0u);
  EXPECT_EQ(sm->dropped().total(), 1u);
  // The interface moves to another VRF: its new flows say so.
  vrfId = 4;
  sm->vrfsChanged();
  sample(3000);
  w.advance(15.25);
  const auto moved = records();
  ASSERT_EQ(moved.size(), 1u);
  const std::string head =
      TestSupport::toHex(hexBytes("c0000201 c6336402 11 0bb8 0035 00000005 00000004"));
  EXPECT_EQ(moved[0].substr(0, head.size()), head);
}

TEST_F(DataPathSmTest, ABatchLongerThanAPassCountsEverySampleOnce) {
  startDataPath();
  w.collector4("T", "E", "a", "192.0.2.9", 4739);
  w.run();
  w.recorder.take();
  // 150 samples over 40 flows (a flow's first and later samples in the same pass), one
  // of them cut inside its IP header.
  std::vector<std::string> frames;
  for (int i = 0; i < 150; ++i) frames.push_back(frame(static_cast<uint16_t>(1 + i % 40)));
  frames[70].resize(30);
  std::vector<Sample> batch;
  for (const std::string& f : frames) batch.push_back(sampleOf(f));
  sources.back()->handler(batch);
  EXPECT_EQ(sm->samples(), 150u);
  EXPECT_EQ(sm->parseErrors(), 1u);
  EXPECT_EQ(sm->flows("T"), 40u);
  w.advance(15.25);
  const auto got = records();
  ASSERT_EQ(got.size(), 40u);
  std::map<uint16_t, uint64_t> packets;
  for (std::string r : got) {
    std::erase(r, ' ');
    EXPECT_EQ(r.substr(48, 8), "00000009") << r;  // every new flow asked its route
    packets[static_cast<uint16_t>(std::stoul(r.substr(18, 4), nullptr, 16))] +=
        std::stoull(r.substr(72, 16), nullptr, 16);
  }
  for (uint16_t p = 1; p <= 40; ++p) {
    // Ports 1-30 have four samples, 31-40 three; one of port 31's was the cut one.
    EXPECT_EQ(packets[p], (p <= 30 ? 4u : 3u) - (p == 31 ? 1u : 0u)) << p;
  }
}

TEST_F(DataPathSmTest, RecordsTakeTheLayoutOfTheTemplateAsPublishedNow) {
  startDataPath();
  w.collector4("T", "E", "a", "192.0.2.9", 4739);
  w.run();
  w.recorder.take();
  // An IPv6 flow: template 262 is not published, so it ends without a record.
  const std::string v6 =
      hexBytes("020000000002 020000000001 86dd 60000000 0010 11 40") +
      hexBytes("20010db8000000000000000000000001 20010db8000000000000000000000002") +
      hexBytes("0400 0035 0010 0000") + std::string(8, 'x');
  const Sample s6 = sampleOf(v6);
  sources.back()->handler({&s6, 1});
  sample(1000);
  w.advance(15.25);
  EXPECT_EQ(records().size(), 1u);
  EXPECT_EQ(sm->unencoded(), 1u);
  // Template 261 published anew with fewer fields: the next records follow it.
  w.flowGroup("T", 261, {{RT::srcIp, 4}, {RT::packetCount, 8}, {RT::flowEndReason, 1}});
  w.run();
  w.recorder.take();
  sample(2000);
  sample(2000);
  w.advance(15.25);
  std::vector<std::string> sets;
  for (const SentPkt& p : w.recorder.take()) {
    if (firstSetOf(p) != 261) continue;
    const uint16_t len = Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 18);
    sets.push_back(TestSupport::toHex(p.bytes.substr(20, len - 4u)));
  }
  EXPECT_EQ(
      sets,
      (std::vector<std::string>{TestSupport::toHex(hexBytes("c0000201 0000000000000002 01"))}));
}

TEST_F(DataPathSmTest, ASourceThatCannotStartIsLoggedOnceAndRetried) {
  Zub::LogCapture logs;
  failSources = true;
  startDataPath();
  EXPECT_EQ(sm->sources(), 0u);
  w.advance(30);
  w.advance(30);
  const std::string failed =
      "FLOWTRACKING_SAMPLING_FAILED: Cannot sample interface Ethernet1 for flow tracker T "
      "(Operation not permitted); its templates and options are still sent. Retrying in 30 s.";
  const auto lines = logs.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), failed), 1);
  failSources = false;
  w.advance(30);
  EXPECT_EQ(sm->sources(), 1u);
  EXPECT_EQ(logs.lines().back(),
            "FLOWTRACKING_SAMPLING: Sampling interface Ethernet1 for flow tracker T, one packet "
            "in 1.");
  // A new rate reaches the running source.
  w.hwConfig->sampleRateIs(1000);
  EXPECT_EQ(sources.back()->rate, 1000u);
}

TEST_F(DataPathSmTest, ExpiryGoesInBatchesAndANewRateEndsTheFlows) {
  options.batch = 2;
  startDataPath();
  w.collector4("T", "E", "a", "192.0.2.9", 4739);
  w.run();
  w.recorder.take();
  for (uint16_t p = 1; p <= 5; ++p) sample(p);
  w.advance(15);  // all five are due: two per tick, the next tick at once
  EXPECT_EQ(records().size(), 5u);
  sample(7);
  sample(8);
  EXPECT_EQ(sm->flows("T"), 2u);
  // Another sample rate: the flows counted at the old one end now.
  w.hwConfig->sampleRateIs(100);
  const auto ended = records();
  ASSERT_EQ(ended.size(), 2u);
  EXPECT_EQ(ended[0].substr(ended[0].size() - 2), "04");  // forced end
  EXPECT_EQ(sources.back()->rate, 100u);
  // Another cache size: a new cache, the flows of the old one end.
  sample(10);
  w.hwConfig->hwFtConfig("T")->flowCacheSizeIs(FlowCacheSize(2048));
  const auto resized = records();
  ASSERT_EQ(resized.size(), 1u);
  EXPECT_EQ(resized[0].substr(resized[0].size() - 2), "04");
  EXPECT_EQ(sm->flows("T"), 0u);
  // A tracker whose exporter goes ends its flows with no exporter to send them; a
  // tracker that goes takes its flows with it.
  sample(9);
  w.hwConfig->hwFtConfig("T")->expConfigDel("E");
  w.hwConfig->sampleRateIs(10);
  EXPECT_EQ(sm->dropped().noExporter, 1u);
  sample(9);
  w.hwConfig->hwIntfFtConfigDel(Nelo::IntfId("Ethernet1"));
  EXPECT_EQ(sm->sources(), 0u);
  w.hwConfig->hwFtConfigDel("T");
  EXPECT_EQ(sm->flows("T"), 0u);
  EXPECT_EQ(sm->dropped().noExporter, 2u);
}

}  // namespace

// Endpoints and per-collector sequence numbers.

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/zub/LogHandle.h"
#include "tests/support/ExportWorld.h"

namespace {

using TestSupport::ExportWorld;

TEST(ExporterInfoSm, EndpointsPerExporterAndSequenceNumbersPerCollector) {
  ExportWorld w;
  w.exporter("T", 1, "E", "10.0.0.1", "2001:db8::1");
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.start();
  auto expInfo = w.info->ftInfo("T")->expInfo("E");
  // An endpoint for each family the collectors use, and for no other.
  ASSERT_TRUE(expInfo->udpPam4());
  EXPECT_FALSE(expInfo->udpPam6());
  EXPECT_EQ(expInfo->udpPam4()->name(), "udpPam4-T-E");
  EXPECT_EQ(expInfo->udpPam4()->txPrio(), 2);
  auto* sm = w.infoSm->ftInfoSm().get("T")->expInfoSm().get("E");
  EXPECT_EQ(sm->pamManagementTask()->name(), "PamManagementTask-T-E");
  EXPECT_EQ(sm->pamManagementTask()->priority(), 2);

  auto a = w.collInfo("T", "E", "a");
  ASSERT_TRUE(a);
  a->channel4()->ipfixMsgSeqNoInc(10);
  // Changing anything else of the exporter keeps the number.
  auto hw = w.hwConfig->hwFtConfig("T")->expConfig("E");
  hw->collectorIpAndPortIs("a", Nelo::IpAndPort{Nelo::IpAddr("192.0.2.1"), 4740});
  hw->dscpValueIs(Nelo::DscpValue(8));
  w.collector6("T", "E", "b", "2001:db8::2", 4739);  // an IPv6-only collector gets one too
  w.run();
  ASSERT_TRUE(expInfo->udpPam6());
  EXPECT_EQ(expInfo->udpPam6()->name(), "udpPam6-T-E");
  EXPECT_TRUE(expInfo->udpPam6()->ipv6En());
  EXPECT_EQ(w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNo().value, 10u);
  ASSERT_TRUE(w.collInfo("T", "E", "b"));
  EXPECT_FALSE(w.collInfo("T", "E", "b")->channel6()->optTemplateSent());
  // The last IPv6 collector going gives its endpoint back; IPv4 goes on as it was.
  w.recorder.events.clear();
  hw->collectorIp6AndPortDel("b");
  w.run();
  EXPECT_FALSE(expInfo->udpPam6());
  EXPECT_EQ(w.recorder.events, (std::vector<std::string>{"close udpPam6-T-E"}));
  ASSERT_TRUE(expInfo->udpPam4());
  EXPECT_EQ(w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNo().value, 10u);
  // Removing and re-adding restarts at 0.
  hw->collectorIpAndPortDel("a");
  EXPECT_FALSE(w.collInfo("T", "E", "a"));
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  EXPECT_EQ(w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNo().value, 0u);
}

// An exporter that goes switches both its endpoints off first; the tracker going takes
// its run-time state; the endpoint reactor going closes every endpoint it opened (an
// exporter without collectors never opened one).
TEST(ExporterInfoSm, EndpointsCloseWithTheirExporterTrackerOrReactor) {
  ExportWorld w;
  w.exporter("T", 1, "E", "10.0.0.1", "2001:db8::1");
  w.exporter("U", 2, "F", "10.0.0.1");
  w.exporter("U", 2, "G", "10.0.0.1");
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector6("T", "E", "b", "2001:db8::2", 4739);
  w.collector4("U", "G", "c", "192.0.2.3", 4739);
  w.start();
  auto expInfo = w.info->ftInfo("T")->expInfo("E");
  auto pam4 = expInfo->udpPam4();
  w.recorder.events.clear();
  w.hwConfig->hwFtConfig("T")->expConfigDel("E");
  EXPECT_EQ(w.recorder.events,
            (std::vector<std::string>{"close udpPam4-T-E", "close udpPam6-T-E"}));
  EXPECT_EQ(pam4->mode(), Nelo::UdpPam::modeOff);
  EXPECT_FALSE(expInfo->udpPam4());
  EXPECT_EQ(expInfo->collInfoSize(), 0u);
  EXPECT_FALSE(w.info->ftInfo("T")->expInfo("E"));
  w.hwConfig->hwFtConfigDel("T");
  EXPECT_FALSE(w.info->ftInfo("T"));

  auto g = w.info->ftInfo("U")->expInfo("G");
  w.recorder.events.clear();
  w.infoSm = nullptr;  // no cleanup call first: its teardown does the work
  EXPECT_EQ(w.recorder.events, (std::vector<std::string>{"close udpPam4-U-G"}));
  EXPECT_FALSE(g->udpPam4());
  EXPECT_EQ(g->collInfoSize(), 0u);
}

TEST(ExporterInfoSm, EndpointsAreBoundToTheVrfDeviceAndOpenedAnewWhenItChanges) {
  ExportWorld w;
  w.exporter("T", 1, "E", "10.0.0.1", "2001:db8::1");
  auto hw = w.hwConfig->hwFtConfig("T")->expConfig("E");
  hw->vrfDeviceIs("blue");
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector6("T", "E", "b", "2001:db8::2", 4739);
  w.start();
  auto expInfo = w.info->ftInfo("T")->expInfo("E");
  ASSERT_TRUE(expInfo->udpPam4() && expInfo->udpPam6());
  EXPECT_EQ(expInfo->udpPam4()->bindDevice(), "blue");
  EXPECT_EQ(expInfo->udpPam6()->bindDevice(), "blue");
  w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNoInc(7);

  // Another device: both sockets are replaced, never rebound; the collectors keep their
  // sequence numbers.
  w.recorder.events.clear();
  hw->vrfDeviceIs("green");
  w.run();
  EXPECT_EQ(w.recorder.events, (std::vector<std::string>{"close udpPam4-T-E", "close udpPam6-T-E",
                                                         "open udpPam4-T-E", "open udpPam6-T-E"}));
  EXPECT_EQ(expInfo->udpPam4()->bindDevice(), "green");
  EXPECT_EQ(expInfo->udpPam6()->bindDevice(), "green");
  EXPECT_EQ(w.collInfo("T", "E", "a")->channel4()->ipfixMsgSeqNo().value, 7u);
  // Back in the default VRF: unbound sockets.
  hw->vrfDeviceIs("");
  w.run();
  EXPECT_EQ(expInfo->udpPam4()->bindDevice(), "");
  EXPECT_EQ(expInfo->udpPam4()->mode(), Nelo::UdpPam::modeOn);
}

TEST(ExporterInfoSm, AnEndpointThatCannotBeOpenedIsLoggedAndRetriedWithBackoff) {
  ExportWorld w;
  Zub::LogCapture logs;
  w.recorder.failOpen = true;  // out of descriptors
  w.exporter("T", 1, "E", "10.0.0.1");
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.start();
  auto expInfo = w.info->ftInfo("T")->expInfo("E");
  EXPECT_FALSE(expInfo->udpPam4());
  ASSERT_EQ(logs.lines().size(), 1u);
  EXPECT_EQ(logs.lines()[0],
            "FLOWTRACKING_EXPORTER_NO_ENDPOINT: Exporter E in flow tracker T is inactive for "
            "its IPv4 collectors: it cannot open its IPv4 socket (Too many open files). "
            "Retrying in 2 s.");
  w.advance(2);  // failed again: the next try waits twice as long
  EXPECT_FALSE(expInfo->udpPam4());
  w.recorder.failOpen = false;
  w.advance(3.9);
  EXPECT_FALSE(expInfo->udpPam4());
  w.advance(0.1);
  EXPECT_TRUE(expInfo->udpPam4());
  EXPECT_FALSE(expInfo->udpPam6());
  EXPECT_EQ(logs.lines().back(),
            "FLOWTRACKING_EXPORTER_ENDPOINT_OPEN: Exporter E in flow tracker T opened its IPv4 "
            "socket; its IPv4 collectors are exported to again.");
  // Once open, nothing is retried any more.
  EXPECT_FALSE(
      w.infoSm->ftInfoSm().get("T")->expInfoSm().get("E")->pamManagementTask()->scheduled());
}

}  // namespace

// Message framing against hand-written bytes, and the builder's assertions.

#include <gtest/gtest.h>

#include "ipfix/MessageBuilder.h"
#include "platform/zub/Clock.h"
#include "tests/support/Bytes.h"

namespace {

using FlowTracking::MessageBuilder;
using TestSupport::hexBytes;
using TestSupport::toHex;

// A template record: id 256, sourceIPv4Address (8) / 4, octetDeltaCount (1) / 8.
const std::string kTemplate = hexBytes("0100 0002 | 0008 0004 | 0001 0008");
const std::string kRecord1 = hexBytes("0a000001 | 0000000000000064");
const std::string kRecord2 = hexBytes("0a000002 | 0000000000000100");

std::string pktBytes(const Zub::Ptr<Nelo::Pkt>& p) { return p->bytesString(); }

TEST(MessageBuilder, TwoSetsMatchTheHandWrittenMessage) {
  auto b = FlowTracking::messageBuilderFactory(200, 0x01020304);
  b->startMsg();
  EXPECT_EQ(b->offset(), 16u);
  EXPECT_EQ(b->addSetRecordStr(2, kTemplate), 12u);
  EXPECT_EQ(b->addSetRecordStr(256, kRecord1), 12u);
  EXPECT_EQ(b->addSetRecordStr(256, kRecord2), 12u);  // same id: same set
  EXPECT_EQ(b->recordCount(), 3u);
  auto msg = b->finalizeMsg();
  const std::string expected = hexBytes(
      "000a 003c | 00000000 | 00000000 | 01020304"  // version 10, length 60, time, seq, domain
      "0002 0010 | 0100 0002 0008 0004 0001 0008"   // template set, length 16
      "0100 001c | 0a000001 0000000000000064"       // data set 256, length 28
      "            0a000002 0000000000000100");
  EXPECT_EQ(toHex(pktBytes(msg->pkt())), toHex(expected));
  EXPECT_EQ(msg->recordCount(), 3u);
  EXPECT_EQ(msg->msgHdr().length(), msg->pkt()->bytes());
  // The builder is idle and ready for the next message.
  EXPECT_EQ(b->offset(), 0u);
  EXPECT_EQ(b->recordCount(), 0u);
  EXPECT_FALSE(b->pkt());
  EXPECT_FALSE(b->setHdr());
  b->startMsg();
  EXPECT_EQ(b->addSetRecordStr(256, kRecord1), 12u);
  EXPECT_EQ(b->finalizeMsg()->pkt()->bytes(), 16u + 4 + 12);
}

TEST(MessageBuilder, AlternatingIdsOpenThreeSets) {
  auto b = FlowTracking::messageBuilderFactory(200, 7);
  b->startMsg();
  b->addSetRecordStr(256, hexBytes("aa"));
  b->addSetRecordStr(257, hexBytes("bbbb"));
  b->addSetRecordStr(256, hexBytes("cc"));
  EXPECT_EQ(toHex(pktBytes(b->finalizeMsg()->pkt())),
            toHex(hexBytes("000a 0020 00000000 00000000 00000007"
                           "0100 0005 aa | 0101 0006 bbbb | 0100 0005 cc")));
}

TEST(MessageBuilder, RecordThatDoesNotFitLeavesTheMessageUnchanged) {
  auto b = FlowTracking::messageBuilderFactory(100, 1);
  b->startMsg();
  const std::string eighty(80, 'x');
  EXPECT_EQ(b->addSetRecordStr(256, eighty), 80u);  // 16 + 4 + 80 = 100
  EXPECT_EQ(b->offset(), 100u);
  EXPECT_EQ(b->addSetRecordStr(256, "y"), 0u);  // same set, one byte too many
  EXPECT_EQ(b->addSetRecordStr(300, ""), 0u);   // a new set needs 4 header bytes
  EXPECT_EQ(b->offset(), 100u);
  EXPECT_EQ(b->recordCount(), 1u);
  EXPECT_EQ(b->setLen(), 84u);
  EXPECT_EQ(b->currentSetId(), 256);
  auto msg = b->finalizeMsg();
  EXPECT_EQ(msg->pkt()->bytes(), 100u);
  EXPECT_EQ(msg->recordCount(), 1u);

  // A new set that does not fit leaves the open set open and its length unwritten.
  b->startMsg();
  b->addSetRecordStr(256, std::string(70, 'x'));                // offset 90
  EXPECT_EQ(b->addSetRecordStr(257, std::string(7, 'z')), 0u);  // 90 + 11 > 100
  EXPECT_TRUE(b->setHdr());
  EXPECT_EQ(b->addSetRecordStr(256, std::string(10, 'w')), 10u);
  EXPECT_EQ(b->finalizeMsg()->pkt()->bytes(), 100u);
}

TEST(MessageBuilder, PktStampsTimeAndSequenceNumberAnew) {
  Zub::ManualClock clock(1'700'000'123'900'000'000LL);  // .9 s: truncated
  Zub::ScopedClock scoped(clock);
  auto b = FlowTracking::messageBuilderFactory(100, 9);
  b->startMsg();
  b->addSetRecordStr(256, kRecord1);
  auto msg = b->finalizeMsg();
  EXPECT_EQ(msg->msgHdr().sequenceNumber(), 0u);
  EXPECT_EQ(msg->msgHdr().exportTime(), 0u);
  msg->pkt(7);
  clock.tick(Zub::nsFromSeconds(2));
  const auto& p = msg->pkt(8);
  EXPECT_EQ(toHex(pktBytes(p).substr(4, 8)), toHex(hexBytes("6553f17d 00000008")));
  EXPECT_EQ(msg->msgHdr().exportTime(), 1'700'000'125u);
}

TEST(DataRecord, KeepsShortRecordsInlineAndGrowsLongOnesOnTheHeap) {
  using FlowTracking::DataRecord;
  const std::string inlineMax(DataRecord::kInlineBytes, 'a');
  DataRecord r(inlineMax);
  EXPECT_EQ(r.data(), inlineMax);
  r.appendU16(0x0102);  // past the inline bytes: moves to the heap, keeps the prefix
  EXPECT_EQ(r.data(), inlineMax + "\x01\x02");
  r.append(std::string(200, 'b').data(), 200);
  EXPECT_EQ(r.dataLen(), DataRecord::kInlineBytes + 2 + 200);
  EXPECT_EQ(r.data().substr(DataRecord::kInlineBytes + 2), std::string(200, 'b'));
  r.dataIs("short");  // rewriting a heap record keeps it valid
  EXPECT_EQ(r.data(), "short");
  auto x = FlowTracking::dataRecordFactory("x"), y = FlowTracking::dataRecordFactory("y");
  EXPECT_EQ(x->data(), "x");
  EXPECT_EQ(y->data(), "y");
}

TEST(MessageBuilderDeathTest, AssertionsNameTheConditionAndTheFile) {
  const char* file = "\\(file MessageBuilder.cpp, line [0-9]+\\)";
  auto b = FlowTracking::messageBuilderFactory(100, 1);
  EXPECT_DEATH(b->addSetRecordStr(256, "x"),
               std::string("ASSERTION FAILED: builder->pkt\\(\\) ") + file);
  EXPECT_DEATH(b->finalizeMsg(), std::string("ASSERTION FAILED: pkt\\(\\) ") + file);
  EXPECT_DEATH(b->startSet_(256), "ASSERTION FAILED: pkt\\(\\) ");
  b->startMsg();
  EXPECT_DEATH(b->startMsg(), std::string("ASSERTION FAILED: !pkt\\(\\) ") + file);
  EXPECT_DEATH(b->finalizeMsg(),
               "ASSERTION FAILED: offset\\(\\) > IpfixConst::messageHeaderLen\\(\\) ");
  EXPECT_DEATH(b->finalizeSet_(), "ASSERTION FAILED: setHdr\\(\\) ");
  EXPECT_DEATH(b->addSetRecordStr(256, std::string(65535, 'x')),
               "ASSERTION FAILED: bytes < Zub::maxU16\\(\\) ");
  b->startSet_(256);
  EXPECT_DEATH(b->startSet_(257), "ASSERTION FAILED: !setHdr\\(\\) ");
}

}  // namespace

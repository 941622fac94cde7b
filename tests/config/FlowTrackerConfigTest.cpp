// The configuration and hardware models: defaults, derived values, key clashes, text
// forms.

#include <gtest/gtest.h>

#include "config/HwFlowTrackingConfig.h"
#include "config/HwFlowTrackingStatus.h"

namespace {

TEST(HwModels, DefaultsAndTheDerivedMessageSize) {
  Zub::Ptr<HwFlowTracking::ExporterConfig> e(new HwFlowTracking::ExporterConfig("e"));
  EXPECT_EQ(e->ipfixMaxMsgSize(), 9104u);
  e->ipfixMtuIs(FlowTracking::IpfixMtu(1500));
  EXPECT_EQ(e->ipfixMaxMsgSize(), 1452u);
  EXPECT_EQ(e->templateInterval().value(), 3600000u);
  EXPECT_FALSE(e->exporterReady());
  EXPECT_THROW(e->vrfNameIs(L3::VrfName(std::string(101, 'x'))), Zub::RangeException);
  e->vrfNameIs(L3::VrfName(std::string(100, 'x')));
  EXPECT_EQ(e->vrfName().name().size(), 100u);

  Zub::Ptr<HwFlowTracking::Config> hw(new HwFlowTracking::Config("hw"));
  EXPECT_EQ(hw->sampleRate(), 1048576u);
  auto ft = hw->hwFtConfigIs("T", FlowTracking::FtId(3));
  auto fg = ft->hwFgConfigIs(2, "ipv4");
  EXPECT_FALSE(fg->templateId().isValid());
  EXPECT_EQ(fg->templateId().value(), 65535);
  fg->genIdInc();
  fg->genIdInc(2);
  EXPECT_EQ(fg->genId(), 3u);
  ft->hwFgConfigIs(1, "ipv6");
  std::vector<uint32_t> order;
  for (const auto& [seq, g] : ft->hwFgConfigColl()) order.push_back(seq);
  EXPECT_EQ(order, (std::vector<uint32_t>{1, 2}));
}

TEST(HwModels, RecreatingWithOtherConstructorValuesIsRefused) {
  Zub::Ptr<HwFlowTracking::Config> hw(new HwFlowTracking::Config("/hw/config"));
  auto a = hw->hwFtConfigIs("A", FlowTracking::FtId(1));
  try {
    hw->hwFtConfigIs("A", FlowTracking::FtId(2));
    FAIL();
  } catch (const Zub::NameInUseException& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the entity with fullName /hw/config/hwFtConfig/A where "
                 "constructor parameter attribute 'ftId' has a different value of 2 than the "
                 "current value of 1 not allowed");
  }
  auto b = hw->hwFtConfigIs("B", FlowTracking::FtId(2));
  hw->hwIntfFtConfigIs(Nelo::IntfId("Ethernet1"), a);
  try {
    hw->hwIntfFtConfigIs(Nelo::IntfId("Ethernet1"), b);
    FAIL();
  } catch (const Zub::NameInUseException& e) {
    EXPECT_NE(std::string(e.what()).find("constructor parameter attribute 'hwFtConfig' has a "
                                         "different value of /hw/config/hwFtConfig/B"),
              std::string::npos)
        << e.what();
  }
  EXPECT_THROW(a->hwFgConfigIs(1, "x")->checkReinstantiation("y"), Zub::NameInUseException);
  EXPECT_THROW(FlowTracking::FtId(65536), Zub::RangeException);

  Zub::Ptr<HwFlowTracking::FtStatus> st(new HwFlowTracking::FtStatus("T"));
  EXPECT_THROW(st->hwFgStatusIs(FlowTracking::TemplateId(255), "g"), Zub::RangeException);
  auto fg = st->hwFgStatusIs(FlowTracking::TemplateId(261), "g");
  fg->templateEntryIs(0, Ipfix::RecordType::srcIp);
  EXPECT_THROW(fg->templateEntryIs(0, Ipfix::RecordType::dstIp), Zub::NameInUseException);
}

TEST(FlowParam, TextFormRoundTrips) {
  FlowTracking::FlowParam p{7, Ipfix::RecordType::srcIp6, true};
  const std::string text = p.stringValue();
  EXPECT_EQ(text,
            "Value('FlowTracking::FlowParam', ** {'seqno': 7, 'type': srcIp6, 'flowKey': true})");
  EXPECT_EQ(FlowTracking::FlowParam::parse(text), p);
  EXPECT_EQ(FlowTracking::FlowParam::parse(FlowTracking::FlowParam{}.stringValue()),
            FlowTracking::FlowParam{});
  for (const char* bad :
       {"", "Value('FlowTracking::FlowParam', ** {'seqno': x, 'type': srcIp, 'flowKey': true})",
        "Value('FlowTracking::FlowParam', ** {'seqno': 1, 'type': nope, 'flowKey': true})",
        "Value('FlowTracking::FlowParam', ** {'seqno': 1, 'type': srcIp, 'flowKey': maybe})",
        "Value('FlowTracking::FlowParam', ** {'seqno': 1, 'type': srcIp, 'flowKey': true}) "}) {
    EXPECT_FALSE(FlowTracking::FlowParam::parse(bad)) << bad;
  }
}

}  // namespace

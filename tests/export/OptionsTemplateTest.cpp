// Options templates: golden bytes, when each collector has them, and their fatal paths.

#include <gtest/gtest.h>

#include "export/FlowTrackerTemplateSm.h"
#include "tests/support/Bytes.h"
#include "tests/support/ExportWorld.h"

namespace {

using namespace FlowTracking;
using TestSupport::ExportWorld;
using TestSupport::hexBytes;
using TestSupport::toHex;

class OptionsTemplateTest : public ::testing::Test {
 protected:
  ExportWorld w;
  void SetUp() override {
    w.exporter("T", 7, "E", "10.0.0.1", "2001:db8::1");
    w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4}});
    w.start();
  }
};

TEST_F(OptionsTemplateTest, TheOptionsTemplateSetsMatchTheHandWrittenBytes) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.run();
  auto sent = w.recorder.take(3);
  ASSERT_EQ(sent.size(), 1u);
  // The four templates in the configuration's (name) order, each with one scope field.
  const std::string four =
      "0003 0050"                                // options template set, length 80
      "0102 0002 0001 | 0091 0002 | 00ad 0008"   // 258 FlowKey: templateId, flowKeyIndicator
      "0103 0007 0001 | 0095 0004 | 012c ffff"   // 259 FlowTrackerTable: observationDomainId,
      "0024 0002 | 0025 0002 | 0130 0002"        //   observationDomainName, active and idle
      "0135 0004 | 0136 0004"                    //   timeouts, selector, sampling size, population
      "0101 0002 0001 | 000a 0004 | 0052 ffff"   // 257 IntfTable: ingressInterface, interfaceName
      "0100 0002 0001 | 00ea 0004 | 00ec ffff";  // 256 VrfTable: ingressVRFID, VRFname
  // In the compatible layout every template is alone in its set, by id (pmacct reads
  // only the first of a set), the compatible ones with fixed lengths only: 65280
  // observationDomainId | samplingInterval; 65281 and 65282 exportingProcessId |
  // ingressInterface, interfaceDescription (32) and ingressVRFID, VRFname (32).
  const std::string alone =
      "0003 0012 | 0100 0002 0001 | 00ea 0004 | 00ec ffff"
      "0003 0012 | 0101 0002 0001 | 000a 0004 | 0052 ffff"
      "0003 0012 | 0102 0002 0001 | 0091 0002 | 00ad 0008"
      "0003 0026 | 0103 0007 0001 | 0095 0004 | 012c ffff | 0024 0002 | 0025 0002"
      "            0130 0002 | 0135 0004 | 0136 0004"
      "0003 0012 | ff00 0002 0001 | 0095 0004 | 0022 0004"
      "0003 0016 | ff01 0003 0001 | 0090 0004 | 000a 0004 | 0053 0020"
      "0003 0016 | ff02 0003 0001 | 0090 0004 | 00ea 0004 | 00ec 0020";
  // Version, length 170, time, sequence, domain 7.
  EXPECT_EQ(toHex(sent[0].bytes),
            toHex(hexBytes("000a 00aa | 6b49d200 | 00000000 | 00000007" + alone)));
  auto* sm = w.templateSm->ftTemplateSm().get("T")->optTemplateExporterSm().get("E");
  ASSERT_NE(sm, nullptr);
  EXPECT_EQ(sm->templateLen().at(TemplateId(257)), 14u);
  EXPECT_EQ(sm->templateLen().at(TemplateId(259)), 34u);
  EXPECT_EQ(sm->templatePktTemplateCount(), 7);
  EXPECT_EQ(sm->templateCreationTask()->name(),
            "optionsTemplateExporterSm-TemplateCreationTask-T-E");
  // Switched off: the four exactly as they were, sent again at once.
  w.hwConfig->compatibleOptionsIs(false);
  w.run();
  sent = w.recorder.take(3);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(toHex(sent[0].bytes),
            toHex(hexBytes("000a 0060 | 6b49d200 | 00000000 | 00000007" + four)));
  EXPECT_EQ(sm->getTemplateLength(), 4u + 14 + 14 + 14 + 34);
  // The exporter going takes its options template exporter with it.
  w.hwConfig->hwFtConfig("T")->expConfigDel("E");
  EXPECT_FALSE(w.templateSm->ftTemplateSm().get("T")->optTemplateExporterSm().has("E"));
}

TEST(OptionsTemplateDeathTest, MalformedTemplatesAndMissingElementsAreFatal) {
  Zub::Ptr<OptionsTemplate> t(new OptionsTemplate("X", TemplateId(300)));
  EXPECT_DEATH(getTemplateEntryLength(*t), "templateEntry->scopeFields\\(\\) > 0");
  t->scopeFieldIs(0, Ipfix::RecordType::ingressInterface);
  t->scopeFieldIs(1, Ipfix::RecordType::vrfId);
  t->fieldIs(0, Ipfix::RecordType::interfaceName);
  EXPECT_DEATH(getTemplateEntryLength(*t),
               "templateEntry->fields\\(\\) >= templateEntry->scopeFields\\(\\)");
  Ipfix::ElementIdColl empty;
  EXPECT_DEATH(updateFieldInfo(empty, *t->field(0)),
               "eic->elementIdCollHas\\( field->fieldId\\(\\) \\)");
}

}  // namespace

// The flow parameter's text form, which reads back to the value.

#include <gtest/gtest.h>

#include "config/FlowTrackerConfig.h"

namespace {

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

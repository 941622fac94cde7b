// Operator log messages: formatting and rate limiting on the injected clock.

#include <gtest/gtest.h>

#include "platform/zub/Clock.h"
#include "platform/zub/LogHandle.h"

namespace {

const Zub::LogHandle TEST_COLLECTOR_ACTIVE("TEST_COLLECTOR_ACTIVE", 6,
                                           "%s collector %s for exporter %s is active.",
                                           "Packets will be exported to this collector.",
                                           Zub::NoActionRequired, 0.0, 1.0, "TEST");
const Zub::LogHandle TEST_LIMITED("TEST_LIMITED", 4, "link %s flapped (100%%)", "A link flapped.",
                                  "Check the cable.", 10.0, 2.0, "TEST");

TEST(LogHandle, FillsTheFormatAndNamesTheHandle) {
  Zub::LogCapture cap;
  TEST_COLLECTOR_ACTIVE.log("dummy", "10.0.0.1", std::string("exp1"));
  TEST_COLLECTOR_ACTIVE.logFacility("IPFIX", "dummy", 4739);  // one argument short
  ASSERT_EQ(cap.records().size(), 2u);
  EXPECT_EQ(cap.lines()[0],
            "TEST_COLLECTOR_ACTIVE: dummy collector 10.0.0.1 for exporter exp1 is active.");
  EXPECT_EQ(cap.records()[0].line(),
            "TEST-6-TEST_COLLECTOR_ACTIVE: dummy collector 10.0.0.1 for exporter exp1 is active.");
  EXPECT_EQ(cap.records()[1].facility, "IPFIX");
  EXPECT_EQ(cap.records()[1].text, "dummy collector 4739 for exporter (missing) is active.");
  EXPECT_EQ(TEST_COLLECTOR_ACTIVE.recommendedAction(), Zub::NoActionRequired);
}

TEST(LogHandle, RateLimitHoldsBackRepeatsAndReportsThem) {
  Zub::ManualClock clock;
  Zub::ScopedClock scoped(clock);
  Zub::LogCapture cap;
  for (int i = 0; i < 5; ++i) TEST_LIMITED.log("Ethernet1");
  TEST_LIMITED.log("Ethernet2");  // another text has its own window
  EXPECT_EQ(cap.lines(), (std::vector<std::string>{"TEST_LIMITED: link Ethernet1 flapped (100%)",
                                                   "TEST_LIMITED: link Ethernet1 flapped (100%)",
                                                   "TEST_LIMITED: link Ethernet2 flapped (100%)"}));
  clock.tick(Zub::nsFromSeconds(10));
  cap.clear();
  TEST_LIMITED.log("Ethernet1");
  EXPECT_EQ(cap.lines(), (std::vector<std::string>{
                             "TEST_LIMITED: link Ethernet1 flapped (100%) (3 similar messages "
                             "suppressed)"}));
}

}  // namespace

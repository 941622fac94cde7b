// Fatal assertions, tracing, range errors and the process clock.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/zub/Assert.h"
#include "platform/zub/Bounded.h"
#include "platform/zub/Glint.h"

namespace {

TEST(AssertDeathTest, PrintsTheConditionAndTheSourceFile) {
  int offset = 16;
  EXPECT_DEATH(ZUB_ASSERT(offset == 0),
               "ASSERTION FAILED: offset == 0 \\(file AssertTest.cpp, line [0-9]+\\)");
  EXPECT_DEATH(ZUB_ASSERT_TEXT(offset < 0, "bytes < Zub::maxU16()"),
               "ASSERTION FAILED: bytes < Zub::maxU16\\(\\) \\(file AssertTest.cpp");
  EXPECT_DEATH(ZUB_FATAL("(!(\"taskPrefix\"))"), "ASSERTION FAILED: \\(!\\(\"taskPrefix\"\\)\\)");
}

TEST(AssertDeathTest, CrashOutputCarriesTheTwyxRing) {
  auto& f = Zub::Glint::facility("AssertTest");
  EXPECT_DEATH(
      {
        GLINT(f, 1) << "last words before the crash, id " << 4711;
        GLINT(f, 8) << "a detail line that Twyx does not keep";
        ZUB_ASSERT(f.name().empty());
      },
      "ASSERTION FAILED: f.name\\(\\).empty\\(\\)(.|\n)*---- Twyx(.|\n)*"
      "AssertTest/1 last words before the crash, id 4711\n---- end of Twyx");
}

TEST(Glint, LevelsAreSwitchedOnPerFacility) {
  Zub::Glint::reset();
  auto& f = Zub::Glint::facility("GlintTestA");
  std::string error;
  ASSERT_TRUE(Zub::Glint::configure("GlintTestA/0-2,GlintTestB/5;7", &error)) << error;
  auto& g = Zub::Glint::facility("GlintTestB");  // created after the setting: still applied
  EXPECT_TRUE(f.enabled(2));
  EXPECT_FALSE(f.enabled(3));
  EXPECT_TRUE(g.enabled(5));
  EXPECT_FALSE(g.enabled(6));
  EXPECT_TRUE(g.enabled(7));
  EXPECT_FALSE(Zub::Glint::configure("GlintTestA", &error));
  EXPECT_NE(error.find("GlintTestA"), std::string::npos);
  EXPECT_FALSE(Zub::Glint::configure("GlintTestA/12", &error));

  std::vector<std::string> lines;
  {
    Zub::Glint::Capture c(
        f, 1u << 4, [&](const Zub::Glint::Record& r) { lines.push_back(std::string(r.text)); });
    GLINT(f, 4) << "shown " << 1 << ' ' << true << ' ' << 2.5;
    GLINT(f, 5) << "hidden";
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"shown 1 true 2.5"}));
  EXPECT_TRUE(f.enabled(2));  // the capture restored the levels
  Zub::Glint::reset();
}

struct Small : Zub::Bounded<Small, uint8_t, 10, 20, 15> {
  using Bounded::Bounded;
  static constexpr const char* kRangeMessage = "Small::value < Small::min or > Small::max";
};

TEST(Bounded, RangeErrorsCarryTheTypesMessageAndWidthIsChecked) {
  EXPECT_EQ(Small().value(), 15);
  EXPECT_EQ(Small("20").value(), 20);
  for (long long bad : {9LL, 21LL, 266LL /* would wrap to 10 in 8 bits */, -1LL}) {
    try {
      Small s(bad);
      FAIL() << bad;
    } catch (const Zub::RangeException& e) {
      EXPECT_STREQ(e.what(), "Small::value < Small::min or > Small::max");
    }
  }
  EXPECT_THROW(Small("1x"), Zub::RangeException);
  EXPECT_THROW(Small(""), Zub::RangeException);
}

}  // namespace

// Bounded values: limits, defaults, range messages and text forms, in one table.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ipfix/FlowTrackingTypes.h"

namespace {

using namespace FlowTracking;

struct Limits {
  const char* type;
  // Constructs from an integer / from text and returns the stored value.
  std::function<long long(long long)> fromInt;
  std::function<long long(const std::string&)> fromText;
  long long defaultValue;
  long long min, max;
  const char* message;
};

template <class T>
Limits limits(const char* name) {
  return {name,
          [](long long v) { return static_cast<long long>(T(v).value()); },
          [](const std::string& s) { return static_cast<long long>(T(s).value()); },
          static_cast<long long>(T().value()),
          static_cast<long long>(T::kMin),
          static_cast<long long>(T::kMax),
          T::kRangeMessage};
}

TEST(FlowTrackingTypes, LimitsDefaultsAndMessages) {
  struct Expect {
    Limits l;
    long long def, min, max;
    std::string message;
  };
  const Expect table[] = {
      {limits<SampleRate>("SampleRate"), 1048576, 1, 16777216,
       "SampleRate::value < SampleRate::minRate or > SampleRate::maxRate not allowed"},
      {limits<InactiveTimeout>("InactiveTimeout"), 15000, 3000, 900000,
       "InactiveTimeout::value < InactiveTimeout::minTimeout or > InactiveTimeout::maxTimeout "
       "not allowed"},
      {limits<ActiveInterval>("ActiveInterval"), 300000, 5000, 36000000,
       "ActiveInterval::value < ActiveInterval::minInterval or > ActiveInterval::maxInterval "
       "not allowed"},
      {limits<TemplateInterval>("TemplateInterval"), 3600000, 5000, 3600000,
       "TemplateInterval::value < TemplateInterval::minInterval or > "
       "TemplateInterval::maxInterval not allowed"},
      {limits<IpfixMtu>("IpfixMtu"), 9152, 512, 65472,
       "IpfixMtu::value < IpfixMtu::minMtu or > IpfixMtu::maxMtu not allowed"},
      {limits<IpfixVersion>("IpfixVersion"), 10, 10, 10,
       "IpfixVersion::value < IpfixVersion::minVersion or > IpfixVersion::maxVersion not "
       "allowed"},
      {limits<TemplateId>("TemplateId"), 65535, 256, 65535,
       "TemplateId::value < TemplateId::minTemplateId or > TemplateId::maxTemplateId not "
       "allowed"},
      {limits<L4Port>("L4Port"), 4739, 1, 65535,
       "L4Port::value < L4Port::minPort or > L4Port::maxPort not allowed"},
      {limits<FtId>("FtId"), 0, 0, 65535,
       "FtId::value < FtId::minFtId or > FtId::maxFtId not allowed"},
      {limits<Nelo::DscpValue>("DscpValue"), 0, 0, 63,
       "ExporterConfig::dscpValue < DscpValue::min or > DscpValue::max not allowed"},
  };
  for (const Expect& e : table) {
    SCOPED_TRACE(e.l.type);
    EXPECT_EQ(e.l.defaultValue, e.def);
    EXPECT_EQ(e.l.fromInt(e.min), e.min);
    EXPECT_EQ(e.l.fromInt(e.max), e.max);
    EXPECT_EQ(e.l.fromText(std::to_string(e.max)), e.max);
    for (long long bad : {e.min - 1, e.max + 1}) {
      try {
        e.l.fromInt(bad);
        ADD_FAILURE() << "accepted " << bad;
      } catch (const Zub::RangeException& ex) {
        EXPECT_EQ(ex.what(), e.message);
      }
      try {
        e.l.fromText(std::to_string(bad));
        ADD_FAILURE() << "accepted text " << bad;
      } catch (const Zub::RangeException& ex) {
        EXPECT_EQ(ex.what(), e.message);
      }
    }
    EXPECT_THROW(e.l.fromText("12abc"), Zub::RangeException);
  }
}

}  // namespace

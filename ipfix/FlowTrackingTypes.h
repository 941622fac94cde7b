#pragma once
// Bounded configuration values, constants and the reserved template identities shared
// by the configuration model and the exporters. Times are milliseconds.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/nelo/Addr.h"
#include "platform/nelo/VrfName.h"
#include "platform/zub/Bounded.h"

namespace FlowTracking {

// One packet in this many is sampled. A host samples in software at any rate; a chip
// samples no more often than one in `chipMinRate`, which the configuration checks
// where the chip is the data path.
struct SampleRate : Zub::Bounded<SampleRate, uint32_t, 1, 16777216, 1048576> {
  using Bounded::Bounded;
  static constexpr uint32_t minRate = 1;
  static constexpr uint32_t chipMinRate = 1024;
  static constexpr uint32_t maxRate = 16777216;
  static constexpr uint32_t rateDefault = 1048576;
  static constexpr const char* kRangeMessage =
      "SampleRate::value < SampleRate::minRate or > SampleRate::maxRate not allowed";
};

struct InactiveTimeout : Zub::Bounded<InactiveTimeout, uint32_t, 3000, 900000, 15000> {
  using Bounded::Bounded;
  static constexpr uint32_t minTimeout = 3000;
  static constexpr uint32_t maxTimeout = 900000;
  static constexpr uint32_t timeoutDefault = 15000;
  static constexpr const char* kRangeMessage =
      "InactiveTimeout::value < InactiveTimeout::minTimeout or > InactiveTimeout::maxTimeout "
      "not allowed";
  // Whole seconds, truncated: 15999 ms is 15 s.
  Zub::Seconds seconds() const { return static_cast<Zub::Seconds>(value() / 1000); }
};

struct ActiveInterval : Zub::Bounded<ActiveInterval, uint32_t, 5000, 36000000, 300000> {
  using Bounded::Bounded;
  static constexpr uint32_t minInterval = 5000;
  static constexpr uint32_t maxInterval = 36000000;
  static constexpr uint32_t intervalDefault = 300000;
  static constexpr const char* kRangeMessage =
      "ActiveInterval::value < ActiveInterval::minInterval or > ActiveInterval::maxInterval not "
      "allowed";
  Zub::Seconds seconds() const { return static_cast<Zub::Seconds>(value() / 1000); }
};

// Flows a tracker's software flow cache holds (about 144 bytes each).
struct FlowCacheSize : Zub::Bounded<FlowCacheSize, uint32_t, 1024, 4194304, 65536> {
  using Bounded::Bounded;
  static constexpr uint32_t minSize = 1024;
  static constexpr uint32_t maxSize = 4194304;
  static constexpr const char* kRangeMessage =
      "FlowCacheSize::value < FlowCacheSize::minSize or > FlowCacheSize::maxSize not allowed";
};

// The default equals the maximum: templates are re-sent once an hour.
struct TemplateInterval : Zub::Bounded<TemplateInterval, uint32_t, 5000, 3600000, 3600000> {
  using Bounded::Bounded;
  static constexpr uint32_t minInterval = 5000;
  static constexpr uint32_t maxInterval = 3600000;
  static constexpr uint32_t intervalDefault = 3600000;
  static constexpr const char* kRangeMessage =
      "TemplateInterval::value < TemplateInterval::minInterval or > "
      "TemplateInterval::maxInterval not allowed";
};

struct IpfixMtu : Zub::Bounded<IpfixMtu, uint32_t, 512, 65472, 9152> {
  using Bounded::Bounded;
  static constexpr uint32_t minMtu = 512;
  static constexpr uint32_t maxMtu = 65472;
  static constexpr uint32_t mtuDefault = 9152;
  static constexpr const char* kRangeMessage =
      "IpfixMtu::value < IpfixMtu::minMtu or > IpfixMtu::maxMtu not allowed";
};

struct IpfixVersion : Zub::Bounded<IpfixVersion, uint8_t, 10, 10, 10> {
  using Bounded::Bounded;
  static constexpr uint8_t minVersion = 10;
  static constexpr uint8_t maxVersion = 10;
  static constexpr uint8_t versionDefault = 10;
  static constexpr const char* kRangeMessage =
      "IpfixVersion::value < IpfixVersion::minVersion or > IpfixVersion::maxVersion not allowed";
};

// The default, 65535, means "no id assigned yet".
struct TemplateId : Zub::Bounded<TemplateId, uint16_t, 256, 65535, 65535> {
  using Bounded::Bounded;
  static constexpr uint16_t minTemplateId = 256;
  static constexpr uint16_t maxTemplateId = 65535;
  static constexpr uint16_t invalidTemplateId = 65535;
  static constexpr const char* kRangeMessage =
      "TemplateId::value < TemplateId::minTemplateId or > TemplateId::maxTemplateId not allowed";
  bool isValid() const { return value() != invalidTemplateId; }
};

struct L4Port : Zub::Bounded<L4Port, uint16_t, 1, 65535, 4739> {
  using Bounded::Bounded;
  static constexpr uint16_t minPort = 1;
  static constexpr uint16_t maxPort = 65535;
  static constexpr uint16_t ipfixPortDefault = 4739;
  static constexpr const char* kRangeMessage =
      "L4Port::value < L4Port::minPort or > L4Port::maxPort not allowed";
};

// A flow tracker's number, also its IPFIX observation domain id. 0 is the null id.
struct FtId : Zub::Bounded<FtId, uint32_t, 0, 65535, 0> {
  using Bounded::Bounded;
  static constexpr uint32_t minFtId = 0;
  static constexpr uint32_t maxFtId = 65535;
  static constexpr const char* kRangeMessage =
      "FtId::value < FtId::minFtId or > FtId::maxFtId not allowed";
  static constexpr FtId null() { return FtId(); }
  bool isNull() const { return value() == 0; }
  // Raw addition: no range check, no wrap-around guard.
  FtId& operator+=(const FtId& o) {
    rawValueIs(value() + o.value());
    return *this;
  }
  FtId operator+(const FtId& o) const {
    FtId r = *this;
    r += o;
    return r;
  }
};

// Templates whose ids are reserved: template id = 256 + enumerator.
enum class StaticTemplateId : uint32_t {
  optionsTemplateVrfTable = 0,
  optionsTemplateIntfTable = 1,
  optionsTemplateFlowKeys = 2,
  optionsTemplateFlowTrackerTable = 3,
  optionsTemplateMeteringProcessStats = 4,
  dataTemplateIpv4 = 5,
  dataTemplateIpv6 = 6,
  staticTemplateIdMax = 7,
};
std::string stringValue(StaticTemplateId id);
std::optional<StaticTemplateId> staticTemplateIdFromString(std::string_view name);
std::optional<StaticTemplateId> staticTemplateIdFromNumber(uint32_t n);

// The compatible options templates (sent beside the standard four for collectors that
// read nothing of those): their ids, far above any a data template gets, and their fixed
// name length.
struct CompatibleTemplate {
  static constexpr uint16_t kSampling = 65280;    // observationDomainId | samplingInterval
  static constexpr uint16_t kInterfaces = 65281;  // exportingProcessId | ingressInterface,
                                                  // interfaceDescription
  static constexpr uint16_t kVrfs = 65282;        // exportingProcessId | ingressVRFID, VRFname
  static constexpr uint16_t kNameBytes = 32;
  static constexpr bool is(uint16_t setId) { return setId >= kSampling && setId <= kVrfs; }
};

struct Constants {
  static constexpr uint16_t confNameMaxLen() { return 128; }
  static std::string intfNameDefault() { return ""; }
  static L3::VrfName nullVrfName() { return L3::VrfName(); }
  static constexpr Nelo::IpAddr ipAddrDefault() { return Nelo::IpAddr(); }
  static Nelo::Ip6Addr ip6AddrDefault() { return Nelo::Ip6Addr(); }
  static Nelo::DscpValue dscpValueDefault() { return Nelo::DscpValue(); }
  // The field length of a variable-length information element (RFC 7011 section 7).
  static constexpr uint16_t variableLengthIe() { return 65535; }
  static TemplateId templateIdBase() { return TemplateId(256); }
  static constexpr StaticTemplateId dataTemplateMin() { return StaticTemplateId::dataTemplateIpv4; }
  static constexpr StaticTemplateId dataTemplateMax() { return StaticTemplateId::dataTemplateIpv6; }
  // 256 + which; beyond 65535 raises the TemplateId range error.
  static TemplateId reservedTemplateId(StaticTemplateId which);
  // 263: the first id free for templates that are not reserved.
  static TemplateId unreservedTemplateIdBase() {
    return reservedTemplateId(StaticTemplateId::staticTemplateIdMax);
  }
  friend bool operator==(const Constants&, const Constants&) { return true; }
};

}  // namespace FlowTracking

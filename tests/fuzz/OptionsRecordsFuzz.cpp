// libFuzzer target for the four options record encoders (interface, VRF, flow tracker
// and flow key tables): random ids, names, timeouts and templates within the bounds the
// configuration and the kernel can give. Each record must decode back to its inputs and
// be exactly as long as the table's layout says.

#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "options/OptionsDataManagerSm.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

using namespace FlowTracking;

std::string bytesOf(const Zub::Ptr<const DataRecord>& r) {
  FUZZ_CHECK(r);
  return std::string(r->data());
}
const uint8_t* u8p(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// index/id (4), name length (1), name.
void checkNamed(const std::string& rec, uint32_t id, const std::string& name) {
  FUZZ_CHECK(rec.size() == 5 + name.size());
  FUZZ_CHECK(Fuzz::be32(u8p(rec)) == id);
  FUZZ_CHECK(static_cast<uint8_t>(rec[4]) == name.size());
  FUZZ_CHECK(rec.substr(5) == name);
}

void flowTracker(FuzzedDataProvider& in) {
  Zub::ManualClock clock;
  Orrin::TaskScheduler sched(clock);
  const auto ftId = in.ConsumeIntegralInRange<uint32_t>(1, FtId::maxFtId);
  const std::string name = in.ConsumeRandomLengthString(254);
  const auto active =
      in.ConsumeIntegralInRange<uint32_t>(ActiveInterval::minInterval, ActiveInterval::maxInterval);
  const auto inactive =
      in.ConsumeIntegralInRange<uint32_t>(InactiveTimeout::minTimeout, InactiveTimeout::maxTimeout);
  const auto rate = in.ConsumeIntegral<uint32_t>();
  Zub::Ptr<HwFlowTracking::Config> hw(new HwFlowTracking::Config("hw"));
  hw->sampleRateIs(rate);
  auto ft = hw->hwFtConfigIs(name, FtId(ftId));
  ft->activeIntervalIs(ActiveInterval(active));
  ft->inactiveTimeoutIs(InactiveTimeout(inactive));
  Zub::Ptr<OptionsDataSourceColl> coll(new OptionsDataSourceColl(OptionsDataScope::scopeGlobal));
  Zub::Ptr<OptionsDataUpdate> update(new OptionsDataUpdate(OptionsDataScope::scopeGlobal));
  auto source = coll->sourceIs("FlowTrackerTable", FlowTrackerTableSm::setId());
  auto sm = Zub::makeReactor<FlowTrackerTableSm>(source, update, hw, ft, sched);
  const std::string rec = bytesOf(sm->makeDataRecord());
  const uint8_t* p = u8p(rec);
  FUZZ_CHECK(rec.size() == 19 + name.size());
  FUZZ_CHECK(Fuzz::be32(p) == ftId);
  FUZZ_CHECK(p[4] == name.size());
  FUZZ_CHECK(rec.substr(5, name.size()) == name);
  p += 5 + name.size();
  FUZZ_CHECK(Fuzz::be16(p) == active / 1000);  // whole seconds
  FUZZ_CHECK(Fuzz::be16(p + 2) == inactive / 1000);
  FUZZ_CHECK(Fuzz::be16(p + 4) == 3);  // random n-out-of-N
  FUZZ_CHECK(Fuzz::be32(p + 6) == 1);
  FUZZ_CHECK(Fuzz::be32(p + 10) == rate);
}

void flowKey(FuzzedDataProvider& in) {
  Zub::ManualClock clock;
  Orrin::TaskScheduler sched(clock);
  static const Ipfix::RecordType kTypes[] = {
      Ipfix::RecordType::srcIp,     Ipfix::RecordType::dstIp,
      Ipfix::RecordType::srcIp6,    Ipfix::RecordType::dstIp6,
      Ipfix::RecordType::byteCount, Ipfix::RecordType::packetCount,
      Ipfix::RecordType::srcL4Port, Ipfix::RecordType::ipProtocol,
      Ipfix::RecordType::vlanId,    Ipfix::RecordType::ingressInterface};
  const auto templateId = in.ConsumeIntegralInRange<uint16_t>(256, 65535);
  Zub::Ptr<HwFlowTracking::FtStatus> status(new HwFlowTracking::FtStatus("T"));
  Zub::Ptr<HwFlowTracking::FgStatus> fg(new HwFlowTracking::FgStatus(TemplateId(templateId), "fg"));
  const size_t fields = in.ConsumeIntegralInRange<size_t>(0, 70);
  bool v4 = false, v6 = false;
  uint64_t indicator = 0;
  for (size_t i = 0; i < fields; ++i) {
    const auto type = kTypes[in.ConsumeIntegralInRange<size_t>(0, std::size(kTypes) - 1)];
    const bool key = in.ConsumeBool();
    fg->templateEntryIs(static_cast<uint32_t>(i), type)->flowKeyIs(key);
    v4 = v4 || type == Ipfix::RecordType::srcIp || type == Ipfix::RecordType::dstIp;
    v6 = v6 || type == Ipfix::RecordType::srcIp6 || type == Ipfix::RecordType::dstIp6;
    // Bit i mod 32; a key at 31 (mod 32) sets the whole upper half as well.
    if (key) indicator |= i % 32 == 31 ? 0xFFFFFFFF80000000ull : uint64_t{1} << (i % 32);
  }
  const bool complete = in.ConsumeBool();
  fg->genIdIs(complete ? 1 : 0);
  status->hwFgStatusColl().insert(TemplateId(templateId), fg);
  Zub::Ptr<OptionsDataSourceColl> coll(new OptionsDataSourceColl(OptionsDataScope::scopeGlobal));
  Zub::Ptr<OptionsDataUpdate> update(new OptionsDataUpdate(OptionsDataScope::scopeGlobal));
  auto source = coll->sourceIs("FlowKey", FlowKeySm::setId());
  auto sm = Zub::makeReactor<FlowKeySm>(source, update, status, sched);
  auto r = sm->makeDataRecord(TemplateId(templateId));
  if ((v4 && v6) || !complete || fields == 0) {
    FUZZ_CHECK(!r);  // mixed families or an incomplete template: no record
    return;
  }
  const std::string rec = bytesOf(r);
  FUZZ_CHECK(rec.size() == 10);
  FUZZ_CHECK(Fuzz::be16(u8p(rec)) == templateId);
  FUZZ_CHECK(Fuzz::be64(u8p(rec) + 2) == indicator);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: {
      const auto index = in.ConsumeIntegral<uint32_t>();
      std::string name = in.ConsumeRandomLengthString(254);
      if (name.empty()) name = "x";  // interface ids are never empty
      checkNamed(bytesOf(InterfaceTableSm::makeDataRecord(name, index)), index, name);
      break;
    }
    case 1: {
      const auto id = in.ConsumeIntegral<uint32_t>();
      const std::string name = in.ConsumeRandomLengthString(254);
      checkNamed(bytesOf(VrfTableSm::makeDataRecord(id, name)), id, name);
      break;
    }
    case 2:
      flowTracker(in);
      break;
    default:
      flowKey(in);
      break;
  }
  return 0;
}

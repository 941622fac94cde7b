// libFuzzer target for the kernel status parser: arbitrary rtnetlink message streams, as
// the event socket would deliver them. A message that cannot be read changes nothing;
// whatever was read becomes a platform section the applier takes without complaint:
// unique interface names and indexes, VRFs that exist, members that are interfaces.

#include <fuzzer/FuzzedDataProvider.h>
#include <libmnl/libmnl.h>

#include <set>
#include <string>

#include "agent/ConfigApplier.h"
#include "agent/KernelStatus.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

std::string described(const Agent::KernelStatus& k, const Agent::KernelStatus::NameMap& names) {
  Agent::AgentConfig cfg;
  k.platform(names, cfg);
  std::string out;
  for (const auto& i : cfg.interfaces) {
    out += i.name + " " + std::to_string(i.index.value_or(0)) + " " + std::to_string(i.mtu) +
           (i.linkUp ? " up " : " down ") + i.vrf.name() + " " +
           (i.ipv4 ? i.ipv4->stringValue() : "-");
    for (const auto& a : i.ipv6) out += " " + a.stringValue();
    for (const auto& m : i.members) out += " m:" + m;
    out += "\n";
  }
  for (const auto& v : cfg.vrfs) out += "vrf " + v.name.name() + " " + v.device + "\n";
  return out;
}

struct Run {
  Agent::KernelStatus status;
  Agent::KernelStatus::NameMap names;
};

int applyOne(const nlmsghdr* nlh, void* data) {
  auto* run = static_cast<Run*>(data);
  const std::string before = described(run->status, run->names);
  if (!run->status.apply(nlh)) FUZZ_CHECK(described(run->status, run->names) == before);
  return MNL_CB_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Run run;
  // A name map as an operator might write one.
  if (in.ConsumeBool()) {
    run.names = {{"eth0", "Ethernet1"},
                 {"eth1", "Ethernet2"},
                 {"bond0", "Port-Channel1"},
                 {"lo", "Loopback0"},
                 {"veth0", "Port-Channel2"}};
  }
  const std::string stream = in.ConsumeRemainingBytesAsString();
  // Unframed bytes never reach libmnl (the source dumps again instead).
  if (Agent::KernelStatus::framed(stream.data(), stream.size())) {
    mnl_cb_run(stream.data(), stream.size(), 0, 0, applyOne, &run);
  }

  Agent::AgentConfig cfg;
  run.status.platform(run.names, cfg);
  std::set<std::string> names, vrfs;
  std::set<uint32_t> indexes;
  for (const auto& v : cfg.vrfs) FUZZ_CHECK(vrfs.insert(v.name.name()).second);
  FUZZ_CHECK(vrfs.count("default"));
  for (const auto& i : cfg.interfaces) {
    FUZZ_CHECK(!i.name.empty());
    FUZZ_CHECK(names.insert(i.name).second);
    if (i.index) FUZZ_CHECK(indexes.insert(*i.index).second);
    FUZZ_CHECK(vrfs.count(i.vrf.name()));
  }
  for (const auto& i : cfg.interfaces) {
    for (const auto& m : i.members) FUZZ_CHECK(names.count(m));
  }
  // Applied twice, as a re-dump would: the second time changes nothing.
  Agent::StatusEntities entities;
  Agent::applyPlatform(entities, cfg);
  Agent::applyPlatform(entities, cfg);
  return 0;
}

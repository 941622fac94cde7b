// libFuzzer target for the configuration loader: any input is either a configuration
// or a ConfigError, never another exception or a crash; and a configuration it accepts
// is applied to fresh status and configuration entities without reaching an assertion,
// twice (the second time as a reload of the same file).

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/AgentConfig.h"
#include "agent/ConfigApplier.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Agent::AgentConfig cfg;
  try {
    cfg = Agent::parseConfig(std::string(reinterpret_cast<const char*>(data), size), "fuzz.yaml");
  } catch (const Agent::ConfigError&) {
    return 0;
  }
  Agent::StatusEntities status;
  Zub::Ptr<FlowTracking::Config> config(new FlowTracking::Config("config"));
  for (int i = 0; i < 2; ++i) {
    Agent::applyPlatform(status, cfg);
    Agent::applyFlowTracking(config, cfg);
  }
  return 0;
}

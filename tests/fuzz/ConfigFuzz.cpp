// libFuzzer target for the configuration loader: any input is either a configuration
// or a ConfigError, never another exception or a crash.
//   cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DFLOWEXPORT_FUZZ=ON
//   cmake --build build-fuzz --target config_fuzz
//   mkdir -p build-fuzz/corpus && cp agent/flowexport.example.yaml build-fuzz/corpus/
//   build-fuzz/tests/config_fuzz -max_total_time=60 build-fuzz/corpus

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/AgentConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    Agent::parseConfig(std::string(reinterpret_cast<const char*>(data), size), "fuzz.yaml");
  } catch (const Agent::ConfigError&) {
  }
  return 0;
}

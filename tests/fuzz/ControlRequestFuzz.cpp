// libFuzzer target for the control protocol's request parser: whatever a client sends,
// nothing is parsed before the first newline; after it, the words are the line split at
// tabs (none holds a tab or a newline) and joining them again gives the line back.

#include <string>
#include <string_view>

#include "agent/ControlServer.h"
#include "tests/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view received(reinterpret_cast<const char*>(data), size);
  const auto words = Agent::controlRequestWords(received);
  const size_t nl = received.find('\n');
  FUZZ_CHECK(words.has_value() == (nl != std::string_view::npos));
  if (!words) return 0;
  FUZZ_CHECK(!words->empty());
  for (const auto& w : *words) {
    FUZZ_CHECK(w.find('\t') == std::string::npos && w.find('\n') == std::string::npos);
  }
  const std::string line = Agent::controlRequestLine(*words);
  FUZZ_CHECK(line == std::string(received.substr(0, nl + 1)));
  FUZZ_CHECK(Agent::controlRequestWords(line) == words);
  return 0;
}

// libFuzzer target for the tracker-id state file: any text parses to an assignment of
// distinct ids 1..65535 to distinct non-empty names, every one of them a line of the
// text, and writing that assignment and parsing it again gives it back unchanged.

#include <algorithm>
#include <set>
#include <string>
#include <string_view>

#include "agent/FtIdStateFile.h"
#include "tests/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string warning;
  const auto ids = Agent::FtIdStateFile::parse(text, "ftids", &warning);
  std::set<uint32_t> seen;
  for (const auto& [name, id] : ids) {
    FUZZ_CHECK(id >= 1 && id <= 65535);
    FUZZ_CHECK(seen.insert(id).second);
    FUZZ_CHECK(!name.empty() && name.find('\n') == std::string::npos);
    // A line of the text says so: digits worth `id`, a blank, the name.
    bool found = false;
    for (size_t at = 0; at <= text.size() && !found;) {
      const size_t end = std::min(text.find('\n', at), text.size());
      const std::string_view line = text.substr(at, end - at);
      const size_t space = line.find(' ');
      if (space != std::string_view::npos && line.substr(space + 1) == name) {
        uint64_t value = 0;
        bool digits = space > 0 && space <= 9;
        for (size_t i = 0; digits && i < space; ++i) {
          digits = line[i] >= '0' && line[i] <= '9';
          value = value * 10 + static_cast<uint64_t>(line[i] - '0');
        }
        found = digits && value == id;
      }
      at = end + 1;
    }
    FUZZ_CHECK(found);
  }
  std::string again;
  FUZZ_CHECK(Agent::FtIdStateFile::parse(Agent::FtIdStateFile::text(ids), "ftids", &again) == ids);
  FUZZ_CHECK(again.empty());
  return 0;
}

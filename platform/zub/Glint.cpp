#include "platform/zub/Glint.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

namespace Zub::Glint {

namespace {
struct Registry {
  std::map<std::string, std::unique_ptr<Facility>, std::less<>> facilities;
  // Settings applied so far, replayed on facilities created later.
  std::vector<std::pair<std::string, uint32_t>> specs;
  Sink sink;
};
Registry& registry() {
  static Registry* r = new Registry();  // never destroyed: traces may run at exit
  return *r;
}

bool matches(std::string_view pattern, std::string_view name) {
  return pattern == "*" || pattern == name;
}

bool parseLevels(std::string_view s, uint32_t* mask) {
  if (s == "*") {
    *mask = (1u << (kMaxLevel + 1)) - 1;
    return true;
  }
  uint32_t m = 0;
  size_t pos = 0;
  while (pos <= s.size()) {
    size_t comma = s.find(';', pos);
    std::string_view part = s.substr(pos, comma == std::string_view::npos ? s.npos : comma - pos);
    int lo = 0, hi = 0;
    size_t dash = part.find('-');
    auto num = [](std::string_view t, int* out) {
      auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), *out);
      return ec == std::errc() && p == t.data() + t.size() && *out >= 0 && *out <= kMaxLevel;
    };
    if (dash == std::string_view::npos) {
      if (!num(part, &lo)) return false;
      hi = lo;
    } else if (!num(part.substr(0, dash), &lo) || !num(part.substr(dash + 1), &hi) || lo > hi) {
      return false;
    }
    for (int l = lo; l <= hi; ++l) m |= 1u << l;
    if (comma == std::string_view::npos) break;
    pos = comma + 1;
  }
  *mask = m;
  return true;
}

void defaultSink(const Record& r) {
  std::fprintf(stderr, "%s/%d %.*s\n", r.facility.name().c_str(), r.level,
               static_cast<int>(r.text.size()), r.text.data());
}
}  // namespace

Facility& facility(std::string_view name) {
  Registry& reg = registry();
  auto it = reg.facilities.find(name);
  if (it != reg.facilities.end()) return *it->second;
  auto f = std::make_unique<Facility>(std::string(name));
  for (const auto& [pattern, mask] : reg.specs) {
    if (matches(pattern, name)) f->levelsIs(mask);
  }
  Facility& ref = *f;
  reg.facilities.emplace(std::string(name), std::move(f));
  return ref;
}

bool configure(std::string_view spec, std::string* error) {
  // Entries are separated by ','; levels within an entry by ';' or given as a range.
  std::vector<std::pair<std::string, uint32_t>> parsed;
  size_t pos = 0;
  while (pos < spec.size()) {
    size_t comma = spec.find(',', pos);
    std::string_view entry =
        spec.substr(pos, comma == std::string_view::npos ? spec.npos : comma - pos);
    size_t slash = entry.find('/');
    uint32_t mask = 0;
    if (slash == std::string_view::npos || slash == 0 ||
        !parseLevels(entry.substr(slash + 1), &mask)) {
      if (error) {
        *error = "malformed trace setting '" + std::string(entry) +
                 "': expected FACILITY/LEVELS with levels such as 0-5, 3;7 or *";
      }
      return false;
    }
    parsed.emplace_back(std::string(entry.substr(0, slash)), mask);
    if (comma == std::string_view::npos) break;
    pos = comma + 1;
  }
  Registry& reg = registry();
  for (auto& [pattern, mask] : parsed) {
    for (auto& [name, f] : reg.facilities) {
      if (matches(pattern, name)) f->levelsIs(mask);
    }
    reg.specs.emplace_back(std::move(pattern), mask);
  }
  return true;
}

void configureFromEnvironment() {
  if (const char* s = std::getenv("GLINT")) {
    std::string error;
    if (!configure(s, &error)) std::fprintf(stderr, "GLINT: %s\n", error.c_str());
  }
}

void reset() {
  Registry& reg = registry();
  for (auto& [name, f] : reg.facilities) f->levelsIs(0);
  reg.specs.clear();
}

Sink sinkIs(Sink sink) {
  Sink old = std::move(registry().sink);
  registry().sink = std::move(sink);
  return old;
}

Line::~Line() {
  if (Twyx::captures(level_)) Twyx::record(facility_.name(), level_, text_);
  if (facility_.enabled(level_)) {
    Record r{facility_, level_, text_};
    const Sink& sink = registry().sink;
    if (sink) {
      sink(r);
    } else {
      defaultSink(r);
    }
  }
}

Capture::Capture(Facility& f, uint32_t levels, std::function<void(const Record&)> fn)
    : facility_(f), savedLevels_(f.levels()) {
  f.levelsIs(levels);
  saved_ = sinkIs(std::move(fn));
}

Capture::~Capture() {
  facility_.levelsIs(savedLevels_);
  sinkIs(std::move(saved_));
}

}  // namespace Zub::Glint

#include "agent/Paths.h"

#include <unistd.h>

#include <cstdlib>

#include "export/CollectorStats.h"

namespace Agent {

namespace {
std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}
}  // namespace

std::string defaultControlSocket() {
  if (auto v = env("FLOWEXPORT_CONTROL_SOCKET"); !v.empty()) return v;
  if (::geteuid() == 0) return "/run/flowexportd.sock";
  if (auto run = env("XDG_RUNTIME_DIR"); !run.empty()) return run + "/flowexportd.sock";
  // Never a predictable name in a world-writable directory such as /tmp: another user
  // could take it first. The user's own state directory instead.
  if (auto home = env("HOME"); !home.empty()) return home + "/.local/state/flowexport/control.sock";
  return "";
}

std::string defaultStateFile() {
  if (::geteuid() == 0) return "/var/lib/flowexport/ftids";
  if (auto state = env("XDG_STATE_HOME"); !state.empty()) return state + "/flowexport/ftids";
  if (auto home = env("HOME"); !home.empty()) return home + "/.local/state/flowexport/ftids";
  return "";
}

std::string defaultStatsName() {
  if (auto v = env("FLOWEXPORT_STATS"); !v.empty()) return v;
  return Stova::Ipfix::CollectorStatistics::kShmName;
}

}  // namespace Agent

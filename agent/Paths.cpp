#include "agent/Paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "export/CollectorStats.h"

namespace Agent {

namespace {
std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}
}  // namespace

// The first directory of a list systemd gives a service (RUNTIME_DIRECTORY=,
// STATE_DIRECTORY=: colon-separated), or "".
std::string serviceDirectory(const char* name) {
  const std::string v = env(name);
  return v.substr(0, v.find(':'));
}

std::string defaultControlSocket() {
  if (auto v = env("FLOWEXPORT_CONTROL_SOCKET"); !v.empty()) return v;
  if (auto dir = serviceDirectory("RUNTIME_DIRECTORY"); !dir.empty()) {
    return dir + "/control.sock";
  }
  if (::geteuid() == 0) return kSystemControlSocket;
  if (auto run = env("XDG_RUNTIME_DIR"); !run.empty()) return run + "/flowexportd.sock";
  // Never a predictable name in a world-writable directory such as /tmp: another user
  // could take it first. The user's own state directory instead.
  if (auto home = env("HOME"); !home.empty()) return home + "/.local/state/flowexport/control.sock";
  return "";
}

std::string defaultClientControlSocket() {
  if (!env("FLOWEXPORT_CONTROL_SOCKET").empty() || ::geteuid() == 0) {
    return defaultControlSocket();
  }
  // An operator in the service's group talks to the system daemon when there is one.
  if (::access(kSystemControlSocket, F_OK) == 0) return kSystemControlSocket;
  return defaultControlSocket();
}

std::string defaultStateFile() {
  if (auto dir = serviceDirectory("STATE_DIRECTORY"); !dir.empty()) return dir + "/ftids";
  if (::geteuid() == 0) return "/var/lib/flowexport/ftids";
  if (auto state = env("XDG_STATE_HOME"); !state.empty()) return state + "/flowexport/ftids";
  if (auto home = env("HOME"); !home.empty()) return home + "/.local/state/flowexport/ftids";
  return "";
}

bool trustedDaemonUid(uid_t uid) {
  if (uid == ::geteuid() || uid == 0) return true;
  struct stat st {};
  const std::string dir = std::filesystem::path(kSystemControlSocket).parent_path().string();
  return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & S_IWOTH) == 0 &&
         st.st_uid == uid;
}

std::string defaultStatsName() {
  if (auto v = env("FLOWEXPORT_STATS"); !v.empty()) return v;
  return Stova::Ipfix::CollectorStatistics::kShmName;
}

}  // namespace Agent

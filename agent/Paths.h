#pragma once
// Where the daemon keeps its control socket and its state, and where the command-line
// tool looks for them. Both default to the same places: system paths for root, the
// user's runtime and state directories otherwise; under systemd the service's own
// directories (RUNTIME_DIRECTORY, STATE_DIRECTORY). FLOWEXPORT_CONTROL_SOCKET and
// FLOWEXPORT_STATS override the socket path and the statistics' shared-memory name.

#include <sys/types.h>

#include <string>

namespace Agent {

// Where the packaged service's socket is (RuntimeDirectory=flowexport), and root's default.
inline constexpr const char* kSystemControlSocket = "/run/flowexport/control.sock";

std::string defaultControlSocket();
// The tool's default: the daemon's default, or for a user who is not root the system
// daemon's socket when it exists.
std::string defaultClientControlSocket();
std::string defaultStateFile();

// Whether flowexportctl may trust a daemon (its control socket's peer, its statistics
// segment) running as `uid`: this user, root, or the user the packaged service runs as
// (the owner of its runtime directory, which only that user and root can write).
bool trustedDaemonUid(uid_t uid);
std::string defaultStatsName();

}  // namespace Agent

#pragma once
// Where the daemon keeps its control socket and its state, and where the command-line
// tool looks for them. Both default to the same places: system paths for root, the
// user's runtime and state directories otherwise. FLOWEXPORT_CONTROL_SOCKET and
// FLOWEXPORT_STATS override the socket path and the statistics' shared-memory name.

#include <string>

namespace Agent {

std::string defaultControlSocket();
std::string defaultStateFile();
std::string defaultStatsName();

}  // namespace Agent

#!/usr/bin/env bash
# Installs dependencies, builds, and runs the agent. With no arguments the agent runs
# its embedded default configuration (this host's links, sampled, to 127.0.0.1:4739); any
# arguments are passed on to flowexportd.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh | tail -n 1)
# Sampling the host's links takes packet sockets (CAP_NET_RAW): given to the binary just
# built, so that it runs as this user. Without it the agent says so and goes on.
if [ "$(id -u)" != 0 ]; then
  sudo setcap cap_net_raw+ep "$dir/agent/flowexportd" ||
    echo "run.sh: could not give flowexportd CAP_NET_RAW (sudo setcap); it will not sample" >&2
fi
exec "$dir/agent/flowexportd" "$@"

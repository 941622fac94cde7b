#!/usr/bin/env bash
# Installs dependencies, builds, and runs the agent. With no arguments the agent runs
# its embedded default configuration; any arguments are passed on to flowexportd.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh | tail -n 1)
exec "$dir/agent/flowexportd" "$@"

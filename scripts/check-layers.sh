#!/usr/bin/env bash
# Fails when a layer below options export includes one of its headers: export/, the data
# path, configuration, IPFIX encoding and the platform stand beside or below options/,
# never above it.
set -euo pipefail
cd "$(dirname "$0")/.."
if grep -rn '#include "options/' export/ datapath/ config/ ipfix/ platform/; then
  echo "check-layers: the includes above reach up into options/" >&2
  exit 1
fi
echo "check-layers: nothing below options/ includes it"

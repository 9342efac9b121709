#!/usr/bin/env bash
# Sets up the machine, builds the project and runs the daemon with the default configuration
# (build/config/maintenance.json) until Ctrl-C. Arguments are passed to the daemon.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)"
exec build/bin/nuv_maintd "$@"

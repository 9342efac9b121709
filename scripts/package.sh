#!/usr/bin/env bash
# Builds the Debian package (cpack -G DEB) from the tree the test suite builds and prints its path.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
  -h|--help)
    echo "usage: scripts/package.sh"
    echo "  Builds build-check/ (preset check: warnings as errors, no benchmarks) and makes"
    echo "  build-check/nuv-maintenance_*.deb."
    exit 0 ;;
  "") ;;
  *) echo "scripts/package.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
esac
scripts/setup.sh
cmake --preset check >/dev/null
cmake --build --preset check -j"$(nproc)" >/dev/null
rm -f build-check/nuv-maintenance_*.deb
(cd build-check && cpack -G DEB >cpack.log 2>&1) || { cat build-check/cpack.log >&2; exit 1; }
ls "$PWD"/build-check/nuv-maintenance_*.deb

#!/usr/bin/env bash
# Builds the Debian package (cpack -G DEB) from the default build tree and prints its path.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
  -h|--help)
    echo "usage: scripts/package.sh"
    echo "  Builds build/ (preset default, warnings as errors) and makes build/nuv-maintenance_*.deb."
    exit 0 ;;
  "") ;;
  *) echo "scripts/package.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
esac
scripts/setup.sh
cmake --preset default -DNUV_WERROR=ON >/dev/null
cmake --build --preset default -j"$(nproc)" >/dev/null
rm -f build/nuv-maintenance_*.deb
(cd build && cpack -G DEB >cpack.log 2>&1) || { cat build/cpack.log >&2; exit 1; }
ls build/nuv-maintenance_*.deb

#!/usr/bin/env bash
# Sets up the machine, builds the project and runs the whole test suite: natively, under the
# address/undefined and thread sanitizers, a short run of every fuzz target, then the 32-bit x86
# build in an i386 chroot; the Debian package is installed into a fresh bookworm root and tried
# there. Warnings are errors here. --quick runs only the native suite.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
case "${1:-}" in
  --quick) quick=1 ;;
  -h|--help)
    echo "usage: scripts/test.sh [--quick]"
    echo "  Builds and runs every test: native, the package, asan, tsan, fuzz (20 s per target),"
    echo "  then i386 (in a chroot)."
    echo "  --quick  native suite only"
    exit 0 ;;
  "") ;;
  *) echo "scripts/test.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
esac

scripts/setup.sh
jobs=$(nproc)

suite() {
  local preset=$1
  echo "== $preset: build"
  cmake --preset "$preset" -DNUV_WERROR=ON >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  echo "== $preset: test"
  ctest --preset "$preset" -j"$jobs"
}

suite check
[ "$quick" -eq 1 ] && exit 0
echo "== package: build it, install it into a fresh Debian root, use it"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo scripts/package_test.sh
suite asan
suite tsan
echo "== fuzz: every target for 20 s over its seed corpus"
scripts/fuzz.sh --time 20
echo "== i386: build and test in the chroot"
NUV_CMAKE_ARGS="-DNUV_WERROR=ON" scripts/i386.sh

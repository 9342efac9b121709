#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and run on bookworm.
# Idempotent: with everything present it prints nothing and touches nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  librdkafka-dev libmimalloc-dev
  libjansson-dev libmuparser-dev libproc2-dev libmd-dev libmurmurhash-dev uuid-dev
  libgtest-dev libbenchmark-dev libsystemd-dev
  tar gzip procps socat
  dpkg-dev
  debootstrap clang libclang-rt-14-dev
)
# Host-only: the chroot builder and the fuzzing compiler are not needed inside the i386 chroot.
host_only=" debootstrap clang libclang-rt-14-dev "

missing=()
for p in "${packages[@]}"; do
  [[ "$host_only" == *" $p "* ]] && [ -n "${NUV_SETUP_NO_DEBOOTSTRAP:-}" ] && continue
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

# shellcheck source-path=SCRIPTDIR source=lib/apt.sh
. "$(dirname "$0")/lib/apt.sh"
nuv_apt_install setup "${missing[@]}"

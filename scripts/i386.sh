#!/usr/bin/env bash
# shellcheck source-path=SCRIPTDIR disable=SC2317  # on_exit is reached from the traps only
# Builds and tests the project as 32-bit x86 inside an i386 Debian bookworm chroot.
# Run with --help for usage.
set -euo pipefail

usage() {
  cat <<'EOF'
Usage: scripts/i386.sh [--src DIR]

Builds the source tree as 32-bit x86 inside an i386 Debian bookworm chroot and
runs the test suite: cmake --preset i386, cmake --build --preset i386,
ctest --preset i386. The exit status is ctest's (or that of the step that failed
before it). The build tree is <source>/build-i386.

The chroot is created with debootstrap on first use, then reused. The apt mirror
is the one the host's apt configuration uses for bookworm. Packages are installed
inside the chroot by the tree's own scripts/setup.sh. debootstrap and apt output
go to <chroot>/nuv-i386.log and are shown only when a step fails.

Options:
  --src DIR        source tree to build (default: the repository holding this script)
  -h, --help       show this help

Environment:
  NUV_I386_ROOT    chroot directory, outside the source tree
                   (default /var/tmp/nuv-i386-root)
  NUV_I386_SRC     same as --src
  NUV_CMAKE_ARGS   extra whitespace-separated cmake configure arguments,
                   e.g. "-DNUV_WERROR=ON"
  NUV_I386_JOBS    parallel build and test jobs (default 2)

Needs root (re-runs itself through sudo otherwise) and an x86 kernel able to run
32-bit programs. One run at a time per chroot. The mounts (/proc /sys /dev
/dev/pts /dev/shm /tmp /src) live in a private mount namespace and go with the run.
EOF
}

say() { echo "i386: $*"; }
die() { echo "i386: error: $*" >&2; exit 1; }

script=$(readlink -f "${BASH_SOURCE[0]}")
here=$(dirname "$script")
src=${NUV_I386_SRC:-$(dirname "$here")}
root=${NUV_I386_ROOT:-/var/tmp/nuv-i386-root}
jobs=${NUV_I386_JOBS:-2}
suite=bookworm

while [ $# -gt 0 ]; do
  case $1 in
    -h|--help) usage; exit 0 ;;
    --src) [ $# -ge 2 ] || die "--src needs a directory"; src=$2; shift ;;
    --src=*) src=${1#--src=} ;;
    *) echo "i386: unknown argument: $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done

[[ $jobs =~ ^[1-9][0-9]*$ ]] || die "NUV_I386_JOBS must be a positive number, got '$jobs'"
[ -d "$src" ] || die "source directory '$src' does not exist"
src=$(cd "$src" && pwd -P)
[ -f "$src/CMakePresets.json" ] || die "'$src' has no CMakePresets.json"
[ -f "$src/scripts/setup.sh" ] || die "'$src' has no scripts/setup.sh"

# The root is wiped when incomplete: keep it to plain absolute paths away from the sources.
case $root in /*) ;; *) die "NUV_I386_ROOT must be an absolute path, got '$root'" ;; esac
[[ $root =~ ^[A-Za-z0-9/._+-]+$ ]] || die "NUV_I386_ROOT may only contain letters, digits and / . _ + -"
root=$(readlink -m "$root")
[ "$root" != / ] || die "NUV_I386_ROOT must not be /"
case $root/ in "$src"/*) die "the chroot ($root) must be outside the source tree ($src)" ;; esac
case $src/ in "$root"/*) die "the source tree must not be inside the chroot ($root)" ;; esac
case $(uname -m) in x86_64|i?86) ;; *) die "needs an x86 host, this one is $(uname -m)" ;; esac

# Everything the re-runs below need travels in the environment, --src included.
export NUV_I386_SRC=$src NUV_I386_ROOT=$root NUV_I386_JOBS=$jobs
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || die "must run as root (sudo is not installed)"
  pass=(NUV_I386_SRC="$src" NUV_I386_ROOT="$root" NUV_I386_JOBS="$jobs")
  [ -z "${NUV_CMAKE_ARGS+x}" ] || pass+=(NUV_CMAKE_ARGS="$NUV_CMAKE_ARGS")
  exec sudo -- env "${pass[@]}" bash "$script"
fi

# Mount points strictly below the chroot, in mount order.
mounts_under() { awk -v r="$root/" 'index($2, r) == 1 { print $2 }' /proc/self/mounts; }

# One run at a time per chroot. Mounts found below it now were left by a run that did not
# use a namespace; they go here, in the host's namespace, so that the host sees them gone.
# The run then continues in a private mount namespace: its mounts vanish with its last
# process even if the script is killed outright.
if [ -z "${NUV_I386_IN_NS:-}" ]; then
  mkdir -p "$(dirname "$root")"
  exec 9>"$root.lock"
  flock -n 9 || { say "waiting for another run using $root to finish"; flock 9; }
  for mp in $(mounts_under | tac); do
    say "removing a mount left by an earlier run: $mp"
    umount "$mp" 2>/dev/null || umount -l "$mp"
  done
  NUV_I386_IN_NS=1 exec unshare --mount --propagation private -- bash "$script"
fi

# Processes whose root directory is the chroot.
chroot_pids() {
  local p
  for p in /proc/[0-9]*; do
    [ "$(readlink "$p/root" 2>/dev/null)" = "$root" ] && echo "${p#/proc/}"
  done
  return 0
}

# Under the lock every process in the chroot is a leftover: a daemon a test did not stop,
# or what a killed run left. It would keep the chroot's files busy and this run's mounts alive.
kill_strays() {
  local -a pids
  mapfile -t pids < <(chroot_pids)
  [ ${#pids[@]} -gt 0 ] || return 0
  say "warning: ending processes left running in the chroot $1: $(ps -o pid=,comm= -p "${pids[*]}" 2>/dev/null | tr -s ' \n' '  ')" >&2
  kill -TERM "${pids[@]}" 2>/dev/null || true
  for _ in 1 2 3 4 5 6 7 8 9 10; do kill -0 "${pids[@]}" 2>/dev/null || return 0; sleep 0.2; done
  kill -KILL "${pids[@]}" 2>/dev/null || true
}

# Runs a command as a background child and waits for it: a signal then reaches the
# traps at once instead of after the child has finished on its own.
child=""
waitrun() {
  local rc=0
  "$@" &
  child=$!
  wait "$child" || rc=$?
  child=""
  return "$rc"
}

on_exit() {
  local rc=$?
  set +e
  trap - EXIT INT TERM HUP
  [ -z "$child" ] || kill -TERM "$child" 2>/dev/null
  kill_strays "by this run"
  exit "$rc"
}
trap on_exit EXIT; trap 'exit 130' INT; trap 'exit 143' TERM; trap 'exit 129' HUP

logf=$root/nuv-i386.log
# quiet DESCRIPTION COMMAND...: output goes to the log, shown only on failure.
quiet() {
  local desc=$1 start rc=0; shift
  say "$desc"
  start=$(wc -l <"$logf")
  printf '\n=== %s: %s\n' "$(date '+%F %T')" "$desc" >>"$logf"
  waitrun "$@" >>"$logf" 2>&1 </dev/null || rc=$?
  [ "$rc" -ne 0 ] || return 0
  {
    echo "i386: '$desc' failed with status $rc; its output (last 200 lines):"
    tail -n +"$((start + 1))" "$logf" | tail -n 200
    echo "i386: full log: $logf"
  } >&2
  return "$rc"
}

# setarch: uname -m (and so CMAKE_SYSTEM_PROCESSOR) reports i686, not x86_64.
in_chroot() {
  setarch i686 env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" DEBIAN_FRONTEND=noninteractive \
    chroot "$root" "$@"
}

# shellcheck source=lib/mirror.sh
. "$here/lib/mirror.sh"
mirror=$(nuv_mirror "$suite") || die "the host's apt configuration has no source for '$suite'"

kill_strays "by an earlier run"
stamp=$root/.nuv-i386-complete
if [ -f "$stamp" ] && [ -x "$root/usr/bin/apt-get" ] && [ -x "$root/bin/bash" ]; then
  say "reusing the chroot in $root"
  : >"$logf"  # the log holds the current run only
else
  if ! command -v debootstrap >/dev/null; then
    say "debootstrap is missing; running scripts/setup.sh on the host"
    "$here/setup.sh"
  fi
  if [ -e "$root" ]; then
    say "$root is incomplete (no stamp); rebuilding it"
    # --one-file-system does not stop at a bind mount of the same filesystem.
    [ -z "$(mounts_under)" ] || die "refusing to delete $root: something is mounted below it"
    find "$root" -mindepth 1 -maxdepth 1 -exec rm -rf --one-file-system {} +
  fi
  mkdir -p "$root"
  : >"$logf"
  extra=(); [[ $mirror != https://* ]] || extra=(--include=ca-certificates)
  if ! quiet "creating the i386 chroot in $root from $mirror (takes a few minutes)" \
      debootstrap --arch=i386 --variant=minbase "${extra[@]}" "$suite" "$root" "$mirror"; then
    grep -q 'Exec format error' "$logf" &&
      die "the kernel cannot run 32-bit x86 programs (IA32 emulation is off)"
    die "debootstrap failed"
  fi
  arch=$(in_chroot dpkg --print-architecture) || die "cannot run programs in the new chroot"
  [ "$arch" = i386 ] || die "the chroot has architecture '$arch', expected i386"
  echo nuv-i386 >"$root/etc/debian_chroot"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"  # no services start in it
  chmod 755 "$root/usr/sbin/policy-rc.d"
  printf 'arch=i386 suite=%s mirror=%s created=%s\n' "$suite" "$mirror" "$(date -u '+%FT%TZ')" >"$stamp"
fi

# Rewritten on every run so that the chroot follows the host's mirror.
printf 'deb %s %s main\ndeb %s %s-updates main\n' "$mirror" "$suite" "$mirror" "$suite" \
  >"$root/etc/apt/sources.list"
cp -L --remove-destination /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
grep -qw localhost "$root/etc/hosts" 2>/dev/null ||
  printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >>"$root/etc/hosts"

mkdir -p "$root"/{proc,sys,dev,tmp,src}
mount -t proc proc "$root/proc"
mount --bind /sys "$root/sys"
mount --bind /dev "$root/dev"
mount --bind /dev/pts "$root/dev/pts"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$root/dev/shm"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$root/tmp"
mount --bind "$src" "$root/src"

quiet "installing the project's packages in the chroot (scripts/setup.sh)" \
  in_chroot env NUV_SETUP_NO_DEBOOTSTRAP=1 bash /src/scripts/setup.sh ||
  die "scripts/setup.sh failed inside the chroot"

read -r -a cmake_args <<<"${NUV_CMAKE_ARGS:-}"
say "building $src in the chroot (cmake --preset i386${cmake_args[*]:+ ${cmake_args[*]}})"
rc=0
# shellcheck disable=SC2016  # expanded by the inner shell
waitrun in_chroot bash -c '
  cd /src || exit 1
  jobs=$1; shift
  cmake --preset i386 "$@" || exit
  cmake --build --preset i386 -j"$jobs" || exit
  ctest --preset i386 -j"$jobs"
 ' build "$jobs" "${cmake_args[@]}" </dev/null || rc=$?

# The build ran as root; hand the build tree back to the owner of the sources.
owner=$(stat -c %u:%g "$src")
if [ "$owner" != 0:0 ] && [ -d "$src/build-i386" ]; then
  chown -R "$owner" "$src/build-i386" || true
fi

if [ "$rc" -eq 0 ]; then say "32-bit build and tests passed"; else say "failed with status $rc"; fi
exit "$rc"

#!/usr/bin/env bash
# shellcheck disable=SC2317  # functions reached only from traps
# Builds and tests the project as 32-bit x86 inside an i386 Debian bookworm chroot.
# Run with --help for usage.
set -euo pipefail

usage() {
  cat <<'EOF'
Usage: scripts/i386.sh [--src DIR] [--shell | --print-mirrors]

Builds the source tree as 32-bit x86 inside an i386 Debian bookworm chroot and
runs the test suite: cmake --preset i386, cmake --build --preset i386,
ctest --preset i386. The exit status is ctest's (or that of the step that failed
before it). The build tree is <source>/build-i386.

The chroot is created with debootstrap on first use, then reused. The apt mirror
is taken from the host's apt sources. Packages are installed inside the chroot
by the tree's own scripts/setup.sh. debootstrap and apt output go to
<chroot>/nuv-i386.log and are shown only when a step fails.

Options:
  --src DIR        source tree to build (default: the repository holding this script)
  --shell          open an interactive shell in the chroot (source tree at /src)
                   instead of building
  --print-mirrors  print the mirror and security URIs that would be used, then exit
  -h, --help       show this help

Environment:
  NUV_I386_ROOT    chroot directory, outside the source tree
                   (default /var/tmp/nuv-i386-root)
  NUV_I386_SRC     same as --src
  NUV_CMAKE_ARGS   extra whitespace-separated cmake configure arguments,
                   e.g. "-DNUV_WERROR=ON"
  NUV_I386_JOBS    parallel build and test jobs (default 2)
  NUV_I386_MIRROR  use this mirror URI instead of the one found in the host's sources
  NUV_I386_APT_ETC directory read for the host's apt sources (default /etc/apt)

Needs root (re-runs itself through sudo otherwise) and an x86 kernel able to run
32-bit programs. Mounts (/proc /sys /dev /dev/pts /dev/shm /tmp /src) live only for
the duration of the run and are always removed on exit.
EOF
}

say() { echo "i386: $*"; }
die() { echo "i386: error: $*" >&2; exit 1; }

script=$(readlink -f "${BASH_SOURCE[0]}")
script_dir=$(dirname "$script")
orig_args=("$@")

src=${NUV_I386_SRC:-$(dirname "$script_dir")}
root=${NUV_I386_ROOT:-/var/tmp/nuv-i386-root}
apt_etc=${NUV_I386_APT_ETC:-/etc/apt}
jobs=${NUV_I386_JOBS:-2}
suite=bookworm
mode=build

while [ $# -gt 0 ]; do
  case $1 in
    -h|--help) usage; exit 0 ;;
    --shell) mode=shell ;;
    --print-mirrors) mode=mirrors ;;
    --src) [ $# -ge 2 ] || die "--src needs a directory"; src=$2; shift ;;
    --src=*) src=${1#--src=} ;;
    *) echo "i386: unknown argument: $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done

[[ $jobs =~ ^[1-9][0-9]*$ ]] || die "NUV_I386_JOBS must be a positive number, got '$jobs'"

# ---------------------------------------------------------------------------
# Mirror discovery from the host's apt sources.

# deb822 stanzas: prints the first usable URI of an enabled "deb" entry whose
# Suites list contains the wanted suite exactly.
deb822_uri() {
  local want=$1; shift
  [ $# -gt 0 ] || return 0
  awk -v want="$want" '
    function flush(   n, s, u, i, j) {
      if (enabled != "no" && (" " types " ") ~ /[ \t]deb[ \t]/) {
        n = split(suites, s, /[ \t]+/)
        for (i = 1; i <= n; i++) if (s[i] == want) {
          m = split(uris, u, /[ \t]+/)
          for (j = 1; j <= m; j++) if (u[j] ~ /^(https?|ftp|file):\/\//) { print u[j]; found = 1; exit }
        }
      }
      types = ""; uris = ""; suites = ""; enabled = ""; key = ""
    }
    FNR == 1 && NR != 1 { flush() }
    /^[ \t]*#/ { next }
    /^[ \t]*$/ { flush(); next }
    /^[ \t]/ {                       # continuation of the previous field
      if (key == "uris") uris = uris " " $0
      else if (key == "suites") suites = suites " " $0
      else if (key == "types") types = types " " $0
      next
    }
    {
      i = index($0, ":"); if (i == 0) next
      key = tolower(substr($0, 1, i - 1)); val = substr($0, i + 1)
      if (key == "types") types = val
      else if (key == "uris") uris = val
      else if (key == "suites") suites = val
      else if (key == "enabled") { enabled = tolower(val); gsub(/[ \t]/, "", enabled) }
    }
    END { if (!found) flush() }
  ' "$@"
}

# One-line format: deb [options] URI SUITE COMPONENTS...
oneline_uri() {
  local want=$1; shift
  [ $# -gt 0 ] || return 0
  awk -v want="$want" '
    $1 != "deb" { next }
    {
      i = 2
      if ($i ~ /^\[/) { while (i <= NF && $i !~ /\]$/) i++; i++ }
      uri = $i; s = $(i + 1)
      if (s == want && uri ~ /^(https?|ftp|file):\/\//) { print uri; exit }
    }
  ' "$@"
}

host_uri() {
  local want=$1 uri f
  local -a d822=() d1=()
  for f in "$apt_etc"/sources.list.d/*.sources; do [ -f "$f" ] && d822+=("$f"); done
  [ -f "$apt_etc/sources.list" ] && d1+=("$apt_etc/sources.list")
  for f in "$apt_etc"/sources.list.d/*.list; do [ -f "$f" ] && d1+=("$f"); done
  uri=$(deb822_uri "$want" "${d822[@]}")
  [ -n "$uri" ] || uri=$(oneline_uri "$want" "${d1[@]}")
  echo "${uri%/}"
}

mirror=${NUV_I386_MIRROR:-$(host_uri "$suite")}
mirror=${mirror%/}
security=$(host_uri "$suite-security")
if [ -z "$mirror" ]; then
  die "no apt mirror for '$suite' found in $apt_etc/sources.list.d/*.sources or $apt_etc/sources.list; set NUV_I386_MIRROR"
fi
if [ "$mode" = mirrors ]; then
  echo "mirror: $mirror"
  echo "security: ${security:-none}"
  exit 0
fi

# ---------------------------------------------------------------------------
# Sanity checks on paths, then become root.

[ -d "$src" ] || die "source directory '$src' does not exist"
src=$(cd "$src" && pwd -P)
[ -f "$src/CMakePresets.json" ] || die "'$src' has no CMakePresets.json"
[ -f "$src/scripts/setup.sh" ] || die "'$src' has no scripts/setup.sh"

case $root in /*) ;; *) die "NUV_I386_ROOT must be an absolute path, got '$root'" ;; esac
[[ $root =~ ^[A-Za-z0-9/._+-]+$ ]] || die "NUV_I386_ROOT may only contain letters, digits and / . _ + -"
root=$(readlink -m "$root")
[ "$root" != / ] || die "NUV_I386_ROOT must not be /"
case $root/ in "$src"/*) die "the chroot ($root) must be outside the source tree ($src)" ;; esac
case $src/ in "$root"/*) die "the source tree must not be inside the chroot ($root)" ;; esac

case $(uname -m) in x86_64|i?86) ;; *) die "needs an x86 host, this one is $(uname -m)" ;; esac

if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || die "must run as root (sudo is not installed)"
  pass=(NUV_I386_SRC="$src" NUV_I386_ROOT="$root")
  for v in NUV_CMAKE_ARGS NUV_I386_JOBS NUV_I386_MIRROR NUV_I386_APT_ETC; do
    [ -z "${!v+x}" ] || pass+=("$v=${!v}")
  done
  exec sudo -- env "${pass[@]}" bash "$script" "${orig_args[@]}"
fi

# ---------------------------------------------------------------------------
# Mount handling.

stamp=$root/.nuv-i386-complete
logf=$root/nuv-i386.log
mounted=()
stray_before=""

# Mount points strictly below the chroot, in mount order.
mounts_under() {
  awk -v r="$root/" 'index($2, r) == 1 { print $2 }' /proc/self/mounts
}

unmount_stale() {
  local mp
  local -a stale=()
  mapfile -t stale < <(mounts_under | tac)
  [ ${#stale[@]} -gt 0 ] || return 0
  say "removing mounts left by an earlier run: ${stale[*]}"
  for mp in "${stale[@]}"; do
    umount "$mp" 2>/dev/null || umount -l "$mp" || true
  done
  if [ -n "$(mounts_under)" ]; then
    die "could not remove stale mounts under $root: $(mounts_under | tr '\n' ' ')"
  fi
}

is_mounted() { awk -v m="$1" '$2 == m { f = 1 } END { exit !f }' /proc/self/mounts; }

# do_mount DEST mount-arguments...
do_mount() {
  local dest=$1; shift
  is_mounted "$dest" && die "$dest is already mounted"
  mkdir -p "$dest"
  mount "$@" "$dest"
  mounted+=("$dest")
  # Keep mounts and unmounts made here from propagating back to the host.
  mount --make-rslave "$dest"
}

# Processes whose root directory is the chroot.
chroot_pids() {
  local p r
  for p in /proc/[0-9]*; do
    r=$(readlink "$p/root" 2>/dev/null) || continue
    [ "$r" = "$root" ] && echo "${p#/proc/}"
  done
  return 0
}

kill_strays() {
  local p
  local -a strays=()
  for p in $(chroot_pids); do
    case " $stray_before " in *" $p "*) ;; *) strays+=("$p") ;; esac
  done
  [ ${#strays[@]} -gt 0 ] || return 0
  say "warning: ending processes left running in the chroot: $(ps -o pid=,comm= -p "${strays[*]}" 2>/dev/null | tr -s ' \n' '  ')" >&2
  kill -TERM "${strays[@]}" 2>/dev/null || true
  for _ in 1 2 3 4 5 6 7 8 9 10; do
    kill -0 "${strays[@]}" 2>/dev/null || return 0
    sleep 0.2
  done
  kill -KILL "${strays[@]}" 2>/dev/null || true
  sleep 0.2
}

unmount_all() {
  local i mp
  [ ${#mounted[@]} -gt 0 ] || return 0
  kill_strays
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    mp=${mounted[i]}
    is_mounted "$mp" || continue
    umount "$mp" 2>/dev/null || umount -l "$mp" || say "warning: could not unmount $mp" >&2
  done
  mounted=()
  local left
  left=$(mounts_under)
  [ -z "$left" ] || say "warning: still mounted: $(echo "$left" | tr '\n' ' ')" >&2
}

# Runs a command as a background child and waits for it: a signal then reaches
# the traps at once instead of after the child has finished on its own.
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
  if [ -n "$child" ]; then kill -TERM "$child" 2>/dev/null; fi
  unmount_all
  exit "$rc"
}
# One run at a time per chroot. Mounts left by a run that died are removed here,
# in the host's mount namespace, so that the host sees them gone. The run itself
# then continues in a private mount namespace: its mounts vanish with its last
# process even if the script is killed outright. The explicit unmounting on exit
# still runs and covers hosts where unshare is unavailable.
if [ -z "${NUV_I386_IN_NS:-}" ]; then
  mkdir -p "$(dirname "$root")"
  exec 9>"$root.lock"
  if ! flock -n 9; then
    say "waiting for another run using $root to finish"
    flock 9
  fi
  unmount_stale
  if unshare --mount --propagation slave true 2>/dev/null; then
    export NUV_I386_IN_NS=1 NUV_I386_SRC="$src" NUV_I386_ROOT="$root"
    exec unshare --mount --propagation slave -- bash "$script" "${orig_args[@]}"
  fi
fi

trap on_exit EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

mount_all() {
  unmount_stale
  stray_before=$(chroot_pids | tr '\n' ' ')
  [ -z "$stray_before" ] || say "warning: processes already running in $root: $stray_before" >&2
  do_mount "$root/proc" -t proc proc
  do_mount "$root/sys" --bind /sys
  do_mount "$root/dev" --bind /dev
  do_mount "$root/dev/pts" --bind /dev/pts
  do_mount "$root/dev/shm" -t tmpfs -o mode=1777,nosuid,nodev tmpfs
  do_mount "$root/tmp" -t tmpfs -o mode=1777,nosuid,nodev tmpfs
  do_mount "$root/src" --bind "$src"
}

# ---------------------------------------------------------------------------
# Running things quietly and inside the chroot.

# quiet DESCRIPTION COMMAND...: output goes to the log, shown only on failure.
# With quiet_show=0 the failure is only logged.
quiet_show=1
quiet() {
  local desc=$1 start rc=0; shift
  say "$desc"
  start=$(wc -l <"$logf")
  printf '\n=== %s: %s\n' "$(date '+%F %T')" "$desc" >>"$logf"
  waitrun "$@" >>"$logf" 2>&1 </dev/null || rc=$?
  if [ "$rc" -ne 0 ] && [ "$quiet_show" = 1 ]; then
    {
      echo "i386: '$desc' failed with status $rc; its output (last 200 lines):"
      tail -n +"$((start + 1))" "$logf" | tail -n 200
      echo "i386: full log: $logf"
    } >&2
  fi
  return "$rc"
}

# setarch: uname -m (and so CMAKE_SYSTEM_PROCESSOR) reports i686, not x86_64.
in_chroot() {
  setarch i686 env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" DEBIAN_FRONTEND=noninteractive \
    chroot "$root" "$@"
}

# ---------------------------------------------------------------------------
# Creating or reusing the chroot.

chroot_complete() {
  [ -f "$stamp" ] && [ -x "$root/usr/bin/apt-get" ] && [ -x "$root/bin/bash" ]
}

wipe_root() {
  unmount_stale
  [ -n "$(mounts_under)" ] && die "refusing to delete $root: something is still mounted below it"
  # Bind mounts of the same filesystem are not stopped by --one-file-system,
  # hence the check above; --one-file-system still guards against other filesystems.
  if [ -d "$root" ]; then
    find "$root" -mindepth 1 -maxdepth 1 -exec rm -rf --one-file-system {} +
  fi
}

create_root() {
  if ! command -v debootstrap >/dev/null; then
    say "debootstrap is missing; running scripts/setup.sh on the host"
    "$script_dir/setup.sh"
    command -v debootstrap >/dev/null || die "scripts/setup.sh did not install debootstrap"
  fi
  if [ -e "$root" ]; then
    say "$root is incomplete (no stamp); rebuilding it"
    wipe_root
  fi
  mkdir -p "$root"
  : >"$logf"
  local -a extra=()
  case $mirror in https://*) extra+=(--include=ca-certificates) ;; esac
  if ! quiet "creating the i386 chroot in $root from $mirror (takes a few minutes)" \
      debootstrap --arch=i386 --variant=minbase "${extra[@]}" "$suite" "$root" "$mirror"; then
    if grep -q 'Exec format error' "$logf"; then
      die "the kernel cannot run 32-bit x86 programs (IA32 emulation is off)"
    fi
    die "debootstrap failed"
  fi
  local arch
  arch=$(in_chroot dpkg --print-architecture) || die "cannot run programs in the new chroot"
  [ "$arch" = i386 ] || die "the chroot has architecture '$arch', expected i386"
  echo nuv-i386 >"$root/etc/debian_chroot"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  printf 'arch=i386 suite=%s mirror=%s created=%s\n' "$suite" "$mirror" "$(date -u '+%FT%TZ')" >"$stamp"
}

configure_root() {
  {
    echo "deb $mirror $suite main"
    echo "deb $mirror $suite-updates main"
    if [ -n "$security" ]; then echo "deb $security $suite-security main"; fi
  } >"$root/etc/apt/sources.list.new"
  mv "$root/etc/apt/sources.list.new" "$root/etc/apt/sources.list"
  if [ -e /etc/resolv.conf ]; then
    cp -L --remove-destination /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
  fi
  if ! grep -qw localhost "$root/etc/hosts" 2>/dev/null; then
    printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >>"$root/etc/hosts"
  fi
}

# ---------------------------------------------------------------------------

# The log holds the current run only.
if chroot_complete; then
  say "reusing the chroot in $root"
  : >"$logf"
else
  create_root
fi
configure_root
mount_all

run_setup() {
  quiet "installing the project's packages in the chroot (scripts/setup.sh)" \
    in_chroot env NUV_SETUP_NO_DEBOOTSTRAP=1 bash /src/scripts/setup.sh
}

# A security mirror whose i386 index is out of step with its Release file makes
# every apt-get update fail; in that case carry on without the security suite.
quiet_show=0
if ! run_setup; then
  quiet_show=1
  dropped=0
  if [ -n "$security" ]; then
    upd_rc=0
    upd=$(in_chroot apt-get update 2>&1 </dev/null) || upd_rc=$?
    printf '%s\n' "$upd" >>"$logf"
    if [ "$upd_rc" -ne 0 ] && grep '^E:' <<<"$upd" | grep -qF "$security/"; then
      say "warning: apt-get update fails for $security; retrying without the security suite:" >&2
      grep '^E:' <<<"$upd" | grep -F "$security/" | sed 's/^/i386:   /' >&2
      security=""
      dropped=1
      configure_root
    fi
  fi
  if [ "$dropped" = 0 ]; then say "scripts/setup.sh failed once (see $logf); retrying"; fi
  run_setup || die "scripts/setup.sh failed inside the chroot"
fi
quiet_show=1

if [ "$mode" = shell ]; then
  say "shell in the i386 chroot; the source tree is at /src; exit to leave"
  rc=0
  in_chroot bash -c 'cd /src && exec bash -i' || rc=$?
  exit "$rc"
fi

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

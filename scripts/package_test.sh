#!/usr/bin/env bash
# Installs the Debian package into a fresh Debian bookworm root and uses it as an operator
# would: the units verify, the installed daemon starts, the installed nuvctl posts a burying
# point and reads it back, the installed exporter ships it as NDJSON, both stop cleanly, the
# package removes and purges.
#
# The root (amd64 minbase plus systemd and man-db) is made once with debootstrap under
# NUV_PKG_ROOT (default /var/tmp/nuv-pkg-root) and never changed: each run works on an
# overlay of it that vanishes afterwards, so every run starts from the same fresh system.
set -euo pipefail

usage() {
  echo "usage: scripts/package_test.sh [--deb FILE]"
  echo "  Builds the package (scripts/package.sh) unless --deb names one, then tests it in a"
  echo "  fresh bookworm root (NUV_PKG_ROOT, default /var/tmp/nuv-pkg-root). Needs root."
}

say() { echo "package-test: $*"; }
die() { echo "package-test: error: $*" >&2; exit 1; }

here=$(cd "$(dirname "$0")" && pwd -P)
src=$(dirname "$here")
root=${NUV_PKG_ROOT:-/var/tmp/nuv-pkg-root}
deb=""
while [ $# -gt 0 ]; do
  case $1 in
    -h|--help) usage; exit 0 ;;
    --deb) [ $# -ge 2 ] || die "--deb needs a file"; deb=$2; shift ;;
    *) echo "package-test: unknown argument $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done
[ "$(id -u)" -eq 0 ] || die "needs root (debootstrap, chroot, mounts)"
case $root in /?*) ;; *) die "NUV_PKG_ROOT must be an absolute path, got '$root'" ;; esac

if [ -z "$deb" ]; then deb=$("$here/package.sh" | tail -n 1); fi
[ -f "$deb" ] || die "no package file '$deb'"
deb=$(readlink -f "$deb")

stamp=$root/.nuv-pkg-complete
logf=$root.log
if [ ! -f "$stamp" ]; then
  command -v debootstrap >/dev/null || "$here/setup.sh"
  # shellcheck source-path=SCRIPTDIR source=lib/mirror.sh
  . "$here/lib/mirror.sh"
  mirror=$(nuv_mirror bookworm) || die "the host's apt configuration has no source for bookworm"
  say "creating the bookworm root in $root from $mirror (once; takes a few minutes)"
  rm -rf --one-file-system "$root"
  mkdir -p "$root"
  debootstrap --variant=minbase bookworm "$root" "$mirror" >"$logf" 2>&1 ||
    { tail -n 50 "$logf" >&2; die "debootstrap failed; log in $logf"; }
  echo "deb $mirror bookworm main" >"$root/etc/apt/sources.list"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  # systemd for the unit's verification, man-db for its Documentation= pages.
  chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
    sh -c 'apt-get update -qq && apt-get install -y -qq --no-install-recommends systemd man-db' \
    >>"$logf" 2>&1 || { tail -n 50 "$logf" >&2; die "installing systemd in the root failed"; }
  date -u '+%FT%TZ' >"$stamp"
fi

# The rest runs in private mount and pid namespaces: the overlay, its mounts and any process
# left in the root end with this script, however it ends.
if [ -z "${NUV_PKG_IN_NS:-}" ]; then
  export NUV_PKG_IN_NS=1 NUV_PKG_ROOT="$root"
  exec unshare --mount --propagation private --pid --fork -- bash "$0" --deb "$deb"
fi

work=$(mktemp -d /var/tmp/nuv-pkg-run.XXXXXX)
trap 'umount -R "$work/merged" 2>/dev/null; rm -rf --one-file-system "$work"' EXIT
mkdir -p "$work"/{upper,work,merged}
mount -t overlay overlay -o "lowerdir=$root,upperdir=$work/upper,workdir=$work/work" "$work/merged"
sys=$work/merged
mount -t proc proc "$sys/proc"
mount --bind /dev "$sys/dev"
mount -t tmpfs -o mode=1777 tmpfs "$sys/tmp"
mount -t tmpfs -o mode=755 tmpfs "$sys/run"
cp -L /etc/resolv.conf "$sys/etc/resolv.conf" 2>/dev/null || true
cp "$deb" "$sys/tmp/"

root_env=(env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
  HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive)
in_root() { chroot "$sys" "${root_env[@]}" "$@"; }
check() {  # check DESCRIPTION COMMAND...: runs it in the root, stops the test when it fails
  local desc=$1 out rc=0; shift
  out=$(in_root "$@" 2>&1) || rc=$?
  if [ "$rc" -ne 0 ]; then
    printf '%s\n' "$out" | tail -n 40 >&2
    die "$desc (status $rc)"
  fi
  printf '%s' "$out"
}

say "installing $(basename "$deb") with its dependencies"
check "apt-get update" apt-get update -qq >/dev/null
check "the package does not install" apt-get install -y -qq --no-install-recommends \
  "/tmp/$(basename "$deb")" >/dev/null

say "checking the layout and the units"
check "nuvctl is not on the PATH" sh -c 'command -v nuvctl' >/dev/null
for conffile in maintenance.json exportd.json; do
  check "the conffile $conffile is not registered" sh -c \
    "dpkg-query -W -f='\${Conffiles}' nuv-maintenance | grep -q /etc/nuv-maintenance/$conffile"
  check "the configuration link $conffile is broken" test -f "/opt/nuv-maintenance/config/$conffile"
done
check "man pages missing" sh -c 'man -w nuv_maintd && man -w nuvctl && man -w nuv_exportd' >/dev/null
for unit in nuv-maintd.service nuv-exportd.service; do
  verify=$(check "systemd-analyze verify $unit fails" systemd-analyze verify "$unit")
  [ -z "$verify" ] || { printf '%s\n' "$verify" >&2; die "systemd-analyze verify $unit is not clean"; }
done

say "running the installed daemon as its unit does"
mkdir -m 0700 "$sys/run/nuv-comm"
chroot "$sys" "${root_env[@]}" NUV_COMM_DIR=/run/nuv-comm /opt/nuv-maintenance/bin/nuv_maintd \
  >"$work/daemon.out" 2>"$work/daemon.err" &
daemon=$!
for _ in $(seq 100); do
  grep -q started "$work/daemon.err" && break
  kill -0 "$daemon" 2>/dev/null || { cat "$work/daemon.err" >&2; die "the daemon exited"; }
  sleep 0.1
done
grep -q started "$work/daemon.err" || { cat "$work/daemon.err" >&2; die "the daemon never started"; }

point=$(check "nuvctl bp failed" env NUV_COMM_DIR=/run/nuv-comm \
  nuvctl bp --type 512 --focus /usr/bin/pkgagent:77 --echo)
[ "$(printf '%s\n' "$point" | tail -n 1)" = "0x00000000 (success)" ] || die "bp said: $point"
posted=$(printf '%s\n' "$point" | head -n 1)
stored=$(check "nuvctl store cat failed" nuvctl store cat pkgagent 0 512)
[ "$stored" = "$posted" ] || die "store cat read '$stored', posted '$posted'"
day=$(date '+%Y%m%d')
json=$(check "nuvctl store cat --json failed" nuvctl store cat pkgagent 0 512 --json)
case $json in "{\"day\":\"$day\",\"name\":\"pkgagent\",\"pid\":0,\"type\":512,\"n\":1,\"offset\":0,"*) ;;
  *) die "store cat --json printed: $json" ;; esac
status=$(check "nuvctl status failed" env NUV_COMM_DIR=/run/nuv-comm nuvctl status)
grep -q "^daemon: *running, pid $daemon," <<<"$status" || die "status said: $status"
check "nuvctl monitors failed" env NUV_COMM_DIR=/run/nuv-comm nuvctl monitors | grep -q '^system-cpu  *exact  *config' ||
  die "monitors does not list the configured monitor"
check "the record is not under /var/lib" test -s "/var/lib/nuv-maintenance/$day/pkgagent/pkgagent-0-512" >/dev/null

say "running the installed exporter as its unit does, writing NDJSON"
conf=$sys/etc/nuv-maintenance/exportd.json
grep -q '"state_dir": "/var/lib/nuv-exportd"' "$conf" || die "exportd.json as shipped: $(cat "$conf")"
sed -i 's|"output": "kafka"|"output": "ndjson"|; s|"ndjson_file": "-"|"ndjson_file": "/var/lib/nuv-exportd/out.ndjson"|' "$conf"
mkdir -m 0750 "$sys/var/lib/nuv-exportd"  # the unit's StateDirectory=
chroot "$sys" "${root_env[@]}" /opt/nuv-maintenance/bin/nuv_exportd \
  >"$work/exportd.out" 2>"$work/exportd.err" &
exporter=$!
shipped=$sys/var/lib/nuv-exportd/out.ndjson
for _ in $(seq 100); do
  [ -s "$shipped" ] && break
  kill -0 "$exporter" 2>/dev/null || { cat "$work/exportd.err" >&2; die "the exporter exited"; }
  sleep 0.1
done
escaped=${posted//\\/\\\\}
escaped=${escaped//\"/\\\"}
expected="{\"day\":\"$day\",\"name\":\"pkgagent\",\"pid\":0,\"type\":512,\"offset\":0,\"record\":\"$escaped\"}"
[ "$(cat "$shipped" 2>/dev/null)" = "$expected" ] ||
  { cat "$work/exportd.err" >&2; die "the exporter wrote '$(cat "$shipped" 2>/dev/null)', not '$expected'"; }
kill -TERM "$exporter"
rc=0
wait "$exporter" || rc=$?
[ "$rc" -eq 0 ] || { cat "$work/exportd.err" >&2; die "the exporter exited $rc on SIGTERM"; }
grep -q '"shipped": 1' "$sys/var/lib/nuv-exportd/cursor.json" ||
  die "the cursor does not hold the shipped record: $(cat "$sys/var/lib/nuv-exportd/cursor.json")"

kill -TERM "$daemon"
rc=0
wait "$daemon" || rc=$?
[ "$rc" -eq 0 ] || { cat "$work/daemon.err" >&2; die "the daemon exited $rc on SIGTERM"; }
left=$(find "$sys/run/nuv-comm" -type s)
[ -z "$left" ] || die "sockets left after the stop: $left"

say "removing and purging"
check "removal failed" dpkg -r nuv-maintenance >/dev/null
check "the data went with the removal" test -d /var/lib/nuv-maintenance
check "purge failed" dpkg -P nuv-maintenance >/dev/null
for path in /opt/nuv-maintenance /usr/bin/nuvctl /etc/nuv-maintenance /var/lib/nuv-maintenance \
  /var/lib/nuv-exportd; do
  [ ! -e "$sys$path" ] && [ ! -L "$sys$path" ] || die "$path left after purge"
done
say "passed"

#!/usr/bin/env bash
# Installs what the benchmarks compare against and the build does not need: kcat (Debian
# package kafkacat) for export_bench, syslog-ng and its loggen (syslog-ng-core) for
# ingest_bench. Idempotent: with them present it prints nothing.
set -euo pipefail
missing=()
command -v kcat >/dev/null || missing+=(kafkacat)
{ [ -x /usr/sbin/syslog-ng ] && [ -x /usr/bin/loggen ]; } || missing+=(syslog-ng-core)
[ ${#missing[@]} -eq 0 ] && exit 0
# shellcheck source-path=SCRIPTDIR source=../scripts/lib/apt.sh
. "$(dirname "$0")/../scripts/lib/apt.sh"
nuv_apt_install "bench setup" "${missing[@]}"

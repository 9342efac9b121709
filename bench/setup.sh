#!/usr/bin/env bash
# Installs what the benchmarks compare against and the build does not need: kcat (Debian
# package kafkacat) for export_bench, syslog-ng and its loggen (syslog-ng-core) for
# ingest_bench. Idempotent: with them present it prints nothing.
set -euo pipefail
missing=()
command -v kcat >/dev/null || missing+=(kafkacat)
{ [ -x /usr/sbin/syslog-ng ] && [ -x /usr/bin/loggen ]; } || missing+=(syslog-ng-core)
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "bench setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

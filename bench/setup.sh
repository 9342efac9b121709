#!/usr/bin/env bash
# Installs what the benchmarks compare against and the build does not need: kcat (Debian
# package kafkacat) for export_bench. Idempotent: with it present it prints nothing.
set -euo pipefail
command -v kcat >/dev/null && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "bench setup: installing kafkacat"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends kafkacat >/dev/null

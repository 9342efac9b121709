#!/usr/bin/env bash
# Builds the libFuzzer targets (preset `fuzz`, clang) and runs each for a bounded time over its
# seed corpus in fuzz/corpus/<target>/. New inputs go to build-fuzz/fuzz/work/<target>/ (the
# seed corpus in the tree changes only by hand); a crash leaves its input in
# build-fuzz/fuzz/artifacts/<target>/ and makes the script fail.
#
#   scripts/fuzz.sh                   every target for 300 s
#   scripts/fuzz.sh --time 20         every target for 20 s (the test command's smoke run)
#   scripts/fuzz.sh --time 600 frame_fuzz bp_fuzz
#   scripts/fuzz.sh --no-build ...    use the targets already built
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=300
build=1
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --time) seconds=${2:?--time needs seconds}; shift 2 ;;
    --no-build) build=0; shift ;;
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "scripts/fuzz.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
all=(bp_fuzz frame_fuzz config_fuzz index_fuzz condition_fuzz register_fuzz jsonscan_fuzz)
[ ${#targets[@]} -eq 0 ] && targets=("${all[@]}")

if [ "$build" -eq 1 ]; then
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -j"$(nproc)"
fi

max_len() {
  case "$1" in
    frame_fuzz) echo 32768 ;;
    bp_fuzz|config_fuzz|jsonscan_fuzz) echo 16384 ;;
    *) echo 8192 ;;
  esac
}

out=build-fuzz/fuzz
failed=()
for t in "${targets[@]}"; do
  bin=$out/$t
  [ -x "$bin" ] || { echo "scripts/fuzz.sh: $bin is not built" >&2; exit 2; }
  work=$out/work/$t
  art=$out/artifacts/$t
  mkdir -p "$work" "$art" "fuzz/corpus/$t"
  log=$out/$t.log
  echo "== $t: ${seconds}s"
  tmp=$(mktemp -d)
  set +e
  TMPDIR=$tmp "$bin" -max_total_time="$seconds" -max_len="$(max_len "$t")" \
    -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$art/" \
    "$work" "fuzz/corpus/$t" >"$log" 2>&1
  rc=$?
  set -e
  rm -rf "$tmp"
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 || true)
  if [ "$rc" -ne 0 ]; then
    failed+=("$t")
    echo "   FAILED (exit $rc), ${runs:-?} executions; input in $art/, log $log"
    grep -m3 -E 'ERROR: |runtime error|SUMMARY' "$log" | sed 's/^/   /' || true
  else
    echo "   ok: ${runs:-?} executions, $cov"
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]}" >&2
  exit 1
fi

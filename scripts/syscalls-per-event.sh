#!/usr/bin/env bash
# System calls per event of the end-to-end run, by call, for the whole road (tagging to
# delivery) and for the floor beside it: the benchmark's child for N events runs under
# `strace -f`, against a development gateway started outside the trace.
#
#   scripts/syscalls-per-event.sh [N] [BUILD_DIR]        (default: 20000 build)
#
# Files go below $KTANALYTICS_BENCH_DIR (default: BUILD_DIR/bench-tmp, the build's disk).
# Needs strace (Debian package `strace`). Under strace the run is several times slower;
# the counts are what matter here, not the times.
set -euo pipefail

count="${1:-20000}"
build_dir="${2:-build}"
tool="$build_dir/Tools/ktanalytics/ktanalytics"
bench="$build_dir/Benchmarks/bench_EndToEndBenchmark"
for program in "$tool" "$bench"; do
  [[ -x "$program" ]] || { echo "syscalls-per-event: $program is missing; build it first" >&2; exit 2; }
done
command -v strace >/dev/null || { echo "syscalls-per-event: strace is missing (apt-get install strace)" >&2; exit 2; }

work="$(mktemp -d)"
gateway_pid=""
cleanup() {
  [[ -n "$gateway_pid" ]] && kill "$gateway_pid" 2>/dev/null && wait "$gateway_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

export KTANALYTICS_BENCH_DIR="${KTANALYTICS_BENCH_DIR:-$build_dir/bench-tmp}"
mkdir -p "$KTANALYTICS_BENCH_DIR"

"$tool" gateway --port 0 >"$work/gateway.out" 2>/dev/null &
gateway_pid=$!
url=""
for _ in $(seq 100); do
  url="$(grep -so 'http://[^ ]*' "$work/gateway.out" | head -n 1 || true)"
  [[ -n "$url" ]] && break
  sleep 0.1
done
[[ -n "$url" ]] || { echo "syscalls-per-event: the gateway did not start" >&2; exit 2; }

KTANALYTICS_BENCH_GATEWAY="$url" KTANALYTICS_BENCH_MARKS=1 \
  strace -f -qq -o "$work/trace" "$bench" --child "$count"

# Lines between the marks the benchmark leaves (a lookup of /ktanalytics-bench-mark/<name>);
# a call that strace splits into "unfinished" and "resumed" counts once.
awk -v n="$count" '
  /\/ktanalytics-bench-mark\// {
    if (match($0, /ktanalytics-bench-mark\/[a-z-]+/)) {
      mark = substr($0, RSTART + 23, RLENGTH - 23)
      split(mark, parts, "-"); part = (parts[2] == "start") ? parts[1] : ""
    }
    next
  }
  part == "" || /resumed>/ || /^[0-9]+ +(\+\+\+|---)/ { next }
  {
    call = $2; sub(/\(.*/, "", call)
    calls[part, call]++; total[part]++; names[call] = 1
    if ($0 ~ /= -1 E/) failed[part, call]++
  }
  END {
    printf "0 %-18s %10s %10s %10s %10s\n", "call (per event)", "road", "failing", "floor", "failing"
    for (call in names) {
      r = calls["road", call] / n; f = calls["floor", call] / n
      if (r < 0.005 && f < 0.005) continue
      printf "1 %-18s %10.2f %10.2f %10.2f %10.2f\n", call, r, failed["road", call] / n, f, failed["floor", call] / n
    }
    printf "2 %-18s %10.2f %10s %10.2f\n", "total", total["road"] / n, "", total["floor"] / n
  }
' "$work/trace" | sort -k1,1n -k3,3nr | cut -d' ' -f2-

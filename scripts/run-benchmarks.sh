#!/usr/bin/env bash
# Runs every benchmark program of a build and prints a summary table.
#
#   scripts/run-benchmarks.sh BUILD_DIR
#
# The build must have been configured with -DKTANALYTICS_BUILD_BENCHMARKS=ON (the default
# for a top-level build). Files are written below BUILD_DIR/bench-tmp, so that they land on
# the disk the build lives on rather than on a memory-backed /tmp; the raw results stay in
# BUILD_DIR/bench-results as CSV.
set -euo pipefail

build_dir="${1:-build}"
bench_dir="$build_dir/Benchmarks"
programs=(TagEventBenchmark StoreThroughputBenchmark QueueGrowthBenchmark UploadBenchmark TrackingPlanEndToEndBenchmark EventBurstBenchmark)
for program in "${programs[@]}"; do
  if [[ ! -x "$bench_dir/bench_$program" ]]; then
    echo "run-benchmarks: $bench_dir/bench_$program is missing; build with -DKTANALYTICS_BUILD_BENCHMARKS=ON" >&2
    exit 2
  fi
done

results="$build_dir/bench-results"
mkdir -p "$results"
export KTANALYTICS_BENCH_DIR="$build_dir/bench-tmp"
rm -rf "$KTANALYTICS_BENCH_DIR"
mkdir -p "$KTANALYTICS_BENCH_DIR"
trap 'rm -rf "$KTANALYTICS_BENCH_DIR"' EXIT

# Minimum measuring time per benchmark, in seconds. The tagging and upload benchmarks fix
# their own iteration counts; the store benchmarks need a few seconds to ride out the file
# system's slow and fast phases.
min_time_for() {
  case "$1" in
    StoreThroughputBenchmark) echo 3 ;;
    QueueGrowthBenchmark) echo 1 ;;
    *) echo 0.5 ;;
  esac
}

for program in "${programs[@]}"; do
  echo "== $program"
  "$bench_dir/bench_$program" \
    --benchmark_min_time="$(min_time_for "$program")" \
    --benchmark_out="$results/$program.csv" --benchmark_out_format=csv
  echo
done

# The whole road end to end, each size in a process of its own.
if [[ -x "$bench_dir/bench_EndToEndBenchmark" ]]; then
  echo "== EndToEndBenchmark (N events tagged at once, delivered to the development gateway on loopback)"
  "$bench_dir/bench_EndToEndBenchmark" 1000 10000 20000 100000 | tee "$results/EndToEnd.txt"
  echo
  # The same road where the disk costs nothing, when the machine has a memory-backed folder.
  if [[ -d /dev/shm && -w /dev/shm ]]; then
    shm="$(mktemp -d -p /dev/shm kt-bench.XXXXXX)"
    echo "== EndToEndBenchmark on tmpfs ($shm)"
    KTANALYTICS_BENCH_DIR="$shm" "$bench_dir/bench_EndToEndBenchmark" 20000 | tee "$results/EndToEnd-tmpfs.txt"
    rm -rf "$shm"
    echo
  fi
fi

# One table from the CSV files. Columns are found by their header names, so the user
# counters of each program can be read too.
awk -F, '
  function unq(s) { gsub(/"/, "", s); return s }
  function fmt_time(t, unit) {
    if (unit == "us") t *= 1e3; else if (unit == "ms") t *= 1e6; else if (unit == "s") t *= 1e9
    if (t < 10) return sprintf("%.1f ns", t)
    if (t < 1e3) return sprintf("%.0f ns", t)
    if (t < 1e6) return sprintf("%.1f us", t / 1e3)
    if (t < 1e9) return sprintf("%.0f ms", t / 1e6)
    return sprintf("%.2f s", t / 1e9)
  }
  # Each file opens with a few lines of context, then the header of its own columns.
  FNR == 1 { delete column }
  /^name,/ { for (i = 1; i <= NF; i++) column[unq($i)] = i; next }
  column["name"] && NF > 3 {
    name = unq($column["name"])
    real[name] = $column["real_time"]; unit[name] = unq($column["time_unit"])
    if ("items_per_second" in column) items[name] = $column["items_per_second"]
    if ("peak_rss_growth_MiB" in column) rss[name] = $column["peak_rss_growth_MiB"]
    if ("body_gzip_KiB" in column) gz[name] = $column["body_gzip_KiB"]
    if ("body_raw_KiB" in column) raw[name] = $column["body_raw_KiB"]
    if ("us_per_message" in column) permsg[name] = $column["us_per_message"]
    if ("batches" in column) batches[name] = $column["batches"]
    if ("send_median_ns" in column) sendmed[name] = $column["send_median_ns"]
    if ("peak_rss_MiB" in column) peak[name] = $column["peak_rss_MiB"]
    if ("dropped_backlog_full" in column) backlog[name] = $column["dropped_backlog_full"]
    if ("error_occurred" in column) failed[name] = unq($column["error_occurred"]) == "true"
  }
  END {
    printf "\n%-58s %s\n", "measure", "result"
    printf "%-58s %s\n", "-------", "------"
    n = "BM_TagEvent/iterations:10000/repeats:5_median"
    if (n in real) printf "%-58s %s   (target: under 2 us)\n", "tagEvent on the caller'"'"'s thread, gateway provider (median)", fmt_time(real[n], unit[n])
    n = "BM_TagEventNoProviderTakes/iterations:10000/repeats:5_median"
    if (n in real) printf "%-58s %s\n", "tagEvent, a name no provider takes (median)", fmt_time(real[n], unit[n])
    p = "BM_TagToFileOnDisk/real_time"; f = "BM_BareSystemCalls/xattr:1/real_time"; f0 = "BM_BareSystemCalls/xattr:0/real_time"
    if (p in items) printf "%-58s %.0f events/s\n", "tagEvent to a file on disk", items[p]
    if (f in items) printf "%-58s %.0f events/s\n", "floor: create, write, rename, setxattr (same bytes)", items[f]
    if (f0 in items) printf "%-58s %.0f events/s\n", "floor without setxattr", items[f0]
    if ((p in items) && (f in items) && items[p] > 0)
      printf "%-58s %.2fx   (target: at most 1.5x)\n", "time per event, pipeline / floor", items[f] / items[p]
    split("10 1000 10000 100000", waits, " ")
    for (k = 1; k <= 4; k++) {
      n = "BM_StoreOneMoreEvent/waiting:" waits[k]
      if (n in real) printf "%-58s %s\n", "store one more event, " waits[k] " already waiting", fmt_time(real[n], unit[n])
    }
    for (k = 1; k <= 4; k++) {
      n = "BM_CountWaitingFromTheIndex/waiting:" waits[k]; l = "BM_CountWaitingByListingTheFolder/waiting:" waits[k]
      if ((n in real) && (l in real))
        printf "%-58s %s (a listing: %s)\n", "count of waiting events, " waits[k] " waiting", fmt_time(real[n], unit[n]), fmt_time(real[l], unit[l])
    }
    n = "BM_Upload10000StoredEvents/iterations:3/real_time"
    if (n in real) printf "%-58s %s, peak RSS +%.1f MiB (gzip %.0f KiB of %.0f KiB)\n", "upload 10,000 stored events to the development gateway", fmt_time(real[n], unit[n]), rss[n], gz[n], raw[n]
    n = "BM_BuildTheRequestFor10000StoredEvents/iterations:3/real_time"
    if (n in real) printf "%-58s %s, peak RSS +%.1f MiB   (target: at most +16 MiB)\n", "build the request for 10,000 stored events", fmt_time(real[n], unit[n]), rss[n]
    n = "BM_Upload10000StoredEventsToABareSink/iterations:3/real_time"
    if (n in real) printf "%-58s %s, peak RSS +%.1f MiB\n", "the same to a bare sink (the SDK alone)", fmt_time(real[n], unit[n]), rss[n]
    split("1000 10000 100000 1000000", sizes, " ")
    for (k = 1; k <= 4; k++) {
      n = "BM_TrackingPlanToGateway/" sizes[k] "/iterations:1/manual_time"
      if (!(n in real)) continue
      if (failed[n]) { printf "%-58s FAILED (see above)\n", "tracking plan, " sizes[k] " messages sent to delivered"; continue }
      printf "%-58s %s, %.0f us/message, %.0f msgs/s, %d batches, peak RSS +%.1f MiB (%.1f MiB in all), %d backlog_full, send median %.0f ns\n", "tracking plan, " sizes[k] " messages sent to delivered", fmt_time(real[n], unit[n]), permsg[n], items[n], batches[n], rss[n], peak[n], backlog[n], sendmed[n]
    }
    split("100000 1000000", bursts, " ")
    for (k = 1; k <= 2; k++) {
      n = "BM_EventBurst/" bursts[k] "/iterations:1/manual_time"
      if (!(n in real)) continue
      if (failed[n]) { printf "%-58s FAILED (see above)\n", "a burst of " bursts[k] " events, tagged to stored"; continue }
      printf "%-58s %s, peak RSS %.1f MiB in all   (target: under 64 MiB), %d backlog_full\n", "a burst of " bursts[k] " events, tagged to stored", fmt_time(real[n], unit[n]), peak[n], backlog[n]
    }
  }
' "$results"/*.csv

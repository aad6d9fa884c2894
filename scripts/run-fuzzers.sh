#!/usr/bin/env bash
# Builds every libFuzzer target of Fuzz/ with clang, AddressSanitizer and UndefinedBehavior-
# Sanitizer, and runs each for a while over a copy of its seed corpus.
#
#   scripts/run-fuzzers.sh BUILD_DIR SECONDS [TARGET...]
#
# TARGET names a target without its fuzz_ prefix (urn, gateway_upload, ...); without one,
# all of them run, one after the other. KT_FUZZ_JOBS sets the build's parallel jobs.
# Inputs that crash, leak or take over 10 seconds are left in BUILD_DIR/fuzz-findings/<target>/
# and each run's output in BUILD_DIR/fuzz-logs/<target>.log. Prints the inputs each target
# ran; exits 1 when any target found something, 2 when it could not build or run them.
set -euo pipefail

if [[ $# -lt 2 || ! "$2" =~ ^[0-9]+$ ]]; then
  echo "usage: $0 BUILD_DIR SECONDS [TARGET...]" >&2
  exit 2
fi
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="$1"
seconds="$2"
shift 2

if [[ $# -gt 0 ]]; then
  targets=("$@")
else
  targets=()
  for file in "$source_dir"/Fuzz/*.cpp; do targets+=("$(basename "$file" .cpp)"); done
fi
for target in "${targets[@]}"; do
  if [[ ! -f "$source_dir/Fuzz/$target.cpp" ]]; then
    echo "run-fuzzers: no target $target (Fuzz/$target.cpp)" >&2
    exit 2
  fi
done

# A folder already configured with KTANALYTICS_FUZZ (as `make check`'s) is built as it is.
if [[ ! -f "$build_dir/CMakeCache.txt" ]]; then
  bash "$source_dir/scripts/configure-sanitized.sh" "$build_dir" address,undefined,fuzzer-no-link \
    -DKTANALYTICS_FUZZ=ON -DKTANALYTICS_BUILD_TESTS=OFF
elif ! grep -q '^KTANALYTICS_FUZZ:BOOL=ON' "$build_dir/CMakeCache.txt"; then
  echo "run-fuzzers: $build_dir is configured without KTANALYTICS_FUZZ" >&2
  exit 2
fi
build_targets=()
for target in "${targets[@]}"; do build_targets+=("fuzz_$target"); done
started=$(date +%s)
cmake --build "$build_dir" -j "${KT_FUZZ_JOBS:-$(nproc)}" --target "${build_targets[@]}"
echo "run-fuzzers: built ${#targets[@]} targets in $(( $(date +%s) - started )) s"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:symbolize=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
if command -v llvm-symbolizer >/dev/null; then export ASAN_SYMBOLIZER_PATH="$(command -v llvm-symbolizer)"; fi

findings_root="$build_dir/fuzz-findings"
found=0
for target in "${targets[@]}"; do
  # The seeds stay as they are; what a run adds goes to the copy.
  corpus="$build_dir/fuzz-corpus/$target"
  findings="$findings_root/$target"
  log="$build_dir/fuzz-logs/$target.log"
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  if [[ -d "$source_dir/Fuzz/corpus/$target" ]]; then cp "$source_dir/Fuzz/corpus/$target"/* "$corpus"/; fi
  dict=()
  if [[ -f "$source_dir/Fuzz/$target.dict" ]]; then dict=("-dict=$source_dir/Fuzz/$target.dict"); fi
  status=0
  "$build_dir/Fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -detect_leaks=1 -print_final_stats=1 \
    -artifact_prefix="$findings/" "${dict[@]}" "$corpus" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  kept=$(find "$findings" -type f | wc -l)
  if [[ $status -ne 0 || $kept -ne 0 ]]; then
    found=1
    echo "$target: FINDING (exit $status) after ${runs:-?} inputs; $kept input(s) in $findings, log $log"
    grep -m1 -E 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error|SUMMARY' "$log" | sed 's/^/  /' || true
  else
    echo "$target: ${runs:-?} inputs in ${seconds} s, no finding"
  fi
done
exit $found

#!/usr/bin/env bash
# What `make check` adds to `make test`: the whole suite under AddressSanitizer and
# UndefinedBehaviorSanitizer, the suites that more than one thread touches under
# ThreadSanitizer, and every libFuzzer target for a fixed time. Any report fails the run.
# Usage: scripts/check.sh [FUZZ_SECONDS]   (default 45 per target)
set -euo pipefail
cd "$(dirname "$0")/.."
fuzz_seconds=${1:-45}
jobs=$(nproc)
generator=$(command -v ninja >/dev/null 2>&1 && echo "-G Ninja" || true)
started=$(date +%s)
step() { echo "check: $* ($(( $(date +%s) - started )) s so far)"; }

configure() {  # folder, sanitizers
  if [ ! -f "$1/CMakeCache.txt" ]; then
    mkdir -p "$1"
    cmake -S . -B "$1" $generator -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKTANALYTICS_SANITIZE="$2" \
      -DKTANALYTICS_BUILD_BENCHMARKS=OFF > "$1/configure.log" 2>&1 || { cat "$1/configure.log"; exit 1; }
  fi
}

# Address and undefined behaviour, every suite. A report stops the process (no recovery).
step "AddressSanitizer and UndefinedBehaviorSanitizer: building every suite"
configure build-asan "address,undefined"
cmake --build build-asan -j "$jobs"
step "AddressSanitizer and UndefinedBehaviorSanitizer: running every suite"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
# The installed-package check builds an application of its own without the sanitizer.
(cd build-asan && ctest -j "$jobs" --output-on-failure -E "InstalledPackage")
unset ASAN_OPTIONS UBSAN_OPTIONS

# Data races, in the suites whose code more than one thread touches.
threaded="test_KTData test_Setup test_Segment test_AnalyticsProvider test_Attribution test_EndToEnd"
step "ThreadSanitizer: building $threaded"
configure build-tsan thread
cmake --build build-tsan -j "$jobs" --target $threaded
step "ThreadSanitizer: running $threaded"
# Killed-child tests fork a process that has threads: die_after_fork=0 lets them.
export TSAN_OPTIONS="suppressions=$PWD/scripts/tsan.supp:die_after_fork=0:halt_on_error=1:exitcode=66"
for suite in $threaded; do
  echo "check: ThreadSanitizer $suite"
  "build-tsan/Tests/$suite" --gtest_brief=1
done
unset TSAN_OPTIONS

step "libFuzzer targets, $fuzz_seconds s each"
bash scripts/run-fuzzers.sh build-fuzz "$fuzz_seconds"

step "done: no report"

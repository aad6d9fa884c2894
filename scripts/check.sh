#!/usr/bin/env bash
# What `make check` adds to `make test`, each step failing the run on any report:
#   asan   the whole suite built with clang, AddressSanitizer and UndefinedBehaviorSanitizer
#          (no recovery: the first report stops the test that made it);
#   fuzz   every libFuzzer target, from the same build, for FUZZ_SECONDS each;
#   tsan   the suites that more than one thread touches, built with ThreadSanitizer;
#   kill   rounds of SIGKILL on all three roads, then a last run (scripts/kill-test.py);
#   fault  a gateway failing 30 % of requests and away for a while (scripts/fault-run.py).
# Usage: scripts/check.sh [STEP...]   (all five by default; FUZZ_SECONDS defaults to 60,
# KILL_ROUNDS to 40). The release build the kill and fault runs drive is `make build`'s.
set -euo pipefail
cd "$(dirname "$0")/.."
steps=("$@")
[ ${#steps[@]} -gt 0 ] || steps=(asan fuzz tsan kill fault)
jobs=$(nproc)
started=$(date +%s)
step() { echo "check: $* ($(( $(date +%s) - started )) s so far)"; }

configure() { bash scripts/configure-sanitized.sh "$@"; }

# Suites with code that more than one thread touches: the request queues and the durable
# uploader (KTData), the event pipeline (AnalyticsProvider), promoted delivery, attribution,
# the product-analytics client (Segment), the stack (Setup) and end to end.
threaded=(test_KTData test_AnalyticsProvider test_Promoted test_Attribution test_Segment test_Setup test_EndToEnd)

for s in "${steps[@]}"; do
  case "$s" in
    asan)
      step "AddressSanitizer and UndefinedBehaviorSanitizer: building every suite and fuzz target"
      # The fuzz targets share this build: its code carries libFuzzer's coverage hooks too.
      configure build-asan "address,undefined,fuzzer-no-link" -DKTANALYTICS_FUZZ=ON
      cmake --build build-asan -j "$jobs"
      step "AddressSanitizer and UndefinedBehaviorSanitizer: running every suite"
      # The installed-package check builds an application of its own, without the sanitizer
      # runtime, against the library; `make test` runs it.
      (cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest -j "$jobs" --output-on-failure -E "^InstalledPackage")
      ;;
    fuzz)
      step "libFuzzer targets, ${FUZZ_SECONDS:-60} s each"
      configure build-asan "address,undefined,fuzzer-no-link" -DKTANALYTICS_FUZZ=ON
      bash scripts/run-fuzzers.sh build-asan "${FUZZ_SECONDS:-60}"
      ;;
    tsan)
      step "ThreadSanitizer: building ${threaded[*]}"
      configure build-tsan thread
      cmake --build build-tsan -j "$jobs" --target "${threaded[@]}" ktanalytics-tool
      # Killed-child tests fork a process that has threads: die_after_fork=0 lets them.
      export TSAN_OPTIONS="suppressions=$PWD/scripts/tsan.supp:die_after_fork=0:halt_on_error=1:exitcode=66:second_deadlock_stack=1"
      for suite in "${threaded[@]}"; do
        step "ThreadSanitizer: $suite"
        "build-tsan/Tests/$suite" --gtest_brief=1
      done
      unset TSAN_OPTIONS
      ;;
    kill)
      step "kill test: ${KILL_ROUNDS:-40} rounds of SIGKILL on every road"
      python3 scripts/kill-test.py build --rounds "${KILL_ROUNDS:-40}" --events 1000 --messages 200 --urls 50 --check
      ;;
    fault)
      step "fault run: 30 % of requests failing, the gateway away for 10 s"
      python3 scripts/fault-run.py build --fail-rate 0.3 --seed 7 --down-at 1 --down-for 10
      ;;
    *)
      echo "check: no step $s (asan, fuzz, tsan, kill, fault)" >&2
      exit 2
      ;;
  esac
done
step "done: no report"

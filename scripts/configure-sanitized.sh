#!/usr/bin/env bash
# Configures FOLDER (once) for a clang build with the given sanitizers, as `make check` and
# scripts/run-fuzzers.sh build: -O1 with line tables keeps the build quick and the reports'
# stacks readable; -fno-sanitize-recover makes any report fatal. Benchmarks are left out.
#   scripts/configure-sanitized.sh FOLDER SANITIZERS [CMAKE_ARGUMENT...]
set -euo pipefail
folder=$1 sanitizers=$2
shift 2
[ -f "$folder/CMakeCache.txt" ] && exit 0
mkdir -p "$folder"
CC=clang CXX=clang++ cmake -S "$(dirname "$0")/.." -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -gline-tables-only" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -gline-tables-only" \
  -DCMAKE_C_FLAGS=-fno-sanitize-recover=all -DCMAKE_CXX_FLAGS=-fno-sanitize-recover=all \
  -DKTANALYTICS_SANITIZE="$sanitizers" -DKTANALYTICS_BUILD_BENCHMARKS=OFF "$@" \
  > "$folder/configure.log" 2>&1 || { cat "$folder/configure.log"; exit 1; }

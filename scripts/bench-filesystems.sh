#!/usr/bin/env bash
# The end-to-end run on three fresh file systems, one after the other: ext4 with a journal
# (the common case), ext4 without one, and tmpfs. The ext4 ones are images on the build's
# disk, loop-mounted with the options of the disk they live on (`discard` included, where
# it has it), so that only the journal differs. Needs root (loop mounts), e2fsprogs and
# util-linux.
#
#   sudo scripts/bench-filesystems.sh [N ...]      (default: 20000; BUILD_DIR=build)
#
# BENCH=path/to/bench_EndToEndBenchmark runs another build of the benchmark.
set -euo pipefail

build_dir="${BUILD_DIR:-build}"
bench="${BENCH:-$build_dir/Benchmarks/bench_EndToEndBenchmark}"
counts=("$@")
[[ ${#counts[@]} -gt 0 ]] || counts=(20000)
[[ -x "$bench" ]] || { echo "bench-filesystems: $bench is missing; build it first" >&2; exit 2; }
[[ $(id -u) -eq 0 ]] || { echo "bench-filesystems: loop mounts need root" >&2; exit 2; }

work="$(mktemp -d -p "$build_dir" bench-fs.XXXXXX)"
cleanup() {
  for mount_point in "$work"/*/; do mountpoint -q "$mount_point" && umount "$mount_point"; done
  rm -rf "$work"
}
trap cleanup EXIT

# The options of the disk the images live on, minus what belongs to that disk alone.
host_options="$(findmnt -no OPTIONS --target "$work" | tr ',' '\n' |
  grep -Ev '^(rw|ro|relatime|noatime|errors=.*|resuid=.*|resgid=.*|resv_strict|stripe=.*)$' | paste -sd, || true)"

for kind in ext4-journal ext4-nojournal tmpfs; do
  mount_point="$work/$kind"
  mkdir -p "$mount_point"
  case "$kind" in
    ext4-journal | ext4-nojournal)
      truncate -s 4G "$work/$kind.img"
      features=""
      [[ "$kind" == ext4-nojournal ]] && features="-O ^has_journal"
      # shellcheck disable=SC2086
      mkfs.ext4 -q -F $features "$work/$kind.img"
      mount -o "loop${host_options:+,$host_options}" "$work/$kind.img" "$mount_point"
      ;;
    tmpfs) mount -t tmpfs -o size=2G tmpfs "$mount_point" ;;
  esac
  echo "== $kind ($(findmnt -no FSTYPE,OPTIONS "$mount_point"))"
  KTANALYTICS_BENCH_DIR="$mount_point" "$bench" "${counts[@]}"
  umount "$mount_point"
  rm -f "$work/$kind.img"
done

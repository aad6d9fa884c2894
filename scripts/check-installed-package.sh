#!/usr/bin/env bash
# Installs the package into a temporary prefix and checks it as an application sees it:
# every installed header compiles on its own with only <prefix>/include on the path, none
# is internal or names libcurl, SQLite, zlib or the HTTP server, pkg-config follows the
# prefix, and examples/host-app builds against the package and delivers to every
# destination of a running development gateway.
# Usage: scripts/check-installed-package.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
gateway=""
trap '[ -n "$gateway" ] && kill "$gateway" 2>/dev/null; rm -rf "$work"' EXIT
prefix="$work/prefix"
fail() { echo "check-installed-package: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; fail "install failed"; }
headers="$prefix/include/KTAnalytics"
[ -f "$headers/KTAnalytics.h" ] || fail "no $headers/KTAnalytics.h"
if find "$headers" -path '*/Detail/*' | grep -q .; then fail "internal (Detail/) headers installed"; fi
if grep -rlE '#include *[<"](curl/|sqlite3|zlib|httplib)|\bCURLM? *\*|\bsqlite3(_stmt)? *\*|\bz_stream\b|httplib::' "$headers"; then
  fail "a public header names libcurl, SQLite, zlib or the HTTP server"
fi
if grep -rhoE '#include "[^"]+"' "$headers" | grep -v '"KTAnalytics/' | grep -q .; then
  fail "a public header includes a project header outside KTAnalytics/"
fi
count=$(find "$headers" -name '*.h' | wc -l)
find "$headers" -name '*.h' -print0 |
  xargs -0 -P "$(nproc)" -I{} sh -c 'printf "#include \"%s\"\n" "$1" | ${CXX:-c++} -std=c++20 -fsyntax-only -I"$2" -x c++ - ||
    { echo "does not compile on its own: $1" >&2; exit 255; }' _ {} "$prefix/include" ||
  fail "installed headers must compile on their own"
echo "check-installed-package: $count headers installed, each compiles on its own"

libdir=$(dirname "$(find "$prefix" -name ktanalytics.pc)")
[ -f "$libdir/../libktanalytics.a" ] || fail "no static library"
cflags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags-only-I ktanalytics)
paths=$(for flag in $cflags; do realpath -m "${flag#-I}"; done)
[ "$paths" = "$(realpath "$prefix/include")" ] || fail "pkg-config puts '$cflags' on the include path, not $prefix/include alone"

if grep -h "INTERFACE_INCLUDE_DIRECTORIES" "$libdir"/../cmake/KTAnalytics/*Targets.cmake | grep -v '"${_IMPORT_PREFIX}/include"$' | grep -q .; then
  fail "the CMake package puts more than <prefix>/include on the include path"
fi

cmake -S "$source_dir/examples/host-app" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release > "$work/host-configure.log" || { cat "$work/host-configure.log"; fail "the example does not configure"; }
cmake --build "$work/host-build" > "$work/host-build.log" 2>&1 || { cat "$work/host-build.log"; fail "the example does not build"; }

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
"$build/Tools/ktanalytics/ktanalytics" gateway --port "$port" > "$work/gateway.log" 2>&1 &
gateway=$!
for _ in $(seq 100); do grep -q "listening on" "$work/gateway.log" && break; sleep 0.1; done
LD_LIBRARY_PATH= "$work/host-build/host-app" "http://127.0.0.1:$port" "$work/state"

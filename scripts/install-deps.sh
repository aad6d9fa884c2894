#!/usr/bin/env bash
# Installs the Debian packages the build needs, and only those that are missing,
# so that a developer machine with everything present is left untouched.
#   scripts/install-deps.sh [--check]   (--check adds clang and its sanitizer and libFuzzer
#                                        runtimes, for `make check`)
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config python3
  zlib1g-dev libssl-dev libcurl4-openssl-dev libsqlite3-dev uuid-dev
  nlohmann-json3-dev libspdlog-dev libfmt-dev libcpp-httplib-dev
  libboost-url1.81-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  chromium chromium-driver python3-selenium
  locales
)
if [ "${1:-}" = "--check" ]; then
  packages+=(clang libclang-rt-14-dev llvm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

# A decimal-comma locale, so that the number parsing tests can show they do not follow it.
ensure_locale() {
  if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
    echo "install-deps: generating the de_DE.UTF-8 locale"
    $SUDO localedef -i de_DE -f UTF-8 de_DE.UTF-8 || echo "install-deps: could not generate de_DE.UTF-8; its test will skip"
  fi
}

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  ensure_locale
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
ensure_locale

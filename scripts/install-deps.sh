#!/usr/bin/env bash
# Installs the Debian packages the build needs, and only those that are missing,
# so that a developer machine with everything present is left untouched.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  zlib1g-dev libssl-dev libcurl4-openssl-dev libsqlite3-dev uuid-dev
  nlohmann-json3-dev libspdlog-dev libfmt-dev libcpp-httplib-dev
  libboost-url1.81-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  tmux
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages loopstore builds and tests with. Idempotent: when
# every package is already installed it does nothing (and needs no network).
set -euo pipefail

PACKAGES=(
  cmake g++ make ccache pkg-config clang-format attr
  libsqlite3-dev
  libboost-thread-dev libboost-system-dev libboost-filesystem-dev
  liblog4cplus-dev
  libprotobuf-dev protobuf-compiler
  libxxhash-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libgrpc++-dev protobuf-compiler-grpc
  libcli11-dev nlohmann-json3-dev
  ffmpeg libavformat-dev libavcodec-dev libavutil-dev
  python3-prometheus-client python3-grpcio
  clang libclang-rt-14-dev
  nodejs chromium chromium-driver python3-selenium
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# Debian's nodejs comes without npm (NodeSource's brings its own).
if ! command -v npm >/dev/null 2>&1; then
  missing+=(npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"

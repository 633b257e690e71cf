#!/usr/bin/env bash
# Installs what the host build needs (Debian 12 packages) and builds the project.
#   scripts/setup.sh [BUILD_DIR [extra cmake options...]]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build clang lld clang-format pkg-config
  libasound2-dev alsa-utils android-liblog-dev libexpat1-dev
  libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev gnuplot-nox libjsoncpp-dev
  clang-16 libc++-16-dev libc++abi-16-dev valgrind strace ccache
  # Android.bp checks: bpfmt, and Soong's module types built from Debian's Go sources
  blueprint-tools golang-go golang-android-soong-dev golang-github-google-blueprint-dev
  golang-github-golang-protobuf-1-3-dev
)
# Cross builds for 32- and 64-bit ARM and their emulated tests (scripts/cross.sh; the target's own
# packages come from scripts/cross_setup.sh). The cross compilers conflict with gcc-multilib.
packages+=(g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user-static)
# `tvoxsp serve` (HTTP), its page's npm packages and the browser its tests drive.
packages+=(libcpp-httplib-dev nodejs npm chromium)
missing=()
for p in "${packages[@]}"; do
  # A Node.js from another source brings its own npm.
  [ "$p" = npm ] && command -v npm >/dev/null && continue
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The page's packages as package-lock.json pins them, from npm's cache when it holds them; no
# browser download (the tests drive Debian's chromium).
PUPPETEER_SKIP_DOWNLOAD=1 npm ci --prefer-offline --no-audit --no-fund --loglevel=error

build=${1:-build}
shift || true
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"

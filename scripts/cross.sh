#!/usr/bin/env bash
# Builds everything (library, host stand-ins, simulator, tools, tests) for a foreign architecture
# and runs the whole suite under qemu user-mode emulation, without sanitizers:
#   scripts/cross.sh armhf|arm64 [--build-only | ctest options...]
# The build goes to build-ARCH (cmake/toolchain-ARCH.cmake). scripts/cross_setup.sh prepares the
# architecture; when that is not possible the tests are skipped with the reason, and in CI
# (CI=true) that fails: CI must not pass without them.
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:?usage: cross.sh armhf|arm64 [--build-only | ctest options...]}
shift
build_only=false
if [ "${1:-}" = --build-only ]; then
  build_only=true
  shift
fi

if ! setup=$(scripts/cross_setup.sh "$arch"); then
  [ -z "$setup" ] || echo "$setup"
  echo "$arch tests skipped: ${setup##*"$arch: "}"
  if [ "${CI:-}" = true ]; then
    echo "$arch: CI runs these tests: failing"
    exit 1
  fi
  exit 0
fi
echo "$setup"

build=build-$arch
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja --toolchain "cmake/toolchain-$arch.cmake" "${launcher[@]}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTVOXSP_WERROR=ON -DTVOXSP_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"
"$build_only" && exit 0
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" --timeout 600 "$@"

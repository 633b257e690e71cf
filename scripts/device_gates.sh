#!/usr/bin/env bash
# Compile gates for what the host build cannot show: a device builds the library and its tools with
# clang against LLVM's libc++ and also for 32-bit ARM, where off_t, long and size_t are 32 bits.
#  1. every library and tool source, clang 16 with libc++ 16 (older than any Android toolchain
#     that matters), C++20;
#  2. every library source for 32-bit ARM (--target=arm-linux-gnueabihf), clang 16 with libc++ 16.
# Both with warnings as errors. Sources are found by globbing, so a new subsystem folder or tool
# is gated as soon as it exists. Needs clang-16, libc++-16-dev, libc++abi-16-dev and the ARM C
# headers of g++-arm-linux-gnueabihf (scripts/setup.sh installs them). scripts/cross.sh builds and
# runs everything for 32-bit ARM with GCC.
#   scripts/device_gates.sh
set -euo pipefail
cd "$(dirname "$0")/.."

cxx=clang++-16
# jsoncpp's headers for the tool (a device has them through libjsoncpp).
includes=(-Iinclude -Isrc -Iplatform/linux/tinyalsa/include -Iplatform/linux/agm/include
  -I/usr/include/android -I/usr/include/jsoncpp)
common=("$cxx" -std=c++20 -stdlib=libc++ -Wall -Wextra -Werror "${includes[@]}" -c -o /dev/null)
library=(-fPIC -fno-exceptions -fno-rtti -fvisibility=hidden)

mapfile -t library_sources < <(find src -name '*.cpp' | sort)
# `tvoxsp serve` is host only: the device build leaves it out.
mapfile -t tool_sources < <(find tools -name '*.cpp' -not -path 'tools/tvoxsp/serve/*' | sort)

# Compiles each source with the given flags; prints every failing source's errors
# and fails when any source fails.
compile_all() {
  local name=$1
  shift
  local flags=("$@")
  local failed=0
  local log
  log=$(mktemp)
  local source
  for source in "${sources[@]}"; do
    if ! "${common[@]}" "${flags[@]}" "$source" >"$log" 2>&1; then
      failed=1
      echo "$name: $source"
      cat "$log"
    fi
  done
  rm -f "$log"
  if ((failed)); then
    echo "$name: FAILED"
    return 1
  fi
  echo "$name: ${#sources[@]} sources compile"
}

status=0
sources=("${library_sources[@]}")
compile_all "libc++ 16, library" "${library[@]}" || status=1
sources=("${tool_sources[@]}")
compile_all "libc++ 16, tools" || status=1
sources=("${library_sources[@]}")
compile_all "32-bit ARM, library" --target=arm-linux-gnueabihf "${library[@]}" || status=1
exit $status

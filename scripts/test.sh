#!/usr/bin/env bash
# Sets everything up and runs the whole test suite:
#  1. the calibration's concurrency tests in a ThreadSanitizer build;
#  2. the device gates (scripts/device_gates.sh): the library and tools compiled with clang against
#     LLVM's libc++ 16, and the library compiled for 32-bit ARM;
#  3. valgrind memcheck over the library's long-running commands (scripts/valgrind.sh --short);
#  4. every test in an AddressSanitizer + UndefinedBehaviorSanitizer build of the library, the
#     host stand-ins and the tests (leak detection on), each test case a CTest test of its own;
#  5. everything built for 32-bit ARM (armhf: 32-bit long, size_t, time_t and pointers), warnings
#     as errors, and the whole suite run under qemu user-mode emulation (scripts/cross.sh armhf).
# Every build treats warnings as errors.
# Android.bp is checked once the packages are in (scripts/android_bp_check.sh: bpfmt and Soong's
# module types).
set -euo pipefail
cd "$(dirname "$0")/.."

# setup.sh installs the packages and makes the sanitized build the suite runs on.
scripts/setup.sh build-asan -DTVOXSP_WERROR=ON -DTVOXSP_SANITIZE=address,undefined -DTVOXSP_BENCH=OFF

scripts/android_bp_check.sh

cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTVOXSP_WERROR=ON \
  -DTVOXSP_SANITIZE=thread -DTVOXSP_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$(nproc)" --target calibration_concurrency_test
TSAN_OPTIONS=halt_on_error=1 build-tsan/tests/calibration/calibration_concurrency_test

scripts/device_gates.sh

scripts/valgrind.sh --short

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-asan --output-on-failure -j "$(nproc)" --timeout 300

# ---- 32-bit ARM under emulation (scripts/cross.sh skips it with the reason when the architecture
# ---- cannot be had, and fails then when CI=true).
scripts/cross.sh armhf

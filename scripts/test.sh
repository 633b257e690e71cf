#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: an AddressSanitizer + UndefinedBehaviorSanitizer
# build of the library, the host stand-ins and the tests, with warnings as errors.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build-asan -DTVOXSP_WERROR=ON -DTVOXSP_SANITIZE=address,undefined -DTVOXSP_BENCH=OFF
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-asan --output-on-failure -j "$(nproc)" --timeout 300

#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) and runs each for SECONDS on its corpus
# folder under fuzz/corpus, one after the other, one process each (the parsers' own error
# messages are silenced; libFuzzer and sanitizer reports still print). New inputs are added to the
# corpus; a crash stops the run and its reproducer is left in fuzz/crashes/.
#   scripts/fuzz.sh SECONDS [TARGET...]     TARGET: wav_header tuning_file mixer_value backend_conf
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ $# -lt 1 || ! $1 =~ ^[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh SECONDS [TARGET...]" >&2
  exit 2
fi
seconds=$1
shift
targets=("$@")
((${#targets[@]})) || targets=(wav_header tuning_file mixer_value backend_conf)

build=build-fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTVOXSP_FUZZ=ON -DTVOXSP_BENCH=OFF -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j 2 --target "${targets[@]/#/fuzz_}"

mkdir -p fuzz/crashes
for target in "${targets[@]}"; do
  echo "fuzz: $target for ${seconds}s"
  mkdir -p "fuzz/corpus/$target"
  "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -close_fd_mask=2 \
    -artifact_prefix="fuzz/crashes/$target-" "fuzz/corpus/$target"
done

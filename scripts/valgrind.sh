#!/usr/bin/env bash
# valgrind memcheck over the library's long-running entry points on the virtual amplifier pair:
# `tvoxsp calibrate`, `tvoxsp diagnose`, a tuning load, a short live log (`tvoxsp rtlog` ended by
# SIGINT), and the soak program (bench/soak.cpp), which plays through both players (the WAV
# player and graph playback, the engineering loop file) and calls every other entry point.
# Every run must end with 0 errors and 0 bytes definitely or indirectly lost.
#   scripts/valgrind.sh [--short]
# --short (what scripts/test.sh runs) gives the soak one round and no calibrations beyond its
# warm-up; the full form gives it more rounds and calibrations.
# valgrind needs a build without sanitizers: it builds what it runs in build-valgrind.
set -euo pipefail
cd "$(dirname "$0")/.."

soak_args=(--rounds 20 --calibrations 2)
if [ "${1:-}" = "--short" ]; then
  soak_args=(--rounds 1 --calibrations 0)
elif [ $# -gt 0 ]; then
  echo "usage: scripts/valgrind.sh [--short]" >&2
  exit 2
fi
command -v valgrind >/dev/null || { echo "valgrind.sh: no valgrind (scripts/setup.sh installs it)" >&2; exit 2; }

build=build-valgrind
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTVOXSP_WERROR=ON \
  -DTVOXSP_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target tvoxsp_tool tvoxsim tvoxsim_ctl tvoxsim_pcm \
  tvoxsim_preload agmmixer soak

tvoxsim=$PWD/$build/sim/tvoxsim
tvoxsp=$PWD/$build/tools/tvoxsp/tvoxsp
sim=$(mktemp -d /tmp/tvoxsp-valgrind-XXXXXX)
trap 'rm -rf "$sim"' EXIT
"$tvoxsim" init "$sim" >/dev/null

# `tvoxsim run` puts the simulator's preload in LD_PRELOAD and then executes valgrind; valgrind
# adds its own preloads in front of it for the program it runs, so the phone paths and the driver
# device stay mapped under memcheck (the preload's code is checked as well).
memcheck=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
  --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect --num-callers=30)

failed=0
# check NAME EXPECTED_STATUS CMD...: runs CMD under memcheck inside the simulator.
check() {
  local name=$1 expected=$2 status=0
  shift 2
  "$tvoxsim" run --dir "$sim" -- "${memcheck[@]}" --log-file="$sim/$name.valgrind" "$@" \
    >"$sim/$name.out" 2>&1 || status=$?
  report "$name" "$expected" "$status"
}
report() {
  local name=$1 expected=$2 status=$3
  local summary
  summary=$(grep -E "ERROR SUMMARY|definitely lost|indirectly lost" "$sim/$name.valgrind" |
    sed 's/^==[0-9]*== *//' | paste -sd ';' -)
  if [ "$status" -eq "$expected" ]; then
    echo "valgrind: $name: ok ($summary)"
  else
    echo "valgrind: $name: FAILED with status $status (expected $expected)"
    cat "$sim/$name.out" "$sim/$name.valgrind"
    failed=1
  fi
}

printf '5,100,200,300,4292077319\n3,7,1987764275\n' >"$sim/delta.txt"

check calibrate 0 "$tvoxsp" calibrate
check diagnose 0 "$tvoxsp" diagnose
check tuning 0 "$tvoxsp" tuning delta "$sim/delta.txt"

# The live log until SIGINT, as a user ends it (valgrind runs in the process it starts, so the
# signal reaches the program itself). The signal goes once the log has printed samples: sent
# while valgrind still starts up, before the program catches SIGINT, it would be lost.
"$tvoxsim" run --dir "$sim" -- "${memcheck[@]}" --log-file="$sim/rtlog.valgrind" \
  "$tvoxsp" rtlog --interval 10 >"$sim/rtlog.out" 2>&1 &
rtlog=$!
for _ in $(seq 600); do
  [ "$(grep -c ' T: ' "$sim/rtlog.out" || true)" -ge 20 ] && break
  sleep 0.1
done
kill -INT "$rtlog"
status=0
wait "$rtlog" || status=$?
report rtlog 0 "$status"

check soak 0 "$PWD/$build/bench/soak" "${soak_args[@]}" --rss-tolerance 1000000
cat "$sim/soak.out"

exit "$failed"

#!/usr/bin/env bash
# Sets everything up and runs the main job: a speaker calibration of the virtual amplifier pair,
# through the tvoxsp tool and the library, as a HAL would run it on a phone.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build

sim=${TVOXSIM_DIR:-$PWD/build/demo-sim}
tvoxsim=build/sim/tvoxsim
tvoxsp=build/tools/tvoxsp/tvoxsp

"$tvoxsim" init --force "$sim"
"$tvoxsim" run --dir "$sim" -- "$tvoxsim" speakers
echo
# The library logs to the Android log; the tool appends its lines to TVOXSP_LOG_FILE.
log=$sim/tvoxsp-calibrate.log
rm -f "$log"
if ! TVOXSP_LOG_FILE=$log "$tvoxsim" run --dir "$sim" -- "$tvoxsp" calibrate; then
  cat "$log" >&2
  exit 1
fi
echo
echo "library log: $log"
echo "stored calibration ($sim/phone/mnt/vendor/persist/audio/tvox_calr.txt):"
cat "$sim/phone/mnt/vendor/persist/audio/tvox_calr.txt"

#!/usr/bin/env bash
# Checks Android.bp the way a device build loads it:
#  1. bpfmt -d: Blueprint's syntax and its canonical layout (any difference is printed and fails);
#  2. scripts/bpcheck (after its own tests): every module unpacked into the property structs of
#     Soong's own module types, so an unknown module type or property, a value of the wrong type
#     or a missing source fails with its file:line:column.
# Builds offline in GOPATH mode against the Soong and Blueprint sources Debian ships (packages
# from scripts/setup.sh); Go's build cache makes a second run take a few seconds.
#   scripts/android_bp_check.sh
set -euo pipefail
cd "$(dirname "$0")/.."

export GO111MODULE=off GOPATH=/usr/share/gocode GOFLAGS=
# Go's own default cache folder, which needs HOME; a shell without one uses /tmp.
export GOCACHE=${GOCACHE:-${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/go-build}

# bpfmt exits 0 when it only shows a difference, so its output decides.
layout=$(bpfmt -d Android.bp)
if [ -n "$layout" ]; then
  echo "Android.bp: not in bpfmt's layout (apply with: bpfmt -w Android.bp)"
  echo "$layout"
  exit 1
fi

go test ./scripts/bpcheck
go run ./scripts/bpcheck Android.bp
echo "Android.bp: bpfmt and Soong's module types accept it"

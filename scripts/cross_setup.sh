#!/usr/bin/env bash
# Prepares a foreign architecture for the cross build and its emulated tests:
#  1. the target's packages (alsa-lib, liblog, expat, zlib, jsoncpp, GoogleTest, the C and C++ run-time
#     libraries, alsa-utils for amixer and aplay, dash for sh) downloaded with a private apt state of that
#     architecture and unpacked into $TVOXSP_CROSS_DIR/ARCH/root (default /opt/tvoxsp-cross), the
#     root cmake/toolchain-ARCH.cmake builds against and qemu runs in. The host's dpkg is left
#     alone: a foreign architecture added to it makes every `apt-get update` on the machine fail
#     whenever the mirror serves one of its indexes badly, and a multiarch install needs the very
#     version the host has of every shared package, which a lagging index cannot give;
#  2. qemu user-mode emulation registered with the kernel's binfmt_misc (mounted when absent), so
#     that programs the tests start (the tool, tvoxsim, amixer) run too.
# Prints "ready" or the reason the architecture cannot be had, and exits 1 then.
#   scripts/cross_setup.sh armhf|arm64
set -euo pipefail

arch=${1:?usage: cross_setup.sh armhf|arm64}
case $arch in
armhf) qemu=arm ;;
arm64) qemu=aarch64 ;;
*)
  echo "cross_setup: unknown architecture $arch (armhf or arm64)"
  exit 2
  ;;
esac
dir=${TVOXSP_CROSS_DIR:-/opt/tvoxsp-cross}/$arch
packages=(libc6 libgcc-s1 libstdc++6 libasound2 libasound2-dev android-liblog android-liblog-dev
  libexpat1 libexpat1-dev zlib1g zlib1g-dev libjsoncpp25 libjsoncpp-dev libgtest-dev alsa-utils dash)

fail() {
  echo "$arch: $*"
  exit 1
}

# The emulator for programs started by execve: the kernel hands every ELF of that machine to
# qemu. The rule is qemu-user-static's own (/usr/lib/binfmt.d), which systemd-binfmt or
# binfmt-support register on a machine that runs them; a container runs neither.
register_binfmt() {
  local misc=/proc/sys/fs/binfmt_misc
  [ -e "$misc/qemu-$qemu" ] && return 0
  [ "$(id -u)" -eq 0 ] || fail "qemu-$qemu is not registered in binfmt_misc and only root can register it"
  if [ ! -e "$misc/register" ]; then
    mount -t binfmt_misc binfmt_misc "$misc" 2>/dev/null ||
      fail "binfmt_misc cannot be mounted here (a container without that right?)"
  fi
  [ -e "$misc/qemu-$qemu" ] && return 0
  local rule=/usr/lib/binfmt.d/qemu-$qemu.conf
  [ -r "$rule" ] || fail "no $rule (qemu-user-static is missing)"
  cat "$rule" >"$misc/register" 2>/dev/null || fail "binfmt_misc refuses the rule of $rule"
}

# Downloads and unpacks the packages; the root is replaced whole, so a run that fails midway leaves
# the previous root (or none).
make_root() {
  local stamp="${packages[*]}"
  if [ -f "$dir/root/.packages" ] && [ "$(cat "$dir/root/.packages")" = "$stamp" ]; then
    return 0
  fi
  local apt=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
    -o "Dir::State=$dir/apt/state" -o "Dir::State::status=$dir/apt/status"
    -o "Dir::Cache=$dir/apt/cache" -o "APT::Sandbox::User=root")
  mkdir -p "$dir/apt/state/lists/partial" "$dir/apt/cache/archives/partial"
  touch "$dir/apt/status"
  local log="$dir/apt/update.log"
  # An index the mirror serves badly is reported; what matters is whether the packages come.
  if ! apt-get "${apt[@]}" update >"$log" 2>&1; then
    echo "$arch: apt-get update reported: $(grep -m1 '^E:' "$log" || tail -n1 "$log")"
  fi
  rm -rf "$dir/debs" "$dir/root.new"
  mkdir -p "$dir/debs" "$dir/root.new"
  (cd "$dir/debs" && apt-get "${apt[@]}" download "${packages[@]}" >"$dir/apt/download.log" 2>&1) ||
    fail "the packages cannot be had: $(grep -m1 '^E:' "$dir/apt/download.log" || tail -n1 "$dir/apt/download.log")"
  local deb
  for deb in "$dir"/debs/*.deb; do
    dpkg-deb -x "$deb" "$dir/root.new"
  done
  # Debian's development links point at absolute paths (/lib/...): make them point into the root.
  local link
  while IFS= read -r link; do
    ln -sfnr "$dir/root.new$(readlink "$link")" "$link"
  done < <(find "$dir/root.new" -type l -lname '/*' ! -lname /dev/null)
  echo "$stamp" >"$dir/root.new/.packages"
  rm -rf "$dir/root"
  mv "$dir/root.new" "$dir/root"
  rm -rf "$dir/debs"
}

command -v "qemu-$qemu-static" >/dev/null || fail "qemu-$qemu-static is missing (qemu-user-static)"
mkdir -p "$dir"
exec 9>"$dir/lock"
flock 9
make_root
register_binfmt
echo "$arch: ready ($dir/root)"

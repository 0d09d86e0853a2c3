#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs everything Trelvane needs to build, test and run its demo, from Debian 12's
# own repositories. Safe to run again: apt-get skips what is already there.
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi

PACKAGES=(
  # toolchain
  build-essential cmake ninja-build ccache pkg-config clang-format
  # media decoding, FFT, JSON, command line, formatting, diagnostics upload
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  libfftw3-dev nlohmann-json3-dev libcli11-dev libfmt-dev libcurl4-openssl-dev
  # the desktop application (Qt 6 Widgets and Multimedia for playback; the SVG plugin draws its icon)
  qt6-base-dev qt6-multimedia-dev libqt6svg6
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # export tests: xmllint reads documents back and checks FCPXML against its DTD
  libxml2-utils
  # test media, the demo shoot, the fuzzers and their seed inputs
  ffmpeg sox python3 clang libclang-rt-14-dev
  # real recorded sound for the demo shoot
  wesnoth-1.16-music asterisk-core-sounds-en-wav
)

export DEBIAN_FRONTEND=noninteractive
# Skip the network round trip when every package is already installed.
missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# Another install (a second terminal, unattended upgrades) may hold the package manager's locks:
# wait for them, up to TRELVANE_APT_LOCK_WAIT seconds (ten minutes by default), instead of
# failing. DPkg::Lock::Timeout makes apt-get wait for dpkg's lock; the lock of the package lists
# is not covered by it, so an update that found it taken is tried again.
lock_wait="${TRELVANE_APT_LOCK_WAIT:-600}"
apt_get() {
  $SUDO apt-get -o DPkg::Lock::Timeout="$lock_wait" "$@"
}
update_lists() {
  local waited=0 errors
  errors="$(mktemp)"
  until apt_get update 2>"$errors"; do
    cat "$errors" >&2
    if ! grep -q -e "Could not get lock" -e "Unable to lock" "$errors" || [ "$waited" -ge "$lock_wait" ]; then
      rm -f "$errors"
      return 1
    fi
    echo "setup: another install holds the package lists; trying again in 10 s" >&2
    sleep 10
    waited=$((waited + 10))
  done
  cat "$errors" >&2
  rm -f "$errors"
}

if [ "${#missing[@]}" -gt 0 ]; then
  update_lists
  apt_get install -y --no-install-recommends "${missing[@]}"
fi

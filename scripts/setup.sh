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
  build-essential cmake ninja-build ccache pkg-config
  # media decoding, FFT, JSON, command line, formatting, diagnostics upload
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  libfftw3-dev nlohmann-json3-dev libcli11-dev libfmt-dev libcurl4-openssl-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # export tests: XML parser for reading documents back, xmllint for checking FCPXML against its DTD
  libxml2-dev libxml2-utils
  # test media, the demo shoot, the HTTPS test server's certificate, the fuzzer
  ffmpeg sox openssl python3 clang libclang-rt-14-dev
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
if [ "${#missing[@]}" -gt 0 ]; then
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

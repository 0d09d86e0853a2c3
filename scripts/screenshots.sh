#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Renders the window offscreen at its main moments — empty, the first proposal sheet, the demo
# shoot synced with a track selected — to PNG files under build/screenshots/. It drives the window
# through the end-to-end test of the desktop application, over the real engine and the demo shoot.
# Usage: scripts/screenshots.sh [preset]   (release by default)
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target trelvane_ui_tests
bash scripts/make-demo.sh

out="$PWD/build/screenshots"
rm -rf "$out"
mkdir -p "$out"
QT_QPA_PLATFORM=offscreen TRELVANE_SCREENSHOTS_DIR="$out" \
  "build/$preset/tests/trelvane_ui_tests" --gtest_filter='AppEndToEnd.*' >/dev/null
ls -1 "$out"/*.png

#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what the build needs, builds Trelvane and runs the whole test suite through CTest.
# Usage: scripts/test.sh [preset]   (release by default; debug and asan also work)
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
bash scripts/setup.sh

cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j "$(nproc)"

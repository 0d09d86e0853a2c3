#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is needed, builds Trelvane, makes the demo shoot and runs the main job on it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset release
cmake --build --preset release --target trelvane
bash scripts/make-demo.sh

echo
echo "== trelvane scan --analyze demo/shoot"
./build/release/trelvane scan --analyze demo/shoot

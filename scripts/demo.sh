#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is needed, builds Trelvane, makes the demo shoot, synchronises it and writes the
# timeline for Premiere Pro, DaVinci Resolve, Final Cut Pro and OpenTimelineIO under demo-out/.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset release
cmake --build --preset release --target trelvane trelvane-app
bash scripts/make-demo.sh

# The main job: the whole shoot synchronised, and the timeline written for each editor. The
# documents replace those of an earlier run.
mkdir -p demo-out
echo
echo "== trelvane sync demo/shoot --export premiere --export resolve --export fcpxml --export otio"
(cd demo-out && ../build/release/trelvane sync ../demo/shoot --report session.json --force \
  --export premiere --export resolve --export fcpxml --export otio)
echo
echo "Import one of the documents above into your editor; demo-out/session.json has every clip's place."
echo "To see it in the window: build/release/trelvane-app demo/shoot"

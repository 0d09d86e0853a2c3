#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Builds the libFuzzer harnesses (the "fuzz" preset, clang) and runs each one for SECONDS
# (default 60), starting from its seed inputs in fuzz/corpus/<harness>/. Inputs the run finds are
# kept in build/fuzz/corpus/<harness>/, never in the seeds; a crashing input is written to
# build/fuzz/crashes/ and the script fails, naming it.
#
#   scripts/fuzz.sh            # a minute per harness
#   scripts/fuzz.sh 20         # 20 seconds each, as continuous integration runs it
set -euo pipefail

usage() {
  echo "Usage: scripts/fuzz.sh [SECONDS]   (whole seconds per harness, default 60)"
}

SECONDS_EACH="${1:-60}"
case "$SECONDS_EACH" in
  -h | --help) usage; exit 0 ;;
  '' | *[!0-9]*) echo "fuzz: not a number of seconds: $SECONDS_EACH" >&2; usage >&2; exit 2 ;;
esac
[ "$SECONDS_EACH" -gt 0 ] || { echo "fuzz: SECONDS must be above 0" >&2; exit 2; }

cd "$(dirname "$0")/.."
command -v clang++ >/dev/null 2>&1 || { echo "fuzz: clang++ is missing (run scripts/setup.sh)" >&2; exit 1; }

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target r3d_header_fuzz riff_fuzz envelope_cache_fuzz text_sync_store_fuzz

# harness and the longest input worth making: R3D headers are read up to 16 KiB, a WAVE walk
# needs a few KiB, cache entries exercise every check within 8 KiB, a regions file is a few KiB.
harnesses=(
  "r3d_header_fuzz 20000"
  "riff_fuzz 4096"
  "envelope_cache_fuzz 8192"
  "text_sync_store_fuzz 4096"
)

out=build/fuzz
mkdir -p "$out/crashes"
failed=0
for entry in "${harnesses[@]}"; do
  read -r name maxlen <<<"$entry"
  mkdir -p "$out/corpus/$name"
  echo "fuzz: $name for ${SECONDS_EACH}s"
  if ! "$out/fuzz/$name" -max_total_time="$SECONDS_EACH" -max_len="$maxlen" -print_final_stats=1 \
    -artifact_prefix="$out/crashes/$name-" "$out/corpus/$name" "fuzz/corpus/$name" 2>"$out/$name.log"; then
    echo "fuzz: $name failed; see $out/$name.log and $out/crashes/" >&2
    tail -n 30 "$out/$name.log" >&2
    failed=1
  else
    grep -E "^stat::number_of_executed_units|^stat::new_units_added" "$out/$name.log" | sed "s/^/  /"
  fi
done
exit "$failed"

#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The whole analysis over a folder of media, timed against the ffmpeg CLI decoding the same files
# one after another, then a second run served from the feature cache. Prints figures; never fails
# on them.
# Usage: bench/pipeline_bench.sh FOLDER [path/to/trelvane]
set -euo pipefail
folder="$1"
trelvane="${2:-$(dirname "$0")/../build/release/trelvane}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export XDG_CACHE_HOME="$scratch/cache" XDG_DATA_HOME="$scratch/data" XDG_CONFIG_HOME="$scratch/config"

now() { date +%s.%N; }
calc() { awk "BEGIN { print $* }"; }

mapfile -t files < <(find "$folder" -type f \( -iname '*.wav' -o -iname '*.mp4' -o -iname '*.mov' \
  -o -iname '*.m4a' -o -iname '*.mp3' -o -iname '*.mxf' \) | sort)
media_seconds=0
for f in "${files[@]}"; do
  d=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$f" 2>/dev/null || echo 0)
  media_seconds=$(calc "$media_seconds + ${d:-0}")
done

start=$(now)
for f in "${files[@]}"; do
  ffmpeg -v quiet -i "$f" -vn -ac 1 -ar 16000 -f f32le -y /dev/null || true
done
ffmpeg_time=$(calc "$(now) - $start")

start=$(now)
"$trelvane" scan --analyze "$folder" > /dev/null 2>&1
first=$(calc "$(now) - $start")

start=$(now)
"$trelvane" scan --analyze "$folder" > "$scratch/second.txt" 2>&1
second=$(calc "$(now) - $start")
decoded=$(grep -c ' decoded$' "$scratch/second.txt" || true)

printf 'files: %d, media: %.1f min\n' "${#files[@]}" "$(calc "$media_seconds / 60")"
printf 'ffmpeg CLI, one after another: %.2f s\n' "$ffmpeg_time"
printf 'trelvane scan --analyze, first run: %.2f s (ratio %.2f, target <= 0.60)\n' "$first" \
  "$(calc "$first / $ffmpeg_time")"
printf 'trelvane scan --analyze, from cache: %.2f s (target < 1 s), clips decoded again: %s\n' "$second" "$decoded"

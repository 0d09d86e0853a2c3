#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The whole analysis over a folder of media, timed against the ffmpeg CLI decoding the same files
# one after another, then a second run served from the feature cache. Prints figures; never fails
# on them.
#
#   bench/pipeline_bench.sh FOLDER [path/to/trelvane]
#
# Every run reads the files from the page cache (they are read once beforehand), so that neither
# side pays for the disk and the first to run isn't the only one to. The cached run is repeated
# under strace, untimed, to count the bytes read from the media files themselves: what metadata
# loading needs of their headers, against the size of the files. Targets: first run at most 0.6
# of the ffmpeg time; cached run under 1 s with nothing decoded.
set -euo pipefail
folder="$1"
trelvane="${2:-$(dirname "$0")/../build/release/trelvane}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export XDG_CACHE_HOME="$scratch/cache" XDG_DATA_HOME="$scratch/data" XDG_CONFIG_HOME="$scratch/config"

now() { date +%s.%N; }
calc() { awk "BEGIN { print $* }"; }

# What the scan accepts and the ffmpeg CLI can decode (camera raw formats are left out).
mapfile -t files < <(find "$folder" -type f \( -iname '*.wav' -o -iname '*.mp4' -o -iname '*.mov' \
  -o -iname '*.m4v' -o -iname '*.m4a' -o -iname '*.mp3' -o -iname '*.mxf' -o -iname '*.aif' \
  -o -iname '*.aiff' \) | sort)
if ((${#files[@]} == 0)); then
  echo "no media under $folder" >&2
  exit 2
fi
media_seconds=0
media_bytes=0
for f in "${files[@]}"; do
  d=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$f" 2>/dev/null || true)
  media_seconds=$(calc "$media_seconds + ${d:-0}")
  media_bytes=$(calc "$media_bytes + $(stat -c %s "$f")")
done
cat "${files[@]}" > /dev/null

echo "load: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) processor(s)"

start=$(now)
for f in "${files[@]}"; do
  ffmpeg -nostdin -v quiet -i "$f" -vn -ac 1 -ar 16000 -f f32le -y /dev/null || true
done
ffmpeg_time=$(calc "$(now) - $start")

# The scan's own exit status is reported, not fatal: a decoy without audio is not the benchmark's
# failure.
start=$(now)
rc=0
"$trelvane" scan --analyze "$folder" > "$scratch/first.txt" 2>&1 || rc=$?
first=$(calc "$(now) - $start")
analysed=$(grep -c ' decoded$' "$scratch/first.txt" || true)

start=$(now)
"$trelvane" scan --analyze "$folder" > "$scratch/second.txt" 2>&1 || rc=$?
second=$(calc "$(now) - $start")
decoded=$(grep -c ' decoded$' "$scratch/second.txt" || true)
cached=$(grep -c ' cache$' "$scratch/second.txt" || true)

printf 'files: %d, media: %.1f min, %.0f MB\n' "${#files[@]}" "$(calc "$media_seconds / 60")" \
  "$(calc "$media_bytes / 1e6")"
printf 'ffmpeg CLI, one after another: %.2f s\n' "$ffmpeg_time"
printf 'trelvane scan --analyze, first run: %.2f s (ratio %.2f, target <= 0.60), clips decoded: %s\n' \
  "$first" "$(calc "$first / $ffmpeg_time")" "$analysed"
printf 'trelvane scan --analyze, from cache: %.2f s (target < 1 s), clips from cache: %s, decoded again: %s\n' \
  "$second" "$cached" "$decoded"
((rc == 0)) || echo "note: trelvane exited with status $rc"

if command -v strace > /dev/null; then
  strace -f -qq -e trace=openat,read,pread64,close -e signal=none -o "$scratch/trace" \
    "$trelvane" scan --analyze "$folder" > /dev/null 2>&1 || true
  # Bytes returned by reads on descriptors opened on the media files. Descriptors belong to the
  # process, not the thread; a call that another thread interrupts is split over two lines, the
  # second without its descriptor.
  read_bytes=$(python3 - "$folder" "$scratch/trace" <<'PY'
import re, sys
root, media, pending, total = sys.argv[1], set(), {}, 0
for line in open(sys.argv[2], errors="replace"):
    tid = line.split(" ", 1)[0]
    if m := re.search(r'openat\([^"]*"([^"]*)".*= (\d+)$', line):
        if m[1].startswith(root): media.add(m[2])
    elif m := re.search(r'(?:read|pread64)\((\d+),.*<unfinished', line):
        pending[tid] = m[1]
    elif m := re.search(r'<\.\.\. (?:read|pread64) resumed>.*= (\d+)$', line):
        total += int(m[1]) if pending.get(tid) in media else 0
    elif m := re.search(r'(?:read|pread64)\((\d+),.*= (\d+)$', line):
        total += int(m[2]) if m[1] in media else 0
    elif m := re.search(r'close\((\d+)\)', line):
        media.discard(m[1])
print(total)
PY
)
  printf 'from cache, bytes read from the media files: %.2f MB of %.0f MB\n' "$(calc "$read_bytes / 1e6")" \
    "$(calc "$media_bytes / 1e6")"
fi

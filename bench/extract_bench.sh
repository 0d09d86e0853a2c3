#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Audio extraction against the ffmpeg command line on the same files, in the same run:
#   - a 1-hour 48 kHz 24-bit stereo WAV,
#   - a 10-minute 1080p H.264 + AAC MP4 (the picture must cost next to nothing),
# and the peak resident memory of extracting a 2-hour file.
#
#   bench/extract_bench.sh [BUILD_DIR]     (default build/release; needs trelvane_extract_bench)
#
# The media are made once from real recordings and kept in $TRELVANE_BENCH_MEDIA (default
# /tmp/trelvane-bench, about 5 GB). Each figure is the best of $REPEAT runs (default 3).
# Figures, not pass/fail: targets are a time ratio of at most 1.0 and under 700 MB for 2 hours.

set -euo pipefail

BUILD=${1:-build/release}
DRIVER="$BUILD/bench/trelvane_extract_bench"
MEDIA=${TRELVANE_BENCH_MEDIA:-/tmp/trelvane-bench}
REPEAT=${REPEAT:-3}
MUSIC=/usr/share/games/wesnoth/1.16/data/core/music

if [[ ! -x $DRIVER ]]; then
    echo "no $DRIVER: build the target trelvane_extract_bench (Release) first" >&2
    exit 2
fi
for tool in ffmpeg /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 2; }
done
mkdir -p "$MEDIA"

# media FILE COMMAND...: unless FILE is there already, runs COMMAND, which writes FILE.part.EXT.
media() {
    local file=$1
    shift
    [[ -s $file ]] && return 0
    echo "making $(basename "$file") (once) ..." >&2
    part="$file.part.${file##*.}"
    "$@"
    mv "$part" "$file"
}

# A long stretch of real music: several pieces one after another, then looped.
PIECES="$MEDIA/pieces-48k-stereo.wav"
playlist="$MEDIA/playlist.txt"
for f in battle.ogg elf-land.ogg frantic.ogg casualties_of_war.ogg breaking_the_chains.ogg; do
    echo "file '$MUSIC/$f'"
done >"$playlist"

HOUR="$MEDIA/hour-48k-24bit-stereo.wav"
MOVIE="$MEDIA/ten-minutes-1080p-h264-aac.mp4"
TWO="$MEDIA/two-hours-48k-24bit-stereo.wav"

media "$PIECES" ffmpeg -nostdin -v fatal -y -f concat -safe 0 -i "$playlist" -ar 48000 -ac 2 -c:a pcm_s24le \
    "$PIECES.part.wav"
media "$HOUR" ffmpeg -nostdin -v error -y -stream_loop -1 -i "$PIECES" -t 3600 -c:a pcm_s24le "$HOUR.part.wav"
media "$MOVIE" ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -stream_loop -1 -i "$PIECES" \
    -t 600 -map 0:v -map 1:a -c:v libx264 -preset ultrafast -b:v 25M -maxrate 25M -bufsize 50M -pix_fmt yuv420p \
    -c:a aac -b:a 192k "$MOVIE.part.mp4"
media "$TWO" ffmpeg -nostdin -v error -y -stream_loop 1 -i "$HOUR" -c copy "$TWO.part.wav"

# best WALL_SECONDS MAX_RSS_KB of REPEAT runs of a command
best() {
    local bestTime="" bestRss=0 t rss
    for ((i = 0; i < REPEAT; i++)); do
        /usr/bin/time -o "$MEDIA/time.out" -f "%e %M" "$@" >/dev/null 2>&1
        read -r t rss <"$MEDIA/time.out"
        if [[ -z $bestTime ]] || awk -v a="$t" -v b="$bestTime" 'BEGIN{exit !(a<b)}'; then bestTime=$t; fi
        ((rss > bestRss)) && bestRss=$rss
    done
    echo "$bestTime $bestRss"
}

printf '%-40s %10s %10s %7s %12s %12s\n' file trelvane ffmpeg ratio "rss trelv" "rss ffmpeg"
for file in "$HOUR" "$MOVIE"; do
    cat "$file" >/dev/null # both read from the page cache
    read -r ours oursRss < <(best "$DRIVER" "$file")
    read -r theirs theirsRss < <(best ffmpeg -nostdin -v error -i "$file" -vn -ac 1 -ar 16000 -f f32le -y /dev/null)
    ratio=$(awk -v a="$ours" -v b="$theirs" 'BEGIN{printf "%.2f", a / b}')
    printf '%-40s %9ss %9ss %7s %9d MB %9d MB\n' "$(basename "$file")" "$ours" "$theirs" "$ratio" \
        $((oursRss / 1024)) $((theirsRss / 1024))
done

echo
echo "2-hour file, peak resident memory (target < 700 MB):"
"$DRIVER" "$TWO" 7200 >/dev/null # warm the page cache
/usr/bin/time -v -o "$MEDIA/time.out" "$DRIVER" "$TWO" 7200 >"$MEDIA/two-hours.out"
rss=$(awk -F: '/Maximum resident set size/ {gsub(/ /, "", $2); print $2}' "$MEDIA/time.out")
printf '  %s  %d MB  (%s)\n' "$(basename "$TWO")" $((rss / 1024)) "$(cat "$MEDIA/two-hours.out")"

#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Builds the bundled demo shoot under demo/ at the repository root: about ten minutes of one
# concert (music with spoken announcements between and over the pieces), recorded by two cameras,
# a stereo Broadcast WAV recorder and a recorder that writes one mono file per channel, plus a few
# decoy clips. demo/truth.json tells where every file really starts on the concert's timeline.
#
# Everything is deterministic: sources are picked from sorted file lists by a fixed-seed
# generator, and every device has fixed colouring, noise, level, distance and clock error.
# A second run does nothing while demo/.complete matches this script; --force rebuilds.
#
# Needs ffmpeg, sox and the Debian packages wesnoth-1.16-music and asterisk-core-sounds-en-wav.
set -euo pipefail
export LC_ALL=C

usage() {
  cat <<'EOF'
Usage: scripts/make-demo.sh [--force]

Builds demo/ (the demo shoot and demo/truth.json) at the repository root.
  --force   rebuild even if demo/ is already up to date
EOF
}

FORCE=0
for arg in "$@"; do
  case "$arg" in
    --force) FORCE=1 ;;
    -h | --help) usage; exit 0 ;;
    *) echo "make-demo: unknown argument: $arg" >&2; usage >&2; exit 2 ;;
  esac
done

SCRIPT="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/$(basename "${BASH_SOURCE[0]}")"
ROOT="$(dirname "$(dirname "$SCRIPT")")"
DEMO="$ROOT/demo"
# One build at a time: tests running side by side each ask for the demo, and a second builder
# would write over files the first is still making. The later one waits, then finds it complete.
exec 9<"$SCRIPT"
flock 9
MUSIC_DIR=/usr/share/games/wesnoth/1.16/data/core/music
SPEECH_DIR=/usr/share/asterisk/sounds/en_US_f_Allison

die() { echo "make-demo: $*" >&2; exit 1; }

for tool in ffmpeg ffprobe sox soxi awk sha256sum; do
  command -v "$tool" >/dev/null 2>&1 || die "'$tool' is missing (sudo apt-get install ffmpeg sox)"
done
missing=()
compgen -G "$MUSIC_DIR/*.ogg" >/dev/null || missing+=(wesnoth-1.16-music)
compgen -G "$SPEECH_DIR/*.wav" >/dev/null || missing+=(asterisk-core-sounds-en-wav)
if [ "${#missing[@]}" -gt 0 ]; then
  die "the demo is made from recorded sound in ${missing[*]}, which is not installed.
Install it with: sudo apt-get install ${missing[*]}   (or run scripts/setup.sh)"
fi

SCRIPT_HASH="$(sha256sum "$SCRIPT" | cut -d' ' -f1)"
if [ "$FORCE" -eq 0 ] && [ -f "$DEMO/.complete" ] && [ -f "$DEMO/truth.json" ] &&
  [ "$(cat "$DEMO/.complete")" = "$SCRIPT_HASH" ]; then
  echo "make-demo: $DEMO is up to date (use --force to rebuild)"
  exit 0
fi

BEGAN=$(date +%s)
WORK="$(mktemp -d "${TMPDIR:-/tmp}/trelvane-demo.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT
trap 'exit 130' INT TERM # so the EXIT trap still cleans up
# The stamp goes last, so a build that stops half way is redone on the next run.
rm -rf "$DEMO"
mkdir -p "$DEMO/shoot"

SR=48000
LENGTH=600                   # the concert, in seconds
DAY="2025-06-14"
CONCERT_START="19:30:00"     # local wall time at which the concert's timeline starts
T0_EPOCH=$(date -d "$DAY $CONCERT_START" +%s)
T0_SECONDS_OF_DAY=$((19 * 3600 + 30 * 60))

# Floating point by awk; bash has none.
calc() { awk "BEGIN { printf \"%.6f\", ($1) }"; }
# Seconds to samples. Not printf %d: mawk caps it at 2^31, and a day holds 4.1e9 samples.
samples() { awk "BEGIN { printf \"%.0f\", ($1) * $SR }"; }
ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }

# A small linear congruential generator: bash's own $RANDOM sequence differs between versions.
RNG=20250614
rand_below() { # sets R to a number in [0, $1)
  RNG=$(((RNG * 1103515245 + 12345) % 2147483648))
  R=$(((RNG / 65536) % $1))
}

# --- Sources ------------------------------------------------------------------------------------
echo "make-demo: choosing sources"
# Concert pieces: tracks long enough for a full excerpt; jingles and the silence track drop out.
music=()
while IFS= read -r f; do
  d=$(soxi -D "$f")
  if awk "BEGIN { exit !($d >= 200) }"; then music+=("$f"); fi
done < <(printf '%s\n' "$MUSIC_DIR"/*.ogg | sort)
[ "${#music[@]}" -ge 3 ] || die "too few long pieces in $MUSIC_DIR"
pieces=()
while [ "${#pieces[@]}" -lt 3 ]; do
  rand_below "${#music[@]}"
  pick="${music[$R]}"
  case " ${pieces[*]-} " in *" $pick "*) continue ;; esac
  pieces+=("$pick")
done
# The first long piece the concert doesn't use: the sound of a decoy shot on another day.
for f in "${music[@]}"; do
  case " ${pieces[*]} " in *" $f "*) ;; *) OTHER_PIECE="$f" && break ;; esac
done

# Announcement material: short prompts only, so the runs sound like sentences, not menus.
prompts=()
prompt_len=()
while IFS= read -r f; do
  d=$(soxi -D "$f")
  if awk "BEGIN { exit !($d >= 0.6 && $d <= 6) }"; then prompts+=("$f"); prompt_len+=("$d"); fi
done < <(printf '%s\n' "$SPEECH_DIR"/*.wav | sort)
[ "${#prompts[@]}" -ge 100 ] || die "too few speech prompts in $SPEECH_DIR"
declare -A used=()

# One announcement: prompts with short pauses, filling at most $2 seconds.
make_announcement() {
  local out="$1" target="$2" total=0 parts=() gap ms i
  while :; do
    rand_below "${#prompts[@]}"
    i=$R
    [ -n "${used[$i]-}" ] && continue
    rand_below 6
    ms=$((350 + R * 110))
    gap="$WORK/gap$ms.wav"
    # -D: sox would otherwise dither the pause with fresh random noise on every run.
    [ -f "$gap" ] || sox -D -n -r 8000 -c 1 -b 16 "$gap" trim 0 "$(calc "$ms / 1000")"
    if awk "BEGIN { exit !($total + ${prompt_len[$i]} + $ms / 1000 > $target - 0.8) }"; then break; fi
    used[$i]=1
    parts+=("${prompts[$i]}" "$gap")
    total=$(calc "$total + ${prompt_len[$i]} + $ms / 1000")
  done
  [ "${#parts[@]}" -gt 0 ] || die "could not fill an announcement of $target s"
  # The concert mix cuts it to its slot; the silence after the last prompt is the slot's rest.
  sox -R "${parts[@]}" -e floating-point -b 32 "$out" norm -3 rate -v 48k pad 0.4
}

# --- The concert (the master every device hears) ------------------------------------------------
# Timeline: welcome, piece 1, an announcement over its fading end, piece 2, an announcement whose
# end the third piece's opening already plays under, piece 3, and a farewell over its tail.
#              kind   start  length
SEGMENTS=(
  "speech     2.0    38"
  "music     41.0   150"
  "speech   186.0    34"
  "music    221.0   160"
  "speech   382.0    44"
  "music    418.0   150"
  "speech   565.0    32"
)
echo "make-demo: mixing the concert (${LENGTH} s)"
inputs=()
filters=""
labels=""
n=0
p=0
for seg in "${SEGMENTS[@]}"; do
  read -r kind at len <<<"$seg"
  part="$WORK/seg$n.wav"
  if [ "$kind" = music ]; then
    # The piece's real opening; a 6 s fade at the end, as a band holding the last chord.
    # Normalised before resampling, which would otherwise clip the overshoots of a loud master.
    sox -R "${pieces[$p]}" -e floating-point -b 32 "$part" trim 0 "$len" norm -3 rate -v 48k \
      fade t 0.05 "$len" 6
    filters+="[$n:a]atrim=end_sample=$((len * SR)),volume=0.6,adelay=delays=$(samples "$at")S:all=1[x$n];"
    p=$((p + 1))
  else
    make_announcement "$part" "$len"
    # Through the hall's loudspeakers: a little slap-back from the walls.
    filters+="[$n:a]atrim=end_sample=$((len * SR)),aecho=0.8:0.6:45|95:0.22|0.1,pan=stereo|c0=c0|c1=c0,volume=0.9,"
    filters+="adelay=delays=$(samples "$at")S:all=1[x$n];"
  fi
  inputs+=(-i "$part")
  labels+="[x$n]"
  n=$((n + 1))
done
MASTER="$WORK/master.wav"
ff "${inputs[@]}" -filter_complex \
  "${filters}${labels}amix=inputs=$n:normalize=0:duration=longest,apad,atrim=end_sample=$((LENGTH * SR))[m]" \
  -map "[m]" -c:a pcm_f32le "$MASTER"

# --- Devices --------------------------------------------------------------------------------------
# Each device hears the concert from its own place: an acoustic delay (about 1 ms per 34 cm), its
# microphone's colouring, its level and its own noise floor. Its clock is a little off, as real
# clocks set by hand are; file dates and the recorder's bext time come from that clock.
declare -A COLOUR GAIN NOISE NOISE_AMP DELAY_MS CLOCK_ERR CHANNELS SEED
# Camera A on a tripod at the back of the hall: thin on-board microphone, hiss, 13 m away.
COLOUR[CamA]="highpass=f=150,lowpass=f=7500,equalizer=f=3000:t=q:w=1.2:g=4"
GAIN[CamA]=0.55 NOISE[CamA]=pink NOISE_AMP[CamA]=0.006 DELAY_MS[CamA]=38 CLOCK_ERR[CamA]=3.2
CHANNELS[CamA]=2 SEED[CamA]=101
# Camera B at the side of the stage, 7 m away, with a fuller shotgun microphone.
COLOUR[CamB]="highpass=f=90,lowpass=f=11000,equalizer=f=250:t=q:w=1:g=3"
GAIN[CamB]=0.7 NOISE[CamB]=white NOISE_AMP[CamB]=0.003 DELAY_MS[CamB]=21 CLOCK_ERR[CamB]=-5.6
CHANNELS[CamB]=2 SEED[CamB]=202
# Stereo recorder on the mixing desk, 2 m from the loudspeakers: nearly flat and quiet.
COLOUR[Zoom]="highpass=f=40,lowpass=f=18000"
GAIN[Zoom]=0.8 NOISE[Zoom]=pink NOISE_AMP[Zoom]=0.0015 DELAY_MS[Zoom]=6 CLOCK_ERR[Zoom]=0.4
CHANNELS[Zoom]=2 SEED[Zoom]=303
# Two-channel recorder on a stand near the front, 3.7 m away, one mono file per input: a
# condenser on input 1 leaning left and a darker, quieter dynamic microphone on input 2.
COLOUR[TascamTr1]="pan=mono|c0=0.7*c0+0.3*c1,highpass=f=80,equalizer=f=1000:t=q:w=1:g=2,lowpass=f=15000"
GAIN[TascamTr1]=0.75 NOISE[TascamTr1]=brown NOISE_AMP[TascamTr1]=0.004 DELAY_MS[TascamTr1]=11
CLOCK_ERR[TascamTr1]=-1.7 CHANNELS[TascamTr1]=1 SEED[TascamTr1]=404
COLOUR[TascamTr2]="pan=mono|c0=0.3*c0+0.7*c1,highpass=f=120,lowpass=f=9000,equalizer=f=4000:t=q:w=1:g=-3"
GAIN[TascamTr2]=0.5 NOISE[TascamTr2]=white NOISE_AMP[TascamTr2]=0.002 DELAY_MS[TascamTr2]=11
CLOCK_ERR[TascamTr2]=-1.7 CHANNELS[TascamTr2]=1 SEED[TascamTr2]=505

# What every device recorded. "from" is when it started recording on the concert's timeline (its
# first sample holds the sound the concert made DELAY_MS earlier), "len" how long, in seconds.
# Durations are whole seconds so the pictures (25 and 24 fps) end exactly where the sound ends.
# A device's clips stay together: its hearing of the whole concert is rendered once per run of them.
#     device     file                                      from   len  decoy
CLIPS=(
  "CamA      shoot/CamA_Card1/C0001.MP4                   4.0   54  -"
  "CamA      shoot/CamA_Card1/C0002.MP4                  66.0  102  -"
  "CamA      shoot/CamA_Card1/C0003.MP4                 176.0    3  short"
  "CamA      shoot/CamA_Card2/C0004.MP4                 188.0  122  -"
  "CamA      shoot/CamA_Card2/C0005.MP4                 318.0   18  silent"
  "CamA      shoot/CamA_Card2/C0006.MP4                 352.0  108  -"
  "CamA      shoot/CamA_Card2/C0007.MP4                 472.0  114  -"
  "CamB      shoot/CamB/A001_C001_0614QZ.MOV             40.0   46  -"
  "CamB      shoot/CamB/A001_C002_0614QZ.MOV            283.0   64  -"
  "CamB      shoot/CamB/A001_C003_0614QZ.MOV            365.0   10  no-audio"
  "CamB      shoot/CamB/A001_C004_0614QZ.MOV            540.0   50  -"
  "CamB      shoot/CamB/A002_C001_0615QZ.MOV              0.0   40  other-day"
  "Zoom      shoot/Zoom/ZOOM0001.WAV                      1.0  224  -"
  "Zoom      shoot/Zoom/ZOOM0002.WAV                    335.0  257  -"
  "TascamTr1 shoot/Tascam/Tr1/TASCAM_0001_Tr1.wav          112.0   80  -"
  "TascamTr1 shoot/Tascam/Tr1/TASCAM_0002_Tr1.wav          430.0   70  -"
  "TascamTr2 shoot/Tascam/Tr2/TASCAM_0001_Tr2.wav          112.0   80  -"
  "TascamTr2 shoot/Tascam/Tr2/TASCAM_0002_Tr2.wav          430.0   70  -"
)

# The whole concert as one device hears it; clips are cut from it sample-exactly.
hear() {
  local dev="$1" out="$2" noise
  local len=$((LENGTH + 1))
  noise="anoisesrc=r=$SR:c=${NOISE[$dev]}:a=${NOISE_AMP[$dev]}:d=$len:seed=${SEED[$dev]}"
  if [ "${CHANNELS[$dev]}" -eq 2 ]; then
    # Independent noise per channel, as two capsules have.
    noise="$noise[n1];anoisesrc=r=$SR:c=${NOISE[$dev]}:a=${NOISE_AMP[$dev]}:d=$len:seed=$((SEED[$dev] + 1))[n2];"
    noise+="[n1][n2]amerge=inputs=2"
  fi
  ff -i "$MASTER" -filter_complex \
    "[0:a]${COLOUR[$dev]},volume=${GAIN[$dev]},adelay=delays=$(samples "${DELAY_MS[$dev]} / 1000")S:all=1,apad,atrim=end_sample=$((len * SR))[s];
     ${noise}[n];[s][n]amix=inputs=2:normalize=0:duration=first[a]" \
    -map "[a]" -c:a pcm_f32le "$out"
}

# Local wall-clock strings for an epoch time with fractions.
local_time() { date -d "@$1" "+$2"; }

TRUTH_FILES=()
declare -A COUNT=()
current=""
for clip in "${CLIPS[@]}"; do
  read -r dev rel from len decoy <<<"$clip"
  device="${dev%Tr[12]}"
  out="$DEMO/$rel"
  mkdir -p "$(dirname "$out")"
  if [ "$dev" != "$current" ]; then
    echo "make-demo: recording with $dev"
    hear "$dev" "$WORK/heard.wav"
    current="$dev"
  fi
  first=$(samples "$from")
  last=$((first + len * SR))
  cut="[0:a]atrim=start_sample=$first:end_sample=$last,asetpts=N/SR/TB[a]"
  clock=$(calc "$T0_EPOCH + $from + ${CLOCK_ERR[$dev]}")
  source="$WORK/heard.wav"
  if [ "$decoy" = other-day ]; then
    # Shot the next morning, of something else: music that is not in the concert.
    clock=$(calc "$T0_EPOCH + 86400 + 14 * 3600")
    source="$WORK/other-day.wav"
    ff -ss 30 -t "$len" -i "$OTHER_PIECE" -af "${COLOUR[$dev]},volume=${GAIN[$dev]}" -ar $SR -ac 2 \
      -c:a pcm_f32le "$source"
  fi
  created_utc=$(date -u -d "@$clock" +%Y-%m-%dT%H:%M:%S.%6NZ)
  case "$device" in
    CamA)
      # Consumer camera: MP4, H.264 and AAC, 25 fps; the picture is colour bars.
      video=(-f lavfi -i "smptebars=s=160x90:r=25:d=$len")
      if [ "$decoy" = silent ]; then
        # The microphone input switched off: the track is there but holds digital silence.
        cut="anullsrc=r=$SR:cl=stereo,atrim=end_sample=$((len * SR))[a]"
      fi
      ff -i "$WORK/heard.wav" "${video[@]}" -filter_complex "$cut" -map 1:v -map "[a]" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -b:a 128k -ar $SR -ac 2 \
        -movflags +use_metadata_tags -metadata creation_time="$created_utc" \
        -metadata com.apple.quicktime.make="Corvid" -metadata com.apple.quicktime.model="CX-100" "$out"
      kind=video
      ;;
    CamB)
      # Cinema-style camera: MOV with uncompressed 16-bit sound, 24 fps.
      video=(-f lavfi -i "rgbtestsrc=s=160x90:r=24:d=$len")
      audio=(-filter_complex "$cut" -map 1:v -map "[a]" -c:a pcm_s16le -ar $SR -ac 2)
      # Sound recording switched off in the menu: a picture-only clip.
      [ "$decoy" = no-audio ] && audio=(-map 1:v)
      ff -i "$source" "${video[@]}" "${audio[@]}" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -f mov \
        -movflags +use_metadata_tags -metadata creation_time="$created_utc" \
        -metadata com.apple.quicktime.make="Halden" -metadata com.apple.quicktime.model="HC-4" "$out"
      kind=video
      ;;
    Zoom)
      # Broadcast WAV, 24-bit: bext carries the recorder clock's date, time and samples since
      # midnight at the first sample.
      of_day=$(calc "$T0_SECONDS_OF_DAY + $from + ${CLOCK_ERR[$dev]}")
      ff -i "$WORK/heard.wav" -filter_complex "$cut" -map "[a]" -c:a pcm_s24le -ar $SR -ac 2 \
        -write_bext 1 -metadata originator="F2 Field Recorder" \
        -metadata originator_reference="F2$(basename "$rel" .WAV)" \
        -metadata origination_date="$(local_time "$clock" %Y-%m-%d)" \
        -metadata origination_time="$(local_time "$clock" %H:%M:%S)" \
        -metadata time_reference="$(samples "$of_day")" -fflags +bitexact "$out"
      kind=audio
      ;;
    Tascam)
      # Plain 16-bit mono WAV per input: only the file date tells when it was made.
      ff -i "$WORK/heard.wav" -filter_complex "$cut" -map "[a]" -c:a pcm_s16le -ar $SR -ac 1 \
        -fflags +bitexact "$out"
      kind=audio
      ;;
  esac
  # The device writes the file until it stops, so its modification time is the end of the take;
  # card readers and copies that keep times carry it over.
  touch -d "@$(calc "$clock + $len")" "$out"
  COUNT[$device]=$((${COUNT[$device]:-0} + 1))
  start=$(calc "$from - ${DELAY_MS[$dev]} / 1000")
  if [ "$decoy" = - ]; then decoy_json=null matchable=true; else decoy_json="\"$decoy\"" matchable=false kind="decoy-$decoy"; fi
  TRUTH_FILES+=("$(printf '    {"path": "%s", "start": %s, "duration": %s, "device": "%s", "kind": "%s", "matchable": %s, "decoy": %s, "recording_from": %s, "acoustic_delay_ms": %s, "clock": "%s"}' \
    "$rel" "$start" "$len" "$device" "$kind" "$matchable" "$decoy_json" "$from" "${DELAY_MS[$dev]}" \
    "$(local_time "$clock" %Y-%m-%dT%H:%M:%S.%3N)")")
done

# --- Ground truth ---------------------------------------------------------------------------------
json_list() { # quoted, comma separated basenames
  local sep="" s
  for s in "$@"; do printf '%s"%s"' "$sep" "$(basename "$s")"; sep=", "; done
}
segments_json() {
  local sep="" seg kind at len p=0 src
  for seg in "${SEGMENTS[@]}"; do
    read -r kind at len <<<"$seg"
    if [ "$kind" = music ]; then src="$(basename "${pieces[$p]}")"; p=$((p + 1)); else src="announcement"; fi
    printf '%s\n    {"kind": "%s", "start": %s, "duration": %s, "source": "%s"}' "$sep" "$kind" "$at" "$len" "$src"
    sep=","
  done
}
{
  printf '{\n'
  printf '  "timeline": "seconds from the start of the performance",\n'
  printf '  "notes": {\n'
  printf '    "start": "position on the timeline of the sound in the file'"'"'s first audio sample: recording_from minus the acoustic delay, since a device acoustic_delay_ms away hears everything that much later. Exact to the sample before each device'"'"'s colouring, whose filters add well under 1 ms of group delay. For the no-audio decoy it is where its sound would have started.",\n'
  printf '    "recording_from": "when the device started recording, on the timeline",\n'
  printf '    "clock": "local wall time of the device clock at the first sample (the file modification time is that plus the duration; the same clock is in the bext chunk of the Broadcast WAV files and creation_time of the camera files); device clocks are a few seconds off. The timeline starts at %s %s local time."\n' "$DAY" "$CONCERT_START"
  printf '  },\n'
  printf '  "performance": {"duration": %s, "sample_rate": %s, "segments": [%s\n  ]},\n' "$LENGTH" "$SR" "$(segments_json)"
  printf '  "sources": {\n'
  printf '    "music": {"package": "wesnoth-1.16-music", "license": "GPL-2+", "files": [%s]},\n' "$(json_list "${pieces[@]}")"
  printf '    "speech": {"package": "asterisk-core-sounds-en-wav", "license": "CC-BY-SA-3.0", "voice": "en_US_f_Allison"}\n'
  printf '  },\n'
  printf '  "files": [\n'
  for ((i = 0; i < ${#TRUTH_FILES[@]}; i++)); do
    sep=","
    [ "$i" -eq $((${#TRUTH_FILES[@]} - 1)) ] && sep=""
    printf '%s%s\n' "${TRUTH_FILES[$i]}" "$sep"
  done
  printf '  ]\n}\n'
} >"$DEMO/truth.json"

echo "$SCRIPT_HASH" >"$DEMO/.complete"

# --- Summary ------------------------------------------------------------------------------------
echo "make-demo: built $DEMO in $(($(date +%s) - BEGAN)) s"
for device in CamA CamB Zoom Tascam; do
  printf '  %-7s %2d files\n' "$device" "${COUNT[$device]:-0}"
done
printf '  total   %s\n' "$(du -sh "$DEMO" | cut -f1)"

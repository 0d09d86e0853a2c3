#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds the corpus of generated shoots that bench/corpus_eval.py measures, one shoot at a time
# under nice (a 30-minute shoot takes several minutes of both cores and about 1 GB of disk):
#   - single-day shoots of 30 to 60 minutes, several seeds, two sets of source recordings
#     (A: wesnoth-1.16-music + asterisk-core-sounds-en-wav speech;
#      B: singularity-music + colobot-common-sounds music + the same speech),
#     each with an unrelated recording as a decoy (lincity-ng-data sounds or the other set's music);
#   - folders of several shoot days (10 minutes each, the same band playing from one small set of
#     pieces every day, so that days share music): two days 5 h apart, 29.5 h apart, 7 days apart,
#     and three days 5 h and 29 h apart, merged by bench/make_multiday.py.
#
#   bench/make_corpus.sh OUTDIR [NAME...]     (NAMEs: build only these folders, e.g. a-s1-30m md5h)
#
# CORPUS_TOOLS: folder holding make_shoot.py (default: ../shared/corpus beside this repository).
# The recordings come from Debian packages:
#   apt-get install wesnoth-1.16-music asterisk-core-sounds-en-wav singularity-music \
#                   colobot-common-sounds lincity-ng-data ffmpeg
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
tools="${CORPUS_TOOLS:-$here/../../shared/corpus}"
out="${1:?usage: make_corpus.sh OUTDIR [NAME...]}"
shift
mkdir -p "$out"
out="$(cd "$out" && pwd)"

W=/usr/share/games/wesnoth/1.16/data/core/music
S=/usr/share/games/singularity/music
C=/usr/share/games/colobot/music
AST=/usr/share/asterisk/sounds/en_US_f_Allison
L=/usr/share/games/lincity-ng/sounds
SET_A=("$W" "$AST")
SET_B=("$S" "$C" "$AST")
# The multi-day band's repertoire: eight pieces, so that every day plays several of them.
BAND=("$W/battle-epic.ogg" "$W/elvish-theme.ogg" "$W/frantic.ogg" "$W/loyalists.ogg"
      "$W/love_theme.ogg" "$W/revelation.ogg" "$W/northerners.ogg" "$W/sad.ogg" "$AST")

NAMES=("$@")
wanted() { [ "${#NAMES[@]}" -eq 0 ] || [[ " ${NAMES[*]} " == *" $1 "* ]]; }

shoot() {  # NAME SEED MINUTES SET DECOYS...
  local name="$1" seed="$2" minutes="$3" set="$4"
  shift 4
  wanted "$name" || return 0
  local -n sources="$set"
  echo "$(date +%T) $name"
  nice -n 10 python3 "$tools/make_shoot.py" --seed "$seed" --minutes "$minutes" --out "$out/$name" \
    --sources "${sources[@]}" --decoy-sources "$@"
}

days() {  # NAME SEED:DATE...
  local name="$1"
  shift
  wanted "$name" || return 0
  local scratch dirs=()
  scratch="$(mktemp -d "$out/.days-XXXXXX")"
  for spec in "$@"; do
    echo "$(date +%T) $name day ${spec%%:*}"
    nice -n 10 python3 "$tools/make_shoot.py" --seed "${spec%%:*}" --minutes 10 --date "${spec#*:}" \
      --out "$scratch/${spec%%:*}" --sources "${BAND[@]}" --decoy-sources "$S"
    dirs+=("$scratch/${spec%%:*}")
  done
  python3 "$here/make_multiday.py" --move --out "$out/$name" "${dirs[@]}"
  rm -rf "$scratch"
}

shoot a-s1-30m 1 30 SET_A "$S"
shoot b-s11-30m 11 30 SET_B "$W"
shoot a-s2-32m 2 32 SET_A "$L"
shoot b-s12-33m 12 33 SET_B "$L"
shoot a-s3-35m 3 35 SET_A "$S" "$L"
shoot b-s13-35m 13 35 SET_B "$W"
shoot a-s5-30m 5 30 SET_A "$C"
shoot a-s4-60m 4 60 SET_A "$S"
days md5h 101:2025-06-14T09:30:00 102:2025-06-14T14:30:00
days md29h 111:2025-06-14T09:30:00 112:2025-06-15T15:00:00
days md7d 121:2025-06-14T09:30:00 122:2025-06-21T09:30:00
days md3 131:2025-06-14T09:30:00 132:2025-06-14T14:30:00 133:2025-06-15T19:30:00
echo "$(date +%T) corpus in $out"

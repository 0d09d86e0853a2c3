#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Merge shoots made by make_shoot.py into one folder of several shoot days.

Each DAY folder is one generated day (same devices, its own --date and seed). The merged folder
holds every device's clips of all days in that device's own folders, numbered as the device would
have numbered them: camera A's clip numbers and card folders continue (C0001.. on CARD1/CARD2 on the
first day, C0046.. on CARD3/CARD4 on the second), the GoPro-like camera's GX01nnnn continue, the
cinema camera's A001Cnnn continue with the day's date in the name, the BWF recorder's ZOOMnnnn and
the per-channel recorder's TAKEnnn continue. File modification times are kept (they are the clock
of the camera that has no other); the Broadcast WAV dates inside the files are untouched.

One truth file per day is written, truth-day1.json, truth-day2.json, ..., in the schema of
truth.json with paths relative to the merged folder: the days lie at arbitrary distances on a
timeline, so each is scored on its own (score.py fits one constant shift per truth file).

Usage:
  make_multiday.py --out MERGED DAY1 DAY2 [DAY3 ...] [--move]

--move moves the files out of the day folders instead of copying them (both keep file times).
Only the Python standard library is needed.
"""
import argparse, datetime as dt, json, os, re, shutil, sys

# Every file a generated day holds, as (pattern on its path, counter it advances, new path).
# The counter is the device's own file number; `off` holds how far each counter had got on the
# days before this one.
LAYOUT = [
    (re.compile(r"^CamA/CARD(\d+)/PRIVATE/M4ROOT/CLIP/C(\d{4})\.MP4$"), ("CamA", "CamA-card"),
     lambda m, off, day: "CamA/CARD{}/PRIVATE/M4ROOT/CLIP/C{:04d}.MP4".format(
         int(m[1]) + off["CamA-card"], int(m[2]) + off["CamA"])),
    (re.compile(r"^CamB/DCIM/100GOPRO/GX01(\d{4})\.MP4$"), ("CamB",),
     lambda m, off, day: "CamB/DCIM/100GOPRO/GX01{:04d}.MP4".format(int(m[1]) + off["CamB"])),
    (re.compile(r"^CamC/([^/]+)/A001C(\d{3})_(\d{6})_R1AB\.MOV$"), ("CamC",),
     lambda m, off, day: "CamC/{}/A001C{:03d}_{:%y%m%d}_R1AB.MOV".format(m[1], int(m[2]) + off["CamC"], day)),
    (re.compile(r"^Audio/RecA/ZOOM(\d{4})\.WAV$"), ("RecA",),
     lambda m, off, day: "Audio/RecA/ZOOM{:04d}.WAV".format(int(m[1]) + off["RecA"])),
    (re.compile(r"^Audio/Tr(\d)/TAKE(\d{3})_Tr(\d)\.WAV$"), ("RecB",),
     lambda m, off, day: "Audio/Tr{}/TAKE{:03d}_Tr{}.WAV".format(m[1], int(m[2]) + off["RecB"], m[3])),
]
COUNTERS = ("CamA", "CamA-card", "CamB", "CamC", "RecA", "RecB")


def numbers(m, counters):
    """The counter values a matched path uses: (counter, value) pairs."""
    if counters == ("CamA", "CamA-card"):
        return [("CamA-card", int(m[1])), ("CamA", int(m[2]))]
    group = {"CamB": 1, "CamC": 2, "RecA": 1, "RecB": 2}[counters[0]]
    return [(counters[0], int(m[group]))]


def plan_day(day_dir, off):
    """New relative paths for every file of one day, and how far each counter got."""
    truth = json.load(open(os.path.join(day_dir, "truth.json")))
    day = dt.datetime.fromisoformat(truth["start_date"])
    moves, reached = {}, dict(off)
    on_disk = set()
    for root, _, names in os.walk(day_dir):
        for n in names:
            rel = os.path.relpath(os.path.join(root, n), day_dir)
            if rel != "truth.json":
                on_disk.add(rel)
    for rel in sorted(on_disk):
        for pattern, counters, rename in LAYOUT:
            m = pattern.match(rel.replace(os.sep, "/"))
            if m:
                moves[rel] = rename(m, off, day)
                for c, v in numbers(m, counters):
                    reached[c] = max(reached[c], v + off[c])
                break
        else:
            sys.exit(f"{day_dir}: {rel} is not a file of a generated shoot; nothing merged")
    missing = [f["path"] for f in truth["files"] if f["path"] not in moves]
    if missing:
        sys.exit(f"{day_dir}: truth.json names files that are not there: {missing[:3]}")
    return truth, moves, reached


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("days", nargs="+", help="folders made by make_shoot.py, in shooting order")
    ap.add_argument("--out", required=True)
    ap.add_argument("--move", action="store_true", help="move the files instead of copying them")
    a = ap.parse_args()
    if len(a.days) < 2:
        sys.exit("give at least two day folders")
    out = os.path.abspath(a.out)
    if os.path.exists(out):
        shutil.rmtree(out)
    off = {c: 0 for c in COUNTERS}
    plans = []
    for d in a.days:  # plan every day before touching anything
        truth, moves, off = plan_day(os.path.abspath(d), off)
        plans.append((os.path.abspath(d), truth, moves))
    os.makedirs(out)
    for n, (d, truth, moves) in enumerate(plans, 1):
        for old, new in moves.items():
            dst = os.path.join(out, new)
            os.makedirs(os.path.dirname(dst), exist_ok=True)
            if a.move:
                shutil.move(os.path.join(d, old), dst)
            else:
                shutil.copy2(os.path.join(d, old), dst)
        for f in truth["files"]:
            f["path"] = moves[f["path"]]
        truth["day"] = n
        truth["day_folder"] = os.path.basename(d)
        with open(os.path.join(out, f"truth-day{n}.json"), "w") as fh:
            json.dump(truth, fh, indent=1)
        print(f"day {n}: {len(moves)} files from {d} (seed {truth['seed']}, {truth['start_date']})")
    print(f"{len(plans)} days in {out}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Sync accuracy and repeatability over a corpus of generated shoots.

For every shoot folder (a folder holding truth.json, or truth-day1.json, truth-day2.json, ... for a
folder of several shoot days; a folder of such folders is searched one level down):
  1. `trelvane sync SHOOT --no-close-gaps --report cold.json` with an empty feature cache
     (XDG_CACHE_HOME, XDG_DATA_HOME and XDG_CONFIG_HOME point at fresh temporary folders),
  2. the same command again with the cache the first run left (warm.json),
  3. both reports scored with score.py --false-after 0.08 --json, once per truth file,
  4. the two reports compared byte for byte.
One row per shoot (and per day) gives, cold / warm: matchable clips, clips within one frame (40 ms),
the worst error among clips reported `synced`, clips reported `synced` more than 80 ms off, decoys
reported `synced`; whether the reports are identical byte for byte ("same"), and whether they are
once the ids drawn afresh on every run are set aside ("same-ids"); the wall time of each run.
Totals follow, then the clips behind every bad figure, and which report fields differ between the
cold and the warm run. Prints figures only: the exit status is 0 whatever they are.

  bench/corpus_eval.py [--reports DIR [--rescore]] [--nice N] SHOOT_OR_FOLDER_OF_SHOOTS...

  TRELVANE        the binary (default: build/release/trelvane in this repository)
  CORPUS_TOOLS    folder holding score.py (default: ../shared/corpus beside this repository)

--reports DIR keeps the cold and warm session reports (DIR/NAME.cold.json, DIR/NAME.warm.json)
and the sync logs; otherwise they go to a temporary folder that is removed at the end. --rescore
scores the reports kept there again without running trelvane (run times then read 0).
"""
import argparse, glob, importlib.util, json, os, shutil, statistics, subprocess, sys, tempfile, time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FRAME, FALSE_AFTER = 0.04, 0.08


def load_score(tools):
    spec = importlib.util.spec_from_file_location("corpus_score", os.path.join(tools, "score.py"))
    mod = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(mod)
    return mod


def truth_files(shoot):
    days = sorted(glob.glob(os.path.join(shoot, "truth-day*.json")),
                  key=lambda p: int("".join(ch for ch in os.path.basename(p) if ch.isdigit()) or 0))
    if days:
        return days
    single = os.path.join(shoot, "truth.json")
    return [single] if os.path.exists(single) else []


def find_shoots(paths):
    shoots = []
    for p in paths:
        p = os.path.abspath(p)
        if truth_files(p):
            shoots.append(p)
        elif os.path.isdir(p):
            shoots += [os.path.join(p, n) for n in sorted(os.listdir(p)) if truth_files(os.path.join(p, n))]
        else:
            print(f"{p}: no truth file, skipped", file=sys.stderr)
    return shoots


def run_sync(trelvane, shoot, report, log, env, nice):
    cmd = ([ "nice", "-n", str(nice)] if nice else []) + [trelvane, "sync", shoot, "--no-close-gaps", "--report", report]
    t = time.monotonic()
    with open(log, "w") as fh:
        rc = subprocess.run(cmd, stdout=fh, stderr=subprocess.STDOUT, env=env).returncode
    return rc, time.monotonic() - t


def score(tools, truth, report):
    """score.py's summary, or None when it could not score (no report, nothing placed)."""
    if not os.path.exists(report):
        return None
    p = subprocess.run([sys.executable, os.path.join(tools, "score.py"), truth, report,
                        "--false-after", str(FALSE_AFTER), "--json"], stdout=subprocess.PIPE, text=True)
    try:
        return json.loads(p.stdout)
    except ValueError:
        return None


def unscored(score_mod, truth_path, report):
    """The figures of a day score.py cannot score because none of its matchable clips is reported
    `synced`: nothing within a frame, the decoys reported `synced`, and a note on what was placed
    (statuses, and how many lie within a frame with a shift fitted over every placed clip)."""
    if not os.path.exists(report):
        return None, "no report"
    base = os.path.dirname(os.path.abspath(truth_path))
    truth = json.load(open(truth_path))["files"]
    res = score_mod.load_result(report)
    rows = [(f, res.get(os.path.realpath(os.path.join(base, f["path"])))) for f in truth]
    decoys = [f["path"] for f, pl in rows if not f["matchable"] and pl and pl[1] == "synced" and f["kind"] != "decoy-short"]
    statuses = {}
    for f, pl in rows:
        if f["matchable"]:
            st = pl[1] if pl else "missing"
            statuses[st] = statuses.get(st, 0) + 1
    placed = [(f, pl) for f, pl in rows if f["matchable"] and pl]
    near = 0
    if placed:
        shift = statistics.median(pl[0] - f["start"] for f, pl in placed)
        near = sum(1 for f, pl in placed if abs(pl[0] - f["start"] - shift) <= FRAME)
    text = ("no matchable clip reported synced (" + ", ".join(f"{v} {k}" for k, v in sorted(statuses.items())) +
            f"); with a shift fitted over all placed clips, {near} of {len(placed)} lie within a frame")
    return dict(within_frame=0, false_placements=[], decoys_synced=decoys, missing=[]), text


def placed_errors(score_mod, truth_path, report):
    """(error s, path, status) of every matchable clip of this truth the report places, with the
    shift score.py fits (median over matchable clips reported `synced`)."""
    base = os.path.dirname(os.path.abspath(truth_path))
    truth = json.load(open(truth_path))["files"]
    res = score_mod.load_result(report)
    rows = [(f, res.get(os.path.realpath(os.path.join(base, f["path"])))) for f in truth if f["matchable"]]
    rows = [(f, pl) for f, pl in rows if pl]
    matched = [pl[0] - f["start"] for f, pl in rows if pl[1] in (None, "synced")]
    if not matched:
        return []
    shift = statistics.median(matched)
    return [(pl[0] - f["start"] - shift, f["path"], pl[1] or "synced") for f, pl in rows]


def report_diff(cold, warm):
    """Which fields of the two reports differ: for each clip or track field, on how many clips or
    tracks, and for numbers the largest difference and where it is."""
    try:
        a, b = (json.load(open(p)) for p in (cold, warm))
    except (OSError, ValueError):
        return "unreadable"
    def clips(d):
        return {c["url"]: c for t in d.get("tracks", []) for c in t.get("clips", [])}
    def tracks(d):
        return {t.get("name", "") + "|" + "|".join(c["url"] for c in t.get("clips", [])): t for t in d.get("tracks", [])}
    out = []
    for what, ma, mb in (("clip", clips(a), clips(b)), ("track", tracks(a), tracks(b))):
        only = len(set(ma) ^ set(mb))
        if only:
            out.append(f"{only} {what}(s) in one report only")
        fields = {}
        for key in set(ma) & set(mb):
            x, y = ma[key], mb[key]
            for f in set(x) | set(y):
                if f == "clips" or x.get(f) == y.get(f):
                    continue
                n, worst = fields.get(f, (0, (0.0, "")))
                if isinstance(x.get(f), (int, float)) and isinstance(y.get(f), (int, float)):
                    worst = max(worst, (abs(x[f] - y[f]), os.path.basename(key.split("|")[-1])))
                fields[f] = (n + 1, worst)
        for f, (n, worst) in sorted(fields.items()):
            if f in ("startOffset", "duration"):
                out.append(f"{what} {f} on {n} (largest {worst[0] * 1000:.3f} ms, {worst[1]})")
            else:
                out.append(f"{what} {f} on {n}" + (f" (largest {worst[0]:.4g}, {worst[1]})" if worst[0] else ""))
    ca, cb = clips(a), clips(b)
    moves = [(float(cb[u]["startOffset"]) - float(ca[u]["startOffset"]), os.path.basename(u))
             for u in set(ca) & set(cb) if ca[u].get("startOffset") is not None and cb[u].get("startOffset") is not None]
    if moves and any(d for d, _ in moves):
        # A shift of the whole timeline is harmless to an editor; what moves clips apart is not.
        shift = statistics.median(d for d, _ in moves)
        apart = max((abs(d - shift), u) for d, u in moves)
        out.append(f"warm timeline shifted {shift * 1000:+.3f} ms, clips apart from that by up to "
                   f"{apart[0] * 1000:.3f} ms ({apart[1]})")
    other = sorted(k for k in set(a) | set(b) if k != "tracks" and a.get(k) != b.get(k))
    if other:
        out.append("top-level " + ", ".join(other))
    return "; ".join(out) or "same content, different bytes"


def same_but_ids(cold, warm):
    """Whether the reports say the same once every clip and track id is replaced by what it names
    (the clip's file, the track's name and first file): ids are drawn afresh on every run."""
    def canonical(path):
        d = json.load(open(path))
        names = {}
        for t in d.get("tracks", []):
            urls = [c["url"] for c in t.get("clips", [])]
            names[t.get("id")] = "track:" + str(t.get("name")) + ":" + (urls[0] if urls else "")
            for c in t.get("clips", []):
                names[c.get("id")] = "clip:" + c["url"]
        def walk(v):
            if isinstance(v, dict):
                return {names.get(k, k): walk(x) for k, x in v.items()}
            if isinstance(v, list):
                return [walk(x) for x in v]
            return names.get(v, v) if isinstance(v, str) else v
        return walk(d)
    try:
        return canonical(cold) == canonical(warm)
    except (OSError, ValueError):
        return False


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("paths", nargs="+")
    ap.add_argument("--reports", help="keep the session reports and logs here")
    ap.add_argument("--nice", type=int, default=0, help="run trelvane under nice -n N")
    ap.add_argument("--rescore", action="store_true", help="score the reports kept in --reports without running")
    a = ap.parse_args()
    if a.rescore and not a.reports:
        ap.error("--rescore needs --reports")
    trelvane = os.path.abspath(os.environ.get("TRELVANE", os.path.join(REPO, "build", "release", "trelvane")))
    tools = os.path.abspath(os.environ.get("CORPUS_TOOLS", os.path.join(REPO, "..", "shared", "corpus")))
    if not os.access(trelvane, os.X_OK):
        print(f"no trelvane binary at {trelvane} (set TRELVANE)")
        return 0
    score_mod = load_score(tools)
    shoots = find_shoots(a.paths)
    scratch = tempfile.mkdtemp(prefix="corpus-eval-")
    keep = os.path.abspath(a.reports) if a.reports else os.path.join(scratch, "reports")
    os.makedirs(keep, exist_ok=True)
    print(f"trelvane: {trelvane} ({time.ctime(os.path.getmtime(trelvane))})")
    print(f"{len(shoots)} shoot folder(s); frame {FRAME * 1000:.0f} ms, false after {FALSE_AFTER * 1000:.0f} ms\n")
    head = (f"{'shoot':<22} {'day':>3} {'match':>5} {'in frame c/w':>13} {'worst synced ms c/w':>20} "
            f"{'>80ms c/w':>9} {'decoys c/w':>10} {'same':>4} {'same-ids':>8} {'cold s':>7} {'warm s':>7}")
    print(head)
    print("-" * len(head))
    totals = dict(match=0, cold=0, warm=0, false_c=0, false_w=0, dec_c=0, dec_w=0, same=0, same_sync=0, runs=0)
    notes = []
    try:
        for shoot in shoots:
            name = os.path.basename(shoot.rstrip("/"))
            env = dict(os.environ)
            home = tempfile.mkdtemp(prefix="xdg-", dir=scratch)
            for var in ("XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME"):
                env[var] = os.path.join(home, var.lower())
                os.makedirs(env[var])
            rep = {k: os.path.join(keep, f"{name}.{k}.json") for k in ("cold", "warm")}
            runs = {}
            for k in ("cold", "warm"):
                if a.rescore:
                    runs[k] = (0, 0.0)
                    continue
                if os.path.exists(rep[k]):
                    os.remove(rep[k])
                runs[k] = run_sync(trelvane, shoot, rep[k], os.path.join(keep, f"{name}.{k}.log"), env, a.nice)
            shutil.rmtree(home, ignore_errors=True)
            same = (os.path.exists(rep["cold"]) and os.path.exists(rep["warm"]) and
                    subprocess.run(["cmp", "-s", rep["cold"], rep["warm"]]).returncode == 0)
            same_sync = same or (os.path.exists(rep["cold"]) and os.path.exists(rep["warm"]) and
                                 same_but_ids(rep["cold"], rep["warm"]))
            totals["runs"] += 1
            totals["same_sync"] += same_sync
            totals["same"] += same
            for k in ("cold", "warm"):
                if runs[k][0] != 0:
                    notes.append(f"{name}: {k} run exited with {runs[k][0]} (log {keep}/{name}.{k}.log)")
            if not same and os.path.exists(rep["cold"]) and os.path.exists(rep["warm"]):
                notes.append(f"{name}: cold and warm reports differ: {report_diff(rep['cold'], rep['warm'])}")
            truths = truth_files(shoot)
            for i, truth in enumerate(truths):
                day = str(i + 1) if len(truths) > 1 else "-"
                s = {k: score(tools, truth, rep[k]) for k in ("cold", "warm")}
                for k in ("cold", "warm"):
                    if s[k] is None:
                        s[k], why = unscored(score_mod, truth, rep[k])
                        notes.append(f"{name} day {day} {k}: {why}")
                n = json.load(open(truth))["files"]
                n = sum(1 for f in n if f["matchable"])
                placed = {k: placed_errors(score_mod, truth, rep[k]) if s[k] else [] for k in ("cold", "warm")}
                errs = {k: [x for x in placed[k] if x[2] == "synced"] for k in ("cold", "warm")}
                def cw(fn):
                    return "/".join(fn(k) if s[k] else "n/a" for k in ("cold", "warm"))
                worst = cw(lambda k: f"{max(abs(e) for e, _, _ in errs[k]) * 1000:.1f}" if errs[k] else "-")
                print(f"{name:<22} {day:>3} {n:>5} {cw(lambda k: str(s[k]['within_frame'])):>13} {worst:>20} "
                      f"{cw(lambda k: str(len(s[k]['false_placements']))):>9} "
                      f"{cw(lambda k: str(len(s[k]['decoys_synced']))):>10} {'yes' if same else 'no':>4} "
                      f"{'yes' if same_sync else 'no':>8} "
                      f"{runs['cold'][1]:>7.1f} {runs['warm'][1]:>7.1f}")
                totals["match"] += n
                for k, c in (("cold", "c"), ("warm", "w")):
                    if not s[k]:
                        notes.append(f"{name} day {day}: {k} report could not be scored")
                        continue
                    totals[k] += s[k]["within_frame"]
                    totals["false_" + c] += len(s[k]["false_placements"])
                    totals["dec_" + c] += len(s[k]["decoys_synced"])
                    for e, path, kind in sorted(errs[k], key=lambda x: -abs(x[0])):
                        if abs(e) > FRAME:
                            notes.append(f"{name} day {day} {k}: synced {e * 1000:+.1f} ms off  {path}")
                    for path in s[k]["decoys_synced"]:
                        notes.append(f"{name} day {day} {k}: decoy synced  {path}")
                    if s[k]["missing"]:
                        notes.append(f"{name} day {day} {k}: {len(s[k]['missing'])} matchable clip(s) missing "
                                     f"from the report")
                    outside = {}
                    for e, _, st in placed[k]:
                        if abs(e) > FRAME:
                            outside[st] = outside.get(st, 0) + 1
                    if outside:
                        notes.append(f"{name} day {day} {k}: placed outside a frame: " +
                                     ", ".join(f"{v} {st}" for st, v in sorted(outside.items())))
            sys.stdout.flush()
        print("-" * len(head))
        m = max(totals["match"], 1)
        print(f"within one frame: cold {totals['cold']}/{totals['match']} ({100 * totals['cold'] / m:.2f} %), "
              f"warm {totals['warm']}/{totals['match']} ({100 * totals['warm'] / m:.2f} %)")
        print(f"synced more than {FALSE_AFTER * 1000:.0f} ms off: cold {totals['false_c']}, warm {totals['false_w']}")
        print(f"decoys synced: cold {totals['dec_c']}, warm {totals['dec_w']}")
        print(f"cold and warm reports identical: {totals['same']} of {totals['runs']} shoot folder(s); "
              f"identical apart from ids: {totals['same_sync']}")
        if notes:
            print("\nclips behind the figures:")
            for line in notes:
                print("  " + line)
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())

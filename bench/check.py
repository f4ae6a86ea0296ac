#!/usr/bin/env python3
"""Checks one evenloud-cli run against an independent meter, FFmpeg's ebur128 filter.

    check.py TARGET CEILING RESULTS.json
    check.py --agree DEFAULT.json LOUDNORM.json
    check.py --meter FILE          prints "I TP LRA FILE", as the meter reads FILE

For every file: the kind the CLI reports, the output as the meter measures
it, and whether that is what the kind promises:
  linear       within 0.5 LU of the target, loudness range within 1 LU of the input's
  peak-capped  true peak within 0.5 dB of the ceiling, range kept
  limited      within 0.5 LU of the target
  one-pass     within 0.5 LU of the target
and in every case the reported input_i within 0.1 LU of the meter (which
prints a tenth, so up to 0.05 of that is its rounding), the reported output_i
within 0.2 LU, and the count of passes run again (correction_passes).
Prints one row per file and a line of counts; exits 1 when any file misses.
"""
import collections
import json
import re
import subprocess
import sys


def meter(path):
    """Integrated loudness, true peak and loudness range of the first audio stream."""
    out = subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-i", path, "-map", "0:a:0",
                          "-af", "ebur128=peak=true", "-f", "null", "-"],
                         capture_output=True, text=True, check=True).stderr
    summary = out[out.rindex("Summary:"):]
    def number(label):
        m = re.search(label + r":\s*(-?inf|-?[0-9.]+)", summary)
        return float(m.group(1))
    return number("I"), number("Peak"), number("LRA")


def agree(default_path, quick_path):
    """One line: how far loudnorm's first-pass figures are from the reference meter's."""
    def by_input(path):
        with open(path) as f:
            return {r["input"]: r for r in json.load(f)}
    default, quick = by_input(default_path), by_input(quick_path)
    worst = {}
    for key in ("input_i", "output_i", "gain_db"):
        diffs = [(abs(float(quick[n][key]) - float(r[key])), n) for n, r in default.items()
                 if n in quick and r.get(key) is not None and quick[n].get(key) is not None]
        worst[key] = max(diffs) if diffs else (float("nan"), "-")
    line = "   ".join(f"{k} worst {d:.2f} LU ({n.rsplit('/', 1)[-1]})" for k, (d, n) in worst.items())
    print(f"{line}   (loudnorm gates at 192 kHz its own way; short clips differ most)")


def main():
    if sys.argv[1] == "--agree":
        return agree(sys.argv[2], sys.argv[3])
    if sys.argv[1] == "--meter":
        print("%.1f %.1f %.1f %s" % (*meter(sys.argv[2]), sys.argv[2]))
        return 0
    target, ceiling, results = float(sys.argv[1]), float(sys.argv[2]), sys.argv[3]
    kinds = collections.Counter()
    misses = 0
    corrected = corrections = 0
    print(f"{'FILE':<18} {'KIND':<12} {'IN LRA':>6} {'LUFS':>7} {'dBTP':>6} {'LRA':>5} {'SHOULD':>7} "
          f"{'dLU':>6} {'REPORT':>6} {'COR':>3}  VERDICT")
    for r in json.load(open(results)):
        name = r["input"].rsplit("/", 1)[-1]
        kind = r.get("normalization") or "-"
        kinds[kind if r["result"] in ("ok", "one-pass") else "failed"] += 1
        if r["result"] not in ("ok", "one-pass"):
            print(f"{name:<18} {kind:<12} FAILED: {r.get('reason', '')}")
            misses += 1
            continue
        in_i, _, in_lra = meter(r["input"])
        i, tp, lra = meter(r["output"])
        passes = r.get("correction_passes") or 0
        corrected += passes > 0
        corrections += passes
        should = r["input_i"] + r["gain_db"] if kind == "peak-capped" else target
        problems = []
        if kind in ("linear", "limited", "one-pass") and abs(i - target) > 0.5:
            problems.append("off target")
        if kind in ("linear", "peak-capped") and abs(lra - in_lra) > 1.0:
            problems.append("range changed")
        if kind == "peak-capped" and abs(tp - ceiling) > 0.5:
            problems.append("peak not at ceiling")
        if r.get("output_i") is None or abs(r["output_i"] - i) > 0.2:
            problems.append("report differs from meter")
        if r.get("input_i") is None or abs(r["input_i"] - in_i) > 0.1:
            problems.append(f"input_i {r.get('input_i')} vs meter {in_i}")
        misses += bool(problems)
        print(f"{name:<18} {kind:<12} {in_lra:6.1f} {i:7.2f} {tp:6.2f} {lra:5.1f} {should:7.2f} "
              f"{i - should:+6.2f} {r.get('output_i') or float('nan'):6.2f} {passes:3d}  {', '.join(problems) or 'ok'}")
    print("kinds: " + ", ".join(f"{k} {n}" for k, n in sorted(kinds.items())) + f"; misses: {misses}; "
          f"files that needed a correction pass: {corrected} ({corrections} passes)")
    return 1 if misses else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks one evenloud-cli run against the independent meter.

    check.py METER TARGET CEILING RESULTS.json
    check.py --agree DEFAULT.json QUICK.json

For every file: the kind the CLI reports, the output as the meter measures
it, and whether that is what the kind promises:
  linear       within 0.5 LU of the target, loudness range within 1 LU of the input's
  peak-capped  true peak within 0.5 dB of the ceiling, range kept
  limited      within 0.5 LU of the target
  one-pass     within 0.5 LU of the target
and in every case the reported output_i within 0.2 LU of the meter.
Prints one row per file and a line of counts; exits 1 when any file misses.
"""
import collections
import json
import subprocess
import sys


def meter(binary, path):
    out = subprocess.run([binary, path], capture_output=True, text=True, check=True).stdout.split()
    return float(out[0]), float(out[1]), float(out[2])


def agree(default_path, quick_path):
    """One line: how far the quick first pass's figures are from the default's."""
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
    print(f"{line}   (target <= 0.2)")


def main():
    if sys.argv[1] == "--agree":
        return agree(sys.argv[2], sys.argv[3])
    binary, target, ceiling, results = sys.argv[1], float(sys.argv[2]), float(sys.argv[3]), sys.argv[4]
    kinds = collections.Counter()
    misses = 0
    print(f"{'FILE':<18} {'KIND':<12} {'IN LRA':>6} {'LUFS':>7} {'dBTP':>6} {'LRA':>5} {'SHOULD':>7} "
          f"{'dLU':>6} {'REPORT':>6}  VERDICT")
    for r in json.load(open(results)):
        name = r["input"].rsplit("/", 1)[-1]
        kind = r.get("normalization") or "-"
        kinds[kind if r["result"] in ("ok", "one-pass") else "failed"] += 1
        if r["result"] not in ("ok", "one-pass"):
            print(f"{name:<18} {kind:<12} FAILED: {r.get('reason', '')}")
            misses += 1
            continue
        _, _, in_lra = meter(binary, r["input"])
        i, tp, lra = meter(binary, r["output"])
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
        misses += bool(problems)
        print(f"{name:<18} {kind:<12} {in_lra:6.1f} {i:7.2f} {tp:6.2f} {lra:5.1f} {should:7.2f} "
              f"{i - should:+6.2f} {r.get('output_i') or float('nan'):6.2f}  {', '.join(problems) or 'ok'}")
    print("kinds: " + ", ".join(f"{k} {n}" for k, n in sorted(kinds.items())) + f"; misses: {misses}")
    return 1 if misses else 0


if __name__ == "__main__":
    sys.exit(main())

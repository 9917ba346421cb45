#!/usr/bin/env python3
"""Scenario goldens: what the library did in a few short simulator runs, compared exactly.

Each golden NAME in tests/goldens/ is a scenario (NAME.json) and/or pelyx-sim arguments
(NAME.args, paths relative to the tree's root), and the records the run must give
(NAME.records: the library's calls into the service, boosts, fence deadline requests, holds and
log lines with their virtual times; see pelyx-sim --records). A golden that also has NAME.frames
pins the simulator's own model too: every frame's times, verdict and GPU clock (pelyx-sim
--frames); a new one starts as an empty file that `--update` fills. A run on the virtual clock
gives the same output on any machine, so any difference is a change of behaviour.

Usage: scripts/goldens.py --sim PATH [--update] [NAME...]
  --update  rewrites the records (and frames) files from the runs (review with git diff)
Exit status: 0 all match (or were written), 1 a golden differs or its run failed, 2 usage.
"""

import argparse
import os
import shlex
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GOLDENS = os.path.join(ROOT, "tests", "goldens")
CONTEXT = 3  # records shown before the first difference


def names():
    found = set()
    for f in os.listdir(GOLDENS):
        base, ext = os.path.splitext(f)
        if ext in (".json", ".args"):
            found.add(base)
    return sorted(found)


# What a golden compares: the records always, the frames when it has a frames file.
OUTPUTS = (("records", "--records"), ("frames", "--frames"))


def outputs(name):
    return [(kind, flag) for kind, flag in OUTPUTS
            if kind == "records" or os.path.exists(os.path.join(GOLDENS, f"{name}.{kind}"))]


def command(sim, name, out):
    """`out(kind)` names the file each output is written to."""
    cmd = [sim]
    scenario = os.path.join(GOLDENS, name + ".json")
    if os.path.exists(scenario):
        cmd.append(scenario)
    args = os.path.join(GOLDENS, name + ".args")
    if os.path.exists(args):
        with open(args, encoding="utf-8") as f:
            cmd += shlex.split(f.read(), comments=True)
    cmd.append("--quiet")
    for kind, flag in outputs(name):
        cmd += [flag, out(kind)]
    return cmd


def first_difference(expected, actual):
    for i, (e, a) in enumerate(zip(expected, actual)):
        if e != a:
            return i
    return min(len(expected), len(actual)) if len(expected) != len(actual) else None


def check(sim, name, update):
    with tempfile.TemporaryDirectory() as tmp:
        out = lambda kind: os.path.join(tmp, f"{name}.{kind}")
        cmd = command(sim, name, out)
        run = subprocess.run(cmd, cwd=ROOT, capture_output=True, text=True)
        kinds = [kind for kind, _ in outputs(name)]
        if run.returncode != 0 or not all(os.path.exists(out(k)) for k in kinds):
            print(f"{name}: the run failed (exit {run.returncode}): {shlex.join(cmd)}\n"
                  f"{run.stderr.strip()}")
            return False
        actual = {}
        for kind in kinds:
            with open(out(kind), encoding="utf-8") as f:
                actual[kind] = f.read().splitlines()
    return all([compare(sim, name, kind, actual[kind], update) for kind in kinds])


def compare(sim, name, kind, actual, update):
    path = os.path.join(GOLDENS, f"{name}.{kind}")
    if update:
        with open(path, "w", encoding="utf-8") as f:
            f.write("\n".join(actual) + "\n")
        print(f"{name}: {len(actual)} {kind} written to {os.path.relpath(path, ROOT)}")
        return True
    if not os.path.exists(path):
        print(f"{name}: no {os.path.relpath(path, ROOT)}; write it with `make goldens`")
        return False
    with open(path, encoding="utf-8") as f:
        expected = f.read().splitlines()
    i = first_difference(expected, actual)
    if i is None:
        print(f"{name}: {len(actual)} {kind} match")
        return True
    lines = [f"{name}: {kind} line {i + 1} differs ({len(expected)} expected, {len(actual)} now)"]
    for k in range(max(0, i - CONTEXT), i):
        lines.append(f"    {expected[k]}")
    lines.append(f"  - {expected[i] if i < len(expected) else '(no more lines)'}")
    lines.append(f"  + {actual[i] if i < len(actual) else '(no more lines)'}")
    lines.append(f"  run: {shlex.join(command(sim, name, lambda k: k.upper()))}")
    lines.append("  if the change is meant: `make goldens`, then review `git diff tests/goldens`")
    print("\n".join(lines))
    return False


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--sim", required=True)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("names", nargs="*")
    args = parser.parse_args()
    known = names()
    unknown = [n for n in args.names if n not in known]
    if unknown:
        print(f"no golden named {', '.join(unknown)} (known: {', '.join(known)})")
        return 2
    results = [check(args.sim, n, args.update) for n in (args.names or known)]
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())

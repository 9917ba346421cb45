#!/usr/bin/env python3
"""Mutation check: plants each fault of tests/mutations.txt, one at a time, in a scratch copy of
the tree and reports whether the test suite notices it.

The tree itself is never written. The scratch copy (build/mutate/tree) is re-synced from the tree
at start and keeps its build directory (build/mutate/build, release flags) between runs, so each
fault costs one recompiled file, the relinks and the tests it needs.

For each fault the executables named in its `tests:` field are built and run first (every case in
a fresh process, as CTest does), then the rest of the suite until the first failure. A fault is
"killed" when a test fails (or times out), "survived" when the whole suite passes.

Usage: scripts/mutate.py [--filter TEXT] [--which | --which-named] [--list FILE] [--jobs N]
  --filter TEXT  only the faults whose id, file, tests or behaviour contain TEXT
  --which        run the whole suite for each fault and print every test that kills it
  --which-named  the same over every case of the executables the fault names (faster)
Exit status: 0 when every selected fault is killed; 1 when one survived, no longer applies
(its exact text is not found once in its file) or does not compile; 2 on a usage error.
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = os.path.join(ROOT, "build", "mutate")
SCRATCH = os.path.join(WORK, "tree")
BUILD = os.path.join(WORK, "build")
SKIP_DIRS = {".git", "build"}
CASE_TIMEOUT = 120  # seconds, as the suite's own per-case limit

FIELDS = ("file", "find", "replace", "breaks", "tests")


class Fault:
    def __init__(self, fid, line):
        self.id = fid
        self.line = line
        self.file = self.find = self.replace = self.breaks = None
        self.tests = []

    def matches(self, text):
        return any(text in s for s in (self.id, self.file or "", " ".join(self.tests),
                                       self.breaks or ""))


def parse_list(path):
    """Blocks start with `[id]`; each following line is `key: value` (value verbatim after
    the first ': '). Lines starting with '#' and blank lines are ignored."""
    faults, errors, current = [], [], None
    with open(path, encoding="utf-8") as f:
        for n, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            m = re.match(r"^\[([A-Za-z0-9_.-]+)\]\s*$", line)
            if m:
                current = Fault(m.group(1), n)
                faults.append(current)
                continue
            key, sep, value = line.partition(": ")
            if not sep and line.endswith(":"):
                key, sep, value = line[:-1], ":", ""
            if current is None or not sep or key not in FIELDS:
                errors.append(f"{path}:{n}: expected `[id]` or one of {', '.join(FIELDS)}")
                continue
            if key == "tests":
                current.tests = value.split()
            else:
                setattr(current, key, value.replace("\\n", "\n").replace("\\t", "\t"))
    seen = set()
    for fault in faults:
        for key in ("file", "find", "replace", "breaks"):
            if getattr(fault, key) is None:
                errors.append(f"{path}:{fault.line}: [{fault.id}] has no `{key}:`")
        if fault.find is not None and fault.find == fault.replace:
            errors.append(f"{path}:{fault.line}: [{fault.id}] replaces its text with itself")
        if fault.id in seen:
            errors.append(f"{path}:{fault.line}: [{fault.id}] appears twice")
        seen.add(fault.id)
    return faults, errors


# --- child processes: each in its own group so an interrupt takes the whole build/test down ---

_children = set()


def run(cmd, cwd=None, timeout=None, capture=True):
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE if capture else None,
                            stderr=subprocess.STDOUT if capture else None, text=True,
                            start_new_session=True)
    _children.add(proc)
    try:
        out, _ = proc.communicate(timeout=timeout)
        return proc.returncode, out or ""
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out, _ = proc.communicate()
        return None, out or ""
    finally:
        _children.discard(proc)


class Interrupted(Exception):
    pass


def on_signal(signum, _frame):
    for proc in list(_children):
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    raise Interrupted(signal.Signals(signum).name)


# --- scratch copy ---

def same_file(a, b):
    try:
        sa, sb = os.stat(a), os.stat(b)
    except FileNotFoundError:
        return False
    if sa.st_size != sb.st_size:
        return False
    with open(a, "rb") as fa, open(b, "rb") as fb:
        return fa.read() == fb.read()


def sync_scratch():
    """Makes SCRATCH an exact copy of the tree; files already equal keep their mtime so that the
    build stays incremental."""
    wanted = set()
    for dirpath, dirnames, filenames in os.walk(ROOT):
        rel = os.path.relpath(dirpath, ROOT)
        if rel == ".":
            dirnames[:] = [d for d in dirnames if d not in SKIP_DIRS]
        os.makedirs(os.path.join(SCRATCH, rel), exist_ok=True)
        for name in filenames:
            src = os.path.join(dirpath, name)
            relpath = os.path.normpath(os.path.join(rel, name))
            wanted.add(relpath)
            dst = os.path.join(SCRATCH, relpath)
            if os.path.islink(src):
                continue
            if not same_file(src, dst):
                # A fresh mtime: the source's own may be older than an object the scratch build
                # made from an earlier copy, and the build would then keep that stale object.
                shutil.copyfile(src, dst)
                shutil.copymode(src, dst)
    for dirpath, _dirnames, filenames in os.walk(SCRATCH):
        rel = os.path.relpath(dirpath, SCRATCH)
        for name in filenames:
            relpath = os.path.normpath(os.path.join(rel, name))
            if relpath not in wanted:
                os.remove(os.path.join(dirpath, name))


# --- build and tests ---

def configure():
    if os.path.exists(os.path.join(BUILD, "build.ninja")):
        # Regenerated first when sources came or went, so the list of test targets is current.
        rc, out = run(["ninja", "-C", BUILD, "build.ninja"])
        if rc != 0:
            print(out)
        return rc == 0
    cmd = ["cmake", "-S", SCRATCH, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
           "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++"]
    rc, out = run(cmd)
    if rc != 0:
        print(out)
    return rc == 0


def test_executables():
    rc, out = run(["ninja", "-C", BUILD, "-t", "targets", "all"])
    names = set()
    for line in out.splitlines():
        m = re.match(r"^tests/([A-Za-z0-9_]+_test): ", line)
        if m:
            names.add(m.group(1))
    return sorted(names)


def build(targets, jobs):
    if not targets:
        return True, ""
    rc, out = run(["ninja", "-C", BUILD, f"-j{jobs}"] + [f"tests/{t}" for t in targets])
    return rc == 0, out


_case_cache = {}


def list_cases(exe):
    """The cases of one test executable, as gtest filters."""
    path = os.path.join(BUILD, "tests", exe)
    key = (exe, os.stat(path).st_mtime_ns)
    if key in _case_cache:
        return _case_cache[key]
    rc, out = run([path, "--gtest_list_tests"], cwd=os.path.join(BUILD, "tests"), timeout=60)
    cases, suite = [], None
    for line in out.splitlines():
        if not line.strip() or line.startswith("Running main"):
            continue
        if not line.startswith(" "):
            suite = line.split("#")[0].strip()
        elif suite:
            cases.append(suite + line.split("#")[0].strip())
    _case_cache[key] = cases
    return cases


def run_case(exe, case):
    rc, out = run([os.path.join(BUILD, "tests", exe), f"--gtest_filter={case}"],
                  cwd=os.path.join(BUILD, "tests"), timeout=CASE_TIMEOUT)
    return rc == 0, out


def run_cases(items, jobs, stop_on_failure):
    """Runs (exe, case) pairs, `jobs` at a time; returns the failing ones (only the first few
    when stopping at the first failure)."""
    failed = []
    if not items:
        return failed
    with ThreadPoolExecutor(max_workers=jobs) as pool:
        pending = iter(items)
        running = {}
        for item in pending:
            running[pool.submit(run_case, *item)] = item
            if len(running) >= jobs:
                break
        while running:
            done = next(iter(_first_done(running)))
            item = running.pop(done)
            ok, _ = done.result()
            if not ok:
                failed.append(item)
                if stop_on_failure:
                    for fut in running:
                        fut.cancel()
                    for _ in (f.result() for f in running if not f.cancelled()):
                        pass
                    return failed
            nxt = next(pending, None)
            if nxt is not None:
                running[pool.submit(run_case, *nxt)] = nxt
    return failed


def _first_done(futures):
    from concurrent.futures import FIRST_COMPLETED, wait
    done, _ = wait(list(futures), return_when=FIRST_COMPLETED)
    return done


def split_selector(selector):
    """`exe` or `exe:GtestFilter` (the filter picks the cases to try first)."""
    exe, _, pattern = selector.partition(":")
    return exe, pattern


def case_matches(case, pattern):
    if not pattern:
        return True
    import fnmatch
    return any(fnmatch.fnmatchcase(case, p) for p in pattern.split(":") if p)


def check_fault(fault, all_exes, jobs, which, which_named=False):
    """Plants the fault, builds and tests; returns (status, detail, seconds)."""
    target = os.path.join(SCRATCH, fault.file)
    with open(target, encoding="utf-8") as f:
        original = f.read()
    mutated = original.replace(fault.find, fault.replace, 1)
    start = time.monotonic()
    try:
        write_file(target, mutated)
        first = []
        for sel in fault.tests:
            exe, pattern = split_selector(sel)
            if exe not in all_exes:
                return "error", f"unknown test executable '{exe}'", time.monotonic() - start
            first.append((exe, pattern))
        first_exes = list(dict.fromkeys(e for e, _ in first))
        if which_named:
            which, all_exes = True, first_exes
        ok, out = build(all_exes if which else first_exes, jobs)
        if not ok:
            return "error", "does not compile:\n" + _tail(out), time.monotonic() - start
        done, order = set(), []
        for exe, pattern in first:
            for case in list_cases(exe):
                if case_matches(case, pattern) and (exe, case) not in done:
                    done.add((exe, case))
                    order.append((exe, case))
        if which:
            for exe in all_exes:
                order += [(exe, c) for c in list_cases(exe) if (exe, c) not in done]
            failed = run_cases(order, jobs, stop_on_failure=False)
        else:
            failed = run_cases(order, jobs, stop_on_failure=True)
            if not failed:
                rest = [e for e in all_exes if e not in first_exes]
                ok, out = build(rest, jobs)
                if not ok:
                    return "error", "does not compile:\n" + _tail(out), time.monotonic() - start
                order = []
                for exe in first_exes + rest:
                    order += [(exe, c) for c in list_cases(exe) if (exe, c) not in done]
                failed = run_cases(order, jobs, stop_on_failure=True)
        detail = ", ".join(f"{exe} {case}" for exe, case in failed)
        return ("killed" if failed else "survived"), detail, time.monotonic() - start
    finally:
        write_file(target, original)


_SIGNALS = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}


def write_file(path, text):
    """Replaces the file whole, with the signals held off, so an interrupt never leaves it half
    written (the next run re-syncs the scratch copy anyway)."""
    signal.pthread_sigmask(signal.SIG_BLOCK, _SIGNALS)
    try:
        tmp = path + ".mutate-tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            f.write(text)
        os.replace(tmp, path)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, _SIGNALS)


def _tail(text, lines=15):
    return "\n".join("      " + l for l in text.splitlines()[-lines:])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--filter", default=os.environ.get("MUTATE_FILTER", ""))
    parser.add_argument("--which", action="store_true",
                        default=os.environ.get("MUTATE_WHICH", "") not in ("", "0", "named"))
    parser.add_argument("--which-named", action="store_true",
                        default=os.environ.get("MUTATE_WHICH", "") == "named")
    parser.add_argument("--list", default=os.path.join(ROOT, "tests", "mutations.txt"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    args = parser.parse_args()

    faults, errors = parse_list(args.list)
    for e in errors:
        print("error:", e)
    if errors:
        return 2
    selected = [f for f in faults if f.matches(args.filter)] if args.filter else faults
    if not selected:
        print(f"no fault matches '{args.filter}'")
        return 2

    # A stale fault (its text gone from the tree, or no longer unique) is an error.
    stale = []
    for fault in selected:
        path = os.path.join(ROOT, fault.file)
        try:
            with open(path, encoding="utf-8") as f:
                n = f.read().count(fault.find)
        except FileNotFoundError:
            n = -1
        if n != 1:
            why = "file not found" if n < 0 else (
                "text not found" if n == 0 else f"text found {n} times")
            stale.append((fault, why))
    stale_ids = {f.id for f, _ in stale}

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGHUP, on_signal)
    total_start = time.monotonic()
    results = []
    try:
        os.makedirs(WORK, exist_ok=True)
        sync_scratch()
        if not configure():
            print("error: configuring the scratch build failed")
            return 1
        exes = test_executables()
        ok, out = build(exes, args.jobs)
        if not ok:
            print("error: the unmutated tree does not build:\n" + _tail(out))
            return 1
        print(f"{len(selected)} faults, {len(exes)} test executables, scratch build {BUILD}",
              flush=True)
        # A test that fails without any fault would "kill" everything: check the named ones.
        named = sorted({split_selector(s)[0] for f in selected for s in f.tests} & set(exes))
        broken = run_cases([(e, c) for e in named for c in list_cases(e)], args.jobs, False)
        if broken:
            print("error: these tests fail without any fault: " +
                  ", ".join(f"{e} {c}" for e, c in broken))
            return 1
        for fault, why in stale:
            print(f"STALE     [{fault.id}] {fault.file}: {why}: {fault.find!r}", flush=True)
            results.append((fault, "stale"))
        for fault in selected:
            if fault.id in stale_ids:
                continue
            status, detail, secs = check_fault(fault, exes, args.jobs, args.which,
                                               args.which_named)
            label = {"killed": "KILLED", "survived": "SURVIVED", "error": "ERROR"}[status]
            print(f"{label:9} [{fault.id}] {secs:5.1f}s  {fault.file}: {fault.breaks}", flush=True)
            if status == "killed" and detail:
                print(f"          by {detail}", flush=True)
            if status == "error":
                print(f"          {detail}", flush=True)
            results.append((fault, status))
    except Interrupted as e:
        print(f"\ninterrupted ({e}); the tree was not changed", flush=True)
        return 130
    killed = sum(1 for _, s in results if s == "killed")
    elapsed = time.monotonic() - total_start
    print(f"{killed}/{len(selected)} killed in {elapsed / 60:.1f} min", flush=True)
    return 0 if killed == len(selected) else 1


if __name__ == "__main__":
    sys.exit(main())

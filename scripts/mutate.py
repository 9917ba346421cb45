#!/usr/bin/env python3
"""Mutation check: plants each fault of tests/mutations.txt, one at a time, in a scratch copy of
the tree and reports whether the test suite notices it.

The tree itself is never written. The scratch copy (build/mutate/tree) is re-synced from the tree
at start and keeps its build directory (build/mutate/build, release flags) between runs, so each
fault costs one recompiled file, the relinks and the tests it needs.

For each fault the executables named in its `tests:` field are built and run first (every case in
a fresh process, as CTest does), then the rest of the suite until the first failure. A fault is
"killed" when a test fails (or times out), "survived" when the whole suite passes.

With --sample N the faults are not the list's: N mutants are drawn with --seed from every
mutation point of the library's syntax tree (scripts/mutants.py). Mutants listed in
tests/equivalent-mutants.txt (id, then one line of reason) cannot change behaviour: they are
counted apart and not run. A drawn mutant that does not compile is replaced by the next draw.
The report lists the survivors by file and function and is also written to
build/mutate/sample-SEED-N.txt.

Usage: scripts/mutate.py [--filter TEXT] [--which | --which-named] [--list FILE] [--jobs N]
                         [--sample N [--seed S] [--ids ID,... | --ids @FILE]]
  --filter TEXT  only the faults whose id, file, tests or behaviour contain TEXT
  --which        run the whole suite for each fault and print every test that kills it
  --which-named  the same over every case of the executables the fault names (faster)
Exit status: 0 when every selected fault is killed (with --sample: when at least 90 % of the
non-equivalent draw is killed and the equivalent ones are at most 10 % of it); 1 when one
survived, no longer applies (its exact text is not found once in its file) or does not compile;
2 on a usage error.
"""

import argparse
import collections
import hashlib
import os
import pickle
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
# A drawn mutant's case gets a few times what it took unmutated: a hang then costs seconds, not
# the suite's two minutes, and a case slowed that much counts as noticed.
SAMPLE_CASE_SLACK = (3.0, 4.0)  # seconds, factor
EQUIVALENTS = os.path.join(ROOT, "tests", "equivalent-mutants.txt")
SLOW_LAST = ("soak_test", "stress_test")

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
    # Run every time (a few seconds with a cache): it regenerates the build when sources came or
    # went, so the list of test targets is current, and keeps the options below in force.
    cmd = ["cmake", "-S", SCRATCH, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
           "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++",
           "-DPELYX_CORE_OPTIONS=-O0"]
    # Putting a mutated file back would otherwise cost a second compile of it per mutant.
    launcher = shutil.which("ccache") or ""
    os.environ.setdefault("CCACHE_DIR", os.path.join(WORK, "ccache"))
    cmd += [f"-DCMAKE_C_COMPILER_LAUNCHER={launcher}", f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}"]
    # Every mutant relinks the suite's executables; lld does it in half the time.
    lld = "-fuse-ld=lld" if shutil.which("ld.lld") else ""
    cmd += [f"-DCMAKE_EXE_LINKER_FLAGS={lld}", f"-DCMAKE_SHARED_LINKER_FLAGS={lld}"]
    rc, out = run(cmd)
    if rc != 0:
        print(out)
    return rc == 0


# The scenario goldens (scripts/goldens.py) run as one more executable whose cases are the
# goldens, played by the scratch build's simulator.
GOLDENS = "goldens"


def test_executables():
    rc, out = run(["ninja", "-C", BUILD, "-t", "targets", "all"])
    names = set()
    for line in out.splitlines():
        m = re.match(r"^tests/([A-Za-z0-9_]+_test): ", line)
        if m:
            names.add(m.group(1))
    goldens = [GOLDENS] if os.path.isdir(os.path.join(SCRATCH, "tests", "goldens")) else []
    return goldens + sorted(names)


def build(targets, jobs):
    if not targets:
        return True, ""
    paths = ["tools/sim/pelyx-sim" if t == GOLDENS else f"tests/{t}" for t in targets]
    rc, out = run(["ninja", "-C", BUILD, f"-j{jobs}"] + paths)
    return rc == 0, out


_case_cache = {}


def list_cases(exe):
    """The cases of one test executable, as gtest filters."""
    if exe == GOLDENS:
        return sorted({os.path.splitext(f)[0] for f in os.listdir(
            os.path.join(SCRATCH, "tests", "goldens")) if f.endswith(".records")})
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


# (exe, case) -> seconds it took unmutated; filled by the draw's first run.
_baseline = {}


def case_timeout(exe, case):
    if (exe, case) not in _baseline:
        return CASE_TIMEOUT
    fixed, factor = SAMPLE_CASE_SLACK
    return min(CASE_TIMEOUT, fixed + factor * _baseline[(exe, case)])


def run_case(exe, case):
    start = time.monotonic()
    if exe == GOLDENS:
        rc, out = run([sys.executable, os.path.join(SCRATCH, "scripts", "goldens.py"), "--sim",
                       os.path.join(BUILD, "tools", "sim", "pelyx-sim"), case],
                      timeout=case_timeout(exe, case))
    else:
        rc, out = run([os.path.join(BUILD, "tests", exe), f"--gtest_filter={case}"],
                      cwd=os.path.join(BUILD, "tests"), timeout=case_timeout(exe, case))
    return rc == 0, out, time.monotonic() - start


def run_cases(items, jobs, stop_on_failure, times=None):
    """Runs (exe, case) pairs, `jobs` at a time; returns the failing ones (only the first few
    when stopping at the first failure). `times`, when given, collects each case's seconds."""
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
            ok, _, secs = done.result()
            if times is not None:
                times[item] = secs
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
    return check_change(target, original, mutated, fault.tests, all_exes, jobs, which,
                        which_named)


def check_change(target, original, mutated, selectors, all_exes, jobs, which, which_named=False,
                 failures=None):
    """Writes `mutated` over `target`, builds and runs `selectors` first, then the rest of the
    suite; `failures`, when given, collects every failing (exe, case)."""
    start = time.monotonic()
    try:
        write_file(target, mutated)
        first = []
        for sel in selectors:
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
        if failures is not None:
            failures.extend(failed)
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


# --- drawn mutants ---

def load_equivalents(path):
    """`id reason...` per line; '#' comments. Returns {id: reason}."""
    out = {}
    if not os.path.exists(path):
        return out
    with open(path, encoding="utf-8") as f:
        for n, raw in enumerate(f, 1):
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            mid, _, reason = line.partition(" ")
            if not reason.strip():
                raise ValueError(f"{path}:{n}: `{mid}` has no reason")
            out[mid] = reason.strip()
    return out


def first_selectors(mutant, learned, listed):
    """The cases most likely to kill a mutant of this file: those that killed its neighbours in
    this run, most often first, then the executables the list's faults of the file name."""
    sels = [f"{exe}:{case}" for (exe, case), _ in learned[mutant.file].most_common(12)]
    return sels + [e for e, _ in listed[mutant.file].most_common()]


def collect_points(mutants_mod):
    """Every mutation point; parsed again only when a source or the compile commands changed."""
    commands = os.path.join(BUILD, "compile_commands.json")
    digest = hashlib.sha256()
    sources = os.path.join(SCRATCH, "src")
    paths = [commands] + sorted(os.path.join(d, f) for d, _, fs in os.walk(sources) for f in fs)
    for path in paths + [os.path.join(ROOT, "scripts", "mutants.py")]:
        digest.update(path.encode() + b"\0")
        with open(path, "rb") as f:
            digest.update(f.read())
    cache = os.path.join(WORK, "points.pickle")
    try:
        with open(cache, "rb") as f:
            key, points = pickle.load(f)
        if key == digest.hexdigest():
            return points
    except (OSError, EOFError, pickle.UnpicklingError, AttributeError, ValueError):
        pass
    points = mutants_mod.collect(commands, SCRATCH)
    with open(cache + ".tmp", "wb") as f:
        pickle.dump((digest.hexdigest(), points), f)
    os.replace(cache + ".tmp", cache)
    return points


def run_sample(args, exes, faults):
    import mutants as mutants_mod  # needs python3-clang; only the draw does
    try:
        equivalents = load_equivalents(args.equivalents)
    except ValueError as e:
        print("error:", e)
        return 2
    t0 = time.monotonic()
    points = collect_points(mutants_mod)
    # Each point's place in the draw hangs on the seed and its own id only, so an edit elsewhere
    # in the code leaves the rest of a seed's draw as it was.
    order = sorted(points, key=lambda m: hashlib.sha256(f"{args.seed}:{m.id}".encode()).digest())
    if args.ids:
        # Re-runs chosen mutants (a report's survivors, say) instead of a draw.
        wanted = set(open(args.ids[1:]).read().split() if args.ids.startswith("@")
                     else args.ids.replace(",", " ").split())
        order = [m for m in order if m.id in wanted]
        missing = wanted - {m.id for m in order}
        if missing:
            print("no such mutant now: " + ", ".join(sorted(missing)), flush=True)
        args.sample = len(order)
    print(f"{len(points)} mutation points in src/ ({time.monotonic() - t0:.0f} s to parse); "
          f"drawing {args.sample} with seed {args.seed}", flush=True)
    listed = collections.defaultdict(collections.Counter)
    for fault in faults:
        for sel in fault.tests:
            listed[fault.file][split_selector(sel)[0]] += 1
    learned = collections.defaultdict(collections.Counter)
    exes = [e for e in exes if e not in SLOW_LAST] + [e for e in exes if e in SLOW_LAST]
    results, stillborn, drawn = [], 0, iter(order)
    while len(results) < args.sample:
        m = next(drawn, None)
        if m is None:
            break
        where = f"{m.file}:{m.line} {m.function}"
        if m.id in equivalents:
            results.append((m, "equivalent", equivalents[m.id]))
            print(f"EQUIV     {where}: {m.describe()}  ({equivalents[m.id]})", flush=True)
            continue
        target = os.path.join(SCRATCH, m.file)
        with open(target, "rb") as f:
            original = f.read()
        mutated = original[:m.start] + m.replacement.encode() + original[m.end:]
        failures = []
        status, detail, secs = check_change(target, original.decode(), mutated.decode(),
                                            first_selectors(m, learned, listed), exes,
                                            args.jobs, False, failures=failures)
        if status == "error":
            stillborn += 1
            print(f"NO BUILD  {secs:5.1f}s {where}: {m.describe()} (replaced by the next draw)",
                  flush=True)
            continue
        for item in failures:
            learned[m.file][item] += 1
        results.append((m, status, detail))
        label = "KILLED" if status == "killed" else "SURVIVED"
        print(f"{label:9} {secs:5.1f}s {where}: {m.describe()}  [{m.id}]", flush=True)
    return sample_report(args, results, stillborn, time.monotonic() - t0)


def sample_report(args, results, stillborn, elapsed):
    counts = collections.Counter(status for _, status, _ in results)
    live = counts["killed"] + counts["survived"]
    lines = [f"draw: {len(results)} mutants, seed {args.seed}; {stillborn} more drawn did not "
             f"compile and were replaced",
             f"killed {counts['killed']} of {live} non-equivalent "
             f"({100.0 * counts['killed'] / max(live, 1):.1f} %); "
             f"equivalent {counts['equivalent']} "
             f"({100.0 * counts['equivalent'] / max(len(results), 1):.1f} % of the draw); "
             f"{elapsed / 60:.1f} min"]
    by_place = collections.defaultdict(list)
    for m, status, _ in results:
        if status == "survived":
            by_place[(m.file, m.function)].append(m)
    if by_place:
        lines.append("survivors by file and function:")
        for (file, function), ms in sorted(by_place.items()):
            lines.append(f"  {file} {function}")
            for m in ms:
                lines.append(f"    line {m.line}: {m.describe()}  [{m.id}]")
    path = os.path.join(WORK, f"sample-{args.seed}-{args.sample}.txt")
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines) + f"\nreport: {os.path.relpath(path, ROOT)}", flush=True)
    ok = counts["killed"] >= 0.9 * live and counts["equivalent"] <= 0.1 * len(results)
    return 0 if ok and len(results) == args.sample else 1


def main():
    # The soak and stress cases run their few seconds for every fault that nothing else kills;
    # shorter runs still exercise their paths (the stress case needs 1000 calls: 3 s when busy).
    os.environ.setdefault("PELYX_SOAK_SECONDS", "2")
    os.environ.setdefault("PELYX_STRESS_SECONDS", "3")
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--filter", default=os.environ.get("MUTATE_FILTER", ""))
    parser.add_argument("--which", action="store_true",
                        default=os.environ.get("MUTATE_WHICH", "") not in ("", "0", "named"))
    parser.add_argument("--which-named", action="store_true",
                        default=os.environ.get("MUTATE_WHICH", "") == "named")
    parser.add_argument("--list", default=os.path.join(ROOT, "tests", "mutations.txt"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--sample", type=int, default=int(os.environ.get("SAMPLE") or 0))
    parser.add_argument("--seed", type=int, default=int(os.environ.get("SEED") or 1))
    parser.add_argument("--equivalents", default=EQUIVALENTS)
    parser.add_argument("--ids", default=os.environ.get("MUTANTS", ""),
                        help="with --sample: run these mutant ids (or @FILE of ids) instead")
    args = parser.parse_args()
    if args.sample < 0:
        parser.error("--sample must be positive")

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
        if args.sample:
            broken = run_cases([(e, c) for e in exes for c in list_cases(e)], args.jobs, False,
                               times=_baseline)
            if broken:
                print("error: these tests fail without any fault: " +
                      ", ".join(f"{e} {c}" for e, c in broken))
                return 1
            return run_sample(args, exes, faults)
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

#!/usr/bin/env python3
"""Mutation run: how many hand-picked faults does the test suite catch?

Each mutant in scripts/mutants.txt replaces one source line. For every
mutant the script applies it, builds (plain build, its own build folder),
runs the whole suite with `ctest -j --stop-on-failure` and restores the
file. A mutant is "killed" when a test fails or times out, "SURVIVED" when
the suite passes, "no-build" when it does not compile (a broken mutant,
fix the list). The unmutated tree is built and tested first, so a red
suite is never mistaken for kills.

    python3 scripts/mutate.py                 # every mutant
    python3 scripts/mutate.py --only ID ...   # some of them
    python3 scripts/mutate.py --check         # only check the list applies
    python3 scripts/mutate.py --results FILE  # also write "id status test" lines
    python3 scripts/mutate.py --every-test    # every failing test, not only the first

Takes about half a minute a mutant on two cores (a survivor runs the whole
suite). Needs cmake, ctest and the test dependencies (scripts/run_tests.sh
installs them).
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Mutant:
    def __init__(self, ident):
        self.ident = ident
        self.path = None
        self.fault = ""
        self.original = None
        self.replacement = None
        self.occurrence = None


def parse(list_file):
    mutants = []
    current = None
    with open(list_file, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            if line.startswith("== "):
                current = Mutant(line[3:].strip())
                mutants.append(current)
                continue
            if current is None:
                sys.exit(f"{list_file}:{number}: entry before the first '== id' line")
            if line.startswith("file: "):
                current.path = line[6:].strip()
            elif line.startswith("fault: "):
                current.fault = line[7:].strip()
            elif line.startswith("occurrence: "):
                current.occurrence = int(line[12:])
            elif line.startswith("- "):
                current.original = line[2:].strip()
            elif line.startswith("+ "):
                current.replacement = line[2:].strip()
            else:
                sys.exit(f"{list_file}:{number}: cannot read: {line}")
    seen = set()
    for m in mutants:
        if m.ident in seen:
            sys.exit(f"mutant {m.ident} listed twice")
        seen.add(m.ident)
        if not (m.path and m.original and m.replacement is not None):
            sys.exit(f"mutant {m.ident} needs file:, '- ' and '+ ' lines")
    return mutants


def mutated_text(m):
    """The mutated file's text; raises ValueError when the line is not found once."""
    with open(os.path.join(ROOT, m.path), encoding="utf-8") as f:
        lines = f.read().split("\n")
    hits = [i for i, line in enumerate(lines) if line.strip() == m.original]
    if m.occurrence is not None:
        if m.occurrence > len(hits):
            raise ValueError(f"{m.path}: occurrence {m.occurrence} of {len(hits)}")
        hit = hits[m.occurrence - 1]
    elif len(hits) != 1:
        raise ValueError(f"{m.path}: line found {len(hits)} times")
    else:
        hit = hits[0]
    indent = re.match(r"\s*", lines[hit]).group(0)
    lines[hit] = indent + m.replacement
    return "\n".join(lines)


def run(cmd, cwd, log):
    with open(log, "w") as out:
        return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT).returncode


def failures(log, every):
    """The first failing test, or with `every` all of them comma-separated."""
    with open(log, errors="replace") as f:
        text = f.read()
    m = re.search(r"The following tests FAILED:\s*\n((?:\s*\d+ - \S+[^\n]*\n?)+)", text)
    if m:
        names = re.findall(r"\d+ - (\S+)", m.group(1))
        return ",".join(names) if every else names[0]
    m = re.search(r"\*\*\*(?:Failed|Timeout|Exception)[^\n]*", text)
    return m.group(0) if m else "?"


def build_and_test(build, jobs, log_dir, name, every=False, timeout=120, tests=None):
    build_log = os.path.join(log_dir, name + ".build.log")
    if run(["cmake", "--build", build, "-j", str(jobs)], ROOT, build_log) != 0:
        return "no-build", "-"
    test_log = os.path.join(log_dir, name + ".test.log")
    stop = [] if every else ["--stop-on-failure"]
    if tests:
        stop += ["-R", tests]
    code = run(["ctest", "-j", str(jobs), "--timeout", str(timeout), "--output-on-failure"] + stop,
               build, test_log)
    if code == 0:
        return "SURVIVED", "-"
    return "killed", failures(test_log, every)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--list", default=os.path.join(ROOT, "scripts", "mutants.txt"))
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build-mutants"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--only", nargs="*", default=None)
    parser.add_argument("--check", action="store_true", help="only check that every mutant applies")
    parser.add_argument("--results", help="write 'id status first-failing-test' lines here")
    parser.add_argument("--timeout", type=int, default=120,
                        help="seconds after which a test counts as hung (a catch)")
    parser.add_argument("--every-test", action="store_true",
                        help="run the whole suite for each mutant and list every test that fails")
    parser.add_argument("--tests", help="run only the tests whose names match this regular "
                        "expression (ctest -R), e.g. to check that one folder still catches a fault")
    args = parser.parse_args()

    mutants = parse(args.list)
    if args.only:
        unknown = set(args.only) - {m.ident for m in mutants}
        if unknown:
            sys.exit(f"unknown mutants: {' '.join(sorted(unknown))}")
        mutants = [m for m in mutants if m.ident in args.only]
    bad = 0
    for m in mutants:
        try:
            mutated_text(m)
        except (ValueError, OSError) as e:
            print(f"{m.ident}: {e}")
            bad += 1
    if bad or args.check:
        print(f"{len(mutants) - bad} of {len(mutants)} mutants apply")
        return 1 if bad else 0

    build = os.path.abspath(args.build_dir)
    log_dir = os.path.join(build, "mutation-logs")
    os.makedirs(log_dir, exist_ok=True)
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        if run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                "-DSEGCORE_BUILD_BENCHMARKS=OFF"], ROOT, os.path.join(log_dir, "configure.log")):
            sys.exit(f"configure failed: {log_dir}/configure.log")
    status, test = build_and_test(build, args.jobs, log_dir, "unmutated", True, args.timeout,
                                  args.tests)
    if status != "SURVIVED":
        sys.exit(f"the unmutated tree is {status} ({test}): see {log_dir}")

    # The file being mutated is put back even when the run is interrupted.
    restore = {}

    def put_back(*_):
        for path, text in restore.items():
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
        restore.clear()

    signal.signal(signal.SIGINT, lambda *a: (put_back(), sys.exit(130)))
    signal.signal(signal.SIGTERM, lambda *a: (put_back(), sys.exit(143)))

    rows = []
    for m in mutants:
        path = os.path.join(ROOT, m.path)
        with open(path, encoding="utf-8") as f:
            restore[path] = f.read()
        started = time.time()
        text = mutated_text(m)
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
            status, test = build_and_test(build, args.jobs, log_dir, m.ident, args.every_test,
                                          args.timeout, args.tests)
        finally:
            put_back()
        rows.append((m.ident, status, test, time.time() - started))
        print(f"{m.ident:28} {status:9} {time.time() - started:5.0f} s  {test}", flush=True)
    build_and_test(build, args.jobs, log_dir, "restored")  # leaves an unmutated build behind

    killed = sum(1 for r in rows if r[1] == "killed")
    survived = [r[0] for r in rows if r[1] == "SURVIVED"]
    broken = [r[0] for r in rows if r[1] == "no-build"]
    print(f"\n{killed} of {len(rows)} killed; survived: {' '.join(survived) or 'none'}"
          f"{'; no-build: ' + ' '.join(broken) if broken else ''}")
    if args.results:
        with open(args.results, "w") as f:
            for ident, status, test, _ in rows:
                f.write(f"{ident} {status} {test}\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
r"""How many real faults the test suite catches.

Each fault of the list (scripts/faults.txt) is one small change to the product
code: a flipped condition, an off-by-one, a wrong constant, a dropped step. For
each, the change is made in the working tree, the x64 tree is rebuilt, and the
tests run until the first failure. The fault is "caught" when a test fails,
"missed" when all pass, "build broken" when it doesn't compile (such a fault
belongs replaced: it measures the compiler, not the tests). The changed file is
put back byte for byte afterwards, also on Ctrl-C or an error.

    python3 scripts/fault-check.py --list
    nice -n 10 python3 scripts/fault-check.py
    nice -n 10 python3 scripts/fault-check.py --only json-quote-escape,maxfiles-off-by-one

The results go to the terminal and, as a Markdown table with the date and the
revision, to docs/fault-check.md (--results). The tree must be built once
(`make build`) and clean: the unchanged tree is built and tested first and must
pass.

Fault list format: blocks that begin with "[id]", then "key: value" lines.
A value goes on over the following lines that begin with "|" (a line break,
then the text behind the "|"). Lines beginning with "#" are comments.

    [json-quote-escape]
    subsystem: items (JSON)
    file: dd_item.cpp
    notice: a subject with a double quote makes the JSON text invalid
    find: case L'"': escaped += L"\\\""; break;
    replace: case L'"': escaped += L"\""; break;

`file` is a file name only; it is looked for under src/ and tools/ and must be
there once. `find` must occur exactly once in it.
"""
import argparse
import datetime
import os
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KEYS = ("subsystem", "file", "notice", "find", "replace")
SEARCHED = ("src", "tools")


class Fault:
    def __init__(self, fault_id, line):
        self.id, self.line = fault_id, line
        self.fields = {}  # key -> value as written in the list
        self.path = None  # the file under src/ or tools/
        self.problem = None  # why the fault can't be applied

    subsystem = property(lambda self: self.fields.get("subsystem", ""))
    file = property(lambda self: self.fields.get("file", ""))
    notice = property(lambda self: self.fields.get("notice", ""))
    find = property(lambda self: self.fields.get("find", ""))
    replace = property(lambda self: self.fields.get("replace", ""))


def read_faults(path):
    faults, fault, key = [], None, None
    with open(path, encoding="utf-8") as listing:
        for number, raw in enumerate(listing, 1):
            line = raw.rstrip("\n")
            if line.startswith("#") or (not line.strip() and key is None):
                continue
            if line.startswith("["):
                fault = Fault(line.strip()[1:-1], number)
                faults.append(fault)
                key = None
            elif line.startswith("|") and fault and key:
                fault.fields[key] += "\n" + line[1:]
            elif fault and re.match(r"^(\w+):( |$)", line):
                key, _, value = line.partition(":")
                if key not in KEYS:
                    sys.exit("%s:%d: unknown key %r" % (path, number, key))
                fault.fields[key] = value[1:] if value.startswith(" ") else value
            elif line.strip():
                sys.exit("%s:%d: not understood: %s" % (path, number, line))
            else:
                key = None
    ids = [fault.id for fault in faults]
    doubled = sorted({i for i in ids if ids.count(i) > 1})
    if doubled:
        sys.exit("fault ids used twice: " + ", ".join(doubled))
    return faults


def index_sources():
    """File name -> paths under src/ and tools/."""
    found = {}
    for top in SEARCHED:
        for folder, _, names in os.walk(os.path.join(ROOT, top)):
            for name in names:
                found.setdefault(name, []).append(os.path.join(folder, name))
    return found


def check(fault, sources):
    missing = [key for key in ("subsystem", "file", "notice", "find") if not fault.fields.get(key)]
    if missing or "replace" not in fault.fields:
        return "missing " + ", ".join(missing or ["replace"])
    paths = sources.get(fault.file, [])
    if len(paths) != 1:
        return "%s found %d times under src/ and tools/" % (fault.file, len(paths))
    fault.path = paths[0]
    count = read_text(fault.path).count(fault.find)
    if count != 1:
        return "the text occurs %d times in %s" % (count, fault.file)
    if fault.find == fault.replace:
        return "replacement changes nothing"
    return None


def read_text(path):
    with open(path, "rb") as source:
        return source.read().decode("utf-8")


def run(command, log, timeout):
    """Runs a command, its output into `log`; returns (exit code, output)."""
    with open(log, "w", encoding="utf-8", errors="replace") as out:
        try:
            done = subprocess.run(command, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT, timeout=timeout,
                                  start_new_session=True)
            code = done.returncode
        except subprocess.TimeoutExpired:
            code = "timeout"
    with open(log, encoding="utf-8", errors="replace") as out:
        return code, out.read()


def first_failure(output):
    """The first failing ctest test, with the first failing gtest case in it."""
    test = re.search(r"Test\s+#\d+: (\S+) \.*\s*\**(Failed|Timeout|Exception|Not Run)(.*)", output)
    if not test:
        return "tests failed (no failing test named)"
    name = test.group(1)
    if test.group(2) != "Failed":
        name += " (" + test.group(2).lower() + ")"
    case = re.search(r"^\[  FAILED  \] (\S+)", output, re.MULTILINE)
    return name + (": " + case.group(1) if case else "")


class Checker:
    def __init__(self, args):
        self.args = args
        self.logs = os.path.join(ROOT, args.build, "fault-check")
        os.makedirs(self.logs, exist_ok=True)

    def build(self, log):
        return run(["cmake", "--build", self.args.build, "-j", str(self.args.jobs)], log, 3600)

    def test(self, log):
        return run(["sh", "scripts/run-tests.sh", self.args.build, "--stop-on-failure", "--timeout",
                    str(self.args.timeout)], log, 3 * 3600)

    def outcome(self, name):
        """(result, first failing test or build error) for the tree as it is."""
        code, output = self.build(os.path.join(self.logs, name + ".build.log"))
        if code != 0:
            error = re.search(r"error: (.*)", output)
            return "build broken", error.group(1)[:100] if error else "build failed (%s)" % code
        code, output = self.test(os.path.join(self.logs, name + ".test.log"))
        if code == 0:
            return "missed", ""
        return "caught", first_failure(output)

    def try_fault(self, fault):
        with open(fault.path, "rb") as source:
            original = source.read()
        changed = original.decode("utf-8").replace(fault.find, fault.replace, 1).encode("utf-8")
        try:
            with open(fault.path, "wb") as source:
                source.write(changed)
            return self.outcome(fault.id)
        finally:
            with open(fault.path, "wb") as source:
                source.write(original)
            with open(fault.path, "rb") as source:
                if source.read() != original:
                    sys.exit("could not put back %s: restore it with git checkout" % fault.path)


def git(*arguments):
    return subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True).stdout.strip()


def dirty_files(ignored):
    changed = []
    for line in git("status", "--porcelain", "--untracked-files=all").splitlines():
        path = line[3:].split(" -> ")[-1]
        if os.path.abspath(os.path.join(ROOT, path)) not in ignored:
            changed.append(path)
    return changed


def cell(text):
    return str(text).replace("|", "\\|").replace("\n", " ")


def write_table(path, results, header):
    caught = sum(1 for r in results if r["result"] == "caught")
    missed = sum(1 for r in results if r["result"] == "missed")
    broken = sum(1 for r in results if r["result"] == "build broken")
    total_seconds = sum(r["seconds"] for r in results)
    lines = ["# Faults the tests catch", ""] + header + [
        "",
        "%d faults: %d caught, %d missed, %d build broken; %d min for the faults."
        % (len(results), caught, missed, broken, round(total_seconds / 60)),
        "",
        "| Id | Subsystem | What a user would notice | File | Result | First failing test | Time |",
        "|---|---|---|---|---|---|---|",
    ]
    for r in results:
        lines.append("| %s | %s | %s | %s | %s | %s | %d s |" % (
            *(cell(r[key]) for key in ("id", "subsystem", "notice", "file", "result", "detail")), r["seconds"]))
    with open(path, "w", encoding="utf-8") as table:
        table.write("\n".join(lines) + "\n")
    return lines


def interrupt(*_):
    raise KeyboardInterrupt()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--faults", default="scripts/faults.txt", help="the fault list")
    parser.add_argument("--only", help="comma-separated fault ids to run")
    parser.add_argument("--list", action="store_true", help="list the faults and check that each applies")
    parser.add_argument("--results", default="docs/fault-check.md", help="the Markdown table written")
    parser.add_argument("--build", default="build/x64", help="the built x64 tree")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--timeout", type=int, default=300, help="seconds one test program may take")
    args = parser.parse_args()

    faults_path = os.path.abspath(os.path.join(ROOT, args.faults))
    results_path = os.path.abspath(os.path.join(ROOT, args.results))
    faults = read_faults(faults_path)
    sources = index_sources()
    for fault in faults:
        fault.problem = check(fault, sources)
    if args.only:
        wanted = args.only.split(",")
        unknown = set(wanted) - {fault.id for fault in faults}
        if unknown:
            sys.exit("no such fault: " + ", ".join(sorted(unknown)))
        faults = [fault for fault in faults if fault.id in wanted]

    if args.list:
        for fault in faults:
            print("%-32s %-22s %-28s %s" % (fault.id, fault.subsystem, fault.file, fault.notice))
            if fault.problem:
                print("    NOT USABLE: " + fault.problem)
        print("%d faults" % len(faults))
        return 1 if any(fault.problem for fault in faults) else 0

    unusable = [fault for fault in faults if fault.problem]
    for fault in unusable:
        print("fault %s (line %d): %s" % (fault.id, fault.line, fault.problem))
    if unusable:
        return 2
    dirty = dirty_files({faults_path, results_path})
    if dirty:
        print("The tree has changes; commit or stash them first:\n  " + "\n  ".join(dirty))
        return 2

    # Ctrl-C and a polite kill both come through the finally that puts the file back.
    signal.signal(signal.SIGTERM, interrupt)
    checker = Checker(args)
    revision = git("rev-parse", "--short", "HEAD")
    started = time.time()
    print("unchanged tree: building and testing ...", flush=True)
    result, detail = checker.outcome("unchanged")
    baseline_seconds = time.time() - started
    if result != "missed":
        print("The unchanged tree does not pass (%s: %s); see %s" % (result, detail, checker.logs))
        return 2
    print("unchanged tree passes (%d s)" % baseline_seconds, flush=True)

    header = [
        "Measured %s on revision %s with `scripts/fault-check.py` (list: `%s`): each fault applied alone, the x64 "
        "tree rebuilt, `scripts/run-tests.sh %s --stop-on-failure --timeout %d` run."
        % (datetime.date.today().isoformat(), revision, os.path.relpath(faults_path, ROOT), args.build, args.timeout),
        "The unchanged tree built and passed every test in %d s." % baseline_seconds,
    ]
    results = []
    try:
        for number, fault in enumerate(faults, 1):
            print("[%d/%d] %s (%s) ..." % (number, len(faults), fault.id, fault.file), end=" ", flush=True)
            start = time.time()
            result, detail = checker.try_fault(fault)
            seconds = time.time() - start
            print("%s %s (%d s)" % (result, detail, seconds), flush=True)
            results.append(dict(id=fault.id, subsystem=fault.subsystem, notice=fault.notice, file=fault.file,
                                result=result, detail=detail, seconds=seconds))
            write_table(results_path, results, header)
    except KeyboardInterrupt:
        print("\ninterrupted; the fault's file is back as it was")
    finally:
        # Leave the build matching the sources again.
        checker.build(os.path.join(checker.logs, "restored.build.log"))

    if results:
        print("\n".join(write_table(results_path, results, header)[len(header) + 3:]))
        print("\nwritten to %s; logs in %s; %d min in all" % (os.path.relpath(results_path, ROOT), checker.logs,
                                                              round((time.time() - started) / 60)))
    return 0


if __name__ == "__main__":
    sys.exit(main())

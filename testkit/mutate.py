#!/usr/bin/env python3
"""Mutation check: plants small faults in the library's sources, one at a time, rebuilds the
test programs and runs them, and reports which test caught each fault.

    testkit/mutate.py [--tree DIR] [--build DIR] [--faults FILE] [--only TEXT] [--out FILE]

--tree is the source tree to mutate (default: this checkout); --build a build directory of
that tree, configured with the unit tests on (default: DIR/build/mutate, configured when
missing). Each fault is undone before the next one is planted, also when the run is broken
off. A fault whose text is not found exactly once, or whose build fails, is reported as such:
such a row is a fault of the list, not of the tests.

The fault list (testkit/mutations.txt) has one record per fault:
    ## name: what the fault does
    file: core/ordarray.cpp
    find: text of the original line (must occur exactly once in the file)
    replace: the faulty text
find and replace may go on over further lines that are not blank and name no key.
Exit status: 0 when every planted fault was caught, 1 otherwise.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import time

TEST_PROGRAMS = {
    # folder of the faulty file -> its own test programs, run first
    "core": ["core/core_test", "core/containers_test"],
    "io": ["io/io_test"],
    "anim": ["anim/anim_test"],
    "image": ["image/image_test"],
    "host": ["host/plugin_host_test", "host/host_test"],
    "services": ["services/services_test", "services/config_test"],
    "threads": ["threads/threads_test"],
    "platform": ["platform/platform_test", "platform/platform_paths_test"],
}
ALL_PROGRAMS = [p for programs in TEST_PROGRAMS.values() for p in programs]


def read_faults(path):
    faults, current, key = [], None, None
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if line.startswith("## "):
                name, _, what = line[3:].partition(":")
                current = {"name": name.strip(), "what": what.strip(), "line": number}
                faults.append(current)
                key = None
            elif current is not None and re.match(r"^(file|find|replace): ", line):
                key, _, value = line.partition(": ")
                current[key] = value
            elif key in ("find", "replace") and line.strip():
                current[key] += "\n" + line  # a text of several lines continues indented
            else:
                key = None
    for fault in faults:
        missing = [k for k in ("file", "find", "replace") if k not in fault]
        if missing:
            sys.exit(f"{path}:{fault['line']}: fault {fault['name']} lacks {', '.join(missing)}")
    return faults


def programs_for(fault, build):
    folder = fault["file"].split("/")[0]
    own = TEST_PROGRAMS.get(folder, [])
    ordered = own + [p for p in ALL_PROGRAMS if p not in own]
    return [p for p in ordered if os.path.exists(os.path.join(build, p))]


def build_tests(build):
    targets = [os.path.basename(p) for p in ALL_PROGRAMS]
    done = subprocess.run(["cmake", "--build", build, "--target", *targets],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode == 0, done.stdout


def first_failures(program, build, timeout):
    """Runs one test program; returns None when it passed, else the names of failed tests."""
    try:
        done = subprocess.run([os.path.join(build, program), "--gtest_brief=1"], cwd=build,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", timeout=timeout)
    except subprocess.TimeoutExpired:
        return [f"{os.path.basename(program)}: timed out after {timeout}s"]
    if done.returncode == 0:
        return None
    failed = re.findall(r"^\[  FAILED  \] ([\w/.]+)(?:,|$| \()", done.stdout, re.M)
    failed = sorted(set(failed))
    if failed:
        return failed
    if done.returncode < 0:
        return [f"{os.path.basename(program)}: killed by {signal.Signals(-done.returncode).name}"]
    return [f"{os.path.basename(program)}: exit status {done.returncode}"]


def check(fault, tree, build, timeout):
    path = os.path.join(tree, fault["file"])
    with open(path, encoding="utf-8") as f:
        original = f.read()
    found = original.count(fault["find"])
    if found != 1:
        return "not planted", f"the text occurs {found} times"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original.replace(fault["find"], fault["replace"]))
        built, log = build_tests(build)
        if not built:
            errors = [l for l in log.splitlines() if "error" in l][:1]
            return "not planted", "build failed: " + (errors[0].strip() if errors else "")
        for program in programs_for(fault, build):
            failed = first_failures(program, build, timeout)
            if failed:
                shown = ", ".join(failed[:3]) + (f" (+{len(failed) - 3} more)" if len(failed) > 3 else "")
                return "caught", shown
        return "MISSED", ""
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)
        # The restored file must be older than the objects built from the fault, or the
        # next build would not recompile it.
        later = time.time() + 1
        os.utime(path, (later, later))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tree", default=os.path.dirname(here))
    parser.add_argument("--build")
    parser.add_argument("--faults", default=os.path.join(here, "mutations.txt"))
    parser.add_argument("--only", default="", help="only faults whose file or name holds this")
    parser.add_argument("--out", help="also write the table to this file")
    parser.add_argument("--timeout", type=int, default=300, help="seconds per test program")
    args = parser.parse_args()
    tree = os.path.abspath(args.tree)
    build = os.path.abspath(args.build or os.path.join(tree, "build", "mutate"))
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", tree, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                        "-DVX_BUILD_BENCH=OFF"], check=True, stdout=subprocess.DEVNULL)
    faults = [f for f in read_faults(args.faults) if args.only in f["file"] or args.only in f["name"]]
    built, log = build_tests(build)
    if not built:
        sys.exit("the unmutated tree does not build:\n" + log[-3000:])
    rows = ["| fault | file | what it does | result | caught by |", "|---|---|---|---|---|"]
    missed = 0
    for fault in faults:
        result, detail = check(fault, tree, build, args.timeout)
        missed += result != "caught"
        rows.append(f"| {fault['name']} | {fault['file']} | {fault['what']} | {result} | {detail} |")
        print(rows[-1], flush=True)
    summary = f"{len(faults) - missed} of {len(faults)} faults caught"
    print(summary)
    if args.out:
        with open(args.out, "w", encoding="utf-8") as f:
            f.write("\n".join(rows) + "\n\n" + summary + "\n")
    built, _ = build_tests(build)  # leave the build matching the restored sources
    return 0 if missed == 0 and built else 1


if __name__ == "__main__":
    sys.exit(main())

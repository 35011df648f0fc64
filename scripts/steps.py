#!/usr/bin/env python3
"""Counts what each operation takes: instructions, system calls, locks, allocations and bytes copied.

steps.py                  prints a table of the library in build/release and of the floor
steps.py --json FILE      also writes the figures
steps.py --against DIR    compares with the shared library in DIR
steps.py --check          fails if the library takes more than the record, bench/steps.txt, allows
steps.py --renew          writes the record
steps.py --recorded-here  succeeds if the record was made with this compiler and C library

Instructions are those of the whole process, counted by callgrind in fixed work (bench/steps.cpp), so another
process' load does not change them. They depend on the compiler and the C library, which the record names: with
others, --check compares instructions with those of the library that --against names, or not at all.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BENCH = ROOT / "build/release/bench"
RECORD = ROOT / "bench/steps.txt"
COLUMNS = ("instructions", "system calls", "locks", "allocations", "bytes copied")
TOLERANCE = 1.03
# Below this an increase is a single event of the whole work: a message split between two reads.
SLACK = dict(zip(COLUMNS, (1.0, 0.01, 0.01, 0.01, 1.0)))
LIMIT_SECONDS = 120


def environment(library):
    variables = dict(os.environ)
    if library is not None:
        variables["LD_LIBRARY_PATH"] = str(library)
    return variables


def run(command, variables):
    done = subprocess.run(command, env=variables, capture_output=True, text=True, timeout=LIMIT_SECONDS, check=False)
    if done.returncode != 0:
        raise SystemExit(f"{' '.join(map(str, command))}: status {done.returncode}\n{done.stderr}")
    return done.stdout


def count_calls(who, work, library):
    variables = environment(library)
    variables["LD_PRELOAD"] = str(BENCH / "libcounted_calls.so")
    operations, *counts = map(int, run([BENCH / "steps", who, work], variables).split())
    return [count / operations for count in counts]


def count_instructions(who, work, library):
    with tempfile.TemporaryDirectory(prefix="sccb-") as directory:
        output = pathlib.Path(directory) / "callgrind"
        command = ["valgrind", "--tool=callgrind", "--instr-atstart=no", "--fair-sched=yes",
                   f"--callgrind-out-file={output}", BENCH / "steps", who, work]
        operations = int(run(command, environment(library)).split()[0])
        return int(re.search(r"^totals: (\d+)", output.read_text(), re.M).group(1)) / operations


def count(who, work, library):
    return [count_instructions(who, work, library), *count_calls(who, work, library)]


def works():
    lines = run([BENCH / "steps", "list"], environment(None)).splitlines()
    return {name: has_floor == "1" for name, has_floor in (line.split("\t") for line in lines)}


def measure(tasks):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(lambda task: count(*task), tasks))


def toolchain():
    compiler = run(["c++", "--version"], environment(None)).splitlines()[0]
    return f"{compiler}; {' '.join(os.confstr('CS_GNU_LIBC_VERSION').split())}"


def heading():
    return "  ".join([f"{'an operation takes':<44}", *(f"{column:>12}" for column in COLUMNS)])


def row(name, figures):
    return "  ".join([f"{name:<44}", *(f"{figure:>12.2f}" for figure in figures)])


def read_record():
    lines = RECORD.read_text().splitlines()
    rows = (re.split(r" {2,}", line) for line in lines if line and not line.startswith("#"))
    return lines[0].removeprefix("# "), {name: [float(figure) for figure in figures] for name, *figures in rows}


def write_record(figures):
    lines = [f"# {toolchain()}", *(row(name, values) for name, values in figures.items())]
    RECORD.write_text("\n".join(lines) + "\n")


def increases(name, found, allowed, columns):
    for column, now, before in zip(COLUMNS, found, allowed):
        if column in columns and now > before * TOLERANCE + SLACK[column]:
            yield f"{name}: {now:.2f} {column} instead of {before:.2f}"


def measure_library(library=None):
    names = list(works())
    return dict(zip(names, measure([("library", name, library) for name in names])))


def recorded_here():
    return read_record()[0] == toolchain()


def check(against):
    recorded_with, record = read_record()
    found = measure_library()
    columns = COLUMNS
    if recorded_with != toolchain():
        print(f"the record was made with {recorded_with}")
        if against is None:
            print("instructions are not compared: there is no earlier library")
            columns = COLUMNS[1:]
        else:
            print(f"instructions are compared with those of {against}")
            record = {name: [figures[0], *record.get(name, figures)[1:]]
                      for name, figures in measure_library(against).items()}
    print(heading())
    worse = []
    for name, figures in found.items():
        print(row(name, figures))
        worse += increases(name, figures, record[name], columns) if name in record else [f"{name}: no record"]
    for line in worse:
        print(line, file=sys.stderr)
    if worse:
        print("if this is intended: scripts/steps.py --renew, committed with the change", file=sys.stderr)
    return 1 if worse else 0


def compare(against):
    before = measure_library(against)
    after = measure_library()
    print(heading() + "  of before")
    for name, figures in after.items():
        print(row(f"{name}, before", before[name]))
        print(row(f"{name}, now", figures) + f"  {figures[0] / before[name][0]:9.3f}")


def table(json_file):
    tasks = [(who, name, None) for name, has_floor in works().items()
             for who in ("library", "floor") if who == "library" or has_floor]
    figures = measure(tasks)
    print(heading())
    for (who, name, _), values in zip(tasks, figures):
        print(row(f"{name}, {who}", values))
    if json_file is not None:
        entries = [{"work": name, "of": who, **dict(zip(COLUMNS, values))}
                   for (who, name, _), values in zip(tasks, figures)]
        pathlib.Path(json_file).write_text(json.dumps(entries, indent=1) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--renew", action="store_true")
    parser.add_argument("--recorded-here", action="store_true")
    parser.add_argument("--json")
    parser.add_argument("--against", type=pathlib.Path)
    chosen = parser.parse_args()
    if chosen.recorded_here:
        return 0 if recorded_here() else 1
    if chosen.check:
        return check(chosen.against)
    if chosen.renew:
        write_record(measure_library())
    elif chosen.against is not None:
        compare(chosen.against)
    else:
        table(chosen.json)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""coverage_table.py COVERAGE MISSED LEAST_LINES LEAST_BRANCHES: prints llvm-cov's figures for each file of src/,
writes the lines and branches that no test has reached to MISSED, and fails below the least percentages.
"""

import json
import os
import sys


def percent(covered, count):
    return 100.0 * covered / count if count else 100.0


def print_table(files):
    print(f"{'file':40} {'lines':>6} {'missed':>7} {'':>8} {'branches':>9} {'missed':>7}")
    total = {"lines": [0, 0], "branches": [0, 0]}
    for name, summary in sorted(files):
        row = f"{name:40}"
        for kind, width in (("lines", 6), ("branches", 9)):
            count, covered = summary[kind]["count"], summary[kind]["covered"]
            total[kind][0] += count
            total[kind][1] += covered
            row += f" {count:{width}} {count - covered:7} {percent(covered, count):7.2f}%"
        print(row)
    return {kind: percent(covered, count) for kind, (count, covered) in total.items()}


def unreached_lines(segments):
    """Lines that a region begins on whose count is 0, and those up to the next region."""
    lines = set()
    for (line, _, count, has_count, _, is_gap), following in zip(segments, segments[1:]):
        if has_count and count == 0 and not is_gap:
            lines.update(range(line, max(following[0], line + 1)))
    return lines


def one_sided_branches(branches):
    """Conditions that only ever went one way, in whatever instantiation."""
    taken = {}
    for line, column, _, _, true_count, false_count, *_ in branches:
        both = taken.setdefault((line, column), [0, 0])
        both[0] += true_count
        both[1] += false_count
    for (line, column), (true_count, false_count) in sorted(taken.items()):
        if true_count == 0 or false_count == 0:
            never = "never evaluated" if true_count + false_count == 0 else "never true" if true_count == 0 else "never false"
            yield line, column, never


def write_missed(files, missed):
    for entry in sorted(files, key=lambda one: one["filename"]):
        name = os.path.relpath(entry["filename"])
        if not name.startswith("src/"):
            continue
        for line in sorted(unreached_lines(entry["segments"])):
            missed.write(f"{name}:{line}: not reached\n")
        for line, column, never in one_sided_branches(entry["branches"]):
            missed.write(f"{name}:{line}:{column}: {never}\n")


def main():
    path, missed_path, least_lines, least_branches = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        data = json.load(file)["data"][0]
    files = [(os.path.relpath(entry["filename"]), entry["summary"]) for entry in data["files"]]
    reached = print_table([entry for entry in files if entry[0].startswith("src/")])
    with open(missed_path, "w", encoding="utf-8") as missed:
        write_missed(data["files"], missed)
    print(f"lines {reached['lines']:.2f} % (least {least_lines}), branches {reached['branches']:.2f} % (least {least_branches})")
    if reached["lines"] < float(least_lines) or reached["branches"] < float(least_branches):
        sys.exit("coverage: less than the least")


if __name__ == "__main__":
    main()

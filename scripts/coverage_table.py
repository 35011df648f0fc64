#!/usr/bin/env python3
"""coverage_table.py SUMMARY LCOV MISSED LEAST_LINES LEAST_BRANCHES: prints llvm-cov's figures for each file of src/,
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


def write_missed(lcov, missed):
    """Lines that were never run; branches of which one way was never taken."""
    name = ""
    for line in lcov:
        kind, _, rest = line.strip().partition(":")
        if kind == "SF":
            name = os.path.relpath(rest)
        elif kind == "DA" and rest.split(",")[1] == "0":
            missed.write(f"{name}:{rest.split(',')[0]}: line\n")
        elif kind == "BRDA":
            number, _, branch, taken = rest.split(",")
            if taken in ("0", "-"):
                missed.write(f"{name}:{number}: branch, never {'true' if int(branch) % 2 == 0 else 'false'}\n")


def main():
    summary_path, lcov_path, missed_path, least_lines, least_branches = sys.argv[1:]
    with open(summary_path, encoding="utf-8") as file:
        data = json.load(file)["data"][0]
    files = [(os.path.relpath(entry["filename"]), entry["summary"]) for entry in data["files"]]
    reached = print_table([entry for entry in files if entry[0].startswith("src/")])
    with open(lcov_path, encoding="utf-8") as lcov, open(missed_path, "w", encoding="utf-8") as missed:
        write_missed(lcov, missed)
    print(f"lines {reached['lines']:.2f} % (least {least_lines}), branches {reached['branches']:.2f} % (least {least_branches})")
    if reached["lines"] < float(least_lines) or reached["branches"] < float(least_branches):
        sys.exit("coverage: less than the least")


if __name__ == "__main__":
    main()

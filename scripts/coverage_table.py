#!/usr/bin/env python3
"""coverage_table.py COVERAGE MISSED LEAST_LINES LEAST_BRANCHES: prints llvm-cov's figures for each file of src/,
writes the lines and branches that no test reached to MISSED, and fails below the minimum percentages.
"""

import json
import os
import sys

expansion_region = 1  # LLVM's kind of a region that stands for a use of a macro


def percent(covered, count):
    return 100.0 * covered / count if count else 100.0


def figures(entry, branches):
    """(count, covered) of a file's lines and of its branches, two for each condition."""
    lines = entry["summary"]["lines"]
    return {
        "lines": (lines["count"], lines["covered"]),
        "branches": (2 * len(branches), sum((taken[0] != 0) + (taken[1] != 0) for taken in branches.values())),
    }


def print_table(files, branches):
    print(f"{'file':40} {'lines':>6} {'missed':>7} {'':>8} {'branches':>9} {'missed':>7}")
    total = {"lines": [0, 0], "branches": [0, 0]}
    for entry in sorted(files, key=lambda one: one["filename"]):
        name = os.path.relpath(entry["filename"])
        if not name.startswith("src/"):
            continue
        row = f"{name:40}"
        for (kind, (count, covered)), width in zip(figures(entry, branches.get(name, {})).items(), (6, 9)):
            total[kind][0] += count
            total[kind][1] += covered
            row += f" {count:{width}} {count - covered:7} {percent(covered, count):7.2f}%"
        print(row)
    print(f"{total['lines'][0]} lines, {total['branches'][0]} branches")
    return {kind: percent(covered, count) for kind, (count, covered) in total.items()}


def unreached_lines(segments):
    """Lines on which a region with count 0 begins, and those up to the next region."""
    lines = set()
    for (line, _, count, has_count, _, is_gap), following in zip(segments, segments[1:]):
        if has_count and count == 0 and not is_gap:
            lines.update(range(line, max(following[0], line + 1)))
    return lines


def expansions(function):
    """Where each macro that the function uses is expanded: {virtual file: (virtual file, line, column)}."""
    return {
        expanded: (file, line, column)
        for line, column, _, _, _, file, expanded, kind in function["regions"]
        if kind == expansion_region
    }


def branches_of(functions):
    """{file: {(line, column, positions within macros): [true count, false count]}}, summed over all instantiations of
    a template. A condition within a macro counts once for each use of the macro, in the file that uses it.
    """
    files = {}
    for function in functions:
        expanded_at = expansions(function)
        for line, column, _, _, true_count, false_count, file, *_ in function["branches"]:
            within = ()
            while file in expanded_at:
                within = ((line, column), *within)
                file, line, column = expanded_at[file]
            name = os.path.relpath(function["filenames"][file])
            taken = files.setdefault(name, {}).setdefault((line, column, within), [0, 0])
            taken[0] += true_count
            taken[1] += false_count
    return files


def one_sided(branches):
    """Conditions that only ever went one way."""
    for (line, column, within), (true_count, false_count) in sorted(branches.items()):
        if true_count == 0 or false_count == 0:
            never = "never evaluated" if true_count + false_count == 0 else "never true" if true_count == 0 else "never false"
            yield line, column, never + (" in the macro" if within else "")


def write_missed(files, branches, missed):
    for entry in sorted(files, key=lambda one: one["filename"]):
        name = os.path.relpath(entry["filename"])
        if not name.startswith("src/"):
            continue
        for line in sorted(unreached_lines(entry["segments"])):
            missed.write(f"{name}:{line}: not reached\n")
        for line, column, never in one_sided(branches.get(name, {})):
            missed.write(f"{name}:{line}:{column}: {never}\n")


def main():
    path, missed_path, least_lines, least_branches = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        data = json.load(file)["data"][0]
    branches = branches_of(data["functions"])
    reached = print_table(data["files"], branches)
    with open(missed_path, "w", encoding="utf-8") as missed:
        write_missed(data["files"], branches, missed)
    print(f"lines {reached['lines']:.2f} % (least {least_lines}), branches {reached['branches']:.2f} % (least {least_branches})")
    if reached["lines"] < float(least_lines) or reached["branches"] < float(least_branches):
        sys.exit("coverage: less than the least")


if __name__ == "__main__":
    main()

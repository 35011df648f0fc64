#!/usr/bin/env python3
"""check_recipes.py PAGE: compares the recipes of docs/architecture.md with the files that they name.

Every file that the section "Recipes" names must exist, and every line of a fenced block must be a line of the
first file that its step names. Only the spacing may differ.
"""
import re
import subprocess
import sys


def normal(line):
    return " ".join(line.split())


def main(page):
    tracked = set(subprocess.check_output(["git", "ls-files"], text=True).splitlines())
    folders = {name.split("/")[0] for name in tracked if "/" in name}
    section = False
    fenced = False
    file = None
    quoted = 0
    problems = []
    for number, line in enumerate(open(page, encoding="utf-8"), 1):
        if line.startswith("## "):
            section = line.strip() == "## Recipes"
        if not section:
            continue
        if line.strip().startswith("```"):
            fenced = not fenced
        elif fenced:
            quoted += 1
            if file is None:
                problems.append(f"{number}: no file is named before this line")
            elif normal(line) not in {normal(each) for each in open(file, encoding="utf-8")}:
                problems.append(f"{number}: not a line of {file}: {line.strip()}")
        else:
            if re.match(r"#|\d+\. |\*\*", line):
                file = None  # a step names its own file
            for name in re.findall(r"`([\w./-]+)`", line):
                is_path = name.split("/")[0] in folders and re.search(r"/[\w-]+\.\w+$", name)
                if name in tracked:
                    file = file or name
                elif is_path and not name.startswith("build/"):
                    problems.append(f"{number}: there is no file {name}")
    if quoted == 0:
        problems.append("no fenced line was found")
    for problem in problems:
        print(f"check_recipes: {page}:{problem}", file=sys.stderr)
    print(f"lines of the recipes: {quoted}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))

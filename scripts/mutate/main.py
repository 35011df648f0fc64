"""mutate [options] [FILE...]: mutates src/ (or the named files of it) and tells which mutants the tests find."""

import argparse
import os
import signal
import sys
import time
from pathlib import Path

sys.path.insert(0, "/usr/lib/python3/dist-packages")  # libclang, whichever python3 comes first
import campaign  # noqa: E402
import tree  # noqa: E402

EQUIVALENT = Path(__file__).resolve().parent / "equivalent.txt"


def read_equivalents():
    """Names with their reasons: a name starts a line, its reason follows, indented."""
    reasons, name = {}, None
    for line in EQUIVALENT.read_text().splitlines() if EQUIVALENT.exists() else []:
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith(" "):
            reasons[name] = (reasons[name] + " " + line.strip()).strip()
        else:
            name = line
            reasons[name] = ""
    missing = [name for name, reason in reasons.items() if not reason]
    if missing:
        sys.exit(f"{EQUIVALENT}: no reason for {missing[0]}")
    return reasons


def chosen_mutants(mutants, files):
    if not files:
        return mutants
    labels = [os.path.relpath(Path(file).resolve(), tree.ROOT / "src") for file in files]
    chosen = [m for label in labels for m in mutants if m["file"] == label or m["file"].startswith(label + "/")]
    if not chosen:
        sys.exit("no mutants in " + " ".join(files))
    return chosen


def named_mutants(mutants, path):
    """Those that a file names, one a line, or after "=" as in survivors.txt."""
    names = set()
    lines = Path(path).read_text().splitlines()
    marked = any(line.startswith("= ") for line in lines)
    for line in lines:
        if line.startswith("= ") or (line.strip() and not marked):
            names.add(line.removeprefix("= ").strip())
    for name in sorted(names - {m["name"] for m in mutants}):
        print(f"no such mutant: {name}")
    return [m for m in mutants if m["name"] in names]


def percent(part, whole):
    return 100.0 * part / whole if whole else 0.0


def score_text(row, counted):
    return f"{percent(row['found'], counted):>7.1f}%" if counted else f"{'-':>8}"


def report(run, chosen, skipped, equivalents, whole):
    rows, survivors = {}, []
    contradictions = []
    for mutant in chosen:
        row = rows.setdefault(mutant["file"], dict.fromkeys(("all", "found", "time-out", "equivalent", "open"), 0))
        status = run.results.get(mutant["name"], {}).get("status")
        row["all"] += 1
        if mutant["name"] in equivalents:
            row["equivalent"] += 1
            if status in ("failed", "time-out"):
                contradictions.append(mutant["name"])
        elif status in ("failed", "time-out"):
            row["found"] += 1
            row["time-out"] += status == "time-out"
        elif status is None:
            row["open"] += 1
        else:
            survivors.append(mutant)
    lines = [f"{'file':<34}{'mutants':>8}{'equivalent':>11}{'found':>7}{'time-out':>9}{'survived':>9}{'score':>8}"]
    total = dict.fromkeys(("all", "found", "time-out", "equivalent", "open"), 0)
    for file, row in list(sorted(rows.items())) + [("all", total)]:
        counted = row["all"] - row["equivalent"] - row["open"]
        lines.append(f"{file:<34}{row['all']:>8}{row['equivalent']:>11}{row['found']:>7}{row['time-out']:>9}"
                     f"{counted - row['found']:>9}{score_text(row, counted)}")
        if row is not total:
            for key in total:
                total[key] += row[key]
    if total["open"]:
        lines.append(f"not tried yet: {total['open']}; run again to go on")
    lines.append("not mutated: " + ", ".join(f"{count} ({reason})" for reason, count in sorted(skipped.items())))
    print("\n".join(lines))
    (tree.OUT / "report.txt").write_text("\n".join(lines) + "\n")
    with open(tree.OUT / "survivors.txt", "w") as out:
        for mutant in survivors:
            cases = len(run.by_site.get(mutant["site"], []))
            tried = len(run.results[mutant["name"]]["tried"])
            out.write(f"src/{mutant['file']}:{mutant['line']}: {mutant['function']}: {mutant['operator']} "
                      f"({tried} of {cases} cases, SCC_MUTANT={mutant['id']})\n- {mutant['before']}\n+ {mutant['after']}\n"
                      f"= {mutant['name']}\n\n")
    print(f"survivors: {tree.OUT}/survivors.txt")
    for name in contradictions:
        print(f"listed as equivalent, but found: {name}")
    if whole:
        names = {m["name"] for m in chosen}
        for name in equivalents:
            if name not in names:
                print(f"listed as equivalent, but no mutant: {name}")
    return percent(total["found"], total["all"] - total["equivalent"] - total["open"]), bool(contradictions)


def main():
    jobs = os.cpu_count() or 2
    parser = argparse.ArgumentParser(prog="./run mutate", description=__doc__)
    parser.add_argument("files", nargs="*", metavar="FILE", help="files or folders of src/; all without one")
    parser.add_argument("--only", metavar="LIST",
                        help="the mutants that this file names, one a line or as survivors.txt does; survivors are tried again")
    parser.add_argument("--cases", metavar="PATTERN", help="use the test cases that match, measured anew")
    parser.add_argument("--jobs", type=int, default=3 * jobs, help="test cases at once (%(default)s)")
    parser.add_argument("--cap", type=int, default=40, help="test cases for a mutant in the first pass (%(default)s)")
    parser.add_argument("--survivor-cap", type=int, default=400,
                        help="test cases for one that survives it, slow ones included (%(default)s)")
    parser.add_argument("--minutes", type=float, help="end after that time; the next run goes on")
    parser.add_argument("--least", type=float, default=0, help="fail below this score")
    parser.add_argument("--again", action="store_true", help="measure the test cases and try the survivors again")
    parser.add_argument("--fresh", action="store_true", help="forget all results")
    parser.add_argument("--report", action="store_true", help="only print what earlier runs found")
    options = parser.parse_args()
    equivalents = read_equivalents()
    mutants, skipped = tree.prepare(jobs)
    os.nice(10)
    chosen = chosen_mutants(mutants, options.files)
    if options.only:
        chosen = named_mutants(chosen, options.only)
    if options.fresh or options.again:
        (tree.OUT / "cases.json").unlink(missing_ok=True)
    if options.fresh:
        (tree.OUT / "results.json").unlink(missing_ok=True)
    deadline = time.monotonic() + 60 * options.minutes if options.minutes else None
    run = campaign.Campaign(mutants, options.jobs, deadline)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: setattr(run, "deadline", 0))
    if options.again:
        run.results = {name: result for name, result in run.results.items() if result["status"] != "survived"}
    if options.only and not options.report:
        for mutant in chosen:
            if run.results.get(mutant["name"], {}).get("status") == "survived":
                del run.results[mutant["name"]]
    run.measure(options.cases)
    if not options.report:
        tried = [m for m in chosen if m["name"] not in equivalents]
        run.run(tried, options.cap, False, "first pass")
        run.run(tried, options.survivor_cap, True, "survivors")
    run.workers.close()
    score, contradicted = report(run, chosen, skipped, equivalents, not (options.files or options.only))
    print(f"score: {score:.2f} %")
    sys.exit(1 if contradicted or score < options.least else 0)


main()

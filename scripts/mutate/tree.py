"""The mutated copy of the project in build/mutate: rewriting, and building with what does not compile left out.

Only the library is compiled anew, and the two suites whose tests instantiate its templates. The other suites are the
objects of the debug build, linked with the mutated library.
"""

import dataclasses
import hashlib
import json
import multiprocessing
import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import rewrite

ROOT = Path(__file__).resolve().parents[2]
OUT = ROOT / "build" / "mutate"
TREE = OUT / "tree"
BUILD = OUT / "build"
TOOL = Path(__file__).resolve().parent
DEBUG = ROOT / "build" / "debug"
TESTS = OUT / "tests"
COMPILED = ["msg_tests", "util_tests"]
LINKED = ["client_tests", "api_tests", "ss_tests", "agent_tests", "fault_tests"]
SUITES = COMPILED + LINKED
IDS_PER_FILE = 2000


def arguments():
    resources = subprocess.check_output([compiler(), "-print-resource-dir"], text=True).strip()
    folders = [ROOT / "src", ROOT / "include", ROOT / "platform/qx_syslog", ROOT / "platform/qx_thread"]
    return ["-std=c++20", "-fno-exceptions", "-fno-rtti", "-resource-dir", resources,
            *(f"-I{folder}" for folder in folders)]


def compiler():
    return shutil.which("clang") or shutil.which("clang-14")


def write_if_changed(path, data):
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_bytes() != data:
        path.write_bytes(data)


def rewrite_one(job):
    path, label, first_id, rejected, key, flags = job
    cache = OUT / "rewritten" / (label.replace("/", "_") + ".json")
    if cache.exists():
        known = json.loads(cache.read_text())
        if known["key"] == key:
            return known
    result = rewrite.rewrite(path, label, flags, first_id, frozenset(rejected))
    if len(result.mutants) >= IDS_PER_FILE:
        raise RuntimeError(f"{label}: more mutants than identifiers")
    known = {"key": key, "label": label, "text": result.text.decode(), "skipped": result.skipped,
             "mutants": [dataclasses.asdict(mutant) for mutant in result.mutants]}
    cache.parent.mkdir(parents=True, exist_ok=True)
    cache.write_text(json.dumps(known))
    return known


def link_the_rest():
    TREE.mkdir(parents=True, exist_ok=True)
    for entry in ROOT.iterdir():
        link = TREE / entry.name
        if entry.name in ("src", "build") or entry.name.startswith(".") or link.is_symlink():
            continue
        link.symlink_to(entry)


def rewrite_all(rejected):
    """Writes the tree's src/; returns (mutants, skipped by reason)."""
    link_the_rest()
    source = ROOT / "src"
    files = sorted(path for path in source.rglob("*") if path.suffix in (".cpp", ".h"))
    headers = b"".join(path.read_bytes() for path in files if path.suffix == ".h")
    shared = hashlib.sha256(headers + (TOOL / "rewrite.py").read_bytes()).hexdigest()
    flags = arguments()
    jobs = []
    for index, path in enumerate(files):
        label = str(path.relative_to(source))
        mine = sorted(name for name in rejected if name.startswith(label + "|"))
        key = hashlib.sha256(repr((shared, path.read_bytes(), mine, index)).encode()).hexdigest()
        jobs.append((str(path), label, index * IDS_PER_FILE, mine, key, flags))
    with multiprocessing.Pool() as pool:
        results = pool.map(rewrite_one, jobs, chunksize=1)
    mutants, skipped = [], {}
    for result in results:
        write_if_changed(TREE / "src" / result["label"], result["text"].encode())
        mutants += result["mutants"]
        for reason, count in result["skipped"].items():
            skipped[reason] = skipped.get(reason, 0) + count
    for path in source.iterdir():
        if path.is_file() and path.suffix not in (".cpp", ".h"):
            data = path.read_bytes()
            if path.name == "CMakeLists.txt":
                data += b"target_sources(scc_objects PRIVATE runtime.cpp)\ntarget_compile_options(scc_objects PRIVATE -O1)\n"
            write_if_changed(TREE / "src" / path.name, data)
    for name in ("mutate.h", "runtime.cpp"):
        write_if_changed(TREE / "src" / name, (TOOL / name).read_bytes())
    return mutants, skipped


def configure():
    if (BUILD / "build.ninja").exists():
        return
    flags = f"-w -Wno-narrowing -include {TREE}/src/mutate.h"
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", "-DSCC_DEVKIT=OFF",
                    "-DSCC_BENCH=OFF", "-DSCC_HARDENING=OFF", f"-DCMAKE_CXX_FLAGS={flags}"],
                   check=True, stdout=subprocess.DEVNULL)


def compile_targets(targets, jobs):
    done = subprocess.run(["ninja", "-C", BUILD, "-k", "0", "-j", str(jobs), *targets], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    (OUT / "build.log").write_text(done.stdout)
    return done.returncode == 0, done.stdout


def link_suites(jobs):
    """Links the objects of the debug build with the mutated library, whose inline functions come first and so prevail."""
    if not (DEBUG / "build.ninja").exists():
        subprocess.run(["cmake", "--preset", "debug"], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", DEBUG, "--parallel", str(jobs), "--target", *LINKED, "--", "--quiet"], check=True)
    library = BUILD / "src" / "libscclib.a"
    for suite in SUITES:
        tree = BUILD if suite in COMPILED else DEBUG
        program, linked = TESTS / suite, tree / "tests" / suite
        program.parent.mkdir(parents=True, exist_ok=True)
        if program.exists() and program.stat().st_mtime > max(library.stat().st_mtime, linked.stat().st_mtime):
            continue
        commands = subprocess.check_output(["ninja", "-C", tree, "-t", "commands", "-s", f"tests/{suite}"], text=True)
        command = next(part for part in commands.splitlines()[-1].split("&&") if f"-o tests/{suite}" in part)
        words = [str(library) if word.endswith("libscclib.a") else word for word in shlex.split(command)]
        words[words.index(f"tests/{suite}")] = str(program)
        first = next(index for index, word in enumerate(words) if word.endswith(".o"))
        words[first:first] = ["-Wl,--wrap=main", "-Wl,--undefined=main", "-Wl,--whole-archive", str(library), "-Wl,--no-whole-archive"]
        subprocess.run(words, cwd=tree, check=True)


def culprits(log, mutants):
    """Names of the mutants at the places of the compiler's errors; some kinds are suspected before the others."""
    by_line = {}
    for mutant in mutants:
        by_line.setdefault((mutant["file"], mutant["line"]), set()).add(mutant["name"])
    # An error in mutate.h is that of the first line that "required" it. ccache gives the compiler relative paths.
    places, required = set(), None
    for file, line, what in re.findall(r"\btree/src/([\w/.]+):(\d+):\d+: +(error|required)", log):
        if what == "error":
            places.add(required if file == "mutate.h" else (file, line))
        required = (required or (file, line)) if what == "required" else None
    found = set()
    for file, line in filter(None, places):
        for distance in (0, -1, 1, -2, 2):
            names = by_line.get((file, int(line) + distance))
            if names:
                suspects = ({name for name in names if f"|{kind}|" in name} for kind in ("arguments", "arithmetic"))
                found |= next(filter(None, suspects), names)
                break
    return found


def prepare(jobs):
    """Builds the tests of the mutated tree; returns (mutants, skipped by reason)."""
    OUT.mkdir(parents=True, exist_ok=True)
    kept = OUT / "rejected.json"
    rejected = set(json.loads(kept.read_text())) if kept.exists() else set()
    for _ in range(8):
        mutants, skipped = rewrite_all(rejected)
        configure()
        done, log = compile_targets(["scc_objects"], jobs)
        if done:
            done, log = compile_targets(["scclib_static", *COMPILED], jobs)
        if done:
            link_suites(jobs)
            (OUT / "mutants.json").write_text(json.dumps(mutants))
            return mutants, skipped
        new = culprits(log, mutants) - rejected
        if not new:
            raise RuntimeError(f"the mutated copy does not compile; see {OUT}/build.log")
        rejected |= new
        kept.write_text(json.dumps(sorted(rejected), indent=1))
    raise RuntimeError(f"the mutated copy still does not compile; see {OUT}/build.log")

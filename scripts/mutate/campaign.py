"""Runs test cases against mutants: what each case reaches, then for each mutant the cases that reach it."""

import concurrent.futures
import hashlib
import json
import os
import re
import select
import shutil
import signal
import subprocess
import threading
import time

from tree import IDS_PER_FILE, OUT, SUITES, TESTS

SLOW_SECONDS = 2.5  # slower cases are used for survivors only
FOLDERS = re.compile(r"^/tmp/scct-\w+$")


def write_json(path, data):
    beside = path.with_suffix(".new")
    beside.write_text(json.dumps(data))
    os.replace(beside, path)


def read_json(path, otherwise):
    return json.loads(path.read_text()) if path.exists() else otherwise


def list_cases():
    """Names of all cases, as suite executable:Suite.Case."""
    cases = []
    for executable in SUITES:
        listed = subprocess.check_output([TESTS / executable, "--gtest_list_tests"], text=True)
        suite = ""
        for line in listed.splitlines():
            name = line.split("#")[0].rstrip()
            if name.startswith("  "):
                if "DISABLED_" not in suite + name:
                    cases.append(f"{executable}:{suite}{name.strip()}")
            elif name.endswith("."):
                suite = name
    return cases


def starved_seconds(pid):
    """How long a thread of a process has been ready to run without a processor, at most."""
    most = 0
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/schedstat") as file:
                most = max(most, int(file.read().split()[1]))
    except (OSError, IndexError):
        pass
    return most / 1e9


class Server:
    """One started test program, which runs each case in a process of its own."""

    def __init__(self, executable, folders):
        read_requests, self.requests = os.pipe()
        self.answers, write_answers = os.pipe()
        environment = dict(os.environ, SCC_MUTANT_FOLDERS=str(folders),
                           SCC_MUTANT_SERVER=f"{read_requests},{write_answers}")
        self.process = subprocess.Popen([TESTS / executable], env=environment, pass_fds=(read_requests, write_answers),
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        start_new_session=True, cwd=OUT / "work")
        os.close(read_requests)
        os.close(write_answers)
        self.text = b""

    def number(self, seconds):
        """The next number that the program tells, or None when the time is over first."""
        while b"\n" not in self.text:
            poll = select.poll()
            poll.register(self.answers, select.POLLIN)
            if not poll.poll(max(0, int(seconds * 1000) + 1)):
                return None
            more = os.read(self.answers, 100)
            if not more:
                raise RuntimeError("a test program ended by itself")
            self.text += more
        line, self.text = self.text.split(b"\n", 1)
        return int(line)

    def run(self, name, timeout, mutant, reached):
        os.write(self.requests, f"{'-' if mutant is None else mutant} {reached or '-'} {name}\n".encode())
        child = self.number(600)
        started = time.monotonic()
        status, starved, left = None, 0.0, timeout
        while status is None and left > 0:
            status = self.number(left)
            if status is None:
                # A process that waits for a processor does not hang.
                starved = min(max(starved, starved_seconds(child)), 2 * timeout)
                left = started + timeout + starved - time.monotonic()
        seconds = time.monotonic() - started
        if status is not None:
            return ("passed" if status == 0 else "failed"), seconds
        try:
            os.killpg(child, signal.SIGKILL)
        except ProcessLookupError:
            pass  # it ended at this moment
        self.number(600)
        return "time-out", seconds

    def close(self):
        os.close(self.requests)
        os.close(self.answers)
        self.process.wait()


class Worker:
    def __init__(self, number):
        self.folders = OUT / "work" / f"folders-{number}"
        self.reached = OUT / "work" / f"reached-{number}"
        self.servers = {}
        self.remove_folders()  # of a run that was killed

    def remove_folders(self):
        """Removes the temporary folders that processes of this worker have left."""
        if self.folders.exists():
            for folder in self.folders.read_text().splitlines():
                if FOLDERS.match(folder):
                    shutil.rmtree(folder, ignore_errors=True)
            self.folders.unlink()

    def run(self, case, timeout, mutant=None, reached=None):
        """Returns (outcome, seconds); the outcome is "passed", "failed" or "time-out"."""
        executable, name = case.split(":", 1)
        if executable not in self.servers:
            self.servers[executable] = Server(executable, self.folders)
        outcome = self.servers[executable].run(name, timeout, mutant, reached)
        self.remove_folders()
        return outcome

    def close(self):
        for server in self.servers.values():
            server.close()


class Workers:
    """Runs jobs in threads; each has a number of its own for its files."""

    def __init__(self, count):
        (OUT / "work").mkdir(parents=True, exist_ok=True)
        self.count = count
        self.idle = [Worker(number) for number in range(count)]
        self.lock = threading.Lock()

    def __call__(self, function, jobs, progress, stop):
        def one(job):
            if stop():
                return
            with self.lock:
                worker = self.idle.pop()
            try:
                function(job, worker)
            finally:
                with self.lock:
                    self.idle.append(worker)
                    progress()

        with concurrent.futures.ThreadPoolExecutor(self.count) as pool:
            list(pool.map(one, jobs))

    def close(self):
        for worker in self.idle:
            worker.close()


class Campaign:
    def __init__(self, mutants, workers, deadline=None):
        self.mutants = mutants
        self.workers = Workers(workers)
        self.deadline = deadline
        self.lock = threading.Lock()
        self.results = read_json(OUT / "results.json", {})
        self.killers = {}  # cases that found mutants of a function, the latest first
        self.killers_of_file = {}  # how many mutants of a file each case found
        self.saved = time.monotonic()
        for mutant in mutants:
            known = self.results.get(mutant["name"])
            if known is not None and known["digest"] != mutant["digest"]:
                del self.results[mutant["name"]]
            elif known is not None and "by" in known:
                self.learn(mutant, known["by"])

    def stopped(self):
        return self.deadline is not None and time.monotonic() > self.deadline

    def save(self, now=False):
        if now or time.monotonic() - self.saved > 10:
            write_json(OUT / "results.json", self.results)
            self.saved = time.monotonic()

    # What each case reaches, and how long it takes.

    def measure(self, pattern=None):
        marks = {}  # what identifies the sites of each file
        for mutant in self.mutants:
            marks.setdefault(mutant["file"], hashlib.sha256()).update(f"{mutant['id']} {mutant['name']}\n".encode())
        mark = {file: digest.hexdigest() for file, digest in marks.items()}
        known = read_json(OUT / "cases.json", {"mutants": {}, "cases": {}})
        changed = {mutant["id"] // IDS_PER_FILE for mutant in self.mutants
                   if known["mutants"].get(mutant["file"]) != mark[mutant["file"]]}
        cases = {name: case for name, case in known["cases"].items()
                 if not any(site // IDS_PER_FILE in changed for site in case["reached"])}
        listed = list_cases()
        wanted = [name for name in listed if pattern is None or re.search(pattern, name)]
        self.cases = {name: cases[name] for name in listed if name in cases and (pattern is None or name not in wanted)}
        missing = [name for name in wanted if name not in self.cases]
        size = max(m["id"] for m in self.mutants) + IDS_PER_FILE

        def one(case, worker):
            worker.reached.write_bytes(bytes(size))
            outcome, seconds = worker.run(case, 300, reached=worker.reached)
            sites = [found.start() for found in re.finditer(rb"\x01", worker.reached.read_bytes())]
            self.cases[case] = {"seconds": seconds, "reached": sites, "passed": outcome == "passed"}

        def save_cases():
            if time.monotonic() - self.saved > 10:
                write_json(OUT / "cases.json", {"mutants": mark, "cases": self.cases})
                self.saved = time.monotonic()

        if missing:
            print(f"measuring {len(missing)} test cases", flush=True)
            self.workers(one, missing, save_cases, self.stopped)
            write_json(OUT / "cases.json", {"mutants": mark, "cases": self.cases})
        if pattern is not None:
            self.cases = {name: self.cases[name] for name in wanted if name in self.cases}
        unfit = [name for name, case in self.cases.items() if not case["passed"]]
        for name in unfit:
            print(f"left out, because it fails without a mutant: {name}")
            del self.cases[name]
        self.by_site = {}
        for name, case in self.cases.items():
            for site in case["reached"]:
                self.by_site.setdefault(site, []).append(name)

    # The mutants.

    def order(self, mutant, slow):
        """Cases that reach the mutant: those that found its neighbours, then the fast and specific ones."""
        names = [name for name in self.by_site.get(mutant["site"], []) if slow or self.cases[name]["seconds"] <= SLOW_SECONDS]
        module = mutant["file"].split("/")[0]
        topic = re.sub(r"\W|_", "", mutant["file"].split("/")[-1].rsplit(".", 1)[0]).lower()

        def cost(name):
            case = self.cases[name]
            executable, test = name.split(":", 1)
            own = executable == f"{module}_tests" and test.lower().startswith(topic)
            return not own, case["seconds"] + 0.02 + len(case["reached"]) / 20000 + (executable != f"{module}_tests")

        names.sort(key=cost)
        known = set(names)
        with self.lock:
            near = self.killers.get((mutant["file"], mutant["function"]), [])[:6]
            of_file = sorted(self.killers_of_file.get(mutant["file"], {}).items(), key=lambda entry: -entry[1])[:20]
        first = [name for name in dict.fromkeys([*near, *(name for name, _ in of_file)]) if name in known]
        chosen = set(first)
        return first + [name for name in names if name not in chosen]

    def learn(self, mutant, case):
        near = self.killers.setdefault((mutant["file"], mutant["function"]), [])
        if case in near:
            near.remove(case)
        near.insert(0, case)
        of_file = self.killers_of_file.setdefault(mutant["file"], {})
        of_file[case] = of_file.get(case, 0) + 1

    def try_one(self, mutant, worker, cap, slow):
        known = self.results.get(mutant["name"])
        tried = set(known["tried"]) if known else set()
        result = {"status": "survived", "digest": mutant["digest"], "tried": sorted(tried)}
        for name in self.order(mutant, slow):
            if name in tried:
                continue
            if len(tried) >= cap:
                break
            if self.stopped():
                return
            outcome, _ = worker.run(name, self.cases[name]["seconds"] * 10 + 2, mutant=mutant["id"])
            tried.add(name)
            if outcome != "passed":
                result = {"status": outcome, "digest": mutant["digest"], "by": name}
                break
        if result["status"] == "survived":
            result["tried"] = sorted(tried)
        with self.lock:
            self.results[mutant["name"]] = result
            if "by" in result:
                self.learn(mutant, result["by"])
            self.save()

    def run(self, chosen, cap, slow, label):
        open_ones = [m for m in chosen if self.results.get(m["name"], {"status": "survived"})["status"] == "survived"
                     and self.has_more(m, cap, slow)]
        if not open_ones:
            return
        done = [0]
        began = time.monotonic()

        def progress():
            done[0] += 1
            if done[0] % 100 == 0 or done[0] == len(open_ones):
                print(f"{label}: {done[0]} of {len(open_ones)} mutants, {time.monotonic() - began:.0f} s", flush=True)

        self.workers(lambda mutant, worker: self.try_one(mutant, worker, cap, slow), open_ones, progress, self.stopped)
        self.save(now=True)

    def has_more(self, mutant, cap, slow):
        known = self.results.get(mutant["name"])
        if known is None:
            return True
        tried = set(known["tried"])
        return len(tried) < cap and any(name not in tried for name in self.order(mutant, slow))

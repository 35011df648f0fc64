#!/usr/bin/env python3
"""Follows the guides: enters their commands in terminals, and compares what appears with what they print.

usage: check_guides.py, in the throw-away root of clean_root.sh, where the packages are installed: the guides kill
processes by name.

The text of a command is never repeated here: a step names the guide's section and the number of the fenced block in it.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIMIT_SECONDS = 60


class Failure(Exception):
    pass


class Guide:
    """The fenced blocks of a guide, by the first words of their section's heading."""

    def __init__(self, name):
        self.name = name
        self.blocks = []  # section, language, text
        section, language, lines = "", None, []
        for line in (ROOT / name).read_text().splitlines():
            if language is None and line.startswith("#"):
                section = line.lstrip("# ")
            elif language is None and line.startswith("```"):
                language, lines = line[3:], []
            elif line == "```":
                self.blocks.append((section, language, "\n".join(lines) + "\n"))
                language = None
            elif language is not None:
                lines.append(line)

    def block(self, section, language, number=0):
        found = [text for at, kind, text in self.blocks if at.startswith(section) and kind == language]
        if number >= len(found):
            raise Failure(f'{self.name} has no block {number} of "{language}" in "{section}"')
        return found[number]


class Terminal:
    """A shell whose commands are typed, and everything that it and its programs have printed."""

    def __init__(self, name, folder):
        self.name = name
        self.text = ""
        self.mark = 0
        self.number = 0
        self.changed = threading.Condition()
        # Runs the commands of somebody who is root already. Ctrl-C works even where it is ignored, as in background jobs.
        self.shell = subprocess.Popen(
            ["bash"], cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, bufsize=1,
            start_new_session=True, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        threading.Thread(target=self.read, daemon=True).start()
        self.type('sudo() { "$@"; }\n')

    def read(self):
        for line in self.shell.stdout:
            with self.changed:
                self.text += line
                self.changed.notify_all()

    def type(self, text):
        self.shell.stdin.write(text)
        self.shell.stdin.flush()

    def wait_for(self, pattern):
        """Waits until the pattern appears in a line after those that earlier calls have found."""
        until = time.monotonic() + LIMIT_SECONDS
        with self.changed:
            while True:
                found = re.compile(pattern, re.MULTILINE).search(self.text, self.mark)
                if found:
                    self.mark = found.end()
                    return found
                if not self.changed.wait(until - time.monotonic()) and time.monotonic() >= until:
                    raise Failure(f"the {self.name} terminal does not show: {pattern}\n{self.text}")

    def shows(self, block):
        """Waits for each line of what a guide prints, in order; "..." stands for any text."""
        for line in block.splitlines():
            self.wait_for("^" + re.escape(line).replace(re.escape("..."), ".*") + "$")

    def run(self, commands, status=0):
        """Types commands that end, waits for the end of the last one, and compares its status."""
        self.number += 1
        self.type(f"{commands}echo \"[end {self.number}: $?]\"\n")
        found = self.wait_for(rf"\[end {self.number}: (\d+)\]")
        if int(found.group(1)) != status:
            raise Failure(f"status {found.group(1)} of\n{commands}\n{self.text}")

    def stop(self, name):
        """Ctrl-C."""
        subprocess.run(["pkill", "-INT", "-x", "-P", str(self.shell.pid), name], check=True)

    def end(self):
        # At once: a shell whose program ends would go on with what was typed ahead.
        os.killpg(self.shell.pid, signal.SIGKILL)
        self.shell.wait()


class Desk:
    """Terminals in one empty folder. Everything ends with it."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="scclib-guide-"))
        self.terminals = []

    def terminal(self, name):
        self.terminals.append(Terminal(name, self.folder))
        return self.terminals[-1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for terminal in self.terminals:
            terminal.end()
        shutil.rmtree(self.folder)
        shutil.rmtree("/tmp/scc-try", ignore_errors=True)


def readme(desk):
    guide = Guide("README.md")
    daemon, program = desk.terminal("daemon's"), desk.terminal("program's")
    for terminal in (daemon, program):
        terminal.run("export TMPDIR=/tmp/scc-try\nmkdir -p $TMPDIR\n")
    (desk.folder / "minimal.c").write_text(guide.block("A minimal application", "c"))
    program.run("gcc -std=c11 -Wall -Wextra -o minimal minimal.c $(pkg-config --cflags --libs scclib)\n")
    daemon.type("sccd-dev\n")
    daemon.wait_for("^sccd-dev: ready$")
    program.type('stdbuf -oL ./minimal; echo "minimal: $?"\n')
    program.wait_for("^call 1, interface 7, 1: Success$")
    program.type("\n")
    program.wait_for("^minimal: 0$")


def first_application(desk):
    guide = Guide("docs/first-application.md")
    daemon, program, control = desk.terminal("first"), desk.terminal("second"), desk.terminal("third")
    daemon.type(guide.block("2.", "sh"))
    daemon.shows(guide.block("2.", ""))
    (desk.folder / "hello.c").write_text(guide.block("3.", "c"))
    program.run(guide.block("4.", "sh"))
    (desk.folder / "CMakeLists.txt").write_text(guide.block("4.", "cmake"))
    program.run(guide.block("4.", "sh", 1))
    program.type(guide.block("5.", "sh"))
    program.shows(guide.block("5.", ""))
    daemon.shows(guide.block("5.", "", 1))
    control.run(guide.block("6.", "sh"))
    program.shows(guide.block("6.", ""))
    control.run(guide.block("6.", "sh", 1), status=1)
    control.run(guide.block("6.", "sh", 2))
    control.run(guide.block("6.", "sh", 3))
    control.run(guide.block("7.", "sh"))
    program.shows(guide.block("7.", ""))
    daemon.type(guide.block("7.", "sh", 1))
    program.shows(guide.block("7.", "", 1))
    program.type("\n")
    program.shows(guide.block("8.", ""))
    daemon.stop("sccd-dev")
    daemon.run("test -z \"$(ls /tmp/scc-try/security/scc)\"\n")
    daemon.run("man scc_addr_learning >/dev/null && man sccd-dev >/dev/null && ls /usr/share/scclib/scenarios/*.json >/dev/null\n")


def service_authors(desk):
    guide = Guide("docs/service-authors.md")
    prepare = Guide("docs/first-application.md").block("5.", "sh").splitlines()[0] + "\nmkdir -p $TMPDIR\n"
    daemon, service, control = desk.terminal("daemon's"), desk.terminal("service's"), desk.terminal("third")
    for terminal in (daemon, service, control):
        terminal.run(prepare)
    (desk.folder / "service.c").write_text(guide.block("A small service", "c"))
    service.run(guide.block("A small service", "sh"))
    daemon.type("sccd-dev --trace\n")
    daemon.wait_for("^sccd-dev: ready$")
    service.type("./service\n")
    service.wait_for("^recovery ends$")
    service.mark = 0
    control.run(guide.block("A small service", "sh", 1))
    service.shows(guide.block("A small service", ""))
    service.stop("service")
    service.type("QX_SYSLOG_STDERR=1 ./service\n")
    service.wait_for("^recovery starts$")
    before = service.mark
    for line in ("create ACL 101", "apply ACL 101", "NAC application 2 on interface 3", "recovery ends"):
        service.mark = before  # the application is told by a thread of its own, at any time
        service.wait_for(f"^{line}$")
    control.run("sccctl daemon debug-dump-service\n")
    service.wait_for("acl")
    service.stop("service")
    service.type(guide.block("Testing applications", "sh"))
    service.wait_for("^scc-ss-dev: registered")


def linux_service(desk):
    guide = Guide("docs/linux-service.md")
    shell = desk.terminal("only")
    if subprocess.run(["unshare", "--net", "true"], check=False).returncode != 0:
        print("left out: docs/linux-service.md needs network namespaces")
        return
    section = "Five minutes"
    shell.type(guide.block(section, "sh"))
    shell.run(guide.block(section, "sh", 1))
    shell.run(guide.block(section, "sh", 2))  # the status is that of ping: it was answered
    shell.type(guide.block(section, "sh", 3))
    shell.wait_for("100% packet loss")
    shell.wait_for(r"counter\W+2\b")
    shell.wait_for("^table netdev scclib")
    shell.run("test -e /lib/systemd/system/scc-ss-linux.service\n")
    shell.type("exit\n")


def acl_file(desk):
    guide = Guide("docs/acl-file.md")
    (desk.folder / "FILE").write_text(guide.block("The file of ACLs", ""))
    daemon, control = desk.terminal("daemon's"), desk.terminal("other")
    for terminal in (daemon, control):
        terminal.run("export TMPDIR=/tmp/scc-try\nmkdir -p $TMPDIR\n")
    control.run("sccctl acl load --check FILE\n")
    daemon.type("sccd-dev\n")
    daemon.wait_for("^sccd-dev: ready$")
    control.run("sccctl acl diff FILE\n", status=1)
    control.run("sccctl acl load FILE --then-save OUT\n")
    control.run("sccctl acl diff FILE\n")
    control.run("sccctl acl list > LIST && sccctl acl diff LIST && sccctl acl diff OUT\n")
    control.run("sed -i 's/gt 1023/gt 2000/' FILE; sccctl acl diff FILE\n", status=1)
    control.run("sccctl acl load --replace FILE && sccctl acl diff FILE\n")
    control.run("sed -i 's/permit ip/permit it/' FILE; sccctl acl load FILE\n", status=2)


def like(text):
    """A pattern for a line that has other times, process ids and lengths of paths."""
    text = re.sub(r"^\d\d:\d\d:\d\d\.\d+ ", "TIME ", text)
    text = re.sub(r"^\d{4}-\d\d-\d\dT\S+ ", "DATE ", text)
    text = re.sub(r"pid: \d+$", "PID", text)
    text = re.sub(r"value: [0-9a-f]+…$", "value: ...", text)  # the pid is in it
    text = re.escape(text).replace(re.escape("..."), ".*").replace("TIME", r"\d\d:\d\d:\d\d\.\d+")
    return "^" + text.replace("DATE", r"\d{4}-\d\d-\d\dT\S+").replace("PID", r"pid: \d+") + "$"


def watching(desk):
    guide = Guide("docs/watching.md")
    daemon, control, watcher = desk.terminal("first"), desk.terminal("second"), desk.terminal("third")
    start = guide.block("Watching the daemon", "sh")
    daemon.type(start.replace("--trace", "--trace=full"))
    daemon.wait_for("^sccd-dev: ready$")
    for terminal in (control, watcher):
        terminal.run("".join(start.splitlines(True)[:-1]))
    watcher.type("sccctl capture wire.pcapng &\n" + guide.block("Notifications", "sh").replace("sccctl ", "sccctl --app 5 "))
    watcher.wait_for("server-status status=1$")
    control.run("sccctl notify --app 5 station-move permit=1\n")
    control.run("sccctl notify --app 5 flow ifx=3 vid=10 mac=00:11:22:33:44:55 ip=10.0.0.7 mask=255.255.255.0 first=5 second=6\n")
    control.run("sccctl notify --app 5 d1x-addr-move ifx=3 vid=10 vid_before=9 vid_after=10 mac=00:11:22:33:44:55\n")
    control.run("sccctl dirchn-host-set 10.0.0.7 255.255.255.0 off 3 add\n")
    control.run("sccctl acl create 101\n")
    watcher.mark = 0
    for line in guide.block("Notifications", "").splitlines():
        watcher.wait_for(like(line))
    daemon.wait_for(like(guide.block("The trace", "", 1).strip()))
    daemon.stop("sccd-dev")
    daemon.run("true\n")
    daemon.type("sccd-dev --trace\n")
    daemon.wait_for("^sccd-dev: ready$")
    watcher.wait_for("server-status status=1$")
    control.run("sccctl dirchn-host-set 10.0.0.7 255.255.255.0 off 3 add\n")
    for line in guide.block("The trace", "").splitlines():
        daemon.wait_for(like(line))
    if subprocess.run(["which", "tshark"], stdout=subprocess.DEVNULL, check=False).returncode == 0:
        control.run(guide.block("The wire", "sh").splitlines()[1] + "\n")
        control.mark = 0
        for line in guide.block("The wire", "").splitlines():
            control.wait_for(like(line))
    control.mark = len(control.text)
    control.run("sccctl top --count 1\n")
    control.mark = 0
    control.wait_for("^" + re.escape(guide.block("The clients", "").splitlines()[3]) + "$")
    control.run("mkdir -p /var/lib/prometheus/node-exporter\n" + guide.block("Metrics", "sh"))
    control.run("cat /var/lib/prometheus/node-exporter/scc.prom\n")
    table = (ROOT / "docs/watching.md").read_text()
    for name in re.findall(r"`(scc_[a-z_]+)`", table[table.index("The samples:") :]):
        control.mark = 0
        control.wait_for(f"^# TYPE {name} ")
    control.mark = 0
    for line in guide.block("Metrics", "").splitlines():
        control.wait_for("^" + re.sub(r" \d+$", r" \\d+", re.escape(line).replace(r"\ ", " ")) + "$")


def main():
    if os.environ.get("SCC_CLEAN_ROOT") != "1":
        sys.exit("check_guides: run scripts/check_packages.sh, which makes a root for this")
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    guides = {"README.md": readme, "docs/first-application.md": first_application, "docs/service-authors.md": service_authors,
              "docs/linux-service.md": linux_service, "docs/acl-file.md": acl_file, "docs/watching.md": watching}  # fmt: skip
    failed = False
    for name in sys.argv[1:] or guides:
        try:
            with Desk() as desk:
                guides[name](desk)
            print(f"followed: {name}", flush=True)
        except Failure as failure:
            failed = True
            print(f"check_guides: {name}: {failure}", file=sys.stderr)
    sys.exit(failed)


main()

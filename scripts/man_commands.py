#!/usr/bin/env python3
"""Compares the commands in the manual with those of the programs, or writes them into it.

usage: man_commands.py SCCCTL SCCCTL.1 SCCD-DEV.1 [--write]

The section COMMANDS of sccctl.1 is made from the help of every command; --write replaces it. sccd-dev.1 must
describe every command of the control socket.
"""
import difflib
import re
import subprocess
import sys


def output(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def roff(text):
    return text.replace("\\", "\\e").replace("-", "\\-")


def entry(program, path, options, description):
    text = output(program, *path.split(), "--help")
    operands = re.search(rf"^Usage: sccctl {re.escape(path)}(?: \[OPTIONS\])?(.*)$", text, re.M).group(1).strip()
    calls = re.search(r"^Calls (\w+)\.$", text, re.M)
    example = re.search(r"^Example: (.+)$", text, re.M)
    lines = [".TP", f".B sccctl {roff(path)}"]
    if operands:
        lines.append(f".I {roff(operands)}")
    sentence = description[0].upper() + description[1:] + "."
    lines += [f"{roff(sentence)} Calls", f".BR {calls.group(1)} (3)."] if calls else [roff(sentence)]
    own = [each for each in options if each not in ("--hex", "--field")]
    shown = f"Options: {', '.join(map(roff, own))}." if own else ""
    if len(own) != len(options):
        shown += (" " if shown else "") + "Takes \\-\\-hex and \\-\\-field."
    lines += [shown] if shown else []
    lines += [".br", "Example:", f".B {roff(example.group(1))}"] if example else []
    return lines


def commands_section(program):
    lines = []
    for row in output(program, "--list-commands").splitlines():
        path, options, description = row.split("\t")[:3]
        lines += entry(program, path, options.split(), description)
    return lines


def main(program, page, daemon_page, write):
    lines = open(page).read().splitlines()
    begin = lines.index(".SH COMMANDS") + 1
    end = next(index for index in range(begin, len(lines)) if lines[index].startswith(".SH"))
    wanted = commands_section(program)
    if write:
        lines[begin:end] = wanted
        open(page, "w").write("\n".join(lines) + "\n")
    elif lines[begin:end] != wanted:
        print("\n".join(difflib.unified_diff(lines[begin:end], wanted, page, "the commands", lineterm="", n=1)))
        return f"{page} is not up to date; {sys.argv[0]} ... --write replaces its commands"
    bold = re.findall(r"^\.B[IR]? (.*)$", open(daemon_page).read(), re.M)
    described = {word for line in bold for word in re.findall(r"[\w-]+", line.replace("\\-", "-"))}
    controls = {line.split("\t")[0] for line in output(program, "--complete", "daemon", "").splitlines()}
    missing = sorted(each for each in controls if each not in described)
    return f"{daemon_page} does not describe {', '.join(missing)}" if missing else None


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4], "--write" in sys.argv[4:]))

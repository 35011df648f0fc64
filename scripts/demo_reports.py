#!/usr/bin/env python3
"""Prints the notifications written by `sccctl --json watch` as a table."""
import json
import sys


def rows(report):
    kind = report["notification"]
    if kind == "d1x-addr-move":
        for move in report["moves"]:
            yield "address move", move["mac"], f"VLAN {move['vid_before']} to {move['vid_after']}, interface {move['ifx']}"
    elif kind in ("flow", "noflow-offline"):
        user = report["user"]
        span = f", counted {report['first']} and {report['second']}" if kind == "flow" else ""
        yield kind, user["ip"], f"{user['mac']}, VLAN {user['vid']}, interface {user['ifx']}{span}"
    elif kind == "ace-counter":
        for counter in report["counters"]:
            yield "hits", f"ACL {report['key']['acl']} ACE {counter['ace']}", f"{counter['packets']} packets"


def main():
    print(f"  {'report':<14} {'of':<20} what")
    with open(sys.argv[1], encoding="utf-8") as lines:
        for line in lines:
            for kind, subject, what in rows(json.loads(line)):
                print(f"  {kind:<14} {subject:<20} {what}")


main()

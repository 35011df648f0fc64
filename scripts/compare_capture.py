#!/usr/bin/env python3
"""Compares a capture, as tshark's dissector shows it, with the daemon's trace and with sccctl's results.

usage: compare_capture.py WIRE.pdml FOLLOWED.pdml TRACE RESULTS.json DISSECTOR.lua

WIRE is the daemon's own capture, FOLLOWED that of sccctl, which begins later. Messages of several items make
the order of a socket's items the same in trace and capture, though not that of all sockets together: items
are compared for each direction, app id and kind of socket.
"""
import collections
import json
import re
import sys
import xml.etree.ElementTree as xml

LINE = re.compile(r"^\d\d:\d\d:\d\d\.\d+ (<-|->) app=(\d+) (new|sync|async) (\d+) (\S+)(.*) \((\d+) bytes\)(?: ([0-9a-f]+))?$")
FIELD = re.compile(r' ([^ =]+)=("(?:[^"\\]|\\.)*"|[^ ]*)')
SOCKETS = {"0": "new", "1": "sync", "2": "async"}
# In no session with these programs: the daemon does not send it.
NEVER_SENT = {("operation", "nacm-def-read"), ("operation", "nacm-user-reinstall"), ("operation", "ss-authmode")}


def fail(text):
    sys.exit(f"compare_capture: {text}")


def plain(text):
    """The number of "add(1)", the text of a quoted one."""
    named = re.fullmatch(r"[^()]+\((\d+)\)", text)
    return named.group(1) if named else text.strip('"')


def names_of(text):
    named = re.fullmatch(r"([^()]+)\(\d+\)", text)
    return named.group(1) if named else ""


def traced(path):
    """The items of each socket: type, name, fields with values and names, bytes."""
    streams = collections.defaultdict(list)
    for line in open(path):
        if line[8:9] == "." and (" <- " in line or " -> " in line):
            found = LINE.match(line.rstrip("\n"))
            if not found:
                fail(f"this trace line is not understood: {line}")
            arrow, app, socket, number, name, fields, _, value = found.groups()
            pairs = FIELD.findall(fields)
            sub_id = next((text for field, text in pairs if field == "scc-type"), "0")
            shown = [(field, plain(text), names_of(text)) for field, text in pairs if field != "scc-type"]
            streams[arrow, app, socket].append((number, sub_id, name, shown, value or ""))
    return streams


def value_of(field):
    show = field.get("show", "")
    return show.replace(":", "") if field.get("name") in BYTE_FIELDS else show


def fields_below(node, prefix=""):
    """The fields of an item, in order: "list[0].name" for those of a list's elements."""
    for field in node.findall("field"):
        name = field.get("name", "")
        label = field.get("showname", "").split(":")[0]
        if name == "scc.element":
            yield from fields_below(field, prefix + label + ".")
        elif name.startswith("scc.") and not name.startswith("scc.item."):
            named = re.search(r": (\S+) \(\d+\)$", field.get("showname", ""))
            name = named.group(1) if named else ""
            yield prefix + label, value_of(field), "" if name == "Unknown" else name  # a number without a name


def captured(path):
    streams = collections.defaultdict(list)
    packets = 0
    for packet in xml.parse(path).getroot().iter("packet"):
        protocol = next((each for each in packet.findall("proto") if each.get("name") == "scc"), None)
        if protocol is None:
            fail(f"{path}: a packet is not dissected")
        packets += 1
        one = {each.get("name"): each.get("show") for each in protocol.findall("field") if each.get("name")}
        if "scc.malformed" in xml.tostring(protocol, encoding="unicode"):
            fail(f"{path}: a malformed message")
        arrow = "->" if one["scc.packet.direction"] == "1" else "<-"
        stream = streams[arrow, one["scc.packet.app"], SOCKETS[one["scc.packet.socket"]]]
        for item in protocol.findall("field[@name='scc.item']"):
            head = {each.get("name"): each for each in item.findall("field")}
            value = head["scc.item.value"].get("value") if "scc.item.value" in head else ""
            stream.append((head["scc.item.type"].get("show"), head["scc.item.sub_id"].get("show"),
                           head["scc.item.name"].get("show"), list(fields_below(item)), value))
    return streams, packets


def difference(trace, wire):
    for kind, left, right in zip(("type", "scc-type", "name"), trace, wire):
        if left != right:
            return f"{kind} {left} in the trace, {right} in the capture"
    if trace[4] != wire[4]:
        return "other bytes"
    for left, right in zip(trace[3], wire[3]):
        if left != right:
            return f"{left} in the trace, {right} in the capture"
    return "" if len(trace[3]) == len(wire[3]) else f"fields {trace[3]} in the trace, {wire[3]} in the capture"


def compare_with_trace(streams, traces):
    items = values = 0
    if set(streams) != set(traces):
        fail(f"sockets {sorted(set(streams) ^ set(traces))} are in one of capture and trace alone")
    for socket, stream in streams.items():
        if len(stream) != len(traces[socket]):
            fail(f"{socket}: {len(stream)} items in the capture, {len(traces[socket])} in the trace")
        for index, (trace, wire) in enumerate(zip(traces[socket], stream)):
            problem = difference(trace, wire)
            if problem:
                fail(f"{socket}, item {index}, {wire[2]}: {problem}")
            items += 1
            values += len(wire[3])
    return items, values


def compare_with_results(streams, path):
    """The requests of the shell's session, one for each result that has a call id and was asked for."""
    results = [json.loads(line) for line in open(path)]
    asked = [each for each in results if "call_id" in each and each["function"] not in QUERIES]
    sent = [each for each in streams["<-", "19", "async"] if each[3] and each[3][0][0] == "call" and each[2] != "data-recover"]
    compared = 0
    for result, item in zip(asked, sent):
        fields = {name: value for name, value, _ in item[3]}
        if str(result["call_id"]) != fields["call"]:
            fail(f"{result['command']} has call {result['call_id']}, {item[2]} has {fields['call']}")
        for name in set(result) & set(fields) - {"result", "text", "mask", "type"}:
            value = ",".join(map(str, result[name])) if isinstance(result[name], list) else str(result[name])
            if value != fields[name]:
                fail(f"{result['command']}: sccctl sent {name}={value}, {item[2]} has {fields[name]}")
            compared += 1
    if len(asked) < 50 or compared < 150:
        fail(f"{len(asked)} results and {compared} values are too few")
    return compared


def missing_messages(streams, dissector):
    known = set(re.findall(r'^messages\.(\w+)\[\d+\] = \{name = "([^"]+)"', open(dissector).read(), re.M))
    if len(known) < 100:
        fail("the dissector has no messages")
    seen = set()
    for (arrow, app, _), stream in streams.items():
        own, all_clients = (("operation", "to_client") if arrow == "->" else ("report", "request"))
        for item in stream:
            seen |= {(route, item[2]) for route in ((own, all_clients) if app == "16" else (all_clients,))}
    if seen & NEVER_SENT:
        fail(f"{sorted(seen & NEVER_SENT)} are sent after all")
    return sorted(known - seen - NEVER_SENT)


QUERIES = {"scc_sp_port_addr_num", "scc_nac_span_dport_set"}
wire_path, followed_path, trace_path, results_path, dissector_path = sys.argv[1:]
BYTE_FIELDS = set(re.findall(r'ProtoField\.bytes\("([^"]+)"', open(dissector_path).read()))
wire_streams, wire_packets = captured(wire_path)
followed_streams, followed_packets = captured(followed_path)
if wire_streams != followed_streams or wire_packets != followed_packets:
    fail(f"sccctl followed {followed_packets} of {wire_packets} messages, or others")
item_count, value_count = compare_with_trace(wire_streams, traced(trace_path))
result_count = compare_with_results(wire_streams, results_path)
missing = missing_messages(wire_streams, dissector_path)
if missing:
    fail(f"in no message: {missing}")
print(f"{wire_packets} messages, {item_count} items, {value_count} values as in the trace, {result_count} as in sccctl's results")

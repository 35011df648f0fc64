#!/usr/bin/env python3
"""make_malformed_capture.py FILE: a capture whose messages are all malformed; prints how many there are."""
import struct
import sys


def block(kind, body):
    body += b"\0" * (-len(body) % 4)
    return struct.pack("<II", kind, len(body) + 12) + body + struct.pack("<I", len(body) + 12)


def packet(message, app=5, direction=0):
    data = struct.pack("<BBBBII", 1, direction, 2, 0, app, 77) + message
    return block(6, struct.pack("<IIIII", 0, 0, 0, len(data), len(data)) + data)


def message(items, count=1, length=None):
    return struct.pack("<IBHB", 8 + len(items) if length is None else length, 1, count, 0) + items


def item(value, number=131, length=None):
    return struct.pack("<IHH", len(value) if length is None else length, 0, number) + value


MALFORMED = [
    b"\x01",
    message(b"", length=7),
    message(b"", length=0xFFFFFFFF),
    message(b"", count=1),
    message(item(b"abc"), count=65535),
    message(item(b"abc", length=4)),
    message(item(b"abc", length=0xFFFFFFFF)),
    message(item(b"abc") + b"\0" * 7),
]
# Not malformed, but with values that end within fields, and of unknown types.
SHORT = [message(item(b"\x01" * length, number)) for number in (101, 110, 131, 134, 157, 167, 999) for length in (0, 1, 5, 9, 31)]

with open(sys.argv[1], "wb") as capture:
    capture.write(block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)))
    capture.write(block(1, struct.pack("<HHI", 147, 0, 0)))
    for each in MALFORMED:
        capture.write(packet(each))
    for each in SHORT:
        for app, direction in ((5, 0), (5, 1), (16, 0), (16, 1)):
            capture.write(packet(each, app, direction))
print(len(MALFORMED))

#!/usr/bin/python3
"""Makes frames.json, 200 frames with what scapy reads in them: the expectation of the frame parser's tests.

usage: make_frames.py FILE

Each line is one frame: its bytes, the fields that scapy finds when it dissects these bytes, a rule that matches
the frame, and rules that do not, each because of one field. The frames are chosen by a seed, so the file is the
same every time.
"""
import json
import pathlib
import random
import sys

from scapy.config import conf
from scapy.contrib.igmp import IGMP
from scapy.layers.inet import ICMP, IP, TCP, UDP, IPOption_NOP, IPOption_Timestamp
from scapy.layers.inet6 import (ICMPv6EchoRequest, ICMPv6ND_NS, ICMPv6PacketTooBig, IPv6, IPv6ExtHdrDestOpt,
                                IPv6ExtHdrFragment, IPv6ExtHdrHopByHop, IPv6ExtHdrRouting, PadN)
from scapy.layers.l2 import ARP, GRE, Dot1AD, Dot1Q, Ether
from scapy.layers.sctp import SCTP
from scapy.packet import Raw

COUNT = 200
PORTED = {TCP: "tcp", UDP: "udp", SCTP: "132"}
EXTENSIONS = (IPv6ExtHdrHopByHop, IPv6ExtHdrRouting, IPv6ExtHdrDestOpt, IPv6ExtHdrFragment)

dice = random.Random(20261122)


def mac():
    return "02:00:00:00:%02x:%02x" % (dice.randrange(256), dice.randrange(256))


def ipv4():
    return "%d.%d.%d.%d" % (dice.choice((10, 172, 192)), dice.randrange(256), dice.randrange(256), dice.randrange(1, 255))


def ipv6():
    return "2001:db8:%x::%x" % (dice.randrange(1, 0xFFFF), dice.randrange(1, 0xFFFF))


def port():
    return dice.choice((dice.randrange(1, 65536), 22, 53, 80, 443))


def tags():
    vlan = lambda: dice.randrange(1, 4095)  # noqa: E731
    pcp = lambda: dice.randrange(8)  # noqa: E731
    return dice.choice([
        lambda: [], lambda: [], lambda: [Dot1Q(vlan=vlan(), prio=pcp())],
        lambda: [Dot1Q(vlan=0, prio=pcp())],
        lambda: [Dot1AD(vlan=vlan(), prio=pcp()), Dot1Q(vlan=vlan(), prio=pcp())],
        lambda: [Dot1Q(vlan=vlan(), prio=pcp()), Dot1Q(vlan=vlan(), prio=pcp())],
    ])()


def transport4():
    return dice.choice([
        lambda: TCP(sport=port(), dport=port(), flags=dice.choice(("S", "SA", "A", "PA", "FA", "R", "RA", "F"))),
        lambda: TCP(sport=port(), dport=port(), flags="S", options=[("MSS", 1460), ("SAckOK", b"")]),
        lambda: UDP(sport=port(), dport=port()) / Raw(b"scc"),
        lambda: SCTP(sport=port(), dport=port()),
        lambda: ICMP(type=dice.choice((0, 3, 8, 11)), code=dice.randrange(4)),
        lambda: ICMP(type=3, code=3) / IP(src=ipv4(), dst=ipv4()) / UDP(sport=port(), dport=port()),
        lambda: IGMP(type=0x16, gaddr="239.1.2.3"),
        lambda: GRE(proto=0x0800) / IP(src=ipv4(), dst=ipv4()) / TCP(sport=port(), dport=port()),
    ])()


def transport6():
    return dice.choice([
        lambda: TCP(sport=port(), dport=port(), flags=dice.choice(("S", "SA", "A", "R"))),
        lambda: UDP(sport=port(), dport=port()) / Raw(b"scc"),
        lambda: ICMPv6EchoRequest(id=dice.randrange(1, 100)),
        lambda: ICMPv6ND_NS(tgt=ipv6()),
        lambda: ICMPv6PacketTooBig(mtu=1280),
    ])()


def packet4():
    options = dice.choice([[], [], [], [IPOption_NOP()] * 4, [IPOption_Timestamp()]])
    head = IP(src=ipv4(), dst=ipv4(), tos=dice.randrange(256), options=options)
    kind = dice.randrange(8)
    if kind == 0:  # a fragment after the first, with bytes that could be ports
        head.frag, head.flags, head.proto = dice.randrange(1, 8000), dice.choice((0, "MF")), dice.choice((6, 17, 1))
        return head / Raw(b"\x00\x50\x01\xbb" * 5)
    if kind == 1:  # the first fragment
        head.flags = "MF"
    return head / transport4()


def packet6():
    head = IPv6(src=ipv6(), dst=ipv6(), tc=dice.randrange(256), fl=dice.randrange(1 << 20))
    kind = dice.randrange(8)
    if kind == 0:
        return head / IPv6ExtHdrFragment(offset=dice.randrange(1, 8000), m=dice.randrange(2), nh=17) / Raw(b"\x00\x50" * 8)
    chain = dice.choice([
        lambda: [], lambda: [], lambda: [IPv6ExtHdrHopByHop(options=[PadN(optdata=b"\0" * 4)])],
        lambda: [IPv6ExtHdrDestOpt(options=[PadN(optdata=b"\0" * 12)])],
        lambda: [IPv6ExtHdrRouting(addresses=[ipv6()])],
        lambda: [IPv6ExtHdrFragment(offset=0, m=1)],
        lambda: [IPv6ExtHdrHopByHop(options=[PadN(optdata=b"\0" * 4)]), IPv6ExtHdrFragment(offset=0, m=1),
                 IPv6ExtHdrDestOpt(options=[PadN(optdata=b"\0" * 4)])],
    ])()
    for each in chain:
        head = head / each
    return head / transport6()


def frame():
    made = Ether(src=mac(), dst=mac())
    for tag in tags():
        made = made / tag
    kind = dice.randrange(20)
    if kind < 10:
        return made / packet4()
    if kind < 17:
        return made / packet6()
    if kind < 19:
        return made / ARP(op=dice.choice((1, 2)), psrc=ipv4(), pdst=ipv4())
    made.lastlayer().type = dice.choice((0x88CC, 0x8847, 0x88F7))
    return made / Raw(bytes(dice.randrange(256) for _ in range(46)))


def tags_of(seen):
    found, layer = [], seen.payload
    while isinstance(layer, Dot1Q):  # Dot1AD as well
        found.append(layer)
        layer = layer.payload
    return found


def fields_of(seen):
    """What scapy finds; the numbers of a layer that is not there are absent."""
    stack = tags_of(seen)
    found = {"src_mac": seen.src, "dst_mac": seen.dst, "tags": [{"vid": tag.vlan, "cos": tag.prio} for tag in stack],
             "ethertype": (stack[-1] if stack else seen).type}
    bottom = stack[-1].payload if stack else seen.payload
    if isinstance(bottom, IP):
        found.update(network="ipv4", src=bottom.src, dst=bottom.dst, dscp=bottom.tos >> 2, protocol=bottom.proto,
                     later_fragment=bottom.frag != 0)
        upper = bottom.payload
    elif isinstance(bottom, IPv6):
        found.update(network="ipv6", src=bottom.src, dst=bottom.dst, dscp=bottom.tc >> 2, protocol=bottom.nh,
                     later_fragment=False)
        upper = bottom.payload
        while isinstance(upper, EXTENSIONS):
            found["protocol"] = upper.nh
            if isinstance(upper, IPv6ExtHdrFragment):
                found["later_fragment"] = upper.offset != 0
            upper = upper.payload
    elif isinstance(bottom, ARP):
        found.update(network="arp", src=bottom.psrc, dst=bottom.pdst)
        return found
    else:
        found.update(network="other")
        return found
    if type(upper) in PORTED:
        found.update(sport=upper.sport, dport=upper.dport)
    if isinstance(upper, TCP):
        found["tcp_flags"] = int(upper.flags)
    if isinstance(upper, ICMP) or type(upper).__name__.startswith("ICMPv6"):
        found.update(icmp_type=upper.type, icmp_code=upper.code)
    return found


def other(number, most):
    return number - 1 if number == most else number + 1


def rules_of(found):
    """A rule with every field of the frame, and one for each field with another value in its place."""
    words = []  # (key, what matches, what does not)
    is_ip = found["network"] in ("ipv4", "ipv6")
    if is_ip:
        words.append(("protocol", str(found["protocol"]), str(other(found["protocol"], 255))))
        away = {"ipv4": "198.51.100.77", "ipv6": "2001:db8:ffff:1::77"}[found["network"]]
        words.append(("src", f"host {found['src']}", f"host {away}"))
        if "sport" in found:
            words.append(("sport", f"port {found['sport']}", f"port {other(found['sport'], 65535)}"))
        words.append(("dst", f"host {found['dst']}", f"host {away}"))
        if "dport" in found:
            words.append(("dport", f"port {found['dport']}", f"port {other(found['dport'], 65535)}"))
        words.append(("dscp", f"dscp {found['dscp']}", f"dscp {other(found['dscp'], 63)}"))
    else:
        words.append(("ethertype", f"ether ethertype {found['ethertype']}", f"ether ethertype {other(found['ethertype'], 65535)}"))
    words.append(("src_mac", f"src-mac {found['src_mac']}", "src-mac 02:aa:00:00:00:00"))
    words.append(("dst_mac", f"dst-mac {found['dst_mac']}", "dst-mac 02:aa:00:00:00:00"))
    stack = found["tags"]
    if stack and stack[0]["vid"]:
        words.append(("vlan", f"vlan {stack[0]['vid']}", f"vlan {other(stack[0]['vid'], 4094)}"))
    if stack:
        words.append(("cos", f"cos {stack[0]['cos']}", f"cos {other(stack[0]['cos'], 7)}"))
    if len(stack) > 1:
        words.append(("inner_vlan", f"inner-vlan {stack[1]['vid']}", f"inner-vlan {other(stack[1]['vid'], 4094)}"))
    if "icmp_type" in found:
        words.append(("icmp_type", f"icmp-type {found['icmp_type']}", f"icmp-type {other(found['icmp_type'], 255)}"))
        words.append(("icmp_code", f"icmp-code {found['icmp_code']}", f"icmp-code {other(found['icmp_code'], 255)}"))
    if found.get("tcp_flags", 0) & 0x14:
        words.append(("established", "established", None))
    if found.get("later_fragment"):
        words.append(("fragments", "fragments", None))
    matching = "permit " + " ".join(right for _, right, _ in words)
    failing = []
    for index, (_, _, wrong) in enumerate(words):
        if wrong is None:
            continue
        is_other_protocol = words[index][0] == "protocol"
        # Other protocols have neither ports nor ICMP types.
        kept = [right for key, right, _ in words if not is_other_protocol or key in ("protocol", "src", "dst", "dscp")]
        kept[index] = wrong
        failing.append("permit " + " ".join(kept))
    if is_ip and not found["later_fragment"]:
        failing.append(f"permit {found['protocol']} host {found['src']} host {found['dst']} fragments")
    if "tcp_flags" in found and not found["tcp_flags"] & 0x14:
        failing.append("permit tcp any any established")
    return {"matches": matching, "fails": failing}


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    conf.debug_dissector = True  # a layer that scapy cannot read is an error here, not raw bytes
    lines = []
    while len(lines) < COUNT:
        sent = bytes(frame())
        found = fields_of(Ether(sent))
        lines.append(json.dumps({"bytes": sent.hex(), "fields": found, "rules": rules_of(found)}))
    pathlib.Path(sys.argv[1]).write_text("\n".join(lines) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()

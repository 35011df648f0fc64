#!/usr/bin/python3
"""Make data/verdicts.txt: frames, rules, and which rule matches which frame.

The frames are scapy's. Whether a rule matches is decided here, from scapy's fields and the rule's parts, not by
any code of the service. The file has a line "frame HEX" for each frame and a line "rule BITS TEXT" for each rule;
BITS has a digit for each frame, 1 where the rule matches.

usage: make_verdicts.py > data/verdicts.txt
"""

import ipaddress
import random

from scapy.layers.inet import ICMP, IP, TCP, UDP
from scapy.layers.inet6 import (ICMPv6EchoRequest, IPv6, IPv6ExtHdrDestOpt, IPv6ExtHdrFragment)
from scapy.layers.l2 import ARP, Dot1AD, Dot1Q, Ether
from scapy.layers.sctp import SCTP
from scapy.packet import Raw

FRAMES = 40
RULES = 200
SEED = 20261122
MACS = [f"02:00:00:00:{n:02x}:01" for n in range(4)]
TARGETS = ["02:00:00:00:00:fe", "02:00:00:00:01:fe"]
IPV4 = ["10.0.0.1", "10.0.1.2", "192.0.2.3", "198.51.100.4"]
IPV6 = ["2001:db8::1", "2001:db8:1::2", "fd00::3"]
PORTS = [22, 80, 443, 1024, 40000]


def frames(pick):
    """FRAMES frames of every kind that the rules tell apart."""
    transports = [
        lambda: TCP(sport=pick.choice(PORTS), dport=pick.choice(PORTS), flags=pick.choice(["S", "A", "SA", "R", "FPU"])),
        lambda: UDP(sport=pick.choice(PORTS), dport=pick.choice(PORTS)),
        lambda: SCTP(sport=pick.choice(PORTS), dport=pick.choice(PORTS)),
    ]
    made = []
    for number in range(FRAMES):
        frame = Ether(src=pick.choice(MACS), dst=pick.choice(TARGETS))
        if number % 4 == 1:
            frame /= Dot1Q(vlan=pick.choice([10, 20]), prio=pick.randrange(8))
        if number % 10 == 4:
            frame /= Dot1AD(vlan=pick.choice([10, 30]), prio=pick.randrange(8))
        kind = number % 8
        if kind in (0, 1, 2):
            frame /= IP(src=pick.choice(IPV4), dst=pick.choice(IPV4), tos=pick.choice([0, 184, 40])) / transports[kind]()
        elif kind == 3:
            frame /= IP(src=pick.choice(IPV4), dst=pick.choice(IPV4)) / ICMP(type=pick.choice([0, 8, 3]), code=pick.choice([0, 1]))
        elif kind == 4:
            frame /= IPv6(src=pick.choice(IPV6), dst=pick.choice(IPV6), tc=pick.choice([0, 184])) / transports[number % 3]()
        elif kind == 5:
            extension = pick.choice([None, IPv6ExtHdrDestOpt(), IPv6ExtHdrFragment(offset=0, m=1), IPv6ExtHdrFragment(offset=5)])
            ip = IPv6(src=pick.choice(IPV6), dst=pick.choice(IPV6))
            frame /= (ip / extension if extension else ip) / UDP(sport=pick.choice(PORTS), dport=pick.choice(PORTS))
        elif kind == 6:
            frame /= IP(src=pick.choice(IPV4), dst=pick.choice(IPV4), frag=pick.choice([0, 3]), flags=pick.choice([0, "MF"])) / transports[number % 2]()
        else:
            frame /= pick.choice([
                lambda: ARP(op=1, psrc=pick.choice(IPV4), pdst=pick.choice(IPV4)),
                lambda: IPv6(src=pick.choice(IPV6), dst=pick.choice(IPV6)) / ICMPv6EchoRequest(),
                lambda: IP(src=pick.choice(IPV4), dst=pick.choice(IPV4), proto=47) / Raw(b"gre"),
            ])()
        # The number makes every frame different from all others.
        made.append(Ether(bytes(frame / Raw(b"frame %04d" % number + bytes(40)))))
    return made


class Facts:
    """What a rule may ask about a frame."""

    def __init__(self, frame):
        self.source_mac, self.target_mac = frame.src, frame.dst
        tag = frame.getlayer(Dot1Q) or frame.getlayer(Dot1AD)
        self.vlan = tag.vlan if tag else 0
        self.cos = tag.prio if tag else None
        self.ethertype = tag.type if tag else frame.type
        ip, ip6 = frame.getlayer(IP), frame.getlayer(IPv6)
        self.version = 4 if ip else 6 if ip6 else 0
        self.later_fragment = False
        self.protocol = self.dscp = self.source = self.target = None
        if ip:
            self.source, self.target = ip.src, ip.dst
            self.protocol, self.dscp, self.later_fragment = ip.proto, ip.tos >> 2, ip.frag > 0
        if ip6:
            self.source, self.target, self.dscp = ip6.src, ip6.dst, ip6.tc >> 2
            last = ip6
            for kind in (IPv6ExtHdrDestOpt, IPv6ExtHdrFragment):
                last = frame.getlayer(kind) or last
            self.protocol = last.nh
            fragment = frame.getlayer(IPv6ExtHdrFragment)
            self.later_fragment = bool(fragment and fragment.offset > 0)
        self.ports = self.flags = self.icmp = None
        if not self.later_fragment:
            for kind in (TCP, UDP, SCTP):
                layer = frame.getlayer(kind)
                if layer is not None:
                    self.ports = (layer.sport, layer.dport)
            if frame.haslayer(TCP):
                self.flags = int(frame[TCP].flags)
            if frame.haslayer(ICMP):
                self.icmp = (frame[ICMP].type, frame[ICMP].code)
            if frame.haslayer(ICMPv6EchoRequest):
                self.icmp = (frame[ICMPv6EchoRequest].type, frame[ICMPv6EchoRequest].code)


def mac_number(text):
    return int(text.replace(":", ""), 16)


def address(pick, version):
    """The text of an address, and what it matches."""
    hosts = IPV4 if version == 4 else IPV6
    host = pick.choice(hosts)
    form = pick.randrange(4 if version == 4 else 3)
    if form == 0:
        return "any", lambda address: True
    if form == 1:
        return f"host {host}", lambda address: ipaddress.ip_address(address) == ipaddress.ip_address(host)
    if form == 2:
        net = ipaddress.ip_network(f"{host}/{pick.choice([8, 16, 24, 31] if version == 4 else [16, 48, 127])}", strict=False)
        return str(net), lambda address: ipaddress.ip_address(address) in net
    wildcard = pick.choice([0x00FF00FF, 0x000000FF, 0x01000001])
    base = int(ipaddress.ip_address(host)) & ~wildcard
    text = f"{ipaddress.ip_address(base)} {ipaddress.ip_address(wildcard)}"
    return text, lambda address: int(ipaddress.ip_address(address)) & ~wildcard == base


def ports(pick):
    port = pick.choice(PORTS)
    form = pick.randrange(6)
    if form == 0:
        return "", None
    if form == 1:
        return f" eq {port}", lambda number: number == port
    if form == 2:
        return f" range {port} {port + 400}", lambda number: port <= number <= port + 400
    if form == 3:
        return f" neq {port}", lambda number: number != port
    if form == 4:
        return f" lt {port}", lambda number: number < port
    return f" port {port},8000-50000", lambda number: number == port or 8000 <= number <= 50000


def rule(pick):
    """A rule's text after the action, and the conditions that a frame's facts must meet."""
    conditions = []
    kind = pick.choice(["ether", "ip", "ip", "ipv6", "tcp", "tcp", "udp", "icmp", "sctp", "47"])
    text = kind
    if kind == "ether":
        if pick.random() < 0.5:
            ethertype = pick.choice([0x0800, 0x0806, 0x86DD])
            text += f" ethertype {ethertype}"
            conditions.append(lambda facts: facts.ethertype == ethertype)
    else:
        version = 6 if kind == "ipv6" else 4 if kind == "ip" else pick.choice([0, 4, 6])
        if kind in ("icmp", "47") and version == 6:
            version = 4
        source, target = ("any", lambda a: True), ("any", lambda a: True)
        if version:
            source, target = address(pick, version), address(pick, version)
            if kind not in ("ip", "ipv6") and source[0] == target[0] == "any":
                version = 0
        families = (version,) if version else (4, 6)
        conditions.append(lambda facts: facts.version in families)
        conditions.append(lambda facts: source[1](facts.source) and target[1](facts.target))
        protocol = {"tcp": 6, "udp": 17, "icmp": 1, "sctp": 132, "47": 47}.get(kind)
        if protocol is not None:
            conditions.append(lambda facts: facts.protocol == protocol)
        from_ports, to_ports = ("", None), ("", None)
        if kind in ("tcp", "udp", "sctp") and pick.random() < 0.7:
            from_ports, to_ports = ports(pick), ports(pick)
        for index, wanted in enumerate((from_ports[1], to_ports[1])):
            if wanted is not None:
                conditions.append(lambda facts, i=index, w=wanted: facts.ports is not None and w(facts.ports[i]))
        text += f" {source[0]}{from_ports[0]} {target[0]}{to_ports[0]}"
        if kind == "tcp" and pick.random() < 0.2:
            text += " established"
            conditions.append(lambda facts: facts.flags is not None and facts.flags & 0x14 != 0)
        if kind == "icmp" and pick.random() < 0.5:
            number = pick.choice([0, 8, 3])
            text += f" icmp-type {number}"
            conditions.append(lambda facts: facts.icmp is not None and facts.icmp[0] == number)
        if pick.random() < 0.15:
            dscp = pick.choice([0, 46, 10])
            text += f" dscp {dscp}"
            conditions.append(lambda facts: facts.dscp == dscp)
        if from_ports[1] is None and to_ports[1] is None and kind in ("ip", "ipv6") and pick.random() < 0.2:
            text += " fragments"
            conditions.append(lambda facts: facts.later_fragment)
    if pick.random() < 0.2:
        mac, mask = pick.choice(MACS), pick.choice(["ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:00:ff", "00:00:00:00:ff:00"])
        text += f" src-mac {mac}/{mask}"
        conditions.append(lambda facts: (mac_number(facts.source_mac) ^ mac_number(mac)) & mac_number(mask) == 0)
    if pick.random() < 0.1:
        target_mac = pick.choice(TARGETS)
        text += f" dst-mac {target_mac}"
        conditions.append(lambda facts: facts.target_mac == target_mac)
    if pick.random() < 0.15:
        vlan = pick.choice([10, 20, 30])
        text += f" vlan {vlan}"
        conditions.append(lambda facts: facts.vlan == vlan)
    if pick.random() < 0.07:
        cos = pick.randrange(8)
        text += f" cos {cos}"
        conditions.append(lambda facts: facts.cos == cos)
    return text, conditions


def main():
    pick = random.Random(SEED)
    made = frames(pick)
    facts = [Facts(frame) for frame in made]
    for frame in made:
        print("frame", bytes(frame).hex())
    seen = set()
    while len(seen) < RULES:
        text, conditions = rule(pick)
        matches = [all(condition(one) for condition in conditions) for one in facts]
        # Rules that match nothing say little: one in four of them is enough.
        if text in seen or (not any(matches) and pick.random() < 0.75):
            continue
        seen.add(text)
        print("rule", "".join("1" if match else "0" for match in matches), text)


main()

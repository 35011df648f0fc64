#!/usr/bin/python3
"""Make a deterministic Ethernet capture for scc-ss-dev --pcap.

The packets cycle through the flows below at fixed intervals, so that the number of packets per flow depends
only on --packets; the script prints the numbers. One host moves from VLAN 10 to VLAN 20 after the first half,
and one host stops there.

  flow         VLAN  source                                destination
  web          10    02:00:00:00:00:01 192.0.2.1:40001     198.51.100.1:80    TCP
  secure web   10    02:00:00:00:00:02 192.0.2.2:40002     198.51.100.1:443   TCP
  names        10    02:00:00:00:00:03 192.0.2.3:40003     198.51.100.53:53   UDP
  ping         20    02:00:00:00:00:04 192.0.2.4           198.51.100.1       ICMP
  web over v6  20    02:00:00:00:00:05 2001:db8::5:40005   2001:db8::80:80    TCP
  arp          none  02:00:00:00:00:06 192.0.2.6           192.0.2.254        ARP request
  stopping     20    02:00:00:00:00:07 192.0.2.7:40007     198.51.100.1:9     UDP, first half alone
  moving       10/20 02:00:00:00:00:08 192.0.2.8:40008     198.51.100.1:9     UDP
"""

import argparse
import sys

from scapy.layers.inet import ICMP, IP, TCP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import ARP, Dot1Q, Ether
from scapy.utils import PcapWriter

ROUTER = "02:00:00:00:00:fe"
BROADCAST = "ff:ff:ff:ff:ff:ff"


def mac(host):
    return f"02:00:00:00:00:{host:02x}"


def tagged(host, vlan):
    return Ether(src=mac(host), dst=ROUTER) / Dot1Q(vlan=vlan)


def ipv4(host, target):
    return IP(src=f"192.0.2.{host}", dst=target)


def web(_):
    return tagged(1, 10) / ipv4(1, "198.51.100.1") / TCP(sport=40001, dport=80)


def secure_web(_):
    return tagged(2, 10) / ipv4(2, "198.51.100.1") / TCP(sport=40002, dport=443)


def names(_):
    return tagged(3, 10) / ipv4(3, "198.51.100.53") / UDP(sport=40003, dport=53)


def ping(_):
    return tagged(4, 20) / ipv4(4, "198.51.100.1") / ICMP(id=4, seq=1)


def web_over_v6(_):
    return tagged(5, 20) / IPv6(src="2001:db8::5", dst="2001:db8::80") / TCP(sport=40005, dport=80)


def arp(_):
    request = ARP(op=1, hwsrc=mac(6), psrc="192.0.2.6", hwdst="00:00:00:00:00:00", pdst="192.0.2.254")
    return Ether(src=mac(6), dst=BROADCAST) / request


def stopping(second_half):
    if second_half:
        return None
    return tagged(7, 20) / ipv4(7, "198.51.100.1") / UDP(sport=40007, dport=9)


def moving(second_half):
    return tagged(8, 20 if second_half else 10) / ipv4(8, "198.51.100.1") / UDP(sport=40008, dport=9)


FLOWS = [web, secure_web, names, ping, web_over_v6, arp, stopping, moving]


def packets(total):
    """Yield (flow, packet) until there are total packets; silent flows are skipped."""
    made = turn = 0
    while made < total:
        flow = FLOWS[turn % len(FLOWS)]
        turn += 1
        packet = flow(2 * made >= total)
        if packet is None:
            continue
        made += 1
        yield flow.__name__, packet


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True, help="capture file to write")
    parser.add_argument("--packets", type=int, default=500, help="packets in all (default %(default)s)")
    parser.add_argument("--gap-ms", type=int, default=100, help="between two packets (default %(default)s)")
    parser.add_argument("--start", type=int, default=1_700_000_000, help="time of the first, seconds since 1970")
    arguments = parser.parse_args()

    counts = {flow.__name__: [0, 0] for flow in FLOWS}
    with PcapWriter(arguments.out, linktype=1) as writer:
        writer.write_header(None)
        for index, (name, packet) in enumerate(packets(arguments.packets)):
            elapsed_ms = index * arguments.gap_ms
            raw = bytes(packet)
            writer.write_packet(raw, sec=arguments.start + elapsed_ms // 1000, usec=elapsed_ms % 1000 * 1000)
            counts[name][0] += 1
            counts[name][1] += len(raw)
    for name, (number, size) in counts.items():
        print(f"{name}: {number} packets, {size} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main())

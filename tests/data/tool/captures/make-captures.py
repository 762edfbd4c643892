#!/usr/bin/python3
"""Writes the small captures of the tool's tests into this folder.

Run once when the test data changes (python3-scapy builds the frames); the
captures are committed, so the tests themselves need no scapy.
"""
import os
import struct

from scapy.all import (BOOTP, DHCP, ICMP, IP, IPv6, PPPoE, TCP, UDP, Dot1Q, Ether, Raw)

HERE = os.path.dirname(os.path.abspath(__file__))
CLIENT_MAC = "02:00:00:00:00:02"
SERVER_MAC = "02:00:00:00:00:01"


def write_pcap(name, frames, snaplen=65535):
    """A classic pcap file (little endian, Ethernet) keeping at most `snaplen` bytes of each frame."""
    with open(os.path.join(HERE, name), "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, snaplen, 1))
        for second, frame in enumerate(frames, start=1):
            data = bytes(frame)
            kept = data[:snaplen]
            out.write(struct.pack("<IIII", second, 0, len(kept), len(data)))
            out.write(kept)


def eth(payload, vlan=None):
    frame = Ether(src=CLIENT_MAC, dst=SERVER_MAC)
    if vlan is not None:
        frame = frame / Dot1Q(vlan=vlan)
    return frame / payload


def udp_with_checksum(checksum):
    packet = IP(src="192.0.2.10", dst="192.0.2.1") / UDP(sport=5353, dport=5353) / Raw(b"zero")
    packet = IP(bytes(packet))  # the correct checksum filled in
    if checksum is not None:
        packet[UDP].chksum = checksum
    return eth(packet)


def pppoe(payload, proto, vlan=None):
    """A PPPoE session frame; the PPP protocol field in its full two bytes,
    as PPPoE peers send it."""
    return eth(PPPoE(sessionid=0x1234) / Raw(struct.pack(">H", proto) + bytes(payload)), vlan)


def dhcp_options_message():
    """A DHCP ACK whose router (6 bytes for IPv4 addresses) and lease time
    (3 bytes for a 32-bit number) do not fit their formats."""
    options = bytes([53, 1, 5])
    options += bytes([1, 4, 255, 255, 255, 0])
    options += bytes([3, 6, 192, 0, 2, 1, 0, 0])
    options += bytes([6, 8, 192, 0, 2, 53, 198, 51, 100, 53])
    options += bytes([12, 11]) + b"raspberrypi"
    options += bytes([51, 3, 0, 0, 60])
    options += bytes([57, 2, 5, 192])
    options += bytes([55, 3, 1, 3, 6])
    options += bytes([255])
    bootp = BOOTP(op=2, xid=0x1234, yiaddr="192.0.2.50", chaddr=bytes.fromhex("020000000002") + bytes(10),
                  options=b"\x63\x82\x53\x63" + options)
    return eth(IP(src="192.0.2.1", dst="192.0.2.50") / UDP(sport=67, dport=68) / bootp)


def dhcp_discover():
    bootp = BOOTP(op=1, xid=0x77, chaddr=bytes.fromhex("020000000002") + bytes(10))
    return eth(IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) / bootp /
               DHCP(options=[("message-type", "discover"), ("vendor_class_id", b"android-dhcp-13"), "end"]))


write_pcap("udp-zero-checksum.pcap", [udp_with_checksum(0), udp_with_checksum(None), udp_with_checksum(0xBEEF)])

write_pcap("pppoe-session.pcap", [
    pppoe(IP(src="100.64.0.2", dst="198.51.100.53") / UDP(sport=40000, dport=53) / Raw(b"query"), 0x0021),
    pppoe(IPv6(src="2001:db8::2", dst="2001:db8:1::443") / TCP(sport=40001, dport=443, flags="S"), 0x0057),
    pppoe(Raw(b"\x09\x01\x00\x08\x00\x00\x00\x00"), 0xC021),  # LCP echo request
    pppoe(IP(src="100.64.0.2", dst="198.51.100.1") / ICMP(type=8), 0x0021, vlan=7),
])

# As a router's capture with snap length 64 keeps them.
write_pcap("snapped-64.pcap", [
    eth(IP(src="192.0.2.10", dst="192.0.2.80") / TCP(sport=40002, dport=80, flags="PA") / Raw(b"x" * 200)),
    dhcp_discover(),
    eth(IPv6(src="2001:db8::2", dst="2001:db8::53") / UDP(sport=40003, dport=53) / Raw(b"q" * 40)),
], snaplen=64)

write_pcap("dhcp-lengths.pcap", [dhcp_options_message()])

# Given to classify in the place of a rule file.
write_pcap("refused.pcap", [eth(IP(src="192.0.2.10", dst="192.0.2.53") / UDP(sport=40004, dport=53) / Raw(b"q"))])

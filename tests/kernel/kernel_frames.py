#!/usr/bin/python3
"""Frames at the edges of what the kernel's tc classifier reads, written as
one Ethernet capture: link layers with and without tags (cut short and
stacked beyond what the program reads), PPPoE sessions, IPv4 headers with
options, impossible header lengths and stated lengths that disagree with the
frame, fragments, IPv6 extension chains around the program's walk limit,
ports, TCP flag words and addresses at the edges of the rule files'
prefixes (tests/data/kernel/*.rules).

Usage: kernel_frames.py OUTPUT.pcap
Prints the number of frames written."""

import sys

from scapy.all import (ARP, ICMP, IP, TCP, UDP, Dot1AD, Dot1Q, Ether, ICMPv6EchoReply, ICMPv6EchoRequest,
                       ICMPv6ND_NS, ICMPv6ND_RA, ICMPv6ND_RS, ICMPv6ND_NA, ICMPv6DestUnreach, ICMPv6Unknown,
                       IPv6, IPv6ExtHdrDestOpt, IPv6ExtHdrFragment, IPv6ExtHdrHopByHop, IPv6ExtHdrRouting,
                       PPP, PPPoE, Raw, RawPcapWriter, conf)

conf.verb = 0

# The Ethernet addresses the link rules name (tests/data/kernel/link.rules).
HOST = "02:00:00:00:00:01"      # eth.source exactly
VENDOR = "00:0c:29:12:34:56"    # eth.sourceoui 00:0c:29
ROUTER = "02:00:00:00:00:fe"    # eth.dest exactly
MULTICAST = "01:00:5e:00:00:fb"  # eth.destoui 01:00:5e
CLIENT = "02:00:00:00:0d:01"    # learned by a DHCP rule, then matched by ethsrctab
OTHER = "02:00:00:00:00:99"

# Addresses on both sides of the rule files' IPv4 prefixes and masks.
IPV4_EDGES = [
    "10.1.2.0", "10.1.2.255", "10.1.1.255", "10.1.3.0",          # 10.1.2.0/24
    "192.0.2.6", "192.0.2.7", "192.0.2.5", "192.0.2.8",          # 192.0.2.6/31
    "198.51.100.9", "198.51.100.8", "198.51.100.10",             # /32
    "127.255.255.255", "128.0.0.0", "0.0.0.0", "255.255.255.255",  # 0.0.0.0/1, /0
    "10.7.8.5", "10.200.0.5", "10.7.8.6", "11.7.8.5",            # 10.0.0.5 255.0.0.255
    "172.16.0.1", "172.31.255.255", "172.32.0.0", "172.15.255.255",  # 172.16.0.0/12
]

# Addresses on both sides of the rule files' IPv6 prefixes (odd lengths too).
IPV6_EDGES = [
    "2001:db8:1:1:ffff:ffff:ffff:ffff", "2001:db8:1:2::", "2001:db8:1:3:ffff:ffff:ffff:ffff", "2001:db8:1:4::",  # /63
    "2001:db8::9", "2001:db8::a", "2001:db8::b", "2001:db8::c",  # 2001:db8::a/127
    "2001:db8::1:5", "2001:db8::1:4", "2001:db8::1:6",           # /128
    "7fff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "8000::", "fe80::1", "::",  # 8000::/1, ::/0
    "::ffff:10.1.2.3", "ff02::fb", "2001:db9::1",
]

# Ports at the edges of the rule files' port lists and ranges.
PORTS = [0, 1, 2, 52, 53, 54, 79, 80, 81, 999, 1000, 2000, 2001, 8079, 8080, 8081, 65533, 65534, 65535]

# TCP header words 12-13 below the data offset: flags with the three
# reserved bits and the nonce bit among them.
TCP_FLAG_WORDS = [0x000, 0x002, 0x012, 0x010, 0x011, 0x004, 0x014, 0x018, 0x029, 0x0FF, 0x100, 0xE00, 0xFFF]

ICMPV6_TYPES = [0, 1, 127, 128, 129, 133, 134, 135, 136, 255]

frames = []


def add(frame, cut=None):
    data = bytes(frame)
    frames.append(data[:cut] if cut is not None else data)


def eth(src=OTHER, dst=ROUTER, **kw):
    return Ether(src=src, dst=dst, **kw)


def udp4(src="10.9.9.9", dst="10.9.9.10", sport=40000, dport=40001, payload=b"x" * 8, **ip):
    return IP(src=src, dst=dst, **ip) / UDP(sport=sport, dport=dport) / Raw(payload)


def udp6(src="2001:db8:9::1", dst="2001:db8:9::2", sport=40000, dport=40001, payload=b"x" * 8, **ip):
    return IPv6(src=src, dst=dst, **ip) / UDP(sport=sport, dport=dport) / Raw(payload)


def tcp_with_word(word, ip_layer):
    """A TCP segment whose flags word (reserved bits included) is `word`."""
    segment = bytearray(bytes(TCP(sport=40000, dport=80, flags=0)))
    segment[12] = (segment[12] & 0xF0) | (word >> 8)
    segment[13] = word & 0xFF
    return ip_layer / Raw(bytes(segment))


def link_layers():
    payload = udp4()
    # Addresses the link rules test.
    for src, dst in [(HOST, ROUTER), (VENDOR, ROUTER), (OTHER, MULTICAST), (HOST, MULTICAST), (OTHER, OTHER),
                     ("00:0c:28:ff:ff:ff", "01:00:5f:00:00:01"), (CLIENT, ROUTER)]:
        add(eth(src, dst) / payload)
        add(eth(src, dst) / udp6())
    # Tags: one (ids and priorities at the edges of the rules' lists), QinQ,
    # 0x9100, as many as the program reads and more, and a tag cut short.
    for vid in [0, 1, 4, 5, 6, 9, 10, 99, 100, 150, 299, 300, 3999, 4000, 4094, 4095]:
        for prio in [0, 5, 7]:
            add(eth(HOST) / Dot1Q(vlan=vid, prio=prio) / payload)
    add(eth(HOST) / Dot1Q(vlan=100, prio=3, id=1) / payload)  # drop-eligible bit set
    add(eth(HOST) / Dot1AD(vlan=200, prio=1) / Dot1Q(vlan=5) / payload)
    add(eth(HOST) / Dot1AD(vlan=5) / Dot1Q(vlan=200) / udp6())
    add(eth(HOST, type=0x9100) / Dot1Q(vlan=300, prio=7) / payload)
    add(eth(HOST, type=0x9100) / Dot1Q(vlan=42, type=0x9100) / Dot1Q(vlan=43) / payload)
    for count in [2, 3, 4, 5, 6]:
        stack = Dot1Q(vlan=100 + count)
        for _ in range(count - 1):
            stack = stack / Dot1Q(vlan=7)
        add(eth(HOST) / stack / payload)
    tagged = bytes(eth(HOST) / Dot1Q(vlan=100) / payload)
    for cut in [12, 13, 14, 15, 16, 17, 18]:
        add(Raw(tagged[:cut]))
    add(eth(HOST) / Dot1Q(vlan=100) / Dot1Q(vlan=200) / payload, cut=20)
    # Other Ethernet types: ARP, LLDP, IPX, an unknown type and a frame with no type at all.
    add(eth(HOST, "ff:ff:ff:ff:ff:ff") / ARP(hwsrc=HOST, psrc="10.1.2.3", pdst="10.1.2.1"))
    add(eth(HOST) / Dot1Q(vlan=100) / ARP(hwsrc=HOST, psrc="10.1.2.3", pdst="10.1.2.1"))
    add(eth(HOST, "01:80:c2:00:00:0e", type=0x88CC) / Raw(b"\x02\x07\x04" + b"\x02" * 6))
    add(eth(HOST, type=0x8137) / Raw(b"\xff\xff" + b"\x00" * 28))
    add(eth(HOST, type=0xFFFF) / Raw(b"\x00" * 46))
    add(eth(HOST, type=0x0000) / Raw(b"\x00" * 46))


def pppoe():
    session = lambda proto: eth(HOST) / PPPoE(sessionid=0x1234) / PPP(proto=proto)
    add(session(0x0021) / udp4(dport=53))
    add(session(0x0057) / udp6(dport=53))
    add(session(0x0021) / tcp_with_word(0x002, IP(src="10.1.2.0", dst="192.0.2.7")))
    add(session(0xC021) / Raw(b"\x01\x01\x00\x04"))  # LCP
    add(session(0x8021) / Raw(b"\x01\x01\x00\x04"))  # IPCP
    add(eth(HOST) / Dot1Q(vlan=100) / PPPoE(sessionid=7) / PPP(proto=0x0021) / udp4(dport=53))
    add(eth(HOST) / Dot1Q(vlan=100) / PPPoE(sessionid=7) / PPP(proto=0x0057) / udp6(dport=53))
    whole = bytes(session(0x0021) / udp4(dport=53))
    for cut in [15, 18, 20, 21, 22, 23, 30, 41, 42]:
        add(Raw(whole[:cut]))
    add(eth(HOST, type=0x8863) / Raw(b"\x11\x09\x00\x00\x00\x00"))  # discovery


def ipv4_headers():
    # Options (IHL above 5), and IHL values the header cannot have.
    add(eth() / IP(src="10.1.2.0", dst="192.0.2.6", options=[b"\x01\x01\x01\x00"]) / UDP(sport=53, dport=80) / Raw(b"y" * 8))
    add(eth() / IP(src="10.1.2.0", dst="192.0.2.6", options=[b"\x07\x27\x04" + b"\x00" * 36 + b"\x00"]) /
        TCP(sport=80, dport=8080, flags="S"))
    for ihl in [0, 1, 4, 15]:
        add(eth() / IP(src="10.1.2.0", dst="192.0.2.6", ihl=ihl) / UDP(sport=53, dport=1000) / Raw(b"z" * 64))
    # Stated lengths: larger than the frame (cut by the capture), smaller
    # (padding), smaller than the header, zero, and the largest.
    for length in [0, 10, 19, 20, 27, 28, 29, 36, 99, 100, 101, 1500, 65535]:
        add(eth() / IP(src="192.0.2.7", dst="198.51.100.9", len=length) / UDP(sport=1000, dport=2000) / Raw(b"p" * 72))
    for length in [99, 100, 101]:
        add(eth() / IP(src="10.9.9.9", dst="198.51.100.9") / UDP(sport=1000, dport=2000) / Raw(b"q" * (length - 28)))
        add(eth() / IPv6(src="2001:db8::a", dst="2001:db8::1:5") / UDP(sport=1000, dport=2000) /
            Raw(b"q" * (length - 48)))
    # A version nibble that is not the Ethernet type's.
    add(eth(type=0x0800) / Raw(bytes([0x65]) + bytes(udp4())[1:]))
    add(eth(type=0x86DD) / Raw(bytes([0x45]) + bytes(udp6())[1:]))
    # Fragments: the first (ports read), later ones (ports are payload bytes).
    add(eth() / IP(src="10.1.2.255", dst="172.16.0.1", flags="MF", frag=0) / UDP(sport=53, dport=53) / Raw(b"f" * 16))
    add(eth() / IP(src="10.1.2.255", dst="172.16.0.1", flags="MF", frag=3, proto=17) / Raw(b"\x00\x35\x00\x35" + b"f" * 12))
    add(eth() / IP(src="10.1.2.255", dst="172.16.0.1", flags=0, frag=8, proto=6) / Raw(b"\x00\x50\x00\x50" + b"\x00" * 8 + b"\x50\x02"))
    add(eth() / IP(src="10.1.2.255", dst="172.16.0.1", flags="DF") / TCP(sport=80, dport=80, flags="S"))
    # Type of service values against the rules' masks.
    for tos in [0x00, 0x04, 0x10, 0xB8, 0xBB, 0xBC, 0xE0, 0xFF]:
        add(eth() / udp4(tos=tos))
        add(eth() / udp6(tc=tos))
    # Protocols without ports, and transport headers cut short.
    add(eth() / IP(src="10.1.2.0", dst="192.0.2.6") / ICMP(type=8))
    add(eth() / IP(src="10.1.2.0", dst="192.0.2.6", proto=47) / Raw(b"\x00\x00\x08\x00"))
    add(eth() / IP(src="10.1.2.0", dst="192.0.2.6", proto=132) / Raw(b"\x00\x50\x00\x50" + b"\x00" * 8))
    whole = bytes(eth() / IP(src="10.1.2.0", dst="192.0.2.6") / TCP(sport=80, dport=80, flags="SA"))
    for cut in [24, 33, 34, 35, 36, 37, 38, 47, 48, 49]:
        add(Raw(whole[:cut]))
    whole6 = bytes(eth() / IPv6(src="2001:db8::a", dst="2001:db8::1:5") / TCP(sport=80, dport=80, flags="SA"))
    for cut in [20, 53, 54, 55, 56, 57, 58, 67, 68]:
        add(Raw(whole6[:cut]))


def addresses():
    for i, a in enumerate(IPV4_EDGES):
        b = IPV4_EDGES[(i * 7 + 3) % len(IPV4_EDGES)]
        add(eth() / udp4(src=a, dst=b, sport=PORTS[i % len(PORTS)], dport=53))
        add(eth() / IP(src=b, dst=a) / TCP(sport=1000, dport=PORTS[(i * 5) % len(PORTS)], flags="S"))
    for i, a in enumerate(IPV6_EDGES):
        b = IPV6_EDGES[(i * 5 + 2) % len(IPV6_EDGES)]
        add(eth() / udp6(src=a, dst=b, sport=PORTS[i % len(PORTS)], dport=53))
        add(eth() / IPv6(src=b, dst=a) / TCP(sport=1000, dport=PORTS[(i * 3) % len(PORTS)], flags="S"))
        add(eth() / IPv6(src=a, dst=b) / ICMPv6EchoRequest())


def ports_and_flags():
    for i, port in enumerate(PORTS):
        other = PORTS[(i * 11 + 5) % len(PORTS)]
        add(eth() / udp4(sport=other, dport=port))
        add(eth() / udp4(sport=port, dport=other))
        add(eth() / IP(src="10.9.9.9", dst="10.9.9.10") / TCP(sport=other, dport=port, flags="A"))
        add(eth() / IP(src="10.9.9.9", dst="10.9.9.10") / TCP(sport=port, dport=other, flags="PA"))
        add(eth() / udp6(sport=other, dport=port))
        add(eth() / IPv6(src="2001:db8:9::1", dst="2001:db8:9::2") / TCP(sport=port, dport=other, flags="S"))
    for word in TCP_FLAG_WORDS:
        add(eth() / tcp_with_word(word, IP(src="10.9.9.9", dst="10.9.9.10", proto=6)))
        add(eth() / tcp_with_word(word, IPv6(src="2001:db8:9::1", dst="2001:db8:9::2", nh=6)))
    # A UDP datagram whose bytes 12-13 would be a TCP flag word.
    add(eth() / IP(src="10.9.9.9", dst="10.9.9.10") / UDP(sport=80, dport=80) / Raw(b"\x00\x00\x00\x00\x00\x02"))


def ipv6_extensions():
    src, dst = "2001:db8::a", "fe80::1"
    # Hop-by-hop: with its bytes, with nothing behind the fixed header, and
    # with only some of them (payload length and capture both cut it).
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop() / ICMPv6EchoRequest())
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop() / UDP(sport=53, dport=53))
    add(eth() / IPv6(src=src, dst=dst, nh=0, plen=0))
    add(eth() / IPv6(src=src, dst=dst, nh=0, plen=0) / Raw(b"\x3a\x00" + b"\x01\x04\x00\x00\x00\x00"))
    add(eth() / IPv6(src=src, dst=dst, nh=0, plen=1) / Raw(b"\x3a"))
    hop = bytes(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop() / UDP(sport=53, dport=53))
    for cut in [54, 55, 61, 62, 63, 65, 66, 69, 70]:
        add(Raw(hop[:cut]))
    # Routing, destination options and fragment headers before the upper layer.
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrRouting(addresses=["2001:db8::1"]) / ICMPv6EchoRequest())
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrDestOpt() / ICMPv6ND_NS(tgt="fe80::2"))
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrDestOpt() / UDP(sport=53, dport=53))
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrFragment(m=1, offset=0) / ICMPv6EchoRequest())
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrFragment(m=0, offset=4, nh=58) / Raw(b"\x80\x00\x00\x00"))
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrFragment(m=1, offset=0) / UDP(sport=53, dport=53))
    add(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop() / IPv6ExtHdrRouting() / IPv6ExtHdrFragment() /
        ICMPv6EchoRequest())
    add(eth() / IPv6(src=src, dst=dst, nh=59) / Raw(b"\x80\x00\x00\x00"))
    # Chains of 1 to 10 extension headers before ICMPv6: the walk limit is 8.
    for count in range(1, 11):
        for icmp in [ICMPv6EchoRequest(), ICMPv6ND_RA()]:
            chain = IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop()
            for n in range(count - 1):
                chain = chain / (IPv6ExtHdrRouting() if n == 3 else IPv6ExtHdrDestOpt())
            add(eth() / chain / icmp)
    # A chain that stops inside the packet's stated length, or runs past it.
    chain = bytes(eth() / IPv6(src=src, dst=dst) / IPv6ExtHdrHopByHop() / IPv6ExtHdrDestOpt() / ICMPv6EchoRequest())
    for cut in [62, 63, 70, 71, 72]:
        add(Raw(chain[:cut]))
    short = IPv6(src=src, dst=dst, plen=16) / IPv6ExtHdrHopByHop() / IPv6ExtHdrDestOpt() / IPv6ExtHdrDestOpt() / ICMPv6EchoRequest()
    add(eth() / short)
    # ICMPv6 types, and ICMP (v4) types.
    for t in ICMPV6_TYPES:
        add(eth() / IPv6(src=src, dst=dst) / ICMPv6Unknown(type=t))
        add(eth() / IP(src="10.1.2.0", dst="192.0.2.6") / ICMP(type=t & 0xFF))
    for message in [ICMPv6ND_RS(), ICMPv6ND_NA(), ICMPv6EchoReply(), ICMPv6DestUnreach()]:
        add(eth() / IPv6(src=src, dst="ff02::1") / message)
    # An ICMPv6 header cut right where its type would be.
    add(Raw(bytes(eth() / IPv6(src=src, dst=dst) / ICMPv6EchoRequest())[:54]))
    add(eth() / IPv6(src=src, dst=dst, nh=58, plen=0))


def dhcp_message(message_type, vendor_class, chaddr):
    mac = bytes(int(x, 16) for x in chaddr.split(":"))
    bootp = bytearray(240)
    bootp[0], bootp[1], bootp[2] = 1, 1, 6
    bootp[4:8] = b"\x12\x34\x56\x78"
    bootp[28:34] = mac
    bootp[236:240] = b"\x63\x82\x53\x63"
    options = bytes([53, 1, message_type, 60, len(vendor_class)]) + vendor_class + b"\xff"
    return eth(chaddr, "ff:ff:ff:ff:ff:ff") / IP(src="0.0.0.0", dst="255.255.255.255") / \
        UDP(sport=68, dport=67) / Raw(bytes(bootp) + options)


def dhcp():
    # The client is learned by the DHCP rules of the link rules (then
    # matched by ethsrctab), a release forgets it, and another request
    # learns it again; another vendor class is not learned.
    add(eth(CLIENT) / udp4(dport=53))
    add(dhcp_message(1, b"gen-client 1.0", CLIENT))
    add(eth(CLIENT) / udp4(dport=53))
    add(eth(CLIENT) / Dot1Q(vlan=100) / udp6(dport=53))
    add(dhcp_message(7, b"gen-client 1.0", CLIENT))
    add(eth(CLIENT) / udp4(dport=53))
    add(dhcp_message(3, b"gen-client 1.0", CLIENT))
    add(eth(CLIENT) / udp4(dport=53))
    add(dhcp_message(1, b"other-client", OTHER))
    add(eth(OTHER) / udp4(dport=53))
    # Payloads for the pattern rules.
    add(eth() / udp4(dport=5060, payload=b"INVITE sip:a@b SIP/2.0\r\n"))
    add(eth() / udp6(dport=5060, payload=b"REGISTER sip:a SIP/2.0\r\n"))


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: kernel_frames.py OUTPUT.pcap")
    for part in [link_layers, pppoe, ipv4_headers, addresses, ports_and_flags, ipv6_extensions, dhcp]:
        part()
    writer = RawPcapWriter(sys.argv[1], linktype=1, sync=False)
    writer.write_header(None)
    for i, frame in enumerate(frames):
        writer.write_packet(frame, sec=1700000000 + i, usec=0)
    writer.close()
    print(len(frames))


if __name__ == "__main__":
    main()

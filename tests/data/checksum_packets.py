# Builds random IPv4/IPv6 packets with scapy, which fills in every checksum,
# and prints one "kind hex" line per packet.  Arguments: seed, count.
import random
import sys

from scapy.all import (ICMP, IP, IPOption_NOP, IPv6, IPv6ExtHdrDestOpt, IPv6ExtHdrFragment,
                       IPv6ExtHdrHopByHop, IPv6ExtHdrRouting, TCP, UDP, ICMPv6EchoRequest, Raw, raw)

seed, count = int(sys.argv[1]), int(sys.argv[2])
rnd = random.Random(seed)


def payload():
    n = rnd.choice([0, 1, 2, 7, 8, 63, 64, 513, 1400])
    return Raw(bytes(rnd.getrandbits(8) for _ in range(n)))


def ip4():
    return ".".join(str(rnd.randrange(256)) for _ in range(4))


def ip6():
    return ":".join("%x" % rnd.randrange(65536) for _ in range(8))


def upper(kind):
    if kind.startswith("tcp"):
        return TCP(sport=rnd.randrange(65536), dport=rnd.randrange(65536), seq=rnd.getrandbits(32),
                   flags=rnd.choice(["S", "SA", "A", "PA", "F"]), window=rnd.randrange(65536))
    if kind.startswith("udp"):
        return UDP(sport=rnd.randrange(65536), dport=rnd.randrange(65536))
    if kind == "icmp4":
        return ICMP(type=8, id=rnd.randrange(65536), seq=rnd.randrange(65536))
    return ICMPv6EchoRequest(id=rnd.randrange(65536), seq=rnd.randrange(65536))


def extension_headers():
    chain = []
    for make in (lambda: IPv6ExtHdrHopByHop(),
                 lambda: IPv6ExtHdrDestOpt(),
                 lambda: IPv6ExtHdrRouting(addresses=[ip6() for _ in range(rnd.randrange(1, 3))], segleft=0),
                 lambda: IPv6ExtHdrFragment(offset=0, m=0, id=rnd.getrandbits(32))):
        if rnd.random() < 0.35:
            chain.append(make())
    rnd.shuffle(chain)
    return chain


for _ in range(count):
    kind = rnd.choice(["tcp4", "udp4", "icmp4", "tcp6", "udp6", "icmp6"])
    if kind.endswith("4"):
        packet = IP(src=ip4(), dst=ip4(), ttl=rnd.randrange(1, 256), id=rnd.randrange(65536),
                    options=[IPOption_NOP()] * rnd.choice([0, 0, 3, 4, 8]))
    else:
        packet = IPv6(src=ip6(), dst=ip6(), hlim=rnd.randrange(256))
        for header in extension_headers():
            packet = packet / header
    packet = packet / upper(kind) / payload()
    print(kind, raw(packet).hex())

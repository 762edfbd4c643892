#!/usr/bin/python3
"""Writes seeded, realistic classifier rule sets and packet traces.

For each flavour and size it writes three files into the output directory:

  <flavour>-<n>.rules   the rules in rule text, one per line, first match wins
  <flavour>-<n>.tuples  the same rules as five header fields, one per line,
                        for references that take address/port/protocol rules
  <flavour>-<n>.trace   packets, one per line

Flavours, after the rule sets routers and hosts carry:

  acl  access lists in front of servers: specific destinations (hosts and
       /24s), single well-known destination ports, mostly TCP;
  fw   firewalls: many wildcard sources and destinations, port ranges,
       "any protocol" rules, heavy overlap;
  ipc  chains of a host's IP filter: prefixes of every length on both
       sides, a mix of TCP, UDP and ICMP, some source-port conditions.

Prefixes come from one pool per set and are nested: a new prefix usually
extends one already drawn, so /8s hold /16s that hold /24s that hold hosts,
and the same prefix often recurs in many rules.  Sets of 100 rules and more
also carry about one rule in a hundred that only the classifier can express
(IPv6 prefixes, VLAN ids, the receiving device); their .tuples line is "-".

.tuples lines:  <src>/<len> <dst>/<len> <proto> <sports> <dports>
  proto is a number or "*"; ports are "*" or comma-separated lo-hi ranges.

.trace lines:   <kind> <ifindex> <vlan> <src> <dst> <proto> <sport> <dport>
  kind "hit": drawn from inside a randomly chosen address/port rule (the
       first rule that applies may be an earlier one);
  kind "miss": no rule of the set applies (checked here);
  kind "ext": drawn from a rule that only the classifier expresses (IPv6
       source, VLAN tag, another device): not for five-field references.
  ifindex is the receiving device (1 = eth0, 2 = eth1, ...), vlan "-" for an
  untagged frame; sport and dport are "-" for protocols without ports.

Everything is drawn from random.Random seeded with the seed, flavour and
size, so the same arguments always give the same files.
"""

import argparse
import ipaddress
import os
import random
import sys

TCP, UDP, ICMP = 6, 17, 1
OTHER_PROTOCOLS = (47, 50)  # GRE, ESP
WELL_KNOWN_PORTS = (20, 21, 22, 23, 25, 53, 69, 80, 110, 123, 137, 143, 161, 179, 389, 443, 445, 500, 514,
                    636, 993, 995, 1194, 1433, 1521, 1723, 3306, 3389, 5060, 5432, 8080, 8443)
OTHER_RANGES = ((0, 1023), (6000, 6063), (8000, 8999), (49152, 65535), (5060, 5061), (137, 139),
                (33434, 33534), (16384, 32767), (1024, 5000), (60000, 61000))
PORT_LISTS = (((80, 80), (443, 443)), ((25, 25), (465, 465), (587, 587)), ((53, 53), (5353, 5353)),
              ((110, 110), (143, 143), (993, 995)), ((8000, 8999), (8443, 8443)))
DEVICES = ("eth1", "eth2", "eth3")  # eth0 (ifindex 1) is where plain packets arrive
# Sources and destinations of packets that should apply to no rule.
# Rules never hold a prefix of it other than /0 (see PrefixPool.draw).
MISS_NETWORK_LO, MISS_NETWORK_HI = 0xc6120000, 0xc613ffff  # 198.18.0.0/15
MISS_PROTOCOLS = (89, 132, 103, TCP, UDP)


class Profile:
    def __init__(self, src_lengths, dst_lengths, protocols, dports, sports, nesting, reuse):
        self.src_lengths = src_lengths  # {prefix length: weight}
        self.dst_lengths = dst_lengths
        self.protocols = protocols      # {"tcp"|"udp"|"icmp"|"any"|"other": weight}
        self.dports = dports            # {"any"|"single"|"high"|"range"|"list": weight}
        self.sports = sports            # {"any"|"single"|"high"|"range": weight}
        self.nesting = nesting          # chance that a new prefix lies inside an earlier one
        self.reuse = reuse              # chance that a prefix of the pool is used again as it is


def lengths(spikes, spread):
    """Weights of prefix lengths: the spikes, and `spread` shared by the other lengths from 8 to 32
    (shorter prefixes than /8, other than /0, hardly occur in real sets)."""
    others = [n for n in range(8, 33) if n not in spikes]
    weights = {n: spread / len(others) for n in others}
    weights.update(spikes)
    return weights


PROFILES = {
    "acl": Profile(src_lengths=lengths({0: 22, 8: 5, 16: 10, 24: 22, 32: 18}, 23),
                   dst_lengths=lengths({0: 4, 8: 2, 16: 6, 24: 26, 32: 44}, 18),
                   protocols={"tcp": 66, "udp": 20, "icmp": 5, "any": 7, "other": 2},
                   dports={"any": 12, "single": 58, "high": 8, "range": 12, "list": 10},
                   sports={"any": 94, "single": 3, "high": 3, "range": 0},
                   nesting=0.8, reuse=0.35),
    "fw": Profile(src_lengths=lengths({0: 42, 8: 5, 16: 8, 24: 14, 32: 14}, 17),
                  dst_lengths=lengths({0: 24, 8: 4, 16: 10, 24: 20, 32: 24}, 18),
                  protocols={"tcp": 45, "udp": 25, "icmp": 7, "any": 20, "other": 3},
                  dports={"any": 35, "single": 30, "high": 18, "range": 12, "list": 5},
                  sports={"any": 80, "single": 4, "high": 12, "range": 4},
                  nesting=0.7, reuse=0.45),
    "ipc": Profile(src_lengths=lengths({0: 12, 8: 8, 16: 15, 24: 24, 32: 18}, 23),
                   dst_lengths=lengths({0: 12, 8: 8, 16: 15, 24: 24, 32: 18}, 23),
                   protocols={"tcp": 40, "udp": 34, "icmp": 12, "any": 11, "other": 3},
                   dports={"any": 40, "single": 30, "high": 14, "range": 10, "list": 6},
                   sports={"any": 70, "single": 10, "high": 14, "range": 6},
                   nesting=0.75, reuse=0.3),
}

SIZES = (1, 10, 100, 1000, 10000)


def weighted(rng, weights):
    keys = list(weights)
    return rng.choices(keys, weights=[weights[k] for k in keys])[0]


def mask_of(length):
    return (0xffffffff << (32 - length)) & 0xffffffff if length else 0


class Prefix:
    def __init__(self, addr, length):
        self.addr = addr & mask_of(length)
        self.length = length

    @property
    def lo(self):
        return self.addr

    @property
    def hi(self):
        return self.addr | (~mask_of(self.length) & 0xffffffff)

    def text(self):
        return "%s/%d" % (ipaddress.IPv4Address(self.addr), self.length)


class PrefixPool:
    """Prefixes drawn so far; new ones nest inside them or repeat them."""

    def __init__(self, rng, profile):
        self.rng = rng
        self.profile = profile
        self.by_length = {}
        self.drawn = []

    def draw(self, length):
        rng = self.rng
        if length == 0:
            return Prefix(0, 0)
        same = self.by_length.get(length)
        if same and rng.random() < self.profile.reuse:
            return rng.choice(same)
        parent = self.shorter_prefix(length) if rng.random() < self.profile.nesting else None
        if parent:
            addr = parent.addr | (rng.getrandbits(32) & ~mask_of(parent.length) & 0xffffffff)
        else:
            addr = self.fresh_address()
        if MISS_NETWORK_LO <= addr <= MISS_NETWORK_HI or MISS_NETWORK_LO & mask_of(length) == addr & mask_of(length):
            addr ^= 0x01000000  # the miss network stays free for packets that apply to no rule
        prefix = Prefix(addr, length)
        self.by_length.setdefault(length, []).append(prefix)
        self.drawn.append(prefix)
        return prefix

    def shorter_prefix(self, length):
        """A prefix drawn earlier that is shorter than `length`, or None (a few tries)."""
        for _ in range(8 if self.drawn else 0):
            candidate = self.rng.choice(self.drawn)
            if 0 < candidate.length < length:
                return candidate
        return None

    def fresh_address(self):
        rng = self.rng
        block = rng.random()
        if block < 0.35:
            return 0x0a000000 | rng.getrandbits(24)                 # 10.0.0.0/8
        if block < 0.45:
            return 0xac100000 | rng.getrandbits(20)                 # 172.16.0.0/12
        if block < 0.55:
            return 0xc0a80000 | rng.getrandbits(16)                 # 192.168.0.0/16
        return rng.randrange(1, 224) << 24 | rng.getrandbits(24)    # unicast space


class Rule:
    """An address/port/protocol rule, or one only the classifier expresses."""

    def __init__(self, text, src=None, dst=None, proto=None, sports=None, dports=None, extra=None):
        self.text = text
        self.src, self.dst = src, dst
        self.proto = proto      # None = any protocol
        self.sports = sports    # None = any port, else [(lo, hi)]
        self.dports = dports
        self.extra = extra      # for a classifier-only rule: what the packets drawn from it carry

    def tuple_line(self):
        if self.extra:
            return "- %s" % self.extra["kind"]
        return "%s %s %s %s %s" % (self.src.text(), self.dst.text(), "*" if self.proto is None else self.proto,
                                   ports_text(self.sports), ports_text(self.dports))

    def applies(self, src, dst, proto, sport, dport):
        """Whether a plain IPv4 packet on eth0, untagged, satisfies the rule."""
        if self.extra:
            return False
        if not (self.src.lo <= src <= self.src.hi and self.dst.lo <= dst <= self.dst.hi):
            return False
        if self.proto is not None and proto != self.proto:
            return False
        for ranges, port in ((self.sports, sport), (self.dports, dport)):
            if ranges is not None and not any(lo <= port <= hi for lo, hi in ranges):
                return False
        return True


def ports_text(ranges):
    if ranges is None:
        return "*"
    return ",".join("%d-%d" % r for r in ranges)


def port_condition_text(ranges):
    return ",".join(str(lo) if lo == hi else "%d-%d" % (lo, hi) for lo, hi in ranges)


def draw_ports(rng, kind):
    if kind == "any":
        return None
    if kind == "single":
        port = rng.choice(WELL_KNOWN_PORTS)
        return [(port, port)]
    if kind == "high":
        return [(1024, 65535)]
    if kind == "range":
        return [rng.choice(OTHER_RANGES)]
    return list(rng.choice(PORT_LISTS))


def draw_rule(rng, profile, pool):
    while True:
        src = pool.draw(weighted(rng, profile.src_lengths))
        dst = pool.draw(weighted(rng, profile.dst_lengths))
        kind = weighted(rng, profile.protocols)
        words = []
        if src.length:
            words.append("ip.saddr " + src.text())
        if dst.length:
            words.append("ip.daddr " + dst.text())
        proto = sports = dports = None
        if kind in ("tcp", "udp"):
            proto = TCP if kind == "tcp" else UDP
            sports = draw_ports(rng, weighted(rng, profile.sports))
            dports = draw_ports(rng, weighted(rng, profile.dports))
            # A comma list of ports splits every port condition of the line
            # at its commas, so it is the line's only port condition.
            if dports and len(dports) > 1:
                sports = None
            if sports:
                words.append("%s.sport %s" % (kind, port_condition_text(sports)))
            if dports:
                words.append("%s.dport %s" % (kind, port_condition_text(dports)))
            if not sports and not dports:
                words.append("ip.proto " + kind)
        elif kind == "icmp":
            proto = ICMP
            words.append("ip.proto icmp")
        elif kind == "other":
            proto = rng.choice(OTHER_PROTOCOLS)
            words.append("ip.proto P%d" % proto)
        if not words or (not src.length and not dst.length and kind in ("tcp", "udp") and not sports and not dports):
            # A rule for every packet, or for every TCP or UDP packet, ends the
            # search for all of them: real sets hold it once, last, if at all.
            continue
        return Rule(" ".join(words), src, dst, proto, sports, dports)


def draw_extra_rule(rng, pool, kind):
    if kind == "ip6":
        net = "2001:db8:%x::" % rng.randrange(0x10000)
        port = rng.choice((22, 53, 80, 443))
        proto = rng.choice(("tcp", "udp"))
        return Rule("ip.saddr %s/48 %s.dport %d" % (net, proto, port),
                    extra={"kind": kind, "net6": net, "proto": TCP if proto == "tcp" else UDP, "dport": port})
    if kind == "vlan":
        vlan = rng.randrange(2, 4095)
        dst = pool.draw(rng.choice((16, 24, 32)))
        return Rule("ip.daddr %s vlan.id %d" % (dst.text(), vlan), extra={"kind": kind, "vlan": vlan, "dst": dst})
    device = rng.randrange(len(DEVICES))
    src = pool.draw(rng.choice((8, 16, 24)))
    port = rng.choice((53, 67, 123))
    return Rule("dev %s ip.saddr %s udp.dport %d" % (DEVICES[device], src.text(), port),
                extra={"kind": kind, "ifindex": device + 2, "src": src, "proto": UDP, "dport": port})


def draw_rules(rng, profile, n):
    pool = PrefixPool(rng, profile)
    rules = [draw_rule(rng, profile, pool) for _ in range(n)]
    extras = 0 if n < 100 else max(3, n // 100)
    for i in range(extras):
        rules[rng.randrange(n)] = draw_extra_rule(rng, pool, ("ip6", "vlan", "dev")[i % 3])
    return rules


def value_in(rng, lo, hi):
    return rng.randint(lo, hi)


def port_in(rng, ranges):
    if ranges is None:
        return rng.choice(WELL_KNOWN_PORTS) if rng.random() < 0.5 else rng.randrange(65536)
    lo, hi = rng.choice(ranges)
    return rng.randint(lo, hi)


def addr_text(value):
    return str(ipaddress.IPv4Address(value))


def packet_line(kind, ifindex, vlan, src, dst, proto, sport, dport):
    ports = (str(sport), str(dport)) if proto in (TCP, UDP) else ("-", "-")
    return "%s %d %s %s %s %d %s %s" % (kind, ifindex, "-" if vlan is None else vlan, src, dst, proto, *ports)


def hit_packet(rng, rule):
    proto = rule.proto if rule.proto is not None else rng.choice((TCP, UDP, ICMP, 47))
    return packet_line("hit", 1, None, addr_text(value_in(rng, rule.src.lo, rule.src.hi)),
                       addr_text(value_in(rng, rule.dst.lo, rule.dst.hi)), proto,
                       port_in(rng, rule.sports), port_in(rng, rule.dports))


def miss_packet(rng, wildcards):
    """A packet of the miss network that none of `wildcards` (the rules with no address
    condition, the only ones that can reach the miss network) applies to, or None."""
    for _ in range(200):
        src = MISS_NETWORK_LO + rng.getrandbits(17)
        dst = MISS_NETWORK_LO + rng.getrandbits(17)
        proto = rng.choice(MISS_PROTOCOLS)
        sport, dport = rng.randrange(65536), rng.randrange(65536)
        if not any(r.applies(src, dst, proto, sport, dport) for r in wildcards):
            return packet_line("miss", 1, None, addr_text(src), addr_text(dst), proto, sport, dport)
    return None


def extra_packet(rng, rule):
    e = rule.extra
    sport = rng.randrange(1024, 65536)
    if e["kind"] == "ip6":
        src = "%s%x:%x" % (e["net6"], rng.randrange(1, 0x10000), rng.randrange(1, 0x10000))
        return packet_line("ext", 1, None, src, "2001:db8:ffff::1", e["proto"], sport, e["dport"])
    if e["kind"] == "vlan":
        return packet_line("ext", 1, e["vlan"], addr_text(rng.getrandbits(32)),
                           addr_text(value_in(rng, e["dst"].lo, e["dst"].hi)), TCP, sport, 80)
    return packet_line("ext", e["ifindex"], None, addr_text(value_in(rng, e["src"].lo, e["src"].hi)),
                       addr_text(rng.getrandbits(32)), e["proto"], sport, e["dport"])


def draw_trace(rng, rules, count):
    plain = [r for r in rules if not r.extra]
    extra = [r for r in rules if r.extra]
    wildcards = [r for r in plain if r.src.length == 0 and r.dst.length == 0]
    lines = []
    while len(lines) < count:
        roll = rng.random()
        if extra and roll < 0.05:
            lines.append(extra_packet(rng, rng.choice(extra)))
        elif roll < 0.15:
            line = miss_packet(rng, wildcards)
            if line:
                lines.append(line)
        else:
            lines.append(hit_packet(rng, rng.choice(plain)))
    return lines


def write_lines(path, header, lines):
    with open(path, "w", encoding="ascii") as out:
        out.write("# %s\n" % header)
        for line in lines:
            out.write(line + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True, help="directory to write into")
    parser.add_argument("--seed", default="1", help="seed (any text)")
    parser.add_argument("--sizes", default=",".join(map(str, SIZES)), help="comma-separated rule counts")
    parser.add_argument("--flavours", default=",".join(PROFILES), help="comma-separated: " + ", ".join(PROFILES))
    parser.add_argument("--packets", type=int, default=4096, help="packets per trace")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    for flavour in args.flavours.split(","):
        if flavour not in PROFILES:
            sys.exit("unknown flavour %r" % flavour)
        for n in map(int, args.sizes.split(",")):
            rng = random.Random("%s/%s/%d" % (args.seed, flavour, n))
            rules = draw_rules(rng, PROFILES[flavour], n)
            trace = draw_trace(rng, rules, args.packets)
            stem = os.path.join(args.out, "%s-%d" % (flavour, n))
            header = "%s-like, %d rules, seed %s" % (flavour, n, args.seed)
            write_lines(stem + ".rules", header, [r.text for r in rules])
            write_lines(stem + ".tuples", header + ": src dst proto sports dports", [r.tuple_line() for r in rules])
            write_lines(stem + ".trace", header + ": kind ifindex vlan src dst proto sport dport", trace)


if __name__ == "__main__":
    main()

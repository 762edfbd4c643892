#!/usr/bin/python3
"""Tests of nikerkiog-classd classifying in the kernel (--tc), run by CTest:
one behaviour per invocation.

    classd_tc_test.py NAME --daemon PATH --test-daemon PATH --tool PATH

Each test runs in a network namespace of its own and sends Ethernet frames
into one end of a veth pair inside it, so that they arrive at the ingress
of the other end, where the daemon attaches the classifier.  Marks are
counted by nftables counters in the input hook, after the queue.

Loading a BPF program needs root: without it a test says so and exits 77
(skipped).  As root a kernel that refuses the program fails the test: the
machines these tests run on can load it.
"""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time

from classd_test import main as run_named_test
from classd_test import (MANUAL, WAIT, Daemon, Failure, Host, check, kernel_queues_from_nftables,
                         nft_counters, nft_load, run, run_daemon, wait_stats, write_file)

SKIP = 77
QUEUE = 7
ASK = 0x80000000
ROUTER_IF, SENDER_IF = "lan0", "lan0peer"
ROUTER_MAC = "02:00:00:00:00:01"
ROUTER_IP, ROUTER_IP6 = "10.9.0.1", "fd09::1"
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "daemon", "examples")


# ---- frames ------------------------------------------------------------------------

def mac_bytes(text):
    return bytes(int(part, 16) for part in text.split(":"))


def ip_checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ipv4(source, destination, proto, payload):
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0x4000, 64, proto, 0,
                         socket.inet_aton(source), socket.inet_aton(destination))
    return header[:10] + struct.pack("!H", ip_checksum(header)) + header[12:] + payload


def ipv6(source, destination, proto, payload):
    return (struct.pack("!IHBB", 6 << 28, len(payload), proto, 64) + socket.inet_pton(socket.AF_INET6, source) +
            socket.inet_pton(socket.AF_INET6, destination) + payload)


def udp(sport, dport, data):
    return struct.pack("!HHHH", sport, dport, 8 + len(data), 0) + data


def tcp(sport, dport, flags):
    return struct.pack("!HHIIBBHHH", sport, dport, 1, 0, 5 << 4, flags, 1024, 0, 0)


def ethernet(source, destination, ethertype, payload):
    return mac_bytes(destination) + mac_bytes(source) + struct.pack("!H", ethertype) + payload


def udp4_frame(mac, source, dport, size=8, sport=40000):
    return ethernet(mac, ROUTER_MAC, 0x0800, ipv4(source, ROUTER_IP, 17, udp(sport, dport, b"x" * size)))


def udp6_frame(mac, source, dport):
    return ethernet(mac, ROUTER_MAC, 0x86DD, ipv6(source, ROUTER_IP6, 17, udp(40000, dport, b"y" * 8)))


def tcp4_frame(mac, source, dport, flags):
    return ethernet(mac, ROUTER_MAC, 0x0800, ipv4(source, ROUTER_IP, 6, tcp(40000, dport, flags)))


def dhcp_discover(mac, vendor_class):
    """A client's DHCPDISCOVER, broadcast, with option 60 (vendor class)."""
    bootp = struct.pack("!BBBBIHH4s4s4s4s16s64s128s", 1, 1, 6, 0, 0x1234, 0, 0x8000, bytes(4), bytes(4), bytes(4),
                        bytes(4), mac_bytes(mac) + bytes(10), bytes(64), bytes(128))
    options = bytes([99, 130, 83, 99, 53, 1, 1, 60, len(vendor_class)]) + vendor_class.encode() + bytes([255])
    packet = ipv4("0.0.0.0", "255.255.255.255", 17, udp(68, 67, bootp + options))
    return ethernet(mac, "ff:ff:ff:ff:ff:ff", 0x0800, packet)


def write_ethernet_pcap(path, frames):
    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for frame in frames:
            f.write(struct.pack("<IIII", 0, 0, len(frame), len(frame)))
            f.write(frame)


def send_frames(frames, interface=SENDER_IF):
    """Sends Ethernet frames out of `interface`, to arrive at its veth peer."""
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
        s.bind((interface, 0))
        for frame in frames:
            s.send(frame)


# ---- the router's side ---------------------------------------------------------------

def make_link():
    """A veth pair: the router's interface with IPv4 and IPv6 addresses, and
    the sender's end."""
    run("ip", "link", "add", ROUTER_IF, "address", ROUTER_MAC, "type", "veth", "peer", "name", SENDER_IF)
    run("ip", "addr", "add", ROUTER_IP + "/24", "dev", ROUTER_IF)
    run("ip", "-6", "addr", "add", ROUTER_IP6 + "/64", "dev", ROUTER_IF, "nodad")
    # The sender's end sends nothing of its own (router solicitations,
    # multicast reports): only the test's frames arrive.
    with open(f"/proc/sys/net/ipv6/conf/{SENDER_IF}/disable_ipv6", "w") as f:
        f.write("1\n")
    for interface in (ROUTER_IF, SENDER_IF):
        run("ip", "link", "set", interface, "up")


def queue_asked_packets(everything=False):
    """Sends the packets the kernel asks about (or, for queue mode, all of
    them) arriving at the router's interface to the daemon's queue: nftables
    where the kernel has its queue statement, else the iptables target."""
    if kernel_queues_from_nftables():
        match = "" if everything else f"meta mark & {ASK:#x} == {ASK:#x} "
        nft_load(f"table inet classd_tc_queue {{\n chain prerouting {{\n"
                 f"  type filter hook prerouting priority mangle; policy accept;\n"
                 f"  iifname \"{ROUTER_IF}\" {match}queue num {QUEUE} bypass\n }}\n}}\n")
        return "nftables"
    for ipt in ("iptables", "ip6tables"):
        match = [] if everything else ["-m", "mark", "--mark", f"{ASK:#x}/{ASK:#x}"]
        run(ipt, "-t", "mangle", "-A", "PREROUTING", "-i", ROUTER_IF, *match, "-j", "NFQUEUE", "--queue-num",
            str(QUEUE), "--queue-bypass")
    return "iptables (this kernel's nftables has no queue statement)"


def count_marks(marks):
    """Named counters in the input hook, after the queue: every packet from
    the sender's end, each mark of `marks`, and packets still asking."""
    lines = [f"  iifname \"{ROUTER_IF}\" counter name frames"]
    lines += [f"  iifname \"{ROUTER_IF}\" meta mark {mark:#x} counter name mark{mark}" for mark in marks]
    lines.append(f"  iifname \"{ROUTER_IF}\" meta mark & {ASK:#x} != 0 counter name asking")
    counters = "".join(f" counter {name} {{}}\n" for name in ["frames", "asking"] + [f"mark{m}" for m in marks])
    nft_load(f"table inet classd_tc_count {{\n{counters} chain input {{\n"
             f"  type filter hook input priority filter; policy accept;\n" + "\n".join(lines) + "\n }\n}\n")


def counted_marks():
    counters = nft_counters("inet", "classd_tc_count")
    return {int(name[4:]): value for name, value in counters.items() if name.startswith("mark") and value}, \
        counters["frames"], counters["asking"]


def ingress_filters(interface=ROUTER_IF):
    return subprocess.run(["tc", "filter", "show", "dev", interface, "ingress"], capture_output=True,
                          text=True).stdout.strip()


def tool_verdicts(tool, rules, pcap):
    """Packets per mark, and per rule line, as `nikerkiog classify` decides
    them (no rule: mark 0, no line)."""
    out = subprocess.run([tool, "classify", rules, pcap, "--json"], check=True, capture_output=True,
                         text=True).stdout
    marks, lines = {}, {}
    for text in out.splitlines():
        packet = json.loads(text)
        if packet.get("type") == "packet":
            check("problem" not in packet, f"the tool could not classify a packet: {packet}")
            line = packet.get("rule_line")
            mark = packet["result"] if line else 0
            marks[mark] = marks.get(mark, 0) + 1
            if line:
                lines[line] = lines.get(line, 0) + 1
    return marks, lines


def require_bpf():
    if os.geteuid() != 0:
        print("SKIP: loading the classifier into the kernel needs root")
        sys.exit(SKIP)


def start_in_kernel(t, rules, stats_path, env=None, daemon=None, interfaces=ROUTER_IF):
    process = Daemon(daemon or t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--tc", interfaces,
                                                     "--stats", stats_path, "--stats-interval", "0"], env=env)
    wait_for(process, "classifying in the kernel")
    return process


def wait_for(daemon, text):
    """Waits until the daemon's log holds `text`; a daemon that fell back to
    queue mode fails the test."""
    daemon.wait_bound()
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline:
        output = daemon.output()
        if text in output:
            return
        if "cannot classify in the kernel" in output:
            raise Failure("the kernel refused the classifier (root can load it here): " + output)
        time.sleep(0.02)
    raise Failure(f"the daemon never said {text!r}: {daemon.output()}")


# ---- the tests -----------------------------------------------------------------------

LIVE_RULES = """\
# Phones announce themselves in their DHCP requests and are learned.
dhcpoption 60 phone-* dhcp.phones => 9
ethsrctab dhcp.phones udp.dport 5005 => 10
udp.dport 5001 => 1
udp.dport 5002 ip.len >100 => 2
udp.dport 5002 => 3
ip.saddr 10.9.0.16/28 udp.dport 5003 => 4
eth.sourceoui 02:aa:00 udp.dport 5004 => 5
tcp.dport 6001 tcp.flags 0x002/0x012 => 6
tcp.dport 6001 => 7
ip.version 6 udp.dport 5004 => 8
udp.dport 5006 packetmatch *VOIP* => 11
"""

PHONE, LAPTOP, TABLET = "02:aa:00:00:00:02", "02:bb:00:00:00:03", "02:cc:00:00:00:04"


def live_traffic(count):
    """`count` frames of every kind the rules tell apart, in a fixed order."""
    frames = []
    kinds = [
        lambda i: udp4_frame(LAPTOP, f"10.9.0.{2 + i % 200}", 5001),
        lambda i: udp4_frame(TABLET, "10.9.0.5", 5002, size=8 + i % 200),
        lambda i: udp4_frame(LAPTOP, f"10.9.0.{10 + i % 16}", 5003),
        lambda i: udp4_frame((PHONE, LAPTOP)[i % 2], "10.9.0.6", 5004),
        lambda i: udp6_frame((PHONE, TABLET)[i % 2], "fd09::6", 5004 + i // 2 % 2),
        lambda i: tcp4_frame(TABLET, "10.9.0.7", 6001, (0x02, 0x12, 0x10, 0x11)[i % 4]),
        lambda i: udp4_frame((PHONE, TABLET)[i % 2], "10.9.0.8", 5005),
        lambda i: udp4_frame(LAPTOP, "10.9.0.9", 5999),
        lambda i: ethernet(TABLET, ROUTER_MAC, 0x0800,
                           ipv4("10.9.0.10", ROUTER_IP, 17, udp(40000, 5006, (b"a VOIP call", b"a game")[i % 2]))),
    ]
    for i in range(count):
        frames.append(kinds[i % len(kinds)](i // len(kinds)))
    return frames


def payload_matched(frames):
    """The frames to port 5006, which the payload pattern's rule may apply to."""
    return sum(1 for f in frames if f[12:14] == b"\x08\x00" and f[23] == 17 and f[36:38] == b"\x13\x8e")


def test_tc_marks_equal_library_verdicts(t):
    """10,000 frames through the classifier at the ingress of an interface:
    the marks they carry after the queue are the library's verdicts for the
    same frames; DHCP requests and packets for a payload pattern go through
    the queue, and the client learned from the requests is recognised in
    the kernel at once."""
    require_bpf()
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, LIVE_RULES)
    make_link()
    queued_by = queue_asked_packets()
    count_marks(range(0, 12))
    dhcp = [dhcp_discover(PHONE, "phone-a1") for _ in range(10)] + [dhcp_discover(LAPTOP, "laptop") for _ in range(5)]
    before, after = live_traffic(5000), live_traffic(10000 - 5000 - len(dhcp))
    daemon = start_in_kernel(t, rules, stats_path)
    try:
        send_frames(before)
        send_frames(dhcp)
        # The phone is learned by the daemon, and its learning mirrored into
        # the kernel, before the rest is sent.
        wait_stats(daemon, stats_path,
                   lambda s: s["tc"]["asked"] == len(dhcp) + payload_matched(before) and s["tc"]["table_syncs"] >= 1)
        send_frames(after)
        stats = wait_stats(daemon, stats_path, lambda s: counted_marks()[1] >= 10000)
    finally:
        status = daemon.stop()
    check(status == 0, f"exit status {status}: {daemon.output()}")
    frames = before + dhcp + after
    pcap = os.path.join(t.workdir, "sent.pcap")
    write_ethernet_pcap(pcap, frames)
    expected, expected_lines = tool_verdicts(t.tool, rules, pcap)
    actual, total, asking = counted_marks()
    hits = {r["line"]: (r["hits"], r["kernel_hits"]) for r in stats["rules"]}
    print(f"queued by {queued_by}; {len(frames)} frames; marks by the tool {sorted(expected.items())}; "
          f"counted after the queue {sorted(actual.items())}; queued {stats['packets']}, "
          f"hits (all, kernel) {sorted(hits.items())}")
    check(total == len(frames) == 10000, f"every frame reaches the input hook ({total})")
    check(len(expected) == 12, "the traffic reaches every class of the rule file and none")
    check(actual == expected, "marks counted after the queue differ from the tool's verdicts")
    check(asking == 0, "no packet keeps the ask bit")
    asked = len(dhcp) + payload_matched(frames)
    check(stats["mode"] == "tc" and stats["packets"] == asked == stats["tc"]["asked"],
          "only the DHCP requests and the packets a payload pattern may match went through the queue")
    check(stats["tc"]["kernel_asked"] == {"rule": asked, "link": 0, "icmp": 0, "steps": 0, "nesting": 0, "image": 0},
          "the kernel asked about them for their rules")
    check(hits[2] == (10, 0), "the phone's requests were decided by the daemon")
    check(hits[3][0] > 0 and hits[3][1] == hits[3][0], "the learned phone's later packets were decided in the kernel")
    check({line: all_hits for line, (all_hits, _) in hits.items() if all_hits} == expected_lines,
          "each rule applied to the packets the tool finds it applies to")
    check(hits[12][0] > 0 and hits[12][1] == 0, "the payload pattern was matched by the daemon")
    check(all(kernel == all_hits for line, (all_hits, kernel) in hits.items() if line not in (2, 12)),
          "the kernel decided every other packet")


def test_tc_reload_and_detach(t):
    """SIGHUP switches the kernel's set (a wrong file keeps the old one);
    SIGTERM leaves no filter on the interfaces."""
    require_bpf()
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\n")
    make_link()
    queue_asked_packets()
    count_marks(range(0, 4))
    frames = [udp4_frame(LAPTOP, "10.9.0.2", 5001) for _ in range(100)]
    daemon = start_in_kernel(t, rules, stats_path, interfaces=f"{ROUTER_IF},{SENDER_IF}")
    try:
        check(ingress_filters() and ingress_filters(SENDER_IF), "the program is attached at both ingresses")
        send_frames(frames)
        first = wait_stats(daemon, stats_path, lambda s: s["rules"][0]["kernel_hits"] == 100)
        write_file(rules, "udp.dport 5001 => 2\n")
        daemon.signal(signal.SIGHUP)
        wait_stats(daemon, stats_path, lambda s: s["reloads"]["done"] == 1)
        send_frames(frames)
        second = wait_stats(daemon, stats_path, lambda s: s["rules"][0]["kernel_hits"] == 100)
        write_file(rules, "udp.dport 5001 no.such.keyword 3 => 3\n")
        daemon.signal(signal.SIGHUP)
        wait_stats(daemon, stats_path, lambda s: s["reloads"]["failed"] == 1)
        send_frames(frames)
        third = wait_stats(daemon, stats_path, lambda s: s["rules"][0]["kernel_hits"] == 200)
    finally:
        status = daemon.stop()
    actual, total, _ = counted_marks()
    print(f"counted {sorted(actual.items())} of {total}; generations {first['generation']}, "
          f"{second['generation']}, {third['generation']}; after the stop: {ingress_filters()!r}")
    check(status == 0, f"exit status {status}: {daemon.output()}")
    check(actual == {1: 100, 2: 200}, "the reload switched the marks; the wrong file changed nothing")
    check(third["generation"] == 2 and third["packets"] == 0, "two sets loaded, nothing queued")
    for interface in (ROUTER_IF, SENDER_IF):
        check(ingress_filters(interface) == "", f"no filter is left at the ingress of {interface} after SIGTERM")
        qdiscs = subprocess.run(["tc", "qdisc", "show", "dev", interface], capture_output=True, text=True).stdout
        check("clsact" not in qdiscs, f"the clsact discipline the daemon added to {interface} is gone: {qdiscs}")


def test_tc_reload_refused_by_kernel_keeps_old_set(t):
    """When the kernel does not take a reloaded set, the old one stays in
    force, in the kernel and in the daemon alike, and the log says why."""
    require_bpf()
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\nudp.dport 5002 packetmatch *VOIP* => 3\n")
    make_link()
    queue_asked_packets()
    count_marks(range(0, 5))
    frames = [udp4_frame(LAPTOP, "10.9.0.2", 5001) for _ in range(10)] + \
        [ethernet(LAPTOP, ROUTER_MAC, 0x0800, ipv4("10.9.0.2", ROUTER_IP, 17, udp(40000, 5002, b"a VOIP call")))
         for _ in range(10)]
    daemon = start_in_kernel(t, rules, stats_path, env={"NIKERKIOG_CLASSD_REFUSE_KERNEL": "reload"},
                             daemon=t.test_daemon)
    try:
        write_file(rules, "udp.dport 5001 => 2\nudp.dport 5002 packetmatch *VOIP* => 4\n")
        daemon.signal(signal.SIGHUP)
        stats = wait_stats(daemon, stats_path, lambda s: s["reloads"]["failed"] == 1)
        send_frames(frames)
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] == 10 and s["rules"][0]["kernel_hits"] == 10)
    finally:
        status = daemon.stop()
    actual, total, _ = counted_marks()
    print(f"counted {sorted(actual.items())} of {total}; {daemon.output()}")
    check(status == 0, f"exit status {status}")
    check("reload failed, the rules in use stay: loading the rule set into the kernel: " in daemon.output(),
          "the log says why the reload failed")
    check(stats["generation"] == 1 and stats["reloads"]["done"] == 0, "the first set is still in force")
    check(actual == {1: 10, 3: 10}, "the kernel and the daemon both decide with the first set")


def test_tc_refused_falls_back_to_queue(t):
    """When the kernel refuses the classifier the daemon says why and
    classifies every queued packet itself; with --tc-required it stops."""
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\nudp.dport 5002 => 2\n")
    make_link()
    queue_asked_packets(everything=True)
    count_marks(range(0, 3))
    refuse = {"NIKERKIOG_CLASSD_REFUSE_KERNEL": "1"}
    status, output = run_daemon(t.test_daemon, ["--queue", str(QUEUE), "--rules", rules, "--tc", ROUTER_IF,
                                                "--tc-required"], env=refuse)
    check(status == 2 and "cannot classify in the kernel: the kernel or the privileges do not allow loading the "
          "program: refused by the test build" in output and "--tc-required" in output,
          f"--tc-required: {status} {output}")
    daemon = Daemon(t.test_daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--tc", ROUTER_IF,
                                               "--stats", stats_path, "--stats-interval", "0"], env=refuse)
    try:
        daemon.wait_bound()
        send_frames([udp4_frame(LAPTOP, "10.9.0.2", 5001 + i % 3) for i in range(30)])
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] == 30)
        filters = ingress_filters()
    finally:
        status = daemon.stop()
    actual, total, _ = counted_marks()
    print(daemon.output())
    print(f"counted {sorted(actual.items())} of {total}; tc: {stats['tc']}")
    check(status == 0, f"exit status {status}")
    check("queue mode" in daemon.output(), "the daemon says it classifies in queue mode")
    check(stats["mode"] == "queue" and "refused by the test build" in stats["tc"]["refused"],
          "the statistics say queue mode and why")
    check(filters == "", "nothing is attached")
    check(actual == {1: 10, 2: 10, 0: 10}, "the daemon classified every packet from the queue")


def test_tc_without_bpf_rights_falls_back_to_queue(t):
    """A daemon that may bind the queue but not load BPF programs (no
    CAP_BPF, CAP_SYS_ADMIN or CAP_PERFMON) says so in the kernel's words,
    and classifies in queue mode; with --tc-required it stops."""
    require_bpf()  # root, to have the rights to drop
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\n")
    make_link()
    queue_asked_packets(everything=True)
    count_marks(range(0, 2))
    drop = ["setpriv", "--inh-caps=-bpf,-sys_admin,-perfmon", "--bounding-set=-bpf,-sys_admin,-perfmon"]
    base = ["--queue", str(QUEUE), "--rules", rules, "--tc", ROUTER_IF]
    status, output = run_daemon(t.daemon, base + ["--tc-required"], wrapper=drop)
    check(status == 2 and "cannot classify in the kernel: the kernel or the privileges do not allow loading the "
          "program: " in output and "Operation not permitted" in output, f"--tc-required: {status} {output}")
    daemon = Daemon(t.daemon, t.workdir, base + ["--stats", stats_path, "--stats-interval", "0"], wrapper=drop)
    try:
        daemon.wait_bound()
        send_frames([udp4_frame(LAPTOP, "10.9.0.2", 5001) for _ in range(10)])
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] == 10)
    finally:
        status = daemon.stop()
    actual, _, _ = counted_marks()
    print(f"{output}\n{daemon.output()}\ncounted {sorted(actual.items())}")
    check(status == 0, f"exit status {status}")
    check(stats["mode"] == "queue" and "Operation not permitted" in stats["tc"]["refused"],
          "the statistics say queue mode and the kernel's reason")
    check(actual == {1: 10} and ingress_filters() == "", "the daemon classified the queued packets; nothing attached")


def test_tc_options_refused(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    make_link()
    base = ["--queue", str(QUEUE), "--rules", rules]
    for args, complaint in ((["--tc", "nosuch0"], "--tc: no interface named nosuch0"),
                            (["--tc", f"{ROUTER_IF},"], "give interface names separated by commas"),
                            (["--tc", f"{ROUTER_IF},{SENDER_IF},{ROUTER_IF}"], f"--tc: {ROUTER_IF} named twice"),
                            (["--ask-mark", "0x1"], "--ask-mark: only with --tc"),
                            (["--tc-required"], "--tc-required: only with --tc"),
                            (["--tc", ROUTER_IF, "--ask-mark", "0"], "--ask-mark: a nonzero 32-bit number"),
                            (["--tc", ROUTER_IF, "--mark-mask", "0xffffffff"],
                             "--ask-mark 0x80000000 overlaps --mark-mask 0xffffffff"),
                            (["--tc", ROUTER_IF, "--ask-mark", "0x100", "--mark-mask", "0x1ff"],
                             "--ask-mark 0x100 overlaps --mark-mask 0x1ff")):
        status, output = run_daemon(t.daemon, base + args)
        check(status == 2 and complaint in output, f"{args} is refused: {status} {output}")
    with open(MANUAL) as f:
        manual = f.read()
    for option in ("--tc", "--ask-mark", "--tc-required"):
        check(f"*{option}*" in manual, f"the manual page describes {option}")


def test_tc_stats_fields_documented(t):
    """Every field of the statistics in tc mode is in the manual page.  The
    shipped daemon has no hook that makes loading fail."""
    require_bpf()
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\n")
    make_link()
    daemon = start_in_kernel(t, rules, stats_path, env={"NIKERKIOG_CLASSD_REFUSE_KERNEL": "1"})
    try:
        stats = wait_stats(daemon, stats_path, lambda s: True)
    finally:
        daemon.stop()
    with open(MANUAL) as f:
        manual = f.read()
    fields = list(stats) + list(stats["tc"]) + list(stats["tc"]["kernel_asked"]) + list(stats["rules"][0]) + \
        ["refused"]
    for field in fields:
        check(f"*{field}*" in manual, f"the manual page describes the statistics field {field}")
    check(stats["mode"] == "tc" and stats["mark_mask"] == 0x7FFFFFFF and stats["tc"]["ask_mark"] == ASK,
          f"with --tc the mark mask is every bit but the ask bit: {stats}")


EXAMPLE_CLIENT = """
import socket, sys, time
server, phase = sys.argv[1], sys.argv[2]
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
    if phase == "before":
        for i in range(20):
            s.sendto(b"call", (server, 5060))
        for i in range(20):
            s.sendto(b"other", (server, 9999))
    else:
        for i in range(20):
            s.sendto(b"phone", (server, 9999))
if phase == "before":
    shell = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    shell.setblocking(False)
    shell.connect_ex((server, 22))  # a SYN: nobody answers behind wan1
    time.sleep(0.2)
    shell.close()
"""

EXAMPLE_CHECK = """table inet classd_check {
  counter wan0_call {}
  counter wan0_call_marked {}
  counter wan0_other {}
  counter wan0_other_unmarked {}
  counter wan0_other_phone {}
  counter wan0_shell {}
  counter wan1_shell_marked {}
  counter asking {}
  chain postrouting {
    type filter hook postrouting priority 100; policy accept;
    oifname "wan0" udp dport 5060 counter name wan0_call
    oifname "wan0" udp dport 5060 meta mark 1 counter name wan0_call_marked
    oifname "wan0" udp dport 9999 counter name wan0_other
    oifname "wan0" udp dport 9999 meta mark 0 counter name wan0_other_unmarked
    oifname "wan0" udp dport 9999 meta mark 4 counter name wan0_other_phone
    oifname "wan0" tcp dport 22 counter name wan0_shell
    oifname "wan1" tcp dport 22 meta mark 2 counter name wan1_shell_marked
    meta mark & 0x80000000 != 0 counter name asking
  }
}
"""


def htb_class_packets(interface, classid):
    """Packets a class of the interface sent ("tc -s class show" has no JSON
    for classes everywhere)."""
    listing = subprocess.run(["tc", "-s", "class", "show", "dev", interface], check=True, capture_output=True,
                             text=True).stdout
    found = re.search(r"^class htb " + re.escape(classid) + r" .*\n Sent \d+ bytes (\d+) pkt", listing, re.M)
    check(found, f"class {classid} on {interface}: {listing}")
    return int(found.group(1))


def nft_check_syntax(path):
    """`nft -c` on a ruleset: none of it is loaded.  Where the kernel has no
    queue statement, only the queue statements may be refused."""
    result = subprocess.run(["nft", "-c", "-f", path], capture_output=True, text=True)
    refused = [line for line in result.stderr.splitlines() if "Error:" in line]
    return all("Could not process rule" in line for line in refused) and result.stderr.count("queue num") == len(
        refused)


def test_tc_router_example(t):
    """The shipped example, loaded as shipped, on a router between a LAN
    host and two WAN hosts: forwarded packets are marked at the LAN's
    ingress, shaped and routed by their marks; a phone is learned from its
    DHCP request; the router's own packets are marked through the queue."""
    require_bpf()
    stats_path = os.path.join(t.workdir, "stats.json")
    with open("/proc/sys/net/ipv4/ip_forward", "w") as f:
        f.write("1\n")
    client = Host("eth0", "lan0", "10.1.0.2", "10.1.0.1")
    server = Host("eth0", "wan0", "10.2.0.2", "10.2.0.1")
    other_wan = Host("eth0", "wan1", "10.3.0.2", "10.3.0.1")
    daemon = None
    try:
        check(nft_check_syntax(os.path.join(EXAMPLES, "router-tc.nft")), "router-tc.nft is valid nftables")
        if kernel_queues_from_nftables():
            run("nft", "-f", os.path.join(EXAMPLES, "router-tc.nft"))
            queued_by = "router-tc.nft"
        else:
            for restore in ("iptables-restore", "ip6tables-restore"):
                run(restore, "--noflush", os.path.join(EXAMPLES, "router-tc-queue.iptables"))
            queued_by = "router-tc-queue.iptables (this kernel's nftables has no queue statement)"
        # Routing and shaping as the example's comments give them.
        run("ip", "route", "add", "default", "via", "10.3.0.2", "dev", "wan1", "table", "100")
        run("ip", "rule", "add", "fwmark", "0x2/0xff", "lookup", "100")
        run("tc", "qdisc", "add", "dev", "wan0", "root", "handle", "1:", "htb", "default", "30")
        run("tc", "class", "add", "dev", "wan0", "parent", "1:", "classid", "1:10", "htb", "rate", "2mbit", "ceil",
            "10mbit", "prio", "0")
        run("tc", "class", "add", "dev", "wan0", "parent", "1:", "classid", "1:30", "htb", "rate", "8mbit", "ceil",
            "10mbit", "prio", "1")
        run("nft", "-f", os.path.join(EXAMPLES, "router-shaping.nft"))
        nft_load(EXAMPLE_CHECK)
        daemon = Daemon(t.daemon, t.workdir, ["--queue", "0", "--rules", os.path.join(EXAMPLES, "router-tc.rules"),
                                              "--tc", "lan0", "--mark-mask", "0xff", "--fail-open", "--stats",
                                              stats_path, "--stats-interval", "0"])
        wait_for(daemon, "classifying in the kernel")
        client.run(sys.executable, "-c", EXAMPLE_CLIENT, "10.2.0.2", "before")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:  # the router's own calls
            for _ in range(10):
                s.sendto(b"own call", ("10.2.0.2", 5060))
        client_mac = json.loads(subprocess.run(client.command("ip", "-j", "link", "show", "eth0"), check=True,
                                               capture_output=True, text=True).stdout)[0]["address"]
        subprocess.run(client.command(sys.executable, "-c", SEND_FRAME, "eth0",
                                      dhcp_discover(client_mac, "android-dhcp-13").hex()), check=True)
        learned = wait_stats(daemon, stats_path, lambda s: s["tc"]["asked"] == 1 and s["tc"]["table_syncs"] >= 1)
        client.run(sys.executable, "-c", EXAMPLE_CLIENT, "10.2.0.2", "after")
        stats = wait_stats(daemon, stats_path, lambda s: nft_counters("inet", "classd_check")["wan0_other"] >= 40)
        shaped = htb_class_packets("wan0", "1:10")
    finally:
        if daemon:
            status = daemon.stop()
        client.close()
        server.close()
        other_wan.close()
    counters = nft_counters("inet", "classd_check")
    hits = [(r["rule"], r["hits"], r["kernel_hits"]) for r in stats["rules"]]
    print(f"queued by {queued_by}; counters {sorted(counters.items())}; shaped into 1:10: {shaped}; "
          f"asked {learned['tc']['asked']}; hits (all, kernel) {hits}")
    check(status == 0, f"exit status {status}: {daemon.output()}")
    check(counters["wan0_call"] == counters["wan0_call_marked"] == 30, "calls, forwarded and the router's, marked 1")
    check(shaped == 30, "the calls were shaped into class 1:10 by their mark")
    check(counters["wan0_other_unmarked"] == 20 and counters["wan0_other_phone"] == 20,
          "the client's other packets: unmarked before it was learned as a phone, 4 after")
    check(counters["wan0_shell"] == 0 and counters["wan1_shell_marked"] >= 1,
          "the shell connection is routed through wan1 by its mark")
    check(counters["asking"] == 0, "no packet leaves with the ask bit")
    check(stats["rules"][0]["hits"] == 1 and stats["rules"][0]["kernel_hits"] == 0,
          "the DHCP request was decided by the daemon")
    check(stats["rules"][1]["kernel_hits"] == 20, "the phone's later packets were decided in the kernel")
    check(stats["rules"][2]["kernel_hits"] == 20, "the forwarded calls were decided in the kernel")


SEND_FRAME = """
import socket, sys
with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
    s.bind((sys.argv[1], 0))
    s.send(bytes.fromhex(sys.argv[2]))
"""


if __name__ == "__main__":
    sys.exit(run_named_test(globals(), "classd-tc-"))

#!/usr/bin/python3
"""Tests of nikerkiog-classd run by CTest: one behaviour per invocation.

    classd_test.py NAME --daemon PATH --test-daemon PATH --tool PATH

--daemon is the daemon as shipped; --test-daemon its test build, which can
count the classifier's live allocations and make one of them fail.

Each test runs in a network namespace of its own (made here with unshare)
and sends only to addresses inside it (loopback, or hosts in namespaces it
makes behind veth pairs), a bounded number of packets within bounded time.
Where no namespace can be made the test says so and exits 77, which CTest
reports as skipped.
"""
import argparse
import json
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import zlib

SKIP = 77
MANUAL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "daemon", "nikerkiog-classd.8.scd")
NAMESPACE_MARK = "NIKERKIOG_CLASSD_TEST_NAMESPACE"
QUEUE = 7
UDP_PORTS = (5001, 5002, 5003, 5004)
TCP_PORTS = (6001, 6002)
WAIT = 10.0  # seconds any single wait may take at most


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def enter_namespace():
    """Re-runs this script inside a new network namespace with lo up."""
    if os.environ.get(NAMESPACE_MARK) == "1":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    unshare = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-r", "-n"]
    probe = subprocess.run(unshare + ["true"], capture_output=True, text=True)
    if probe.returncode != 0:
        print(f"SKIP: cannot make a network namespace ({' '.join(unshare)}): {probe.stderr.strip()}")
        sys.exit(SKIP)
    env = dict(os.environ, **{NAMESPACE_MARK: "1"})
    os.execvpe(unshare[0], unshare + [sys.executable] + sys.argv, env)


# ---- firewall -----------------------------------------------------------------

def run(*command):
    subprocess.run(command, check=True, capture_output=True, text=True)


def ports_text(ports):
    return ",".join(str(p) for p in ports)


def queue_traffic(ipt="iptables", bypass=False, udp=UDP_PORTS, tcp=TCP_PORTS):
    """Queues UDP and TCP to the chosen ports leaving this host."""
    extra = ["--queue-bypass"] if bypass else []
    for proto, ports in (("udp", udp), ("tcp", tcp)):
        if ports:
            run(ipt, "-t", "mangle", "-A", "OUTPUT", "-p", proto, "-m", "multiport", "--dports", ports_text(ports),
                "-j", "NFQUEUE", "--queue-num", str(QUEUE), *extra)


def count_marks(marks, ipt="iptables", udp=UDP_PORTS, tcp=TCP_PORTS):
    """One counting rule per mark and protocol after the queue."""
    for mark in marks:
        for proto, ports in (("udp", udp), ("tcp", tcp)):
            if ports:
                run(ipt, "-t", "mangle", "-A", "POSTROUTING", "-p", proto, "-m", "multiport", "--dports",
                    ports_text(ports), "-m", "mark", "--mark", str(mark))


def counted(ipt="iptables"):
    """Packets counted per mark by the POSTROUTING counting rules."""
    listing = subprocess.run([ipt, "-t", "mangle", "-L", "POSTROUTING", "-v", "-x", "-n"], check=True,
                             capture_output=True, text=True).stdout
    counts = {}
    for line in listing.splitlines():
        found = re.search(r"mark match 0x([0-9a-f]+)", line)
        if found:
            mark = int(found.group(1), 16)
            counts[mark] = counts.get(mark, 0) + int(line.split()[0])
    return counts


def count_port_marks(ports, marks, ipt="iptables", chain="POSTROUTING"):
    """One counting rule per UDP port and mark after the queue."""
    for port in ports:
        for mark in marks:
            run(ipt, "-t", "mangle", "-A", chain, "-p", "udp", "--dport", str(port), "-m", "mark", "--mark",
                str(mark))


def counted_by_port(ipt="iptables", chain="POSTROUTING"):
    """Packets counted per (UDP port, mark) by the counting rules."""
    listing = subprocess.run([ipt, "-t", "mangle", "-L", chain, "-v", "-x", "-n"], check=True,
                             capture_output=True, text=True).stdout
    counts = {}
    for line in listing.splitlines():
        found = re.search(r"udp dpt:(\d+) mark match 0x([0-9a-f]+)", line)
        if found and int(line.split()[0]):
            counts[(int(found.group(1)), int(found.group(2), 16))] = int(line.split()[0])
    return counts


def nft_load(text):
    """Loads an nftables ruleset given as text."""
    result = subprocess.run(["nft", "-f", "-"], input=text, capture_output=True, text=True)
    check(result.returncode == 0, f"nft refused the ruleset: {result.stderr}\n{text}")


def kernel_queues_from_nftables():
    """Whether the kernel has nftables' own queue statement (some kernels
    queue only through the iptables target)."""
    probe = subprocess.run(["nft", "-f", "-"], capture_output=True, text=True,
                           input="table inet classd_probe {\n chain c {\n  queue num 0 bypass\n }\n}\n")
    subprocess.run(["nft", "delete", "table", "inet", "classd_probe"], capture_output=True)
    return probe.returncode == 0


def nft_counters(family, table):
    """The named counters of a table: name -> packets."""
    listing = subprocess.run(["nft", "-j", "list", "counters", "table", family, table], check=True,
                             capture_output=True, text=True).stdout
    return {item["counter"]["name"]: item["counter"]["packets"]
            for item in json.loads(listing)["nftables"] if "counter" in item}


# ---- the daemon -----------------------------------------------------------------

class Daemon:
    def __init__(self, path, workdir, args, env=None, name="daemon", wrapper=()):
        self.log_path = os.path.join(workdir, name + ".log")
        self.log = open(self.log_path, "w")
        self.process = subprocess.Popen(list(wrapper) + [path] + list(args), stdout=self.log, stderr=subprocess.STDOUT,
                                        env=dict(os.environ, **(env or {})))

    def output(self):
        with open(self.log_path) as f:
            return f.read()

    def wait_bound(self):
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            if "bound" in self.output():
                return
            if self.process.poll() is not None:
                raise Failure(f"daemon exited with {self.process.returncode}: {self.output()}")
            time.sleep(0.02)
        raise Failure("daemon did not bind its queue: " + self.output())

    def signal(self, number):
        self.process.send_signal(number)

    def stop(self):
        """SIGTERM; returns the exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(WAIT)
        finally:
            self.log.close()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(WAIT)
        self.log.close()


def run_daemon(path, args, wrapper=(), env=None):
    result = subprocess.run(list(wrapper) + [path] + list(args), capture_output=True, text=True, timeout=WAIT,
                            env=dict(os.environ, **(env or {})))
    return result.returncode, result.stdout + result.stderr


def write_file(path, text):
    """Replaces the file at once, so the daemon never reads half of it."""
    with open(path + ".new", "w") as f:
        f.write(text)
    os.rename(path + ".new", path)


def read_stats(path):
    with open(path) as f:
        return json.load(f)


def wait_stats(daemon, path, predicate):
    """Asks for statistics until `predicate` holds for them."""
    deadline = time.monotonic() + WAIT
    stats = None
    while time.monotonic() < deadline:
        daemon.signal(signal.SIGUSR1)
        time.sleep(0.01)
        if os.path.exists(path):
            stats = read_stats(path)
            if predicate(stats):
                return stats
    raise Failure(f"statistics never showed the expected state: {stats}\n" + daemon.output())


# ---- traffic --------------------------------------------------------------------

def send_udp(count, port, address="127.0.0.1", size=8, family=socket.AF_INET):
    with socket.socket(family, socket.SOCK_DGRAM) as s:
        for i in range(count):
            s.sendto(bytes([i % 256]) * size, (address, port))


def tcp_exchange(port, payloads):
    """A connection to a listener of the test: connect, send, close."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", port))
        listener.listen(1)
        with socket.create_connection(("127.0.0.1", port), timeout=WAIT) as client:
            server, _ = listener.accept()
            with server:
                for payload in payloads:
                    client.sendall(payload)
                    server.settimeout(WAIT)
                    received = 0
                    while received < len(payload):
                        received += len(server.recv(65536))
                client.shutdown(socket.SHUT_WR)
                server.recv(1)


class Receiver:
    """Counts UDP datagrams arriving at a port."""

    def __init__(self, port, family=socket.AF_INET, address="127.0.0.1"):
        self.sock = socket.socket(family, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.sock.bind((address, port))
        self.sock.setblocking(False)
        self.count = 0

    def drain(self, expected, timeout=WAIT):
        deadline = time.monotonic() + timeout
        while self.count < expected and time.monotonic() < deadline:
            if select.select([self.sock], [], [], 0.05)[0]:
                try:
                    while True:
                        self.sock.recv(65536)
                        self.count += 1
                except BlockingIOError:
                    pass
        return self.count

    def close(self):
        self.sock.close()


class Capture:
    """Records the packets leaving through lo, as the kernel hands them out."""

    ETH_P_ALL = 0x0003
    PACKET_OUTGOING = 4

    def __init__(self):
        self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(self.ETH_P_ALL))
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.sock.bind(("lo", 0))
        self.frames = []

    def collect(self, quiet=1.0):
        """Reads until nothing arrived for `quiet` seconds."""
        while select.select([self.sock], [], [], quiet)[0]:
            data, address = self.sock.recvfrom(65536)
            if address[2] == self.PACKET_OUTGOING:
                self.frames.append(data[14:])  # lo's Ethernet header carries nothing the queue sees
        self.sock.close()
        return self.frames


def selected(packet, udp=UDP_PORTS, tcp=TCP_PORTS):
    """Whether the firewall queue rules select the IP packet."""
    version = packet[0] >> 4
    if version == 4:
        proto, offset = packet[9], (packet[0] & 0x0F) * 4
    elif version == 6:
        proto, offset = packet[6], 40
    else:
        return False
    if proto not in (6, 17) or len(packet) < offset + 4:
        return False
    dport = struct.unpack("!H", packet[offset + 2:offset + 4])[0]
    return dport in (udp if proto == 17 else tcp)


def write_pcap(path, packets):
    """A capture of raw IP packets (link type 101)."""
    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
        for packet in packets:
            f.write(struct.pack("<IIII", 0, 0, len(packet), len(packet)))
            f.write(packet)


def tool_classes(tool, rules, pcap, extra=()):
    """Packets per mark as `nikerkiog classify` assigns them (no rule: mark 0)."""
    out = subprocess.run([tool, "classify", rules, pcap, "--dev", "lo", "--json", *extra], check=True,
                         capture_output=True, text=True).stdout
    counts = {}
    for line in out.splitlines():  # JSON Lines: one object per packet, then a summary
        packet = json.loads(line)
        if packet.get("type") != "packet":
            continue
        check("problem" not in packet, f"the tool could not classify a packet: {packet}")
        mark = packet["result"] if packet.get("rule_line") else 0
        counts[mark] = counts.get(mark, 0) + 1
    return counts


# ---- the tests ------------------------------------------------------------------

END_TO_END_RULES = """\
# Classes of the end-to-end test; each result is the mark the packet gets.
udp.dport 5001 => 1
udp.dport 5002 ip.len >100 => 2
udp.dport 5002 => 3
ip.daddr 127.0.0.2 udp.dport 5003 => 4
ip.version 6 udp.dport 5004 => 8

dev lo udp.dport 5003,5004 => 5
tcp.dport 6001 tcp.flags 0x002/0x012 => 6
tcp.dport 6001 => 7
"""


def end_to_end(t, optimise):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, END_TO_END_RULES)
    marks = range(0, 9)
    queue_traffic()
    count_marks(marks)
    queue_traffic("ip6tables", udp=(5004,), tcp=())
    count_marks(marks, "ip6tables", udp=(5004,), tcp=())
    capture = Capture()
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules] + (["--optimise"] if optimise else []))
    try:
        daemon.wait_bound()
        send_udp(10, 5001)
        send_udp(5, 5002, size=8)
        send_udp(5, 5002, size=200)
        send_udp(4, 5003, address="127.0.0.2")
        send_udp(3, 5003)
        send_udp(3, 5004)
        send_udp(4, 5004, address="::1", family=socket.AF_INET6)
        tcp_exchange(6001, [b"a" * 10, b"b" * 1000, b"c" * 3])
        tcp_exchange(6002, [b"d" * 50])
        frames = capture.collect()
    finally:
        status = daemon.stop()
    check(status == 0, f"daemon exit status {status}: {daemon.output()}")
    packets = [f for f in frames if selected(f)]
    pcap = os.path.join(t.workdir, "sent.pcap")
    write_pcap(pcap, packets)
    expected = tool_classes(t.tool, rules, pcap, ["--optimise"] if optimise else [])
    actual = counted()
    for mark, count in counted("ip6tables").items():
        actual[mark] = actual.get(mark, 0) + count
    actual = {m: c for m, c in actual.items() if c}
    print(f"packets {len(packets)}, marks by the tool {sorted(expected.items())}, "
          f"counted after the queue {sorted(actual.items())}")
    check(len(expected) >= 8, "the traffic should reach every class of the rule file")
    check(actual == expected, "marks counted after the queue differ from the tool's classes")


def test_end_to_end(t):
    end_to_end(t, optimise=False)


def test_end_to_end_optimised(t):
    end_to_end(t, optimise=True)


def test_reload_under_load(t):
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    sets = ["udp.dport 5001 => 1\n", "udp.dport 5001 => 2\n"]
    invalid = "udp.dport 5001 no.such.keyword 3 => 3\n"
    write_file(rules, sets[0])
    queue_traffic(udp=(5001,), tcp=())
    count_marks(range(0, 4), udp=(5001,), tcp=())
    daemon = Daemon(t.test_daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                                               "--stats-interval", "0", "--queue-maxlen", "65536"])
    sent = [0]
    stop = threading.Event()

    def sender():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            while not stop.is_set() and sent[0] < 200000:
                for _ in range(20):
                    s.sendto(b"x", ("127.0.0.1", 5001))
                    sent[0] += 1
                time.sleep(0.001)

    thread = threading.Thread(target=sender)
    try:
        daemon.wait_bound()
        first = wait_stats(daemon, stats_path, lambda s: True)
        thread.start()
        for i in range(100):
            write_file(rules, sets[(i // 2 + 1) % 2] if i % 2 == 0 else invalid)
            daemon.signal(signal.SIGHUP)
            wait_stats(daemon, stats_path, lambda s: s["reloads"]["done"] + s["reloads"]["failed"] == i + 1)
        stop.set()
        thread.join()
        last = wait_stats(daemon, stats_path, lambda s: s["packets"] >= sent[0])
    finally:
        stop.set()
        if thread.is_alive():
            thread.join()
        status = daemon.stop()
    check(status == 0, f"daemon exit status {status}")
    counts = counted()
    print(f"sent {sent[0]}, counted per mark {sorted(counts.items())}, reloads {last['reloads']}")
    check(last["reloads"] == {"done": 50, "failed": 50}, "50 reloads should replace the set and 50 keep it")
    check(last["last_reload_at"] >= last["rules_loaded_at"] > 0,
          "the last reload failed after the set in use was loaded")
    with open(rules, "rb") as f:
        check(last["rules_checksum"] != f"crc32:{zlib.crc32(f.read()):08x}", "the failed file is not the one in use")
    check(sum(counts.values()) == sent[0], "every packet sent is counted after the queue")
    check(counts.get(0, 0) == 0 and counts.get(3, 0) == 0, "no packet is left unmarked or marked by the invalid file")
    check(counts.get(1, 0) > 0 and counts.get(2, 0) > 0, "both valid sets classified packets")
    check(last["live_blocks"] == first["live_blocks"], "reloads leave the classifier's live allocations as they were")


def test_rule_file_errors(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "# a good rule, then two bad ones\nudp.dport 53 => 1\n\n   tcp.dport 80 no.such.keyword 1 => 2\n"
                      "ip.proto tcp => -1\n")
    status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules])
    print(output)
    check(status == 2, f"exit status {status}")
    check(re.search(re.escape(rules) + r":4:17: .*no\.such\.keyword", output),
          "the error names file, line and the column of the unknown keyword")
    check(f"{rules}:5:17: the result after" in output, "every wrong line is reported")
    check("bound" not in output, "no queue is bound")


def test_rule_file_bad_result(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 53 => 1\nudp.dport 54 => 70000\n")
    status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules])
    print(output)
    check(status == 2, f"exit status {status}")
    check(f"{rules}:2:17: the result after \"=>\" must be a number 0..65535" in output, "the error points at the result")


def test_rule_file_refusals(t):
    """Rule files are judged by the classifier's line reader, as the tool judges them."""
    cases = [
        (b"udp.dport 53 => 5\n" + bytes(64), ":2:1: NUL byte"),
        (b"udp.dport 53\n", ":1:13: the rule has no \"=> RESULT\""),
        (b"\xef\xbb\xbfudp.dport 53 => 1\n", ":1:1: byte-order mark"),
        (b"udp.dport 53 => 1\nany \xff => 2\n", ":2:5: bytes that are not UTF-8"),
        (b"ethsrctab dhcp.clients.of.the.lan => 1\n", ":1:11: table name \"dhcp.clients.of.the.lan\" is longer than 15"),
        (b"tcp.dprt 80 => 1\n", ":1:1: tcp.dprt: unknown keyword (did you mean `tcp.dport`?)"),
    ]
    for number, (content, message) in enumerate(cases):
        rules = os.path.join(t.workdir, f"rules{number}.txt")
        with open(rules, "wb") as f:
            f.write(content)
        status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules])
        print(output)
        check(status == 2, f"exit status {status} for {content!r}")
        check(rules + message in output, f"the error names the fault: {message}")
        check("bound" not in output, "no queue is bound")


def test_rule_file_warnings_and_long_result(t):
    """A result of 32 digits is read whole; what rules do silently is logged at load."""
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => " + "0" * 31 + "1\nudp.dport 5001 ip.daddr 127.0.0.1 => 2\n"
                      "tcp.dport 99999 => 3\n")
    queue_traffic(udp=(5001,), tcp=())
    count_marks([1, 2], udp=(5001,), tcp=())
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules])
    try:
        daemon.wait_bound()
        send_udp(5, 5001)
    finally:
        status = daemon.stop()
    output = daemon.output()
    print(output)
    check(status == 0, f"exit status {status}")
    check(f"{rules}:2:1: warning: never reached: the rule at line 1 matches every packet this one matches" in output,
          "the shadowed rule is logged")
    check(f"{rules}:3:11: warning: tcp.dport: 99999 is beyond 65535: 34463 is used" in output,
          "the cut port is logged")
    counts = counted()
    print(f"counted {sorted(counts.items())}")
    check(counts.get(1, 0) == 5, "the 32-digit result 000...0001 marks the packets 1")


def test_unreadable_rule_file(t):
    for path in (os.path.join(t.workdir, "missing.txt"), t.workdir):
        status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", path])
        print(output)
        check(status == 2, f"exit status {status} for {path}")
        check(output.startswith(f"nikerkiog-classd: {path}: cannot "), "the message names the file")


def test_queue_already_bound(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    queue_traffic(udp=(5001,), tcp=())
    count_marks([1], udp=(5001,), tcp=())
    first = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules])
    try:
        first.wait_bound()
        status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules])
        print(output)
        check(status == 2, f"exit status {status}")
        check(f"queue {QUEUE} is bound by another process" in output, "the message says the queue is taken")
        send_udp(5, 5001)
    finally:
        check(first.stop() == 0, "the first daemon stops cleanly")
    check(counted().get(1) == 5, "the first daemon kept serving the queue")


def test_without_net_admin(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    setpriv = ["setpriv", "--inh-caps=-net_admin", "--bounding-set=-net_admin"]
    status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules], wrapper=setpriv)
    print(output)
    check(status == 2, f"exit status {status}")
    check("needs root or CAP_NET_ADMIN" in output, "the message names the missing right")


def reload_with_failing_allocation(t, nth):
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    old = "udp.dport 5001 => 1\ntcp.dport 6001 => 1\n"
    new = "udp.dport 5001,5002,5003 => 2\nip.daddr 127.0.0.0/8 udp.dport 5001 => 3\ntcp.dport 6001-6002 => 2\n"
    write_file(rules, old)
    env = {"NIKERKIOG_CLASSD_FAIL_ALLOCATION": str(nth)}
    daemon = Daemon(t.test_daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--optimise", "--stats",
                                               stats_path, "--stats-interval", "0"], env=env, name=f"daemon{nth}")
    try:
        daemon.wait_bound()
        send_udp(5, 5001)
        write_file(rules, new)
        daemon.signal(signal.SIGHUP)
        stats = wait_stats(daemon, stats_path, lambda s: s["reloads"]["failed"] + s["reloads"]["done"] == 1)
        send_udp(5, 5001)
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] == 10)
    finally:
        status = daemon.stop()
    print(daemon.output())
    check(status == 0, f"exit status {status}")
    check(stats["reloads"] == {"done": 0, "failed": 1}, f"allocation {nth} failing makes the reload fail")
    check("reload failed, the rules in use stay" in daemon.output(), "the failure is logged")
    check([r["rule"] for r in stats["rules"]] == ["udp.dport 5001", "tcp.dport 6001"], "the old set stays")


def test_reload_allocation_failures(t):
    queue_traffic(udp=(5001,), tcp=())
    count_marks(range(0, 4), udp=(5001,), tcp=())
    # 1: the first rule record; 5: a later rule; 12: inside the restructuring.
    for nth in (1, 5, 12):
        reload_with_failing_allocation(t, nth)
    counts = counted()
    check(counts.get(1, 0) == 30 and sum(counts.values()) == 30, "every packet got the old set's mark")


def selftest(t, rules, reloads, nth=None):
    """Runs the reload self-test; returns (done, failed, allocations per reload)."""
    env = {"NIKERKIOG_CLASSD_FAIL_ALLOCATION": str(nth)} if nth else {}
    status, output = run_daemon(t.test_daemon, ["--selftest-reloads", str(reloads), "--optimise", "--rules", rules],
                                env=env)
    found = re.search(r"(\d+) done, (\d+) failed, live blocks (\d+) before, (\d+) after, (\d+) allocations", output)
    check(found, f"self-test report missing: {output}")
    check(status == 0 and found.group(3) == found.group(4),
          f"live blocks differ after the reloads (allocation {nth} failing): {output}")
    return int(found.group(1)), int(found.group(2)), int(found.group(5))


def test_reloads_keep_live_blocks(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, END_TO_END_RULES)
    done, failed, _ = selftest(t, rules, 1000)
    print(f"1000 reloads: {done} done, {failed} failed, live blocks the same")
    check((done, failed) == (1000, 0), "every reload replaced the set")


def test_reload_allocation_failure_sweep(t):
    """Each allocation of a reload failing in turn leaves no block behind."""
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, END_TO_END_RULES)
    _, _, allocations = selftest(t, rules, 1)
    failing = [nth for nth in range(1, allocations + 1) if selftest(t, rules, 2, nth)[1] == 2]
    # The classifier tolerates some failures (a value list it cannot grow,
    # a list it cannot compact), so not every failure fails the reload.
    print(f"{allocations} allocations per reload; the reload failed and kept the old set when allocation "
          f"{failing} failed; no block was left behind in any case")
    check(len(failing) > 0 and failing[0] == 1, "failures in the reload make it keep the old set")


def test_fail_open_and_kill(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    queue_traffic(bypass=True, udp=(5001,), tcp=())
    receiver = Receiver(5001)
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--fail-open",
                                          "--queue-maxlen", "4"])
    try:
        daemon.wait_bound()
        daemon.signal(signal.SIGSTOP)
        send_udp(50, 5001)
        while_stopped = receiver.drain(46, timeout=2.0)
        daemon.signal(signal.SIGCONT)
        after_continue = receiver.drain(50)
        daemon.signal(signal.SIGKILL)
        daemon.process.wait(WAIT)
        send_udp(50, 5001)
        after_kill = receiver.drain(100)
    finally:
        daemon.kill()
        receiver.close()
    print(f"received while stopped {while_stopped}, after continuing {after_continue}, after the kill {after_kill}")
    check(while_stopped >= 46, "packets beyond the full queue pass while the daemon is stopped")
    check(after_continue == 50, "the queued packets pass once the daemon runs again")
    check(after_kill == 100, "traffic flows on after the daemon was killed")


def test_stats_file(t):
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "# statistics\nudp.dport 5001 => 1\nudp.dport 5002 => 2\nudp.dport 5003 => 2\n")
    queue_traffic(udp=(5001, 5002, 5003, 5004), tcp=())
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                                          "--stats-interval", "1"])
    try:
        daemon.wait_bound()
        send_udp(3, 5001)
        send_udp(4, 5002)
        send_udp(5, 5003)
        send_udp(6, 5004)
        deadline = time.monotonic() + WAIT
        stats = None
        while time.monotonic() < deadline:  # written by the interval timer, no signal sent
            if os.path.exists(stats_path):
                stats = read_stats(stats_path)
                if stats["packets"] == 18:
                    break
            time.sleep(0.1)
    finally:
        status = daemon.stop()
    print(json.dumps(stats, indent=1))
    check(status == 0, f"exit status {status}")
    check(stats is not None and stats["packets"] == 18, "the interval writes the statistics")
    check(stats["verdicts"] == {"unchanged": 6, "classes": {"1": 3, "2": 9}}, "verdicts per class")
    check([(r["line"], r["rule"], r["result"], r["hits"]) for r in stats["rules"]] ==
          [(2, "udp.dport 5001", 1, 3), (3, "udp.dport 5002", 2, 4), (4, "udp.dport 5003", 2, 5)], "hits per rule")
    check(stats["errors"] == 0 and stats["queue_drops"] == {"queue_full": 0, "undelivered": 0, "socket_overruns": 0,
                                                             "missed": 0},
          "no errors, no drops")
    check(not os.path.exists(stats_path + ".tmp"), "no temporary file stays behind")
    with open(rules, "rb") as f:
        check(stats["rules_checksum"] == f"crc32:{zlib.crc32(f.read()):08x}",
              "the checksum is zlib's CRC-32 of the file")
    check(abs(stats["rules_loaded_at"] - time.time()) < 60 and stats["last_reload_at"] == 0,
          "load time given, no reload yet")
    check(stats["failed_open"] == 0 and stats["mark_mask"] == 0xFFFFFFFF, "nothing failed open; all mark bits")
    with open(MANUAL) as f:
        manual = f.read()
    fields = list(stats) + list(stats["queue_drops"]) + list(stats["reloads"]) + list(stats["rules"][0])
    for field in fields:
        check(f"*{field}*" in manual, f"the manual page describes the statistics field {field}")


def test_verdicts_batched(t):
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, "udp.dport 5001 => 1\n")
    queue_traffic(udp=(5001, 5002), tcp=())
    count_marks([0, 1], udp=(5001, 5002), tcp=())
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                                          "--stats-interval", "0"])
    try:
        daemon.wait_bound()
        daemon.signal(signal.SIGSTOP)  # the packets wait in the queue, to be read in one turn
        send_udp(20, 5001)
        send_udp(20, 5002)
        daemon.signal(signal.SIGCONT)
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] == 40)
    finally:
        status = daemon.stop()
    counts = counted()
    print(f"40 packets answered by {stats['verdict_messages']} verdict messages; counted {sorted(counts.items())}")
    check(status == 0, f"exit status {status}")
    check(counts == {0: 20, 1: 20}, "20 packets marked, 20 unchanged")
    check(stats["verdict_messages"] == 2, "each run of equal verdicts is answered by one message")


def test_interface_names(t):
    """dev conditions: a name given with --dev, a name of the system, an unknown name."""
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "dev wan udp.dport 5001 => 1\ndev nosuch udp.dport 5002 => 2\ndev lo udp.dport 5003 => 3\n")
    lo = socket.if_nametoindex("lo")
    queue_traffic(udp=(5001, 5002, 5003), tcp=())
    count_marks(range(0, 4), udp=(5001, 5002, 5003), tcp=())
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--dev", f"wan={lo}"])
    try:
        daemon.wait_bound()
        for port in (5001, 5002, 5003):
            send_udp(5, port)
    finally:
        status = daemon.stop()
    counts = {m: c for m, c in counted().items() if c}
    print(f"counted {sorted(counts.items())}")
    check(status == 0, f"exit status {status}")
    check(counts == {1: 5, 0: 5, 3: 5}, "wan is lo by --dev, lo by its own name, nosuch is no interface")


def test_clean_stop(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    queue_traffic(udp=(5001,), tcp=())
    count_marks([0, 1], udp=(5001,), tcp=())
    for stop_signal in (signal.SIGTERM, signal.SIGINT):
        daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules])
        daemon.wait_bound()
        send_udp(20, 5001)
        daemon.signal(stop_signal)
        status = daemon.stop()
        check(status == 0, f"exit status {status} after {stop_signal.name}")
        with open("/proc/net/netfilter/nfnetlink_queue") as f:
            check(not any(line.split()[0] == str(QUEUE) for line in f), "the queue is unbound")
    counts = counted()
    print(f"counted {sorted(counts.items())}")
    check(counts.get(1, 0) == 40, "the packets in hand were answered before stopping")


OVERRUN_RULES = "udp.dport 5001 => 1\nudp.dport 5002 => 2\nudp.dport 5003 => 3\nudp.dport 5004 => 4\n"


def send_udp_burst(count, ports, pause=0.0):
    """Datagrams to the ports in turn, `pause` seconds apart; returns how
    many the kernel took."""
    taken = 0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        for i in range(count):
            try:
                s.sendto(bytes([i % 256]) * 8, ("127.0.0.1", ports[i % len(ports)]))
                taken += 1
            except OSError:
                pass
            time.sleep(pause)
    return taken


def overrun(t, fail_open):
    """A socket buffer of a few messages and a burst while the daemon sleeps:
    most packet messages are lost on the way to the daemon."""
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    write_file(rules, OVERRUN_RULES)
    queue_traffic(udp=UDP_PORTS, tcp=())
    count_port_marks(UDP_PORTS, range(0, 5))
    burst = 2000
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                                          "--stats-interval", "0", "--socket-buffer", "4096", "--queue-maxlen",
                                          str(burst * 2)] + (["--fail-open"] if fail_open else []))
    try:
        daemon.wait_bound()
        daemon.signal(signal.SIGSTOP)
        taken = send_udp_burst(burst, UDP_PORTS)
        daemon.signal(signal.SIGCONT)
        wait_stats(daemon, stats_path, lambda s: s["packets"] > 0)
        # The gap in the packet ids shows once the next packet arrives; these
        # come slowly enough for the small buffer.
        taken += send_udp_burst(40, UDP_PORTS, pause=0.005)
        stats = wait_stats(daemon, stats_path, lambda s: s["packets"] + s["queue_drops"]["missed"] == burst + 40)
    finally:
        status = daemon.stop()
    counts = counted_by_port()
    missed = stats["queue_drops"]["missed"]
    print(f"burst {burst}, taken by the kernel {taken}, answered {stats['packets']}, missed {missed}, "
          f"overruns {stats['queue_drops']['socket_overruns']}, undelivered {stats['queue_drops']['undelivered']}, "
          f"counted {sorted(counts.items())}")
    check(status == 0, f"exit status {status}")
    check(missed > 0 and stats["queue_drops"]["socket_overruns"] > 0, "the burst overran the socket buffer")
    wrong = {key: count for key, count in counts.items() if key[1] not in (0, key[0] - 5000)}
    check(not wrong, f"packets carry another packet's mark: {wrong}")
    marked = sum(count for key, count in counts.items() if key[1] != 0)
    unmarked = sum(count for key, count in counts.items() if key[1] == 0)
    check(marked == stats["packets"], "every packet the daemon answered carries its own mark")
    if fail_open:
        check(taken == burst + 40 and unmarked == missed, "packets lost to the daemon pass unmarked")
        check(stats["failed_open"] == missed, "the statistics count them as failed open")
    else:
        check(unmarked == 0, "packets lost to the daemon are dropped")
        check(stats["queue_drops"]["undelivered"] == missed, "the kernel counts the same packets as undelivered")


def test_overrun_never_marks_another_packet(t):
    overrun(t, fail_open=False)


def test_overrun_failing_open_passes_unmarked(t):
    overrun(t, fail_open=True)


def test_mark_mask_keeps_other_bits(t):
    """Marks set before the queue by another subsystem keep their bits outside the mask."""
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\nudp.dport 5002 => 2\nudp.dport 5003 => 0\n")
    # Bits 16..19 belong to routing, bits 0..7 to the daemon; 5002's packets
    # arrive with daemon bits set too, which the result replaces.
    run("iptables", "-t", "mangle", "-A", "OUTPUT", "-p", "udp", "--dport", "5001", "-j", "MARK", "--set-mark",
        "0x50000")
    run("iptables", "-t", "mangle", "-A", "OUTPUT", "-p", "udp", "--dport", "5002:5004", "-j", "MARK",
        "--set-mark", "0x300ff")
    queue_traffic(udp=(5001, 5002, 5003, 5004), tcp=())
    count_port_marks((5001, 5002, 5003, 5004), (0x50001, 0x30002, 0x30000, 0x300ff, 0x1, 0x2, 0x0))
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--mark-mask", "0xff"])
    try:
        daemon.wait_bound()
        for port in (5001, 5002, 5003, 5004):
            send_udp(5, port)
    finally:
        status = daemon.stop()
    counts = counted_by_port()
    print(f"counted {sorted((port, hex(mark), count) for (port, mark), count in counts.items())}")
    check(status == 0, f"exit status {status}")
    check(counts == {(5001, 0x50001): 5, (5002, 0x30002): 5, (5003, 0x30000): 5, (5004, 0x300ff): 5},
          "the result replaces the masked bits only; packets no rule applies to keep their mark")


def test_mark_mask_refuses_results_outside(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 53 => 255\nudp.dport 54 =>   256\ntcp.dport 80 => 4096\n")
    status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules, "--mark-mask", "0xff"])
    print(output)
    check(status == 2, f"exit status {status}")
    check(f"{rules}:2:19: the result 256 has bits outside the mark mask 0xff" in output, "the error points at 256")
    check(f"{rules}:3:17: the result 4096 has bits outside the mark mask 0xff" in output, "every such rule is named")
    check(":1:" not in output, "255 fits the mask")
    for wrong in ("0", "0x100000000", "ff", "-1"):
        status, output = run_daemon(t.daemon, ["--queue", str(QUEUE), "--rules", rules, "--mark-mask", wrong])
        check(status == 2 and "--mark-mask: a nonzero 32-bit number" in output, f"--mark-mask {wrong} is refused")


def test_shipped_daemon_has_no_test_hooks(t):
    """The shipped daemon needs nothing of the platform but its public interfaces."""
    symbols = subprocess.run(["nm", "-D", "--undefined-only", t.daemon], check=True, capture_output=True,
                             text=True).stdout
    hooks = [line.split()[-1] for line in symbols.splitlines() if "nuvcsock_" in line]
    check(not hooks, f"the shipped daemon calls test hooks: {hooks}")
    test_symbols = subprocess.run(["nm", "-D", "--undefined-only", t.test_daemon], check=True, capture_output=True,
                                  text=True).stdout
    check("nuvcsock_fail_nth_allocation" in test_symbols, "the test build does call them (the check can fail)")
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, "udp.dport 5001 => 1\n")
    status, output = run_daemon(t.daemon, ["--selftest-reloads", "1", "--rules", rules])
    check(status == 2 and "only in the daemon's test build" in output, f"self-test refused: {status} {output}")
    stats_path = os.path.join(t.workdir, "stats.json")
    queue_traffic(udp=(5001,), tcp=())
    count_marks([1], udp=(5001,), tcp=())
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                                          "--stats-interval", "0"], env={"NIKERKIOG_CLASSD_FAIL_ALLOCATION": "1"})
    try:
        daemon.wait_bound()
        daemon.signal(signal.SIGHUP)
        stats = wait_stats(daemon, stats_path, lambda s: s["reloads"]["done"] == 1)
        send_udp(3, 5001)
    finally:
        status = daemon.stop()
    check(status == 0, f"exit status {status}")
    check("live_blocks" not in stats, "no live block count without the platform's measurements")
    check(counted().get(1) == 3, "the reload succeeded: no allocation failure is injected")


def test_version_and_help(t):
    status, output = run_daemon(t.daemon, ["--version"])
    check(status == 0 and re.fullmatch(r"nikerkiog-classd \d+\.\d+\.\d+\n", output), f"--version: {output!r}")
    status, output = run_daemon(t.daemon, ["--help"])
    check(status == 0, f"--help exit status {status}")
    for option in ("--queue", "--rules", "--dev", "--optimise", "--fail-open", "--mark-mask", "--queue-maxlen",
                   "--socket-buffer", "--stats", "--stats-interval", "--null", "--syslog", "--version", "--help"):
        check(re.search(r"^  " + re.escape(option) + r"\b", output, re.M), f"--help lists {option}")
    check("--selftest-reloads" not in output, "the test build's option is not shown")
    for option, value, complaint in (("--socket-buffer", "4095", "--socket-buffer: bytes 4096..1073741824"),
                                     ("--socket-buffer", "1073741825", "--socket-buffer: bytes 4096..1073741824"),
                                     ("--queue", "65536", "--queue: a number 0..65535")):
        status, output_wrong = run_daemon(t.daemon, ["--queue", "1", "--null", option, value])
        check(status == 2 and complaint in output_wrong, f"{option} {value} is refused: {output_wrong}")
    with open(MANUAL) as f:
        manual = f.read()
    for option in re.findall(r"^  (--[a-z-]+)", output, re.M):
        check(f"*{option}*" in manual, f"the manual page describes {option}")


CONNECTION_PORTS = range(7001, 7011)


def per_connection_ruleset(marks):
    """Only packets of connections without a mark go to the queue; the mark
    the daemon gives is saved in the connection and restored on its later
    packets.  Named counters count each port's packets, in all and with the
    expected mark."""
    counters = "".join(f"  counter all_{p} {{}}\n  counter marked_{p} {{}}\n" for p in CONNECTION_PORTS)
    counting = "".join(f"    tcp dport {p} counter name all_{p}\n"
                       f"    tcp dport {p} meta mark {marks[p]} counter name marked_{p}\n" for p in CONNECTION_PORTS)
    ports = f"{CONNECTION_PORTS[0]}-{CONNECTION_PORTS[-1]}"
    return f"""table inet classd_test {{
{counters}  chain restore {{
    type filter hook output priority mangle - 1; policy accept;
    tcp dport {ports} ct mark != 0 meta mark set ct mark
  }}
  chain save {{
    type filter hook output priority mangle + 1; policy accept;
    tcp dport {ports} ct mark 0 meta mark != 0 ct mark set meta mark
  }}
  chain count {{
    type filter hook postrouting priority 0; policy accept;
{counting}  }}
}}
"""


def queue_unclassified_connections(nft_match, ipt_match, hook="output"):
    """Queues the packets of connections without a mark, between restoring
    and saving marks: by nftables' queue statement, or where the kernel has
    none by the iptables target (its mangle chains run at the same priority)."""
    if kernel_queues_from_nftables():
        nft_load(f"table inet classd_queue {{\n chain q {{\n  type filter hook {hook} priority mangle; policy accept;\n"
                 f"  {nft_match} ct mark 0 queue num {QUEUE}\n }}\n}}\n")
    else:
        run("iptables", "-t", "mangle", "-A", hook.upper(), *ipt_match, "-m", "connmark", "--mark", "0", "-j",
            "NFQUEUE", "--queue-num", str(QUEUE))


def exchange_segments(port, count):
    """One connection sending `count` small segments, each echoed back
    before the next, so that each is a packet of its own."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", port))
        listener.listen(1)
        with socket.create_connection(("127.0.0.1", port), timeout=WAIT) as client:
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            server, _ = listener.accept()
            with server:
                server.settimeout(WAIT)
                server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                for i in range(count):
                    client.sendall(b"%04d" % i)
                    received = b""
                    while len(received) < 4:
                        received += server.recv(4 - len(received))
                    server.sendall(received)
                    echoed = b""
                    while len(echoed) < 4:
                        echoed += client.recv(4 - len(echoed))


def test_per_connection_marks_whole_connections(t):
    rules = os.path.join(t.workdir, "rules.txt")
    stats_path = os.path.join(t.workdir, "stats.json")
    marks = {p: 0x10 + i for i, p in enumerate(CONNECTION_PORTS)}
    write_file(rules, "".join(f"tcp.dport {p} => {marks[p]}\n" for p in CONNECTION_PORTS))
    nft_load(per_connection_ruleset(marks))
    queue_unclassified_connections(f"tcp dport {CONNECTION_PORTS[0]}-{CONNECTION_PORTS[-1]}",
                                   ["-p", "tcp", "--dport", f"{CONNECTION_PORTS[0]}:{CONNECTION_PORTS[-1]}"])
    daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules, "--per-connection", "--stats",
                                          stats_path, "--stats-interval", "0"])
    try:
        daemon.wait_bound()
        for port in CONNECTION_PORTS:
            exchange_segments(port, 100)
        stats = wait_stats(daemon, stats_path, lambda s: True)
    finally:
        status = daemon.stop()
    counters = nft_counters("inet", "classd_test")
    every = {p: counters[f"all_{p}"] for p in CONNECTION_PORTS}
    marked = {p: counters[f"marked_{p}"] for p in CONNECTION_PORTS}
    print(f"packets per connection {sorted(every.items())}; with the connection's mark {sorted(marked.items())}; "
          f"seen by the daemon {stats['packets']}, hits {[r['hits'] for r in stats['rules']]}")
    check(status == 0, f"exit status {status}")
    check(sum(every.values()) >= 1000 and min(every.values()) >= 100, "100 segments on each of 10 connections")
    check(marked == every, "every packet carries its connection's mark")
    check(10 <= stats["packets"] <= 20 and all(1 <= r["hits"] <= 2 for r in stats["rules"]),
          "the daemon saw only each connection's first packets")


PER_PACKET_RULES = """\
tcp.dport 80 => 1
tcp.dport 443 tcp.flags 0x002/0x012 => 2
udp.dport 53  ip.len >512 => 3
udp.dport 67 dhcpoption 60 MSFT* clients => 4
tcp.dport 25 packetmatch *EHLO* => 5
"""


def test_per_connection_warns_about_per_packet_conditions(t):
    rules = os.path.join(t.workdir, "rules.txt")
    write_file(rules, PER_PACKET_RULES)
    queue_traffic(udp=(), tcp=(1,))
    outputs = {}
    for mode in ([], ["--per-connection"]):
        daemon = Daemon(t.daemon, t.workdir, ["--queue", str(QUEUE), "--rules", rules] + mode,
                        name="daemon" + str(len(mode)))
        try:
            daemon.wait_bound()
        finally:
            status = daemon.stop()
        check(status == 0, f"exit status {status}")
        outputs[bool(mode)] = daemon.output()
    print(outputs[True])
    check("warning" not in outputs[False], "no warning without --per-connection")
    for where, keyword in (("2:15", "tcp.flags"), ("3:15", "ip.len"), ("4:14", "dhcpoption"), ("5:14", "packetmatch")):
        check(f"{rules}:{where}: warning: {keyword} differs from packet to packet" in outputs[True],
              f"{keyword} is warned about at {where}")
    check(f"{rules}:1:" not in outputs[True], "a rule on ports only is fine")
    check("5 rules" in outputs[True], "warnings do not refuse the rules")


EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "daemon", "examples")

# Run inside the client's namespace: three UDP flows (two forwarded, one to
# the router), then one TCP connection that sends segments one by one.
CLIENT_SCRIPT = """
import socket, sys, time
server, router = sys.argv[1], sys.argv[2]
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
    for i in range(20):
        s.sendto(b"call", (server, 5060))
        s.sendto(b"other", (server, 9999))
        s.sendto(b"local", (router, 5060))
        if i == 0:
            time.sleep(0.3)  # a flow's later packets follow its first's verdict
with socket.create_connection((server, 22), timeout=10) as c:
    c.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for i in range(50):
        c.sendall(b"%04d" % i)
        assert c.recv(4)
"""

# Run inside the server's namespace: echoes one TCP connection on port 22.
SERVER_SCRIPT = """
import socket
with socket.socket() as l:
    l.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    l.bind(("0.0.0.0", 22))
    l.listen(1)
    print("listening", flush=True)
    l.settimeout(20)
    c, _ = l.accept()
    with c:
        while True:
            data = c.recv(4)
            if not data:
                break
            c.sendall(data)
"""


class Host:
    """A namespace of its own behind one end of a veth pair from this one."""

    def __init__(self, name, router_if, address, router_address):
        self.holder = subprocess.Popen(["unshare", "-n", "sleep", "120"])
        self.pid = str(self.holder.pid)
        deadline = time.monotonic() + WAIT
        while os.readlink(f"/proc/{self.pid}/ns/net") == os.readlink("/proc/self/ns/net"):
            check(time.monotonic() < deadline, "the host namespace was not made")
            time.sleep(0.01)
        run("ip", "link", "add", router_if, "type", "veth", "peer", "name", name)
        run("ip", "link", "set", name, "netns", self.pid)
        run("ip", "addr", "add", router_address + "/24", "dev", router_if)
        run("ip", "link", "set", router_if, "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "addr", "add", address + "/24", "dev", name)
        self.run("ip", "link", "set", name, "up")
        self.run("ip", "route", "add", "default", "via", router_address)

    def command(self, *command):
        return ["nsenter", "-t", self.pid, "-n", *command]

    def run(self, *command):
        run(*self.command(*command))

    def close(self):
        self.holder.kill()
        self.holder.wait(WAIT)


CHECK_RULESET = """table inet classd_check {
  counter forwarded_call {}
  counter forwarded_call_marked {}
  counter forwarded_other {}
  counter forwarded_other_marked {}
  counter forwarded_shell {}
  counter forwarded_shell_marked {}
  counter local_call {}
  counter local_call_marked {}
  chain postrouting {
    type filter hook postrouting priority 100; policy accept;
    oifname "wan0" udp dport 5060 counter name forwarded_call
    oifname "wan0" udp dport 5060 meta mark 1 counter name forwarded_call_marked
    oifname "wan0" udp dport 9999 counter name forwarded_other
    oifname "wan0" udp dport 9999 meta mark 15 counter name forwarded_other_marked
    oifname "wan0" tcp dport 22 counter name forwarded_shell
    oifname "wan0" tcp dport 22 meta mark 2 counter name forwarded_shell_marked
  }
  chain input {
    type filter hook input priority 100; policy accept;
    iifname "lan0" udp dport 5060 counter name local_call
    iifname "lan0" udp dport 5060 meta mark 1 counter name local_call_marked
  }
}
"""


def test_router_example_marks_forwarded_traffic(t):
    """The shipped example, loaded as shipped, on a router between a LAN
    host and a WAN host, each in a namespace of its own."""
    stats_path = os.path.join(t.workdir, "stats.json")
    with open("/proc/sys/net/ipv4/ip_forward", "w") as f:
        f.write("1\n")
    client = Host("eth0", "lan0", "10.1.0.2", "10.1.0.1")
    server = Host("eth0", "wan0", "10.2.0.2", "10.2.0.1")
    daemon = None
    listener = None
    try:
        run("nft", "-f", os.path.join(EXAMPLES, "router.nft"))
        if kernel_queues_from_nftables():
            run("nft", "-f", os.path.join(EXAMPLES, "router-queue.nft"))
            queued_by = "router-queue.nft"
        else:
            run("iptables-restore", "--noflush", os.path.join(EXAMPLES, "router-queue.iptables"))
            queued_by = "router-queue.iptables (this kernel's nftables has no queue statement)"
        nft_load(CHECK_RULESET)
        daemon = Daemon(t.daemon, t.workdir, ["--queue", "0", "--rules", os.path.join(EXAMPLES, "router.rules"),
                                              "--per-connection", "--mark-mask", "0xff", "--fail-open", "--stats",
                                              stats_path, "--stats-interval", "0"])
        daemon.wait_bound()
        listener = subprocess.Popen(server.command(sys.executable, "-c", SERVER_SCRIPT), stdout=subprocess.PIPE,
                                    text=True)
        check(listener.stdout.readline().strip() == "listening", "the server listens")
        sent = subprocess.run(client.command(sys.executable, "-c", CLIENT_SCRIPT, "10.2.0.2", "10.1.0.1"),
                              capture_output=True, text=True, timeout=WAIT * 2)
        check(sent.returncode == 0, f"the client failed: {sent.stderr}")
        listener.wait(WAIT)
        stats = wait_stats(daemon, stats_path, lambda s: True)
    finally:
        if daemon:
            status = daemon.stop()
        if listener and listener.poll() is None:
            listener.kill()
        client.close()
        server.close()
    counters = nft_counters("inet", "classd_check")
    print(f"queued by {queued_by}; counters {sorted(counters.items())}; daemon saw {stats['packets']} packets, "
          f"hits {[(r['rule'], r['hits']) for r in stats['rules']]}")
    check(status == 0, f"exit status {status}")
    for name, least in (("forwarded_call", 20), ("forwarded_other", 20), ("forwarded_shell", 50),
                        ("local_call", 20)):
        check(counters[name] >= least, f"{name}: {counters[name]} packets, {least} sent at least")
        check(counters[name + "_marked"] == counters[name], f"{name}: every packet carries its class's mark")
    check(stats["packets"] <= 8, "the daemon saw only the first packets of each connection")


class Context:
    def __init__(self, daemon, test_daemon, tool, workdir):
        self.daemon, self.test_daemon, self.tool, self.workdir = daemon, test_daemon, tool, workdir


def main(tests=None, prefix="classd-"):
    """Runs the test named on the command line among `tests` (this file's
    when none are given: the functions named test_NAME)."""
    parser = argparse.ArgumentParser()
    parser.add_argument("name")
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--test-daemon", required=True)
    parser.add_argument("--tool", required=True)
    args = parser.parse_args()
    test = (tests or globals()).get("test_" + args.name)
    if test is None:
        print(f"no test named {args.name}")
        return 2
    enter_namespace()
    workdir = tempfile.mkdtemp(prefix=prefix)
    try:
        test(Context(os.path.abspath(args.daemon), os.path.abspath(args.test_daemon), os.path.abspath(args.tool),
                     workdir))
    except Failure as failure:
        print(f"FAILED: {args.name}: {failure}")
        return 1
    finally:
        shutil.rmtree(workdir, ignore_errors=True)
    print(f"passed: {args.name}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Soak run of nikerkiog-classd (make soak-classd; not part of CTest).

    classd_soak.py --daemon PATH [--seconds 600] [--rate 2000]

In a network namespace of its own: UDP traffic to four ports through the
daemon's queue for the whole run, a reload every second alternating a valid
rule file (two valid sets in turn) and an invalid one, and every 10 seconds
a sample of the classifier's live allocations and the daemon's resident
size.  Passes when both stay flat, no packet got a mark neither valid set
gives its port, and every packet sent was counted after the queue.  --daemon
is the daemon's test build (it reports live allocations).
"""
import argparse
import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

NAMESPACE_MARK = "NIKERKIOG_CLASSD_SOAK_NAMESPACE"
QUEUE = 11
PORTS = (5001, 5002, 5003, 5004)
# Two valid sets give each port a mark of its own; the invalid file would
# give 99 if it ever loaded.
VALID = ["".join(f"udp.dport {p} => {p - 5000 + offset}\n" for p in PORTS) for offset in (0, 10)]
INVALID = "".join(f"udp.dport {p} no.such.keyword 1 => 99\n" for p in PORTS)
SAMPLE_EVERY = 10
RSS_SLACK_KIB = 256  # allocator noise allowed between samples


def enter_namespace():
    if os.environ.get(NAMESPACE_MARK) == "1":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    env = dict(os.environ, **{NAMESPACE_MARK: "1"})
    os.execvpe("unshare", ["unshare", "-n", sys.executable] + sys.argv, env)


def iptables(*rule):
    subprocess.run(["iptables", "-t", "mangle", *rule], check=True)


def counted():
    listing = subprocess.run(["iptables", "-t", "mangle", "-L", "POSTROUTING", "-v", "-x", "-n"], check=True,
                             capture_output=True, text=True).stdout
    counts = {}
    for line in listing.splitlines():
        found = re.search(r"udp dpt:(\d+)", line)
        mark = re.search(r"mark match 0x([0-9a-f]+)", line)
        if found:
            key = (int(found.group(1)), int(mark.group(1), 16) if mark else None)
            counts[key] = int(line.split()[0])
    return counts


def write_file(path, text):
    with open(path + ".new", "w") as f:
        f.write(text)
    os.rename(path + ".new", path)


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        return int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))


def read_stats(daemon, path, after):
    """Asks for statistics and waits for a file newer than `after`."""
    daemon.send_signal(signal.SIGUSR1)
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        if os.path.exists(path) and os.stat(path).st_mtime_ns > after:
            with open(path) as f:
                return json.load(f)
        time.sleep(0.01)
    sys.exit("the daemon wrote no statistics")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--rate", type=int, default=2000, help="packets per second sent")
    args = parser.parse_args()
    enter_namespace()
    work = tempfile.mkdtemp(prefix="classd-soak-")
    rules, stats_path = os.path.join(work, "rules.txt"), os.path.join(work, "stats.json")
    write_file(rules, VALID[0])
    ports = f"{PORTS[0]}:{PORTS[-1]}"
    iptables("-A", "OUTPUT", "-p", "udp", "--dport", ports, "-j", "NFQUEUE", "--queue-num", str(QUEUE))
    for p in PORTS:
        for mark in (p - 5000, p - 4990):
            iptables("-A", "POSTROUTING", "-p", "udp", "--dport", str(p), "-m", "mark", "--mark", str(mark))
        iptables("-A", "POSTROUTING", "-p", "udp", "--dport", str(p))  # every packet of the port
    log = open(os.path.join(work, "daemon.log"), "w")
    daemon = subprocess.Popen([args.daemon, "--queue", str(QUEUE), "--rules", rules, "--stats", stats_path,
                               "--stats-interval", "0", "--queue-maxlen", "100000"], stdout=log, stderr=log)
    time.sleep(0.5)
    sent = [0]
    stop = threading.Event()

    def sender():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            start = time.monotonic()
            while not stop.is_set():
                due = int((time.monotonic() - start) * args.rate)
                while sent[0] < due:
                    s.sendto(b"soak", ("127.0.0.1", PORTS[sent[0] % len(PORTS)]))
                    sent[0] += 1
                time.sleep(0.002)

    thread = threading.Thread(target=sender)
    thread.start()
    samples = []
    stamp = 0
    try:
        for second in range(args.seconds):
            write_file(rules, VALID[(second // 2) % 2] if second % 2 == 0 else INVALID)
            daemon.send_signal(signal.SIGHUP)
            if second % SAMPLE_EVERY == 0:
                stats = read_stats(daemon, stats_path, stamp)
                stamp = os.stat(stats_path).st_mtime_ns
                samples.append((second, stats["live_blocks"], rss_kib(daemon.pid), stats["packets"]))
                print(f"{second:4d} s: live blocks {samples[-1][1]}, RSS {samples[-1][2]} KiB, "
                      f"packets {samples[-1][3]}, reloads {stats['reloads']}", flush=True)
            time.sleep(1)
        stop.set()
        thread.join()
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            stats = read_stats(daemon, stats_path, stamp)
            stamp = os.stat(stats_path).st_mtime_ns
            if stats["packets"] >= sent[0]:
                break
    finally:
        stop.set()
        daemon.send_signal(signal.SIGTERM)
        status = daemon.wait(10)
    counts = counted()
    total = sum(c for (p, mark), c in counts.items() if mark is None)
    marked = sum(c for (p, mark), c in counts.items() if mark is not None)
    blocks = {b for _, b, _, _ in samples}
    rss = [r for _, _, r, _ in samples]
    failures = []
    if status != 0:
        failures.append(f"daemon exit status {status}")
    if total != sent[0]:
        failures.append(f"sent {sent[0]}, counted {total}")
    if marked != total:
        failures.append(f"{total - marked} packets carry a mark no valid set gives their port")
    if len(blocks) != 1:
        failures.append(f"live blocks changed: {sorted(blocks)}")
    if max(rss[1:] or rss) - min(rss[1:] or rss) > RSS_SLACK_KIB:
        failures.append(f"RSS grew: {rss}")
    print(f"soak: {args.seconds} s, sent {sent[0]}, counted {total}, with a valid mark {marked}, "
          f"reloads done {stats['reloads']['done']} failed {stats['reloads']['failed']}, "
          f"live blocks {sorted(blocks)}, RSS {min(rss)}..{max(rss)} KiB over {len(samples)} samples, "
          f"exit status {status}")
    for failure in failures:
        print("FAILED: " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Throughput of nikerkiog-classd: 200,000 small UDP datagrams through the
kernel queue in a network namespace of its own, for the daemon with a
100-rule set, with a set that always misses, in its null mode (the same
queue code, no classifier), in per-connection mode (10 flows; only each
flow's first packets are queued, the firewall keeps the mark), with those
firewall rules but no queue, and with no queue at all, measured in the same
run.

    run.py --daemon PATH --load PATH [--count N] [--rounds R]
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile
import time

PORT = 9000
QUEUE = 9
NAMESPACE_MARK = "NIKERKIOG_CLASSD_BENCH_NAMESPACE"


def rules(last):
    """100 rules of several kinds; the datagrams of the load reach the last."""
    lines = []
    for i in range(99):
        kind = i % 4
        if kind == 0:
            lines.append(f"udp.dport {10000 + i} => {i + 1}")
        elif kind == 1:
            lines.append(f"ip.proto tcp tcp.dport {20000 + i} => {i + 1}")
        elif kind == 2:
            lines.append(f"ip.daddr 10.{i}.0.0/16 udp.dport 53 => {i + 1}")
        else:
            lines.append(f"ip.saddr 192.0.2.{i} ip.len >1000 => {i + 1}")
    lines.append(last + " => 100")
    return "\n".join(lines) + "\n"


def iptables(*rule):
    subprocess.run(["iptables", "-t", "mangle", *rule], check=True)


def queue_every_packet():
    iptables("-F")
    iptables("-A", "OUTPUT", "-p", "udp", "--dport", str(PORT), "-j", "NFQUEUE", "--queue-num", str(QUEUE))


def queue_first_packets():
    """A flow's packets are queued until it has a mark; the daemon's mark is
    saved in the connection after the verdict and restored for the rest."""
    iptables("-F")
    match = ["-p", "udp", "--dport", str(PORT)]
    iptables("-A", "OUTPUT", *match, "-m", "connmark", "!", "--mark", "0", "-j", "CONNMARK", "--restore-mark")
    iptables("-A", "OUTPUT", *match, "-m", "connmark", "--mark", "0", "-j", "NFQUEUE", "--queue-num", str(QUEUE))
    iptables("-A", "POSTROUTING", *match, "-m", "connmark", "--mark", "0", "-m", "mark", "!", "--mark", "0", "-j",
             "CONNMARK", "--save-mark")


def connection_marks_only():
    """The per-connection rules without the queue: what keeping marks in the
    connection costs by itself."""
    iptables("-F")
    match = ["-p", "udp", "--dport", str(PORT)]
    iptables("-A", "OUTPUT", *match, "-m", "connmark", "!", "--mark", "0", "-j", "CONNMARK", "--restore-mark")
    iptables("-A", "OUTPUT", *match, "-m", "connmark", "--mark", "0", "-j", "MARK", "--set-mark", "100")
    iptables("-A", "POSTROUTING", *match, "-m", "connmark", "--mark", "0", "-m", "mark", "!", "--mark", "0", "-j",
             "CONNMARK", "--save-mark")


def queue_nothing():
    iptables("-F")


def load(args, flows):
    out = subprocess.run([args.load, str(args.count), str(args.window), str(PORT), str(flows)], capture_output=True,
                         text=True, timeout=120)
    if out.returncode != 0:
        sys.exit(f"load failed: {out.stderr}")
    return float(re.search(r"([0-9.]+) packets/s", out.stdout).group(1))


def measure(args, daemon_args, flows=1):
    if daemon_args is None:
        return load(args, flows), 0.0, 0.0
    log = tempfile.TemporaryFile("w+")
    daemon = subprocess.Popen([args.daemon, "--queue", str(QUEUE)] + daemon_args, stderr=log)
    try:
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            log.seek(0)
            if "bound" in log.read():
                break
            time.sleep(0.02)
        rate = load(args, flows)
    finally:
        daemon.terminate()
    _, _, usage = os.wait4(daemon.pid, 0)
    daemon.returncode = 0
    return rate, 1e6 * usage.ru_utime / args.count, 1e6 * usage.ru_stime / args.count


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--load", required=True)
    parser.add_argument("--count", type=int, default=200000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--window", type=int, default=256)
    args = parser.parse_args()
    if os.environ.get(NAMESPACE_MARK) != "1":
        unshare = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-r", "-n"]
        os.execvpe(unshare[0], unshare + [sys.executable] + sys.argv, dict(os.environ, **{NAMESPACE_MARK: "1"}))
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    work = tempfile.mkdtemp(prefix="classd-bench-")
    hundred, miss = os.path.join(work, "hundred.txt"), os.path.join(work, "miss.txt")
    with open(hundred, "w") as f:
        f.write(rules(f"udp.dport {PORT}"))
    one = os.path.join(work, "one.txt")
    with open(one, "w") as f:
        f.write(f"udp.dport {PORT} => 100\n")
    with open(miss, "w") as f:
        f.write(rules(f"udp.dport {PORT + 1}"))
    # name, firewall, daemon arguments (None: no daemon), flows
    modes = [("null program (accepts, no classifier)", queue_every_packet, ["--null"], 1),
             ("1 rule that applies (the mark's own cost)", queue_every_packet, ["--rules", one], 1),
             ("100 rules, the last applies", queue_every_packet, ["--rules", hundred], 1),
             ("100 rules, always missing", queue_every_packet, ["--rules", miss], 1),
             ("100 rules, the last applies, --optimise", queue_every_packet, ["--rules", hundred, "--optimise"], 1),
             ("100 rules, --per-connection, 10 flows", queue_first_packets,
              ["--rules", hundred, "--per-connection"], 10),
             ("connection marks, no queue (10 flows)", connection_marks_only, None, 10),
             ("no queue at all (10 flows)", queue_nothing, None, 10)]
    best = {name: 0.0 for name, *_ in modes}
    user = {name: float("inf") for name, *_ in modes}
    system = dict(user)
    for _ in range(args.rounds):  # interleaved rounds; the best of each mode counts
        for name, firewall, daemon_args, flows in modes:
            firewall()
            rate, user_us, system_us = measure(args, daemon_args, flows)
            best[name] = max(best[name], rate)
            user[name], system[name] = min(user[name], user_us), min(system[name], system_us)
    null = best[modes[0][0]]
    bare = best[modes[-1][0]]
    print(f"{args.count} UDP datagrams of 16 bytes through queue {QUEUE}, best of {args.rounds} rounds "
          "(packets/s, its ratio to the null program and to no queue at all; the daemon's user and kernel CPU "
          "time per packet)")
    for name, *_ in modes:
        cost = 100.0 * (1.0 - best[name] / null)
        print(f"  {name:42s} {best[name]:9.0f} packets/s  ratio {best[name] / null:.3f} (cost {cost:6.1f}%)"
              f"  to no queue {best[name] / bare:.3f}"
              f"  user {user[name]:5.2f} us  kernel {system[name]:5.2f} us")


if __name__ == "__main__":
    main()

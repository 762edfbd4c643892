#!/usr/bin/python3
"""The kernel's tc classifier against the library on generated frames.

  classify_kernel_generated.py frames TOOL SOURCE_DIR WORK_DIR
      The frames of kernel_frames.py under every rule file of
      tests/data/kernel, as written and optimised.
  classify_kernel_generated.py corpus TOOL SOURCE_DIR WORK_DIR
      Every line of the rule-text fuzz corpora that reads as a rule, with a
      result, on the bundled captures and the generated frames.

Each run of `TOOL classify RULES CAPTURE... --kernel` must exit 0 with no
frame on which the two differ."""

import glob
import os
import random
import re
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SUMMARY = re.compile(r"^# kernel: (\d+) frames, (\d+) agree, (\d+) asked userspace where it may, (\d+) not run .*, (\d+) differ;")
REJECTED = re.compile(r"^[^\n]*?:(\d+):\d+: error: ", re.M)
# Rules per file of corpus lines: each file costs one load of the program,
# and a rule far down a long file is reached by few frames.
CORPUS_RULES_PER_FILE = 150
# Keywords of conditions only userspace decides (any word of the line, so
# a pattern that names one counts too).
USERSPACE_KEYWORDS = re.compile(rb"(dhcpoption|dhcpheader|packetmatch|localmark|brdev)", re.I)


def generate_frames(work):
    pcap = os.path.join(work, "kernel-frames.pcap")
    out = subprocess.run(["/usr/bin/python3", os.path.join(HERE, "kernel_frames.py"), pcap], check=True,
                         capture_output=True, text=True).stdout
    print(f"generated {out.strip()} frames into {pcap}")
    return pcap


def bundled_captures(src):
    return sorted(glob.glob(os.path.join(src, "tests/data/captures/*.pcap*")) +
                  glob.glob(os.path.join(src, "examples/captures/*.pcap*")))


def classify(tool, rules, captures, optimise):
    """Runs the tool; returns a failure text, or None when the run agrees."""
    command = [tool, "classify", rules, *captures, "--kernel"] + (["--optimise"] if optimise else [])
    run = subprocess.run(command, capture_output=True, text=True, errors="replace")
    lines = run.stdout.splitlines()
    summary = SUMMARY.match(lines[-1]) if lines else None
    name = f"{os.path.basename(rules)}{' --optimise' if optimise else ''}"
    if run.returncode == 0 and summary and summary.group(5) == "0":
        print(f"ok: {name}: {summary.group(1)} frames, {summary.group(2)} agree, {summary.group(3)} asked, "
              f"{summary.group(4)} not run")
        return None
    different = [line for line in lines if line.endswith("DIFFERENT")]
    return (f"DIFFERENT: {name}: exit {run.returncode}: {lines[-1] if lines else run.stderr.strip()}\n" +
            "".join(f"  {line}\n" for line in different[:40]))


def run_all(tool, rule_files, captures):
    failures = []
    for rules in rule_files:
        for optimise in (False, True):
            failure = classify(tool, rules, captures, optimise)
            if failure:
                failures.append(failure)
    for failure in failures:
        print(failure, end="")
    return 1 if failures else 0


def frames(tool, src, work):
    pcap = generate_frames(work)
    rule_files = sorted(glob.glob(os.path.join(src, "tests/data/kernel/*.rules")))
    if not rule_files:
        sys.exit(f"no rule files in {src}/tests/data/kernel")
    return run_all(tool, rule_files, [pcap])


def corpus_lines(src):
    """The rule-text lines of the fuzz corpora: the lines before the first
    NUL byte (behind it a rule input carries its packet), once each, in
    corpus order.  Lines with a comment or a result of their own are left
    out: the result each gets here is appended."""
    seen = set()
    lines = []
    for corpus in ("clfy_rule", "clfy_file"):
        for path in sorted(glob.glob(os.path.join(src, "fuzz/corpus", corpus, "*"))):
            with open(path, "rb") as f:
                text = f.read().split(b"\0", 1)[0]
            for line in text.split(b"\n"):
                line = line.rstrip(b"\r").strip(b" \t")
                if not line or b"#" in line or b"=>" in line or line in seen:
                    continue
                seen.add(line)
                lines.append(line)
    return lines


def rejected_lines(tool, path):
    run = subprocess.run([tool, "check", path], capture_output=True, text=True, errors="replace")
    return {int(n) for n in REJECTED.findall(run.stderr)}


def corpus(tool, src, work):
    pcap = generate_frames(work)
    candidates = corpus_lines(src)
    everything = os.path.join(work, "corpus-candidates.rules")
    with open(everything, "wb") as f:
        f.write(b"".join(line + b"\n" for line in candidates))
    refused = rejected_lines(tool, everything)
    rules = [line for number, line in enumerate(candidates, 1) if number not in refused]
    print(f"{len(candidates)} distinct corpus lines, {len(rules)} read as rules")
    if len(rules) < 100:
        sys.exit("too few corpus lines read as rules: the corpora or the reader changed")
    # A frame that reaches a rule only userspace decides may be asked about,
    # which tells nothing of the kernel's own verdicts: the rules without
    # such conditions are also tried alone.
    decided = [line for line in rules if not USERSPACE_KEYWORDS.search(line)]
    print(f"{len(decided)} of them without conditions only userspace decides")
    # Shuffled with a fixed seed, so that broad rules are spread over the files.
    random.Random(18).shuffle(rules)
    random.Random(18).shuffle(decided)
    rule_files = write_rule_files(tool, work, "corpus", rules) + write_rule_files(tool, work, "corpus-kernel", decided)
    return run_all(tool, rule_files, bundled_captures(src) + [pcap])


def write_rule_files(tool, work, stem, rules):
    paths = []
    for first in range(0, len(rules), CORPUS_RULES_PER_FILE):
        path = os.path.join(work, f"{stem}-{first // CORPUS_RULES_PER_FILE:03d}.rules")
        with open(path, "wb") as f:
            for i, line in enumerate(rules[first:first + CORPUS_RULES_PER_FILE], 1):
                f.write(line + b" => %d\n" % i)
        if rejected_lines(tool, path):
            sys.exit(f"{path}: a line that read as a rule alone is refused with a result")
        paths.append(path)
    return paths


def main():
    if len(sys.argv) != 5 or sys.argv[1] not in ("frames", "corpus"):
        sys.exit(__doc__)
    what, tool, src, work = sys.argv[1:]
    os.makedirs(work, exist_ok=True)
    sys.exit(frames(tool, src, work) if what == "frames" else corpus(tool, src, work))


if __name__ == "__main__":
    main()

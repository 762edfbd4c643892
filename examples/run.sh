#!/usr/bin/env bash
# The main job on the bundled examples: describe every captured packet, then
# try the example rules on the same captures, as listed and as optimised.
set -euo pipefail
tool=${1:?usage: examples/run.sh PATH-TO-nikerkiog}
here=$(dirname "$0")
echo "== describe: one line per packet, checksum verdicts"
"$tool" describe "$here"/captures/*.pcap
echo
echo "== classify: first matching rule of $here/rules.txt"
"$tool" classify "$here/rules.txt" "$here"/captures/*.pcap
echo
echo "== classify with the optimised rule set (same verdicts, fewer tests)"
"$tool" classify --optimise "$here/rules.txt" "$here"/captures/*.pcap | sed -n '/^# rule set/,$p'

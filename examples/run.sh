#!/usr/bin/env bash
# The main job on the bundled examples: check the example rule file, try it
# on the captures with the hit table, explain one packet that misses the rule
# written for its kind, and decode a DHCP exchange.
set -euo pipefail
tool=$(realpath "${1:?usage: examples/run.sh PATH-TO-nikerkiog}")
cd "$(dirname "$0")"
echo "== nikerkiog check rules.txt   (every line parsed by the classifier)"
"$tool" check rules.txt
echo
echo "== nikerkiog classify rules.txt captures/*.pcap   (first matching rule, then hits)"
"$tool" classify rules.txt captures/*.pcap
echo
echo "== nikerkiog classify rules.txt captures/icmpv6.pcap --explain 3"
echo "   (an ICMPv6 packet that misses the router advertisement rule: why?)"
"$tool" classify rules.txt captures/icmpv6.pcap --explain 3 | sed -n '/^    3/,/verdict/p'
echo
echo "== nikerkiog dhcp captures/dhcp-mud.pcap   (options as the option store reads them)"
"$tool" dhcp captures/dhcp-mud.pcap

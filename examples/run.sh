#!/usr/bin/env bash
# The main job on the bundled examples: describe every captured packet.
set -euo pipefail
tool=${1:?usage: examples/run.sh PATH-TO-nikerkiog}
here=$(dirname "$0")
"$tool" describe "$here"/captures/*.pcap

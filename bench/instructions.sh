#!/usr/bin/env bash
# Instructions per packet of nuv_clfy_set_execute, counted by callgrind
# (repeatable whatever else the machine is doing), for linear and optimised
# rule sets of 1, 10, 100 and 1000 rules.
set -euo pipefail
bench=${1:?usage: bench/instructions.sh PATH-TO-bench_classifier}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out/cg.out" \
  "$bench" --instructions >/dev/null 2>"$out/valgrind.log" || { cat "$out/valgrind.log"; exit 1; }
printf '%-10s %6s %14s\n' kind rules instr/packet
for f in "$out"/cg.out.*; do
  name=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
  total=$(sed -n 's/^totals: //p; s/^summary: //p' "$f" | head -n 1 | cut -d' ' -f1)
  [ -n "$name" ] && [ -n "$total" ] || continue
  kind=${name%%/*}; rest=${name#*/}; rules=${rest%% *}; packets=${rest##*packets=}
  printf '%-10s %6s %14s\n' "$kind" "$rules" "$((total / packets))"
done | sort -k1,1 -k2,2n

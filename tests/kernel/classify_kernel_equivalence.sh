#!/bin/sh
# Every rule file of the tests and examples, as written and optimised, on
# every bundled capture: the kernel's tc classifier and the library agree
# on every frame (or the kernel asks userspace where it may).
# Usage: classify_kernel_equivalence.sh TOOL SOURCE_DIR
tool=$1
src=$2
captures=$(ls "$src"/tests/data/captures/*.pcap* "$src"/examples/captures/*.pcap*)
status=0
for rules in "$src"/tests/data/tool/*.rules "$src"/examples/rules.txt "$src"/daemon/examples/router.rules; do
  for optimise in "" --optimise; do
    # shellcheck disable=SC2086
    summary=$("$tool" classify "$rules" $captures --kernel --keep-going $optimise 2>/dev/null | tail -n 1)
    case "$summary" in
      *", 0 differ;"*) echo "ok: $rules $optimise: $summary" ;;
      *) echo "DIFFERENT: $rules $optimise: $summary"; status=1 ;;
    esac
  done
done
exit $status

#!/usr/bin/env bash
# Adds up the CTest results of the given configurations (their junit.xml
# files) into one closing line: "tests: N passed, N failed".  A configuration
# that left no results (it did not build) counts as one failure.
set -u
build=$1; shift
passed=0; failed=0
for cfg in "$@"; do
  xml=$build/$cfg/junit.xml
  if [ ! -f "$xml" ]; then
    echo "$cfg: no test results"
    failed=$((failed + 1))
    continue
  fi
  suite=$(tr '\n\t' '  ' < "$xml" | grep -o '<testsuite [^>]*>' | head -n 1)
  count() { sed -n "s/.* $1=\"\\([0-9]*\\)\".*/\\1/p" <<<"$suite"; }
  total=$(count tests); failures=$(count failures); errors=$(count errors); skipped=$(count skipped)
  bad=$(( ${failures:-0} + ${errors:-0} ))
  passed=$(( passed + ${total:-0} - bad - ${skipped:-0} ))
  failed=$(( failed + bad ))
done
echo "tests: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

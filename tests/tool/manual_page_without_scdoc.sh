#!/bin/sh
# The manual-page test on a machine without scdoc: configures the manual
# page alone (tests/tool/manual_page_scenario) with a PATH that holds only
# cmake and ctest, builds it, runs its test and checks that the test fails
# and says why.  Where scdoc is installed, the same project configured
# normally builds the page and its test passes.
# usage: manual_page_without_scdoc.sh SOURCE WORK CMAKE CTEST GENERATOR MAKE-PROGRAM
set -u
source_dir=$1 work=$2 cmake=$3 ctest=$4 generator=$5 make_program=$6
scenario=$source_dir/tests/tool/manual_page_scenario

fail() {
  echo "FAILED: $*"
  for log in "$work"/*.log; do [ -f "$log" ] && { echo "--- $log"; cat "$log"; }; done
  exit 1
}

# Configures, builds and tests the scenario in WORK/NAME with PATH=SEARCH;
# the test's output goes to WORK/NAME-test.log, its status to $tested.
run_scenario() {
  name=$1 search=$2
  PATH=$search "$timeout" 120 "$cmake" -S "$scenario" -B "$work/$name" -G "$generator" \
      -DCMAKE_MAKE_PROGRAM="$make_program" -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF \
      -DNIKERKIOG_SOURCE_DIR="$source_dir" >"$work/$name-configure.log" 2>&1 || fail "$name: configure"
  PATH=$search "$timeout" 120 "$cmake" --build "$work/$name" >"$work/$name-build.log" 2>&1 || fail "$name: build"
  (cd "$work/$name" && PATH=$search "$timeout" 120 "$ctest" --output-on-failure >"$work/$name-test.log" 2>&1)
  tested=$?
}

timeout=$(command -v timeout) || { echo "FAILED: timeout (coreutils) is missing"; exit 1; }
rm -rf "$work"
mkdir -p "$work/bin" || exit 1
ln -s "$cmake" "$work/bin/cmake"
ln -s "$ctest" "$work/bin/ctest"

run_scenario without-scdoc "$work/bin"
grep -q "scdoc not found" "$work/without-scdoc-configure.log" || fail "configuring without scdoc gave no warning"
[ "$tested" -ne 0 ] || fail "the manual-page test passed although no page was built"
# CMake wraps the message's lines; the words are checked with the breaks undone.
said=$(tr '\n' ' ' <"$work/without-scdoc-test.log" | tr -s ' ')
case $said in
  *"nikerkiog.1 was not built: scdoc was not found when the build was configured"*) ;;
  *) fail "the manual-page test failed without saying why" ;;
esac
case $said in
  *"Install it (scripts/deps.sh native installs"*) ;;
  *) fail "the message does not say how to install scdoc" ;;
esac
echo "without scdoc: the manual-page test fails and says why"

if command -v scdoc >/dev/null; then
  run_scenario with-scdoc "$(dirname "$(command -v scdoc)"):$PATH"
  [ "$tested" -eq 0 ] || fail "the manual-page test failed although scdoc built the page"
  echo "with scdoc: the manual-page test passes"
fi

#!/bin/sh
# Installs the build tree into a scratch prefix, then builds a C program
# against it twice: through pkg-config and through find_package.
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
source_root=$(cd "$here/../.." && pwd)
work=$build/install-check
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
# Only public headers are installed: no private header of the sources.
private=$(find "$work/prefix" -name '*_priv.h' -o -name 'dp_*.h' -o -name 'faultinject.h')
if [ -n "$private" ]; then
  echo "private headers installed: $private" >&2
  exit 1
fi
libdir=$(dirname "$(find "$work/prefix" -name nikerkiog.pc | head -n 1)")/..
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c99 -Wall -Wextra -Werror -o "$work/consumer-pc" "$here/consumer.c" \
   $(pkg-config --cflags --libs nikerkiog) -Wl,-rpath,"$libdir"
"$work/consumer-pc"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"
# The classifier daemon is the reference for how a C daemon links: it is
# installed, and its sources build against the installed tree alone.
if [ -x "$build/daemon/nikerkiog-classd" ]; then
  installed=$(find "$work/prefix" -name nikerkiog-classd -type f | head -n 1)
  if [ -z "$installed" ]; then
    echo "nikerkiog-classd is not installed" >&2
    exit 1
  fi
  for shipped in share/man/man8/nikerkiog-classd.8 share/doc/nikerkiog/examples/nikerkiog-classd/router.nft; do
    if [ -x "$(command -v scdoc)" ] || [ "${shipped#share/man}" = "$shipped" ]; then
      [ -f "$work/prefix/$shipped" ] || { echo "$shipped is not installed" >&2; exit 1; }
    fi
  done
  "$installed" --version | grep -q '^nikerkiog-classd [0-9]'
  # The loader of the kernel's classifier is built with the daemon, as the
  # rule-file reader is: from its sources and the program the build embeds.
  cc -std=c11 -Wall -Wextra -Werror -D_DEFAULT_SOURCE -c -o "$work/nuvkclfy.o" \
     "$source_root"/sharedlibs/kernclfy/nuvkclfy.c $(pkg-config --cflags nikerkiog libbpf)
  cc -std=c11 -Wall -Wextra -Werror -o "$work/classd-pc" "$source_root"/daemon/*.c \
     "$source_root"/sharedlibs/rulefile/rulefile_load.c -I"$source_root"/sharedlibs/rulefile \
     "$work/nuvkclfy.o" "$build"/sharedlibs/kernclfy/nuvclfy_tc_object.c -I"$source_root"/sharedlibs/kernclfy \
     $(pkg-config --cflags --libs nikerkiog libnetfilter_queue libmnl libbpf) -Wl,-rpath,"$libdir"
  "$work/classd-pc" --help >/dev/null
  "$installed" --help >/dev/null
  # A router links its own platform library, which has the platform's
  # interfaces but not the test hooks of the portable one: make such a
  # library from the installed archive, exporting everything but the hooks
  # its test header declares, and run the installed daemon on it.
  hooks=$(sed -n 's/^NUVCSOCK_API .*[ *]\(nuvcsock_[a-z0-9_]*\)(.*/\1/p' \
          "$work/prefix/include/nikerkiog/nuvcsock_test.h")
  if [ -z "$hooks" ]; then
    echo "no test hooks found in the installed nuvcsock_test.h" >&2
    exit 1
  fi
  shared=$(find "$work/prefix" -name 'libnuvcsock.so.*.*' -type f | head -n 1)
  archive=$(find "$work/prefix" -name 'libnuvcsock.a' | head -n 1)
  mkdir -p "$work/platform"
  {
    echo "NUVCSOCK_1 { global:"
    nm -D --defined-only "$shared" | awk '$2 == "T" || $2 == "D" || $2 == "B" { sub(/@.*/, "", $3); print $3 }' |
      grep -vxF "$hooks" | sed 's/$/;/'
    echo "local: *; };"
  } >"$work/platform/platform.map"
  cc -shared -o "$work/platform/libnuvcsock.so.1" -Wl,-soname,libnuvcsock.so.1 \
     -Wl,--whole-archive "$archive" -Wl,--no-whole-archive -Wl,--version-script="$work/platform/platform.map"
  if nm -D --defined-only "$work/platform/libnuvcsock.so.1" | grep -qw nuvcsock_fail_nth_allocation; then
    echo "the platform library made for the check still has the test hooks" >&2
    exit 1
  fi
  LD_LIBRARY_PATH="$work/platform" LD_BIND_NOW=1 "$installed" --help >/dev/null
  used=$(LD_LIBRARY_PATH="$work/platform" LD_BIND_NOW=1 ldd "$installed" | grep libnuvcsock)
  case $used in
    *"$work/platform/"*) ;;
    *) echo "the daemon did not load the platform library without hooks: $used" >&2; exit 1 ;;
  esac
fi
echo "install check passed"

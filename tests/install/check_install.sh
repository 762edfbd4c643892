#!/bin/sh
# Installs the build tree into a scratch prefix, then builds a C program
# against it twice: through pkg-config and through find_package.
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
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
  cc -std=c11 -Wall -Wextra -Werror -o "$work/classd-pc" "$here"/../../daemon/*.c \
     "$here"/../../sharedlibs/rulefile/rulefile_load.c -I"$here"/../../sharedlibs/rulefile \
     $(pkg-config --cflags --libs nikerkiog libnetfilter_queue libmnl) -Wl,-rpath,"$libdir"
  "$work/classd-pc" --help >/dev/null
  "$installed" --help >/dev/null
fi
echo "install check passed"

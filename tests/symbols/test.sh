#!/bin/sh
# The shared library exports what is written down and nothing else, and leaves to the host what the host
# may bring.
#
#   tests/symbols/test.sh LIBRARY
set -eu

here=$(dirname "$0")
export LC_ALL=C
nm --dynamic --defined-only --demangle "$1" | cut -d ' ' -f 3- | sort -u | diff "$here/exported.txt" -
nm --dynamic --undefined-only "$1" | awk '{ print $2 }' | grep -E '^(my_system|slput|KorvLog_.*)$' | sort |
    diff "$here/from-the-host.txt" -
dynamic=$(readelf --dynamic "$1")
echo "$dynamic" | grep -q 'Library soname: \[libconfsave\.so\.1\]' || { echo 'wrong SONAME' >&2; exit 1; }
if echo "$dynamic" | grep -q SYMBOLIC; then
    echo 'bound to itself: a host could not come first' >&2
    exit 1
fi

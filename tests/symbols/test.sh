#!/bin/sh
# A shared library exports what is written down and nothing else, and leaves to the host what the host may
# bring.
#
#   tests/symbols/test.sh LIBRARY SONAME EXPORTED [FROM_THE_HOST]
set -eu

library=$1
soname=$2
exported=$3
from_the_host=${4-}

export LC_ALL=C
nm --dynamic --defined-only --demangle "$library" | cut -d ' ' -f 3- | sort -u | diff "$exported" -
if [ -n "$from_the_host" ]; then
    nm --dynamic --undefined-only "$library" | awk '{ print $2 }' |
        grep -E '^(my_system|slput|KorvLog_.*)$' | sort | diff "$from_the_host" -
fi
dynamic=$(readelf --dynamic "$library")
echo "$dynamic" | grep -qF "Library soname: [$soname]" || { echo 'wrong SONAME' >&2; exit 1; }
if echo "$dynamic" | grep -q SYMBOLIC; then
    echo 'bound to itself: a host could not come first' >&2
    exit 1
fi

#!/bin/sh
# A shared library exports what is listed and nothing else, and leaves undefined what the host may bring.
#
#   tests/symbols/test.sh LIBRARY SONAME EXPORTED [FROM_THE_HOST NOT_NEEDED]
#
# NOT_NEEDED is an extended regular expression of libraries that it must not depend on.
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/../support/check.sh"
export LC_ALL=C
nm --dynamic --defined-only --demangle "$1" | cut -d ' ' -f 3- | sort -u |
    same "$1 does not export what $3 lists" "$(cat "$3")"
[ $# -lt 4 ] || nm --dynamic --undefined-only "$1" | awk '{ print $2 }' |
    grep -E '^(my_system|slput|KorvLog_.*)$' | sort |
    same "$1 does not leave undefined what $4 lists" "$(cat "$4")"
dynamic=$(readelf --dynamic "$1")
if [ $# -ge 5 ]; then
    needed=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    [ -n "$needed" ] || complain "$1 seems to need no library"
    expect "libraries that $1 needs" '' "$(echo "$needed" | grep -E "$5" | xargs)"
fi
echo "$dynamic" | grep -qF "Library soname: [$2]" || complain "$1 has another SONAME than $2"
! echo "$dynamic" | grep -q SYMBOLIC || complain "$1 is bound to itself: a host could not come first"

#!/bin/sh
# Every public header compiles alone, by each installed compiler, and includes neither SQLite nor Boost.
#
#   tests/headers_test.sh INCLUDE_DIRECTORY...
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"

# The compilers find SQLite's headers by themselves.
if grep -rnE '#include [<"](sqlite3|boost)' "$@"; then complain 'a public header includes these'; fi

CPATH=$(IFS=: && echo "$*")
export CPATH
headers=$(for directory in "$@"; do (cd "$directory" && find . -name '*.h'); done)
[ "$(echo "$headers" | wc -l)" -ge 5 ] || complain 'there are fewer than 5 headers'
for header in $headers; do
    for standard in c++17 c++20; do
        echo "#include <$header>" | compiles "-std=$standard" -Wconversion -Wshadow -pedantic ||
            complain "$header does not compile as $standard"
    done
done

#!/bin/sh
# Every public header compiles alone, by each compiler that is here, without SQLite's or Boost's headers.
#
#   tests/headers_test.sh INCLUDE_DIRECTORY...
set -eu

# The compilers' own search path would offer SQLite's headers: a header must not name them.
if grep -rnE '#include [<"](sqlite3|boost)' "$@"; then exit 1; fi

CPATH=$(IFS=: && echo "$*")
export CPATH

compiled=0
for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || continue
    for standard in c++17 c++20; do
        for directory in "$@"; do
            for header in $(cd "$directory" && find . -name '*.h'); do
                echo "#include <$header>" | "$compiler" "-std=$standard" -Wall -Wextra -Wconversion \
                    -Wshadow -pedantic -Werror -fsyntax-only -x c++ -
                compiled=$((compiled + 1))
            done
        done
    done
done
[ "$compiled" -ge 10 ]

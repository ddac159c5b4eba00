#!/bin/sh
# docs/quirks.md and the code agree: the code cites every quirk that is described and no other, every
# description names tests, and these exist.
#
#   tests/quirks_test.sh TEST_PROGRAM
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"

# A parameterised test is cited without the names of the instance and of the case.
"$1" --gtest_list_tests | awk '/^[^ ]/ { suite = $1; sub("^[^/]*/", "", suite); next }
    { sub("/.*", "", $1); print suite $1 }' | sort -u >"$work/tests"
cd "$tree"
described=$(sed -n 's/^### \(Q[0-9]*\) .*/\1/p' docs/quirks.md | sort)
# shellcheck disable=SC2016 # the back quotes are those of the page
named=$(grep -oE '`[A-Z][A-Za-z]*\.[A-Za-z0-9]+`' docs/quirks.md | tr -d '`' | grep -v '\.db$' | sort -u)

[ -n "$described" ] || complain 'docs/quirks.md describes no quirk'
[ -n "$named" ] || complain 'docs/quirks.md names no test'
grep -rhoE 'Quirk Q[0-9]+(, Q[0-9]+)*' include source platform console | grep -oE 'Q[0-9]+' | sort -u |
    same 'the quirks that docs/quirks.md describes are not those that the code cites' "$described"
missing=$(echo "$named" | comm -23 - "$work/tests")
[ -z "$missing" ] || complain "docs/quirks.md names tests that do not exist: $missing"
untested=$(awk '
    function leave() { if (quirk != "" && !tested) print quirk }
    /^##/ { leave(); quirk = /^### Q/ ? $2 : ""; tested = 0 }
    /^\*Tests:\*/ { tested = 1 }
    END { leave() }' docs/quirks.md)
[ -z "$untested" ] || complain "docs/quirks.md names no test for: $untested"

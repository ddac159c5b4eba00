#!/bin/sh
# docs/quirks.md and the code agree: what the code cites is described and the other way round, every test
# that a description names is there, and every description names one.
#
#   tests/quirks_test.sh TEST_PROGRAM
set -eu

cd "$(dirname "$0")/.."
failed=0
complain() {
    echo "quirks: $1" >&2
    failed=1
}

# A test of a table is cited without the names of the table and of the row.
tests=$("$1" --gtest_list_tests | awk '
    /^[^ ]/ { suite = $1; sub("^[^/]*/", "", suite); next }
    { sub("/.*", "", $1); print suite $1 }')
described=$(sed -n 's/^### \(Q[0-9]*\) .*/\1/p' docs/quirks.md)
cited=$(grep -rhoE 'Quirk Q[0-9]+(, Q[0-9]+)*' include source platform console | grep -oE 'Q[0-9]+')
# shellcheck disable=SC2016 # the back quotes are those of the page
named=$(grep -oE '`[A-Z][A-Za-z]*\.[A-Za-z0-9]+`' docs/quirks.md | tr -d '`' | grep -v '\.db$')

for list in "$tests" "$described" "$cited" "$named"; do
    [ -n "$list" ] || complain 'nothing to compare'
done
[ "$(echo "$described" | sort | uniq -d)" = '' ] || complain 'a number is used twice'
for quirk in $cited; do
    echo "$described" | grep -qx "$quirk" || complain "the code cites $quirk, which is not described"
done
for quirk in $described; do
    echo "$cited" | grep -qx "$quirk" || complain "no code cites $quirk"
done
for name in $named; do
    echo "$tests" | grep -qx "$name" || complain "there is no test $name"
done
for quirk in $described; do
    sed -n "/^### $quirk /,/^##/p" docs/quirks.md | grep -q '^\*Tests:\*' || complain "$quirk has no test"
done
exit "$failed"

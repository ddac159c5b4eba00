#!/bin/sh
# docs/man/confsave.3 names only what the headers have, and its program compiles; docs/testing.md names only
# what exists.
#
#   tests/pages_test.sh INCLUDE_DIRECTORY...
set -eu

for directory in "$@"; do
    shift
    set -- "$@" "$(realpath "$directory")"
done
cd "$(dirname "$0")/.."
page=docs/man/confsave.3
testing=docs/testing.md
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0
complain() {
    echo "pages: $1" >&2
    failed=1
}
CPATH=$(IFS=: && echo "$*")
export CPATH

# Standard input, by each compiler that is here.
compiles() {
    cat >"$scratch/program.cpp"
    compiled=0
    for compiler in g++ clang++; do
        command -v "$compiler" >/dev/null || continue
        "$compiler" -std=c++17 -Wall -Wextra -Werror -fsyntax-only "$scratch/program.cpp" ||
            return 1
        compiled=$((compiled + 1))
    done
    [ "$compiled" -ge 1 ]
}

# Names that a macro marks: Fn of functions, Vt of classes.
marked() {
    grep '^\.' "$page" | grep -oE "[[:space:]]$1 [^[:space:]]+" | awk '{ print $2 }' | sort -u
}
names=$(marked Fn; marked Vt)
[ "$(echo "$names" | wc -l)" -ge 10 ] || complain 'too few names'
for name in $names; do
    grep -qw "$name" include/confsave.h platform/include/kelmor/status.h ||
        complain "$page names $name, which no header has"
done

mandoc -Tlint -W warning "$page" || complain 'mandoc finds fault'

# The examples, each a program.
awk -v scratch="$scratch" '
    /^\.Sh/ { examples = /EXAMPLES/ }
    examples && /^\.Ed/ { program = "" }
    program { gsub(/\\e/, "\\"); print > program }
    examples && /^\.Bd -literal/ { program = scratch "/example" ++count }' "$page"
if [ -s "$scratch/example1" ]; then
    for example in "$scratch"/example*; do
        compiles <"$example" || complain 'an example does not compile'
    done
else
    complain 'no example'
fi

# Each word of docs/testing.md that is set as code, in a line or in a block.
words=$(awk '
    /^ *```/ { block = !block; next }
    block { print; next }
    { for (n = split($0, part, "`"); n > 1; n--) if (n % 2 == 0) print part[n] }' "$testing" |
    tr ' ' '\n' | sed 's/[,;:)]*$//; s/^(//' | sort -u)
exists() {
    [ -e "$1" ]
}
paths=0
for word in $words; do
    case $word in
        */.* | *//* | build/*) continue ;;
        script/* | tests/* | source/* | include/* | docs/* | bench/* | platform/* | console/*) ;;
        *) continue ;;
    esac
    paths=$((paths + 1))
    # A pattern stands for what it matches.
    # shellcheck disable=SC2086
    exists $word || complain "$testing names $word, which is not there"
done
[ "$paths" -ge 20 ] || complain 'too few paths'

sources=$(find tests -name '*_test.cpp' -exec cat {} + | tr -s '\n ' '  ')
for word in $(echo "$words" | grep -E '^[A-Z][A-Za-z]*[a-z][A-Za-z]*(\.[A-Za-z0-9-]+)?$'); do
    suite=${word%%.*}
    test=${word#*.}
    case $word in
        Faults.*) [ -e "tests/faults/$test.py" ] || [ -e "tests/faults/$test.cpp" ] ;;
        Dialogue.*) [ -e "tests/dialogues/$test.txt" ] ;;
        Consumer.*) [ -e "tests/consumer/${test}_test.sh" ] ;;
        Symbols.*) grep -qF "add_script_test($word " tests/CMakeLists.txt ;;
        *.*) echo "$sources" | grep -qE "TEST(_F|_P)?\( ?$suite, $test ?\)" ;;
        *) grep -q "^add_script_test($word " tests/CMakeLists.txt ||
            echo "$sources" | grep -qE "TEST(_F|_P)?\( ?([A-Za-z]+, )?${word}[,)]" ||
            grep -rqE "(class|struct) $word\>" tests/support ;;
    esac || complain "$testing names $word, which is neither a test nor a class of the tests"
done

# The campaigns: what script/faults describes, what it runs, and what the table has.
described=$(sed -nE 's/^# \| ([a-z]+) +\|.*/\1/p' script/faults | grep -vx campaign | sort)
run=$(sed -n "s/.*campaigns='\([a-z ]*\)'$/\1/p" script/faults | tr ' ' '\n' | sort)
# shellcheck disable=SC2016 # the back quotes are those of the page
tabled=$(sed -nE 's/^\| `([a-z]+)` \|.*/\1/p' "$testing" | sort)
[ "$(echo "$run" | wc -w)" -ge 9 ] || complain 'no campaigns'
[ "$described" = "$run" ] || complain "script/faults describes: $described; it runs: $run"
[ "$tabled" = "$run" ] || complain "script/faults runs: $run; $testing has: $tabled"
exit "$failed"

#!/bin/sh
# confsave(3) and snapshots(3) name only what the headers have, and their examples compile; docs/testing.md
# names only what exists.
#
#   tests/pages_test.sh INCLUDE_DIRECTORY...
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
CPATH=$(realpath "$@" | paste -sd :)
export CPATH LC_ALL=C
cd "$tree"
testing=docs/testing.md

# check_page PAGE HEADER OTHER...: the page names the header, and nothing that this one and the others,
# which it includes, do not have, and its example compiles.
check_page() {
    page=$1
    header=$2
    shift
    mandoc -Tlint -W warning "$page" || complain "$page: mandoc warns"
    grep -qx "\.In $(echo "$header" | sed 's/\./\\./')" "$page" || complain "$page does not name the header"
    # The names that a macro marks as functions or classes.
    names=$(grep '^\.' "$page" | grep -oE '[[:space:]](Fn|Vt) [^[:space:]]+' | awk '{ print $2 }' | sort -u)
    [ "$(echo "$names" | wc -l)" -ge 10 ] || complain "$page names fewer than 10 functions and classes"
    for name in $names; do
        (cd include && grep -qw "$name" "$@" ../platform/include/kelmor/status.h) ||
            complain "$page names $name, which no header has"
    done
    awk -v program="$work/example" '
        /^\.Sh/ { examples = /EXAMPLES/ }
        examples && /^\.Ed/ { shown = 0 }
        shown { gsub(/\\e/, "\\"); print > program }
        examples && /^\.Bd -literal/ { shown = 1 }' "$page"
    [ -s "$work/example" ] || fail "$page has no example"
    compiles -pedantic <"$work/example" || complain "$page: the example does not compile"
}
check_page docs/man/confsave.3 confsave.h confsave/config.h confsave/exceptions.h
check_page docs/man/snapshots.3 confsave/snapshots.h confsave/snapshots/options.h \
    confsave/snapshots/result.h confsave/snapshots/values.h
block embedding cpp 1 | same 'docs/man/snapshots.3 has another host than docs/embedding.md' \
    "$(cat "$work/example")"
sed -nE 's/^CONFSAVE_API [^(]*[ >&]([a-z_]+)\(.*/\1/p' include/confsave/snapshots.h | sort -u |
    while read -r name; do
        grep -qw "Fn $name" docs/man/snapshots.3 || complain "docs/man/snapshots.3 does not name $name"
    done

# The overviews of the headers compile.
overview() {
    sed -n '/^\/\/   #include/,/^#include/p' "$1" | sed -n 's|^//   ||p'
}
overview include/confsave.h | grep -v "^storage.Create" | {
    echo '#include <iostream>'
    sed 's/^#include.*/&\nint overview() {/' && echo 'return 0; }'
} | compiles || complain 'the overview of confsave.h does not compile'
overview include/confsave/snapshots.h | {
    echo '#include <iostream>'
    sed 's/^namespace cs.*/&\nint fail(const cs::Error\&);\nint overview() {/' && echo 'return 0; }'
} | compiles || complain 'the overview of snapshots.h does not compile'

# The example of docs/testing.md is a test.
block testing cpp 1 >"$work/shown"
tr -s '\n ' '  ' <tests/storage/exists_delete_test.cpp | grep -qF "$(tr -s '\n ' '  ' <"$work/shown")" ||
    complain "$testing shows another test"

# Each word of docs/testing.md that is set as code, in a line or in a block.
words=$(awk '
    /^ *```/ { block = !block; next }
    block { print; next }
    { for (n = split($0, part, "`"); n > 1; n--) if (n % 2 == 0) print part[n] }' "$testing" |
    tr ' ' '\n' | sed 's/[,;:)]*$//; s/^(//' | sort -u)
paths=$(echo "$words" | grep -E '^(script|tests|source|include|docs|bench|platform|console)/' |
    grep -vE '/\.|//')
[ "$(echo "$paths" | wc -l)" -ge 20 ] || complain "$testing names fewer than 20 paths"
for path in $paths; do
    # shellcheck disable=SC2086 # A pattern stands for what it matches.
    [ -n "$(find $path -maxdepth 0 2>/dev/null)" ] || complain "$testing names $path, which does not exist"
done

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
        *) grep -q "^ *add_script_test($word " tests/CMakeLists.txt ||
            echo "$sources" | grep -qE "TEST(_F|_P)?\( ?([A-Za-z]+, )?${word}[,)]" ||
            grep -rqE "(class|struct) $word\>" tests/support ;;
    esac || complain "$testing names $word, which is neither a test nor a class of the tests"
done

# A script that refuses a word lists those that it takes, before it does anything else.
# refusal SCRIPT WORD
refusal() {
    status=0
    said=$("script/$1" "$2" 2>&1) || status=$?
    [ "$status" = 2 ] || complain "script/$1 does not refuse '$2'"
    printf '%s\n' "$said"
}

# Each call of a script on a page, in a block or in a line, has options that the script takes.
# shellcheck disable=SC2016 # the back quotes are those of the pages
calls=$(sed -E 's/^(script\/[^#]*).*/\1/; t; s/`(script\/[^`]*)`/\n\1\n/g' \
    README.md CONTRIBUTING.md docs/*.md | grep '^script/[a-z]' | tr -d '[]|' | sort -u)
[ "$(echo "$calls" | wc -l)" -ge 20 ] || complain 'the pages have fewer than 20 calls of scripts'
for name in $(echo "$calls" | sed -E 's|^script/([a-z/]+).*|\1|' | grep -v / | sort -u); do
    taken=$(refusal "$name" --no-such-option)
    for option in $(echo "$calls" | grep -E "^script/$name( |$)" | grep -oE -- '--[a-z-]+' | sort -u); do
        echo "$taken" | grep -qw -e "$option" || complain "a page gives script/$name the option $option"
    done
done
for mode in $(echo "$calls" | sed -nE 's|^script/test ([a-z]+).*|\1|p' | sort -u); do
    refusal test no-such-mode | grep -qw "$mode" || complain "a page gives script/test the mode $mode"
done

# The campaigns: what script/faults describes, what it takes, and what the table has.
run=$(refusal faults no-such-campaign | sed -n 's/.*the campaigns are: //p' | xargs -n 1 | sort)
[ "$(echo "$run" | wc -l)" -ge 9 ] || complain 'script/faults runs fewer than 9 campaigns'
for campaign in $(echo "$calls" | sed -nE 's|^script/faults ([a-z_-]+).*|\1|p' | grep -v ^--); do
    echo "$run" | grep -qx "$campaign" || complain "a page runs the campaign $campaign"
done
sed -nE 's/^# \| ([a-z_-]+) +\|.*/\1/p' script/faults | grep -vx campaign | sort |
    same 'script/faults does not run the campaigns that it describes' "$run"
# shellcheck disable=SC2016 # the back quotes are those of the page
sed -nE 's/^\| `([a-z_-]+)` \|.*/\1/p' "$testing" | sort |
    same "script/faults does not run the campaigns of $testing" "$run"

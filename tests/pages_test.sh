#!/bin/sh
# docs/man/confsave.3 and the library speak of the same functions, to the letter of their types; the page's
# program compiles; and docs/testing.md names nothing that is not there.
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

# What the page says of functions, a line each: name|type|arguments|const.
declarations=$(awk '
    { gsub(/"/, "") }
    /^\.Ft / { type = substr($0, 5) }
    /^\.Fo / { name = $2; arguments = "" }
    /^\.Fa / && name != "" { arguments = arguments (arguments == "" ? "" : ", ") substr($0, 5) }
    /^\.Fc/ { print name "|" type "|" arguments "|" $2; type = ""; name = "" }' "$page")
# Names that a macro marks: all of functions, of types, of constants, of variables.
marked() {
    grep '^\.' "$page" | grep -oE "(^\.|[[:space:]])$1 [^[:space:]]+" | awk '{ print $2 }' | sort -u
}

# The names are those that the library exports, as often as it does. What the header defines is in no
# library.
exported=$(sed -n 's/^ConfSave:://p' tests/symbols/exported.txt | sed 's/\[abi:cxx11\]//')
is_inline() {
    grep -qE "[ &]${1##*::}\(.*\) const \{" include/confsave.h
}
echo "$exported" | grep '(' | sed 's/(.*//' | sort >"$scratch/exported"
echo "$declarations" | cut -d '|' -f 1 | sort | while read -r name; do
    is_inline "$name" || echo "$name"
done >"$scratch/described"
diff "$scratch/exported" "$scratch/described" ||
    complain 'other functions are exported (<) than described (>)'
for name in $(marked Fn); do
    echo "$declarations" | grep -qF "$name|" || complain "$name() is not described"
done
for name in $(echo "$exported" | grep -v '('); do
    marked Dv | grep -qx "$name" || complain "no word of $name"
done
classes=$(sed -nE 's/^(typeinfo for )?ConfSave::([A-Z][A-Za-z]*)(::.*)?$/\2/p' tests/symbols/exported.txt |
    sort -u)
for name in $classes; do
    marked Vt | grep -qx "$name" || complain "no word of the class $name"
done
for name in $(marked Va | sed 's/^std:://'); do
    grep -qwr "$name" include/confsave.h || complain "the header has no $name"
done
[ "$(echo "$classes" | wc -w)" -ge 11 ] || complain 'too few classes'

# The types are those of the header.
{
    echo '#include <confsave.h>'
    echo '#include <new>'
    echo '#include <stdexcept>'
    echo '#include <type_traits>'
    echo 'namespace ConfSave {'
    # An argument that is of one type and converts to no other.
    echo 'template <class A> struct Only {'
    echo '  template <class T, class = std::enable_if_t<std::is_same_v<T, std::decay_t<A>>>>'
    echo '  operator T() const; };'
    echo 'template <class T, class... A> constexpr bool made(void (*)(A...)) {'
    echo '  return std::is_constructible_v<T, Only<A>...>; }'
    echo "$declarations" | awk -F '|' '
        {
            parts = split($1, part, "::")
            pointer = "(*p" NR ")"
            if (parts == 2 && part[2] ~ "^~?" part[1] "$") {
                print "static_assert(made<" part[1] ">(static_cast<void (*)(" $3 ")>(nullptr)) || " \
                      (part[2] ~ /^~/ ? 1 : 0) ");"
                next
            }
            if (parts == 2 && !sub(/^static /, "", $2)) pointer = "(" part[1] "::*p" NR ")"
            print $2 " " pointer "(" $3 ") " $4 " = &" $1 ";"
        }'
    marked Vt | awk '{ print "using T" NR " = " $1 ";" }'
    marked Dv | awk '{ print "const auto& v" NR " = " $1 ";" }'
    echo '}'
} | compiles || complain 'the header has other types'

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

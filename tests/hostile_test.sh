#!/bin/bash
# The program refuses what must not reach a statement or a command line, and writes nothing anywhere.
#
#   tests/hostile_test.sh PROGRAM [STRIDE]
#
# The shell reads all names. One in STRIDE of those with an odd byte has processes of its own too.
#
# shellcheck disable=SC1003,SC2016 # Nothing that looks like an expansion is meant as one.
set -u

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
make_gateway "$1"
cd "$work" || exit 1
echo content >config/user/gateway.conf

names=()
for ((byte = 1; byte < 256; byte++)); do
    printf -v letter '%b' "\\x$(printf %x "$byte")"
    [[ $letter == [-_0-9A-Za-z] ]] || names+=("a${letter}b")
done
long=$(printf 'a%.0s' {1..81})
names+=('' "$long" "$long$long$long" "x' or '1'='1" "x');drop table Config;--" "x',null,null,1,2,3)--" "'"
    '"' "''" "a' union select 1" '../../etc/passwd' '$(touch pwned)' '`touch pwned`' ';touch pwned'
    '|touch pwned' '%s%s%n' $'a\nb' $'\e]0;title\a' $'\xff\xfe' 'é' ' a' 'a ' '{}' '~' '!!')

refuses() {
    local output status call
    output=$(confsave "$@" 2>&1 </dev/null)
    status=$?
    call=$(printf '%q ' "$@")
    [ "$status" = 2 ] || complain "status $status: $call"
    [[ $output == 'confsave: '* ]] || complain "no message: $call"
    [ -z "$(printf '%s' "$output" | LC_ALL=C tr -d '\n -~')" ] || complain "raw output: $call"
}

stride=${2-1}
number=0
for name in "${names[@]}"; do
    [[ $name == *[[:space:]\'\"\\]* || -z $name ]] || printf 'save %s\ndelete %s\n' "$name" "$name"
    number=$((number + 1))
    [[ $name != a?b || $((number % stride)) == 0 ]] || continue
    refuses save -- "$name"
    refuses delete -- "$name"
    # A load takes these for patterns.
    [[ $name == a[]*?[]b ]] || refuses load --yes -- "$name"
done >lines
confsave shell <lines >answers 2>&1
grep -q 'character' answers || complain 'the shell refused nothing'

refuses load --yes --target= weekly
refuses load --yes --check= weekly
expect 'what was written' '' "$(find state tmp -mindepth 1)"
[ ! -e pwned ] || complain 'a command was run'
expect 'the files of the configuration' 1 "$(find config -type f | wc -l)"

# A target may have any name: no shell reads it.
quietly confsave save weekly
targets=('target' '-rf' '~' '$HOME' '../odd' "$work/-target" "$work/odd -rf" "$work/odd/..; touch pwned")
for letter in ' ' '"' "'" '%' ';' '&' '|' '$' '`' '\' '*' '?' '[' ']' '(' ')' '{' '}' '<' '>' '!' '#' \
    '~' '^' $'\t' $'\n' $'\r' $'\e' $'\x7f' $'\x80' $'\xff'; do
    targets+=("$work/target${letter}x")
done
mkdir odd in
cd in || exit 1
for target in "${targets[@]}"; do
    mkdir -p -- "$target"
    quietly confsave load --yes "--target=$target" weekly
    expect "what was restored into $(printf %q "$target")" content "$(cat -- "$target/user/gateway.conf")"
    rm -r -- "$target"
    confsave load --yes "--target=$target" weekly >answer 2>&1 && complain 'a missing target was taken'
    [ -z "$(LC_ALL=C tr -d '\n -~' <answer)" ] || complain "raw output: $(printf %q "$target")"
done
cd ..

[ "${#names[@]}" -ge 200 ] || complain "only ${#names[@]} names"
[ "${#targets[@]}" -ge 30 ] || complain "only ${#targets[@]} targets"
expect 'what was written beside the targets' './lines ./in/answer ./answers' \
    "$(find . -type f -not -path './state/*' -not -path './config/*' -not -name '.*' | sort -r | xargs)"
[ ! -e pwned ] || complain 'a command was run'
expect 'the files of the configuration' 1 "$(find config -type f | wc -l)"
echo "${#names[@]} names, ${#targets[@]} targets"

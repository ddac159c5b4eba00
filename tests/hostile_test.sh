#!/bin/bash
# What must not reach a statement or a command line is refused, and nothing is written anywhere.
#
#   tests/hostile_test.sh PROGRAM
#
# What looks like an expansion is meant as it stands.
# shellcheck disable=SC1003,SC2016,SC2059
set -u

program=$(realpath "$1")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch"/{config/user,state,tmp,target}
echo content >"$scratch/config/user/gateway.conf"
cd "$scratch" || exit 1
export KELMOR_CONFIG_PATH=$scratch/config/ KELMOR_DYNAMIC_DIR=$scratch/state
export KELMOR_TEMP_DIR=$scratch/tmp KELMOR_LOG_FILE=$scratch/log
failed=0
complain() {
    printf 'hostile: %s\n' "$1" >&2
    failed=1
}

names=()
for ((byte = 1; byte < 256; byte++)); do
    printf -v letter "\\x$(printf %x "$byte")"
    case $byte in
        45 | 4[89] | 5[0-7] | 6[5-9] | [78][0-9] | 9[05] | 9[789] | 1[01][0-9] | 12[0-2]) ;;
        *) names+=("a${letter}b") ;;
    esac
done
long=$(printf 'a%.0s' {1..81})
names+=('' "$long" "$long$long$long" "x' or '1'='1" "x');drop table Config;--" "x',null,null,1,2,3)--" "'"
    '"' "''" "a' union select 1" '../../etc/passwd' '$(touch pwned)' '`touch pwned`' ';touch pwned'
    '|touch pwned' '%s%s%n' $'a\nb' $'\e]0;title\a' $'\xff\xfe' 'é' ' a' 'a ' '{}' '~' '!!')

refuses() {
    local output status
    output=$("$program" "$@" 2>&1 </dev/null)
    status=$?
    [ "$status" = 2 ] || complain "status $status: $(printf '%q ' "$@")"
    [[ $output == 'confsave: '* ]] || complain "no message: $(printf '%q ' "$@")"
    [ -z "$(printf '%s' "$output" | LC_ALL=C tr -d '\n -~')" ] ||
        complain "raw output: $(printf '%q ' "$@")"
}

for name in "${names[@]}"; do
    refuses save -- "$name"
    refuses delete -- "$name"
    case $name in
        'a*b' | 'a?b' | 'a[b' | 'a]b') ;;
        *) refuses load --yes -- "$name" ;;
    esac
    [[ $name == *[[:space:]]* ]] || [ -z "$name" ] ||
        printf 'save %s\ndelete %s\n' "$name" "$name" | "$program" shell >>"$scratch/shell" 2>&1
done

targets=('' . .. ///.. relative ./target "$scratch/missing" "$scratch/config/user/gateway.conf" //-rf /-rf
    "$scratch/../target" "$scratch/target/.." /.. "$scratch/-target" -- -rf '~' '$HOME'
    "$scratch/target -rf")
for letter in ' ' '"' "'" '%' ';' '&' '|' '$' '`' '\' '*' '?' '[' ']' '(' ')' '{' '}' '<' '>' '!' '#' \
    '~' '^' $'\t' $'\n' $'\r' $'\e' $'\x7f' $'\x80' $'\xff'; do
    mkdir -p "$scratch/target${letter}x"
    targets+=("$scratch/target${letter}x")
done
for target in "${targets[@]}"; do
    refuses load --yes "--target=$target" weekly
done

[ "${#names[@]}" -ge 200 ] || complain "only ${#names[@]} names"
[ "${#targets[@]}" -ge 50 ] || complain "only ${#targets[@]} targets"
left=$(find state tmp target* -mindepth 1)
[ -z "$left" ] || complain "something was written: $left"
[ ! -e pwned ] || complain 'a command was run'
[ "$(find config -type f | wc -l)" = 1 ] || complain 'the configuration changed'
grep -q 'character' "$scratch/shell" || complain 'the shell refused nothing'
echo "${#names[@]} names, ${#targets[@]} targets"
exit "$failed"

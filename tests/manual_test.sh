#!/bin/bash
# The manual page, the completion and the program speak of the same verbs, options and exit statuses.
#
#   tests/manual_test.sh PROGRAM
set -eu

here=$(cd "$(dirname "$0")/.." && pwd)
program=$(realpath "$1")
page=$here/docs/man/confsave.1
failed=0
complain() {
    echo "manual: $1" >&2
    failed=1
}

mandoc -Tlint -W warning "$page" || complain 'mandoc finds fault'

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/bin" "$scratch/config" "$scratch/tmp"
ln -s "$program" "$scratch/bin/confsave"
export PATH=$scratch/bin:$PATH
export KELMOR_CONFIG_PATH=$scratch/config/ KELMOR_DYNAMIC_DIR=$scratch KELMOR_TEMP_DIR=$scratch/tmp
export KELMOR_LOG_FILE=$scratch/log

# What the page says of a verb: from its entry to the next one's.
section_of() {
    awk -v verb="$1" '
        /^\.Ss Verbs/ { verbs = 1; next }
        /^\.Sh/ { verbs = 0 }
        verbs && /^\.It Cm/ { mine = ($3 == verb) }
        verbs && mine' "$page"
}

verbs=$(confsave --complete)
[ "$(echo "$verbs" | wc -w)" -ge 8 ] || complain 'no verbs'
for verb in $verbs; do
    offered=$(confsave --complete "$verb" | grep '^--' | sort)
    described=$(section_of "$verb" | sed -n 's/^\.It Fl -\([a-z]*\).*/--\1/p' | sort)
    [ -n "$(section_of "$verb")" ] || complain "no word of $verb"
    [ "$offered" = "$described" ] || complain "$verb takes: $offered; described: $described"
    help=$(confsave "$verb" --help | grep -oE -- '--[a-z]+' | grep -vx -- --help | sort -u)
    [ "$offered" = "$help" ] || complain "$verb takes: $offered; its help shows: $help"
    confsave --help | grep -q "^  $verb " || complain "the help has no $verb"
done
[ "$(sed -n 's/^\.It Cm \([a-z-]*\).*/\1/p' "$page" | sort)" = "$(echo "$verbs" | sort)" ] ||
    complain 'the page describes a verb that there is not'

codes=$(grep -oE '= [0-9]+,' "$here/console/exit_status.h" | tr -dc '0-9\n')
[ "$codes" = "$(sed -n '/^\.Sh EXIT STATUS/,/^\.Sh EXAMPLES/s/^\.It \([0-9]*\)$/\1/p' "$page")" ] ||
    complain 'other exit statuses'

# shellcheck source=/dev/null
. "$here/console/confsave.bash"
expect() {
    local expected=$1
    shift
    COMP_WORDS=(confsave "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _confsave
    [ "${COMPREPLY[*]}" = "$expected" ] || complain "completion of '$*': '${COMPREPLY[*]}', not '$expected'"
}

touch "$scratch/config/x"
confsave save --type corlu weekly
confsave save --type corlu working
confsave save --type corlu daily
expect "$(echo "$verbs" | xargs)" ''
expect 'save shell' s
expect 'weekly working' load w
expect 'daily weekly working --version' delete ''
expect '--type' save --t
expect 'full part corlu' save --type ''
expect 'saved' list --sort s
expect '' load --target ''
expect '' nonsense ''

exit "$failed"

#!/bin/bash
# confsave(1), the completion, the help and the program have the same verbs, options and exit statuses.
#
#   tests/manual_test.sh PROGRAM
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
make_gateway "$1"
page=$tree/docs/man/confsave.1

mandoc -Tlint -W warning "$page" || complain "$page: mandoc warns"

# The page's entry of a verb.
entry_of() {
    awk -v verb="$1" '
        /^\.Ss Verbs/ { verbs = 1; next }
        /^\.Sh/ { verbs = 0 }
        verbs && /^\.It Cm/ { mine = ($3 == verb) }
        verbs && mine' "$page"
}

verbs=$(confsave --complete | cut -f 1)
[ "$(echo "$verbs" | wc -w)" -ge 8 ] || complain 'fewer than 8 verbs'
for verb in $verbs; do
    offered=$(confsave --complete "$verb" | cut -f 1 | grep '^--' | sort)
    [ -n "$(entry_of "$verb")" ] || complain "the page does not describe $verb"
    expect "the options of $verb on the page" "$offered" \
        "$(entry_of "$verb" | sed -n 's/^\.It Fl -\([a-z-]*\).*/--\1/p' | sort)"
    expect "the options of $verb in its help" "$offered" \
        "$(confsave "$verb" --help | grep -oE -- '--[a-z-]+' | grep -vx -- --help | sort -u)"
    confsave --help | grep -q "^  $verb " || complain "the help does not list $verb"
done
expect 'the verbs on the page' "$(echo "$verbs" | sort)" \
    "$(sed -n 's/^\.It Cm \([a-z-]*\).*/\1/p' "$page" | sort)"
expect 'the exit statuses on the page' \
    "$(grep -oE '= [0-9]+,' "$tree/console/exit_status.h" | tr -dc '0-9\n')" \
    "$(sed -n '/^\.Sh EXIT STATUS/,/^\.Sh EXAMPLES/s/^\.It \([0-9]*\)$/\1/p' "$page")"

# What the page shows of a restore from afar is what a dialogue has seen.
shown=$(sed -n '/^Restore from afar/,/^\.Ed/p' "$page" | grep -E '^(\$|This|and|\\&|confsave)' |
    sed -E "s/^[$\\&]+ ?//; s/10m/10s/; s/[0-9-]{10} [0-9:]{8}( \([^)]*\))?/MOMENT/")
[ "$(echo "$shown" | wc -l)" = 6 ] || complain 'the page does not show a restore from afar'
echo "$shown" | while IFS= read -r line; do
    grep -qF -- "$line" "$tree/tests/dialogues/pending.txt" || complain "the page shows '$line'"
done

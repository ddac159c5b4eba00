#!/bin/bash
# confsave(1), the help and the program have the same verbs, options, exit statuses, JSON members and
# messages, and every example of the page runs.
#
#   tests/manual_test.sh PROGRAM
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
make_gateway "$1"
page=$tree/docs/man/confsave.1

mandoc -Tlint -W warning "$page" || complain "$page: mandoc warns"

# The page's entry of a verb: to the next verb or the end of the list, the options within included.
entry_of() {
    awk -v verb="$1" '
        /^\.Sh/ { mine = 0; verbs = /DESCRIPTION/ }
        /^\.Ss/ { mine = 0 }
        verbs && /^\.It Cm/ { mine = ($3 == verb) }
        mine' "$page"
}

# The options of an entry: those described there, and those that are described at the beginning.
options_of() {
    entry_of "$1" | awk '
        /^\.It Fl/ { print $3 }
        also && /^\.Fl/ { for (i = 2; i <= NF; i++) if ($i ~ /^-[a-z]/) print $i }
        { also = $0 == "Also" || (also && /^(\.Fl|under)/) }' | sed 's/^/-/' | sort
}

verbs=$(confsave --complete | cut -f 1)
[ "$(echo "$verbs" | wc -w)" -ge 8 ] || complain 'fewer than 8 verbs'
for verb in $verbs; do
    offered=$(confsave --complete "$verb" | cut -f 1 | grep '^--' | sort)
    [ -n "$(entry_of "$verb")" ] || complain "the page does not describe $verb"
    expect "the options of $verb on the page" "$offered" "$(options_of "$verb")"
    expect "the options of $verb in its help" "$offered" \
        "$(confsave "$verb" --help | grep -oE -- '--[a-z-]+' | grep -vx -- --help | sort -u)"
    confsave --help | grep -q "^  $verb " || complain "the help does not list $verb"
done

# Each call of the program on another page, in a block or in a line, has a verb and options of the help.
# shellcheck disable=SC2016 # the back quotes are those of the pages
calls=$(sed -E 's/^(\$ )?(confsave [^#]*).*/\2/; t; s/`(confsave [^`]*)`/\n\1\n/g' \
    "$tree/README.md" "$tree"/docs/*.md | grep '^confsave [a-z]' | sort -u)
[ "$(echo "$calls" | wc -l)" -ge 15 ] || complain 'the pages have fewer than 15 calls of the program'
while read -r _ verb rest; do
    offered=$(confsave "$verb" --help 2>&1) || complain "a page calls confsave $verb"
    for option in $(echo "$rest" | grep -oE -- '--[a-z-]+'); do
        echo "$offered" | grep -q -e "$option " || complain "a page gives confsave $verb the option $option"
    done
done <<<"$calls"
description=$(sed -n '/^\.Sh DESCRIPTION/,/^\.Sh JSON/p' "$page")
expect 'the verbs on the page' "$(echo "$verbs" | sort)" \
    "$(echo "$description" | sed -n 's/^\.It Cm \([a-z-]*\).*/\1/p' | sort)"
expect 'the exit statuses on the page' \
    "$(grep -oE '= [0-9]+,' "$tree/console/exit_status.h" | tr -dc '0-9\n')" \
    "$(sed -n '/^\.Sh EXIT STATUS/,/^\.Sh DIAG/s/^\.It \([0-9]*\)$/\1/p' "$page")"

# The members of each JSON document are those of its schema.
documents=$(sed -n '/^\.Sh JSON/,/^\.Sh ENV/p' "$page")
expect 'the JSON documents on the page' "$(basename -s .json "$tree"/docs/schema/*.json | sort)" \
    "$(echo "$documents" | sed -n 's/^\.It Cm //p' | tr -s ' ,' '\n' | sort)"
for schema in "$tree"/docs/schema/*.json; do
    verb=$(basename "$schema" .json)
    echo "$documents" | awk -v verb="$verb" '
        /^\.It Cm/ { mine = 0; for (i = 3; i <= NF; i++) mine = mine || $i == verb }
        mine && /^\.Va/ { for (i = 2; i <= NF; i++) if ($i ~ /^[a-z_0-9]+$/) print $i }' | sort -u |
        same "the members of the document of $verb on the page" \
            "$(jq -r '.. | .properties? | objects | keys[]' "$schema" | sort -u)"
done

# The messages that need somebody are those of the sources, whose literals go on in the next line.
cat "$tree"/console/*.cpp "$tree"/snapshots/*.cpp | tr -d '\n' | sed 's/" *"//g' >"$work/literals"
diagnostics=$(sed -n '/^\.Sh DIAGNOSTICS/,/^\.Sh SEE/s/^\.It Sy //p' "$page")
[ "$(echo "$diagnostics" | wc -l)" -ge 10 ] || complain 'the page has fewer than 10 messages'
echo "$diagnostics" | while IFS= read -r message; do
    grep -qF -- "$message" "$work/literals" || complain "no source has the message '$message'"
done

# What the page shows of a restore from afar is what a dialogue has seen.
transcript=$(sed -n '/^\.Ss Go back safely/,/^\.Ed/p' "$page")
shown=$(echo "$transcript" | grep -E '^(\$|This|and|\\&|confsave)' |
    sed -E "s/^[$\\&]+ ?//; s/10m/10s/; s/[0-9-]{10} [0-9:]{8}( \([^)]*\))?/MOMENT/")
[ "$(echo "$shown" | wc -l)" = 6 ] || complain 'the page does not show a restore from afar'
echo "$shown" | while IFS= read -r line; do
    grep -qF -- "$line" "$tree/tests/dialogues/pending.txt" || complain "the page shows '$line'"
done

# Every other example runs, in the order of the page, on a gateway in which something was broken. The other
# machines are directories of this one.
in_sandbox
mkdir -p "$work/config/user"
filter=$work/config/user/filter.conf
echo 'permit established' | tee "$filter" >/mnt/main/etc/failover.ini
printf '#!/bin/sh\necho "$*" >>"%s"\n' "$work/systemctl" >"$work/bin/systemctl"
cat >"$work/bin/ssh" <<'END'
#!/bin/sh
mkdir -p "$HOME/$1/state" "$HOME/$1/tmp"
cd "$HOME/$1"
shift
KELMOR_DYNAMIC_DIR=$PWD/state KELMOR_TEMP_DIR=$PWD/tmp exec sh -c "$*"
END
chmod +x "$work/bin/systemctl" "$work/bin/ssh"
awk '/^\.Sh DIAG/ { exit }
    /^\.Ed/ { shown = 0 } shown && !/^\$/ && /^confsave [a-z]|^systemctl/ { print }
    /^\.Bd -literal/ { shown = 1 } /^\$ / { shown = 0 }' "$page" |
    sed "s|/etc/kelmor/|$work/config/|" >"$work/examples"
[ "$(wc -l <"$work/examples")" -ge 15 ] || complain 'the page has fewer than 15 examples'
while IFS= read -r example <&3; do
    wanted=0
    status=0
    case $example in
        'confsave diff'*)
            echo 'permit any' >"$filter"
            wanted=9
            ;;
        'confsave load --dry-run'*) wanted=9 ;;
    esac
    case $example in
        # It asks, at a terminal.
        'confsave load --check'*) echo yes | script -qec "$example" /dev/null >"$work/said" || status=$? ;;
        *) bash -c "$example" >"$work/said" 2>&1 </dev/null || status=$? ;;
    esac
    [ "$status" = "$wanted" ] || { cat "$work/said" >&2; complain "'$example' ends with $status"; }
    case $example in
        *'diff --patch'*) grep -q '^-permit established' "$work/said" ;;
        *'show before-change --file'*) grep -q '^permit established' "$work/said" ;;
        *'load --check'*) [ "$(cat "$filter")" = 'permit established' ] ;;
        *jq\ -r\ *.name*) grep -q '^autosave-' "$work/said" ;;
    esac || { cat "$work/said" >&2; complain "'$example' does something else"; }
done 3<"$work/examples"
expect 'what systemctl was called with' 'enable --now confsave-autosave.timer reload gateway' \
    "$(xargs <"$work/systemctl")"
expect 'the snapshots of the other gateway' from-gateway-7 \
    "$(sqlite3 "$HOME/gateway-8/state/storage.db" 'select name from Config')"
expect 'the copy on the other machine' before-change \
    "$(sqlite3 "$HOME/backup/gateway-7.db" "select name from Config where name = 'before-change'")"

# A storage with a damaged page gives the snapshots of the others back, as the page says.
for name in first second third lost; do
    head -c 5000 /dev/urandom >"$filter"
    confsave save "$name"
done
at=$(grep -abo lost "$work/state/storage.db" | tail -n 1 | cut -d : -f 1)
head -c 8 /dev/zero |
    dd of="$work/state/storage.db" bs=1 seek=$((at / 8192 * 8192)) conv=notrunc status=none
status=0
confsave list >"$work/said" 2>&1 || status=$?
expect 'the exit status of a list of a damaged storage' 6 "$status"
sed '1,/^\.Sh DIAG/d' "$page" | sed -n '/^\.Bd/,/^\.Ed/p' | grep -v '^\.' |
    sed "s|/var/lib/kelmor|$work/state|" >"$work/commands"
(quietly sh -e "$work/commands") 2>&1 || complain 'what can still be read cannot be imported'
expect 'what a damaged storage gives back' 'permit established' \
    "$(confsave show before-change --file "$filter")"

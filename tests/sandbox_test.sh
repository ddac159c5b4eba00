#!/bin/sh
# The sandbox gives a command a "/mnt/main/etc/" of its own and returns its exit status.
#
#   tests/sandbox_test.sh SANDBOX
#
# shellcheck disable=SC2016 # The inner shell expands.
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
sandbox=$1
status_of() {
    status=0
    "$@" 2>/dev/null || status=$?
    echo "$status"
}

"$sandbox" sh -c '[ -z "$(ls -A /mnt/main/etc)" ]' || complain 'the directory is not empty'
marker=/mnt/main/etc/confsave-sandbox-$$
"$sandbox" touch "$marker" || complain 'the directory is not writable'
[ ! -e "$marker" ] || complain 'a file is seen outside'
"$sandbox" sh -c '[ ! -e "$1" ]' sh "$marker" || complain 'a file outlives its command'

expect 'exit status' 7 "$(status_of "$sandbox" sh -c 'exit 7')"
expect 'status of a killed command' 137 "$(status_of "$sandbox" sh -c 'kill -KILL $$')"
expect 'status without a command' 2 "$(status_of "$sandbox")"
expect 'arguments' 'a b|c||' "$("$sandbox" printf '%s|' 'a b' c '')"
expect 'environment' 'unset unset' \
    "$(TAR_OPTIONS=x GZIP=x "$sandbox" sh -c 'echo "${TAR_OPTIONS-unset} ${GZIP-unset}"')"

# As an ordinary user too, where this machine allows one namespaces. nobody may not read the tree.
ordinary='setpriv --reuid=65534 --clear-groups'
if [ "$(id -u)" -eq 0 ] && $ordinary unshare --user --map-root-user true 2>/dev/null; then
    cp "$sandbox" "$work/sandbox"
    chmod 0755 "$work" "$work/sandbox"
    $ordinary "$work/sandbox" sh -c 'touch /mnt/main/etc/x && [ "$(id -u)" -eq 0 ]' ||
        complain 'it fails as an ordinary user'
    echo 'root and an ordinary user'
else
    echo "user $(id -u) alone"
fi

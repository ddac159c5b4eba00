#!/bin/sh
# The sandbox gives a command a "/mnt/main/etc/" of its own and passes on how it ended.
#
#   tests/sandbox_test.sh SANDBOX
#
# The inner shell expands what its commands say.
# shellcheck disable=SC2016
set -eu

sandbox=$1
fail() {
    echo "$1" >&2
    exit 1
}
status_of() {
    status=0
    "$@" || status=$?
    echo "$status"
}

"$sandbox" sh -c '[ -z "$(ls -A /mnt/main/etc)" ]' || fail 'not empty'
marker=/mnt/main/etc/confsave-sandbox-$$
"$sandbox" touch "$marker" || fail 'not writable'
[ ! -e "$marker" ] || fail 'the machine saw it'
"$sandbox" sh -c '[ ! -e "$1" ]' sh "$marker" || fail 'it outlived its command'

[ "$(status_of "$sandbox" sh -c 'exit 7')" = 7 ] || fail 'exit status'
[ "$(status_of "$sandbox" sh -c 'kill -KILL $$' 2>/dev/null)" = 137 ] || fail 'status of a killed command'
[ "$(status_of "$sandbox" 2>/dev/null)" = 2 ] || fail 'status without a command'
[ "$("$sandbox" printf '%s|' a 'b c' '')" = 'a|b c||' ] || fail 'arguments'
options=$(TAR_OPTIONS=x GZIP=x "$sandbox" sh -c 'echo "${TAR_OPTIONS-unset} ${GZIP-unset}"')
[ "$options" = 'unset unset' ] || fail 'environment'

# Under an ordinary user as well, as far as this machine has one that may.
if [ "$(id -u)" -eq 0 ] &&
    setpriv --reuid=65534 --clear-groups unshare --user --map-root-user true 2>/dev/null; then
    copy=$(mktemp)
    trap 'rm -f "$copy"' EXIT
    cp "$sandbox" "$copy"
    chmod 0755 "$copy"
    setpriv --reuid=65534 --clear-groups "$copy" sh -c 'touch /mnt/main/etc/x && [ "$(id -u)" -eq 0 ]' ||
        fail 'as an ordinary user'
    echo 'root and an ordinary user'
else
    echo "user $(id -u) alone"
fi

#!/bin/sh
# The complete host of the page on embedding is the example, and does what the page says.
#
#   tests/consumer/example_test.sh EXAMPLE PAGE SOURCE
set -eu

[ "${CONFSAVE_SANDBOX-}" = 1 ] || { echo 'run this by script/lib/sandbox' >&2; exit 125; }
example=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
    echo "example: $1" >&2
    exit 1
}

"$(dirname "$0")/../support/block" "$2" cpp 2 | diff - "$3" || fail 'the page shows another program'

mkdir -p "$scratch/config/user" "$scratch/state" "$scratch/tmp"
export KELMOR_CONFIG_PATH="$scratch/config/" KELMOR_DYNAMIC_DIR="$scratch/state"
export KELMOR_TEMP_DIR="$scratch/tmp" KELMOR_LOG_FILE="$scratch/log"
filter=$scratch/config/user/filter.conf
echo 'permit established' >"$filter"

# Runs the example with a command; `expected` is what it is to print and to answer.
try() {
    expected=$1
    command=$2
    set +e
    printed=$("$example" "$command" 2>&1)
    status=$?
    set -e
    seen="${printed}[$status]"
    [ "$seen" = "$expected" ] || fail "'$command': $seen, not $expected"
}
holds() {
    [ "$(cat "$filter")" = "$1" ] || fail "the configuration is '$(cat "$filter")', not '$1'"
}

# Such a snapshot could not be restored.
nothing='The configuration could not be saved. The command was not run.[1]'
try "$nothing" "touch '$scratch/ran'"
echo 'peer 192.0.2.1' >/mnt/main/etc/failover.ini

try '[0]' "echo 'permit any' >'$filter'"
holds 'permit any'
try 'Config is overwritten.
The command failed. The configuration is restored.[1]' \
    "echo 'deny any' >'$filter'; rm /mnt/main/etc/failover.ini; false"
holds 'permit any'
[ "$(cat /mnt/main/etc/failover.ini)" = 'peer 192.0.2.1' ] || fail 'the failover settings are lost'

# The snapshot goes while the command runs.
blank=' '
try "Config is overwritten.
status 0:$blank
The command failed. The configuration is NOT restored.[1]" \
    "sqlite3 '$scratch/state/storage.db' 'delete from Config'; false"

# SQLite refuses the row, and save() says nothing of it.
sqlite3 "$scratch/state/storage.db" \
    'alter table Config rename to Stored; create view Config as select * from Stored'
try "$nothing" "touch '$scratch/ran'"
[ ! -e "$scratch/ran" ] || fail 'the command was run without a snapshot'

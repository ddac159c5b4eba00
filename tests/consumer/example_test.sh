#!/bin/sh
# The complete host on the page on embedding is the example, and does what the page says.
#
#   tests/consumer/example_test.sh EXAMPLE
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/../support/check.sh"
in_sandbox
make_gateway "$1"
filter=$work/config/user/filter.conf
failover=/mnt/main/etc/failover.ini
echo 'permit established' >"$filter"

block embedding cpp 3 | same 'the page shows another program' "$(cat "$tree/examples/undo_on_failure.cpp")"

# try COMMAND EXPECTED: what the example prints, and its exit status.
try() {
    status=0
    printed=$(confsave "$1" 2>&1) || status=$?
    expect "'$1'" "$2" "${printed}[$status]"
}

# Without failover files the snapshot could not be restored.
nothing='The configuration could not be saved. The command was not run.[1]'
try "touch '$work/ran'" "$nothing"
echo 'peer 192.0.2.1' >"$failover"

try "echo 'permit any' >'$filter'" '[0]'
expect 'the changed file' 'permit any' "$(cat "$filter")"
try "echo 'deny any' >'$filter'; rm $failover; false" 'Config is overwritten.
The command failed. The configuration is restored.[1]'
expect 'the restored files' 'permit any peer 192.0.2.1' "$(cat "$filter" "$failover" | xargs)"

# The snapshot disappears while the command runs.
blank=' '
try "sqlite3 '$work/state/storage.db' 'delete from Config'; false" "Config is overwritten.
status 0:$blank
The command failed. The configuration is NOT restored.[1]"

# SQLite refuses the row, and save() does not report it.
sqlite3 "$work/state/storage.db" \
    'alter table Config rename to Stored; create view Config as select * from Stored'
try "touch '$work/ran'" "$nothing"
[ ! -e "$work/ran" ] || complain 'the command was run without a snapshot'

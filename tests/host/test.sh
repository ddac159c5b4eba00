#!/bin/sh
# A host's own C functions come before the platform's, and a host without them gets the platform's.
#
#   tests/host/test.sh HOST_WITH_ITS_OWN HOST_WITHOUT
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/../support/check.sh"
make_gateway "$1"

"$1" | same 'the host with functions of its own' "my_system of the host
slput of the host: 6 Deleted old confsave '%s' (version %s)
my_system of the host
log of the host: access() for '
caught status 19
opened: 1"
[ ! -e "$work/log" ] || complain 'the platform logged'

"$2" | same 'the host without' 'caught status 19
opened: 1'
grep -q "name=IsFileExist text=access() for '/dev/null/x' failed (code 20)\$" "$work/log" ||
    complain 'the platform did not log'

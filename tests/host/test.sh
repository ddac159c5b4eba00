#!/bin/sh
# A host's own C functions come before the platform's, and a host without them gets the platform's.
#
#   tests/host/test.sh HOST_WITH_ITS_OWN HOST_WITHOUT
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/config/user" "$scratch/state" "$scratch/tmp"
export KELMOR_CONFIG_PATH="$scratch/config/" KELMOR_DYNAMIC_DIR="$scratch/state"
export KELMOR_TEMP_DIR="$scratch/tmp" KELMOR_LOG_FILE="$scratch/log"

"$1" >"$scratch/with"
diff - "$scratch/with" <<'END'
my_system of the host
slput of the host: 6 Deleted old confsave '%s' (version %s)
my_system of the host
log of the host: access() for '
caught status 19
opened: 1
END
[ ! -e "$scratch/log" ] || { echo 'the platform logged' >&2; exit 1; }

"$2" >"$scratch/without"
diff - "$scratch/without" <<'END'
caught status 19
opened: 1
END
grep -q "name=IsFileExist text=access() for '/dev/null/x' failed (code 20)\$" "$scratch/log"

#!/bin/sh
# The demo runs to its end, and README.md begins with what it prints: the same commands and answers in the
# same order, apart from places, times and sizes. The host on that page is that of docs/embedding.md.
#
#   tests/story_test.sh BUILD_DIRECTORY
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
readme=$tree/README.md

# The lines of a transcript without comments; TIME, MOMENT and SIZE stand for what differs.
normalised() {
    grep -v '^#' | grep . | sed -E 's|/mnt/disk/config/|/etc/kelmor/|
        s/before-load-[0-9]{4}(-[0-9]{2}){5}/before-load-TIME/
        s/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} /MOMENT /
        s/[0-9]{2}\.[0-9]{2}\.[0-9]{4} at [0-9]{2}:[0-9]{2}/TIME/
        s/\(in 10 min( [0-9]+ s)?\)/(in 10 min)/; s/[0-9.]+ [KMG]iB/SIZE/g'
}

"$tree/script/demo" "$1" >"$work/played" 2>&1 || { cat "$work/played" >&2; fail 'the demo fails'; }
shown=$(awk '/^```console/ { shown = 1; next } /^```/ { exit } shown' "$readme" | normalised)
[ "$(echo "$shown" | grep -c '^\$ ')" -ge 6 ] || complain 'README.md shows fewer than 6 commands'
normalised <"$work/played" | sed -n '/^\$ confsave save/,$p' | head -n "$(echo "$shown" | wc -l)" |
    same 'README.md does not show what the demo prints' "$shown"
expect 'steps that the demo proves' 4 "$(grep -c '^Proved: ' "$work/played")"

block embedding cpp 1 | same 'README.md has another host than docs/embedding.md' \
    "$(awk '/^```cpp/ { shown = 1; next } /^```/ { shown = 0 } shown' "$readme")"

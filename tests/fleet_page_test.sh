#!/bin/bash
# Every command of docs/fleet.md does what the page says, with two gateways behind an "ssh" that is a shell,
# and a real repository.
#
#   tests/fleet_page_test.sh PROGRAM COLLECT
set -eu

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
in_sandbox
make_gateway "$1"
ln -s "$(realpath "$2")" "$work/bin/collect"
export RESTIC_CACHE_DIR="$work/cache"

# ssh [OPTION...] root@GATEWAY COMMAND: the gateway is a directory.
cat >"$work/bin/ssh" <<'END'
#!/bin/bash
while [[ $1 == -* ]]; do
    case $1 in -o | -i) shift ;; esac
    shift
done
home=$HOME/${1#root@}
[ -d "$home" ] || { echo "ssh: connect to host ${1#root@} port 22: No route to host" >&2; exit 255; }
shift
KELMOR_DYNAMIC_DIR=$home KELMOR_TEMP_DIR=$home exec bash -c "$*"
END
printf '#!/bin/sh\necho "$*" >>"%s"\n' "$work/apt-get.log" >"$work/bin/apt-get"
chmod +x "$work/bin/ssh" "$work/bin/apt-get"
for gateway in gw-7 gw-8; do
    mkdir -m 700 "$HOME/$gateway"
    echo "of $gateway" >"$work/config/user/gateway.conf"
    ssh "root@$gateway" confsave save night 2>/dev/null
done
mkdir "$work/collector" "$work/srv"
echo secret >"$work/collector/password"
cd "$work"
printf 'gw-7\ngw-8\n' >gateways

# fleet NUMBER [LANGUAGE]: a block of the page, with directories of the test.
fleet() {
    block fleet "${2-sh}" "$1" | sed "s|/srv/|$work/srv/|g; s|/etc/collector/|$work/collector/|g
        s|NAME|night|; s|/usr/local/bin/collect|collect|; s|confsave load|& --yes --no-keep|"
}
play() {
    fleet "$@" >"$work/commands"
    # shellcheck source=/dev/null
    . "$work/commands" >"$work/said" 2>&1 || { cat "$work/said" >&2; fail "block $1 of the page fails"; }
}

play 3
expect 'what is installed' 'install restic openssh-client' "$(cat "$work/apt-get.log")"
[ -s "$work/collector/key" ] || complain 'there is no key'
play 1
expect 'the run' '2 of 2 gateways were stored' "$(tail -n 1 "$work/said")"
cp gateways collector/gateways
fleet 1 ini | sed -n '/^ExecStart=/,/[^\\]$/p' | sed 's/^ExecStart=//' >"$work/unit"
quietly bash -e "$work/unit"
play 2
expect 'the copy that was tried' night "$(sqlite3 state/storage.db 'select name from Config')"
rm -r state tmp

# What the key of a gateway may do.
sed -n 's/^restrict,command="\(.*\)" ssh-ed25519 .*/\1/p' "$tree/docs/fleet.md" >"$work/allowed"
expect 'lines for authorized_keys' 2 "$(wc -l <"$work/allowed")"
while IFS= read -r command; do
    # shellcheck disable=SC2029 # This ssh runs it here.
    ssh -n root@gw-7 "$command" >exported
    expect "what '$command' exports" night "$(sqlite3 exported 'select name from Config')"
done <"$work/allowed"

play 4
expect 'copies after the old ones are gone' 2 "$(restic snapshots --json | jq length)"
echo gw-9 >>gateways
play 5
expect 'gateways without a copy' gw-9 "$(cat "$work/said")"
rm -r "$HOME/gw-7"
mkdir -m 700 "$HOME/gw-7"
echo changed >config/user/gateway.conf
play 6
expect 'the configuration that is back' 'of gw-7' "$(cat config/user/gateway.conf)"

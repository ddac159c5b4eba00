#!/bin/bash
# docs/formats.md is true: its commands, run as they stand on the page, list, check, copy, unpack and
# restore what the program has stored. The manual page storage.db(5) names the same columns and files.
#
#   tests/formats_test.sh PROGRAM
#
# What the page shows as an answer is compared as a whole text.
set -u

here=$(cd "$(dirname "$0")/.." && pwd)
program=$(realpath "$1")
page=$here/docs/formats.md
manual=$here/docs/man/storage.db.5
etc=/mnt/main/etc
[ "${CONFSAVE_SANDBOX-}" = 1 ] || { echo 'run this by script/lib/sandbox' >&2; exit 125; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Kept in a file, because many a test is the end of a pipe.
complain() {
    echo "formats: $1" | tee -a "$scratch/complaints" >&2
}

mkdir -p "$scratch"/{bin,config,expected,home,state,tmp}
ln -s "$program" "$scratch/bin/confsave"
export PATH=$scratch/bin:$PATH HOME=$scratch/home TZ=CET-1
export KELMOR_CONFIG_PATH=$scratch/config/ KELMOR_DYNAMIC_DIR=$scratch/state KELMOR_TEMP_DIR=$scratch/tmp
export KELMOR_LOG_FILE=$scratch/log
umask 022
cd "$scratch" || exit 1
storage=$scratch/state/storage.db

# --- The page -------------------------------------------------------------------------------------

# The blocks of commands in their order on the page.
sum=1 row=2 snapshot=3 onto=4 back=5 check=6 copy=7

block() {
    "$here/tests/support/block" "$page" "$@"
}

# Runs a block of commands with other values in the assignments that it begins with, and in no other place.
run() {
    local assignment name number=$1
    block sh "$number" >commands || complain "the page has no commands $number"
    for assignment in "${@:2}"; do
        name=${assignment%%=*}
        [ "$(grep -c "^$name=" commands)" = 1 ] || complain "commands $number do not set $name once"
        sed -i "s|^$name=.*|$assignment|" commands
    done
    if grep -vF "$scratch" commands | grep -E '/(etc|mnt|var)/'; then
        complain "commands $number would work elsewhere"
        return 1
    fi
    sh -u commands
}

# Fails unless two texts, the second one on standard input, are the same.
same() {
    diff <(printf '%s\n' "$2") - || complain "$1"
}

# The cells of a table of the page that begins with this column, without its blanks and back quotes.
table() {
    awk -v first="| $1 |" 'index($0, first) == 1 { inside = 1; next } !/^\|/ { inside = 0 }
        inside && !/^\|---/' "$page" | sed -E 's/`//g; s/^\| ?//; s/ ?\| ?/|/g'
}

# The members that the page says a kind has.
members() {
    table Member | awk -F'|' -v kind="$2" -v cells="$1" 'NF == cells && $(NF - 1) ~ kind { print $1 }'
}

# --- A gateway ------------------------------------------------------------------------------------

# A file in every place, of all sizes, modes and times, and directories with and without something in them.
make_configuration() {
    local name number=0
    mkdir -p config/{user/key_set,station,hub/out,hub/old}
    for name in user/{gateway.{conf,key,key.pub},{interfaces,routes,filter,nat,services,users}.conf} \
        user/{schedule.conf,notify.conf,config.db,config.idx,kwtp.conf,upgrade.conf} \
        user/{corlucfg-config,kwtpd-config}.crg user/key_set/first gw1.conf gw2.conf peer-north.conf \
        outnet1.conf remote.txt quelvian.re corluadr.lst linkmap.dat station/north hub/out/corlu.serv \
        hub/key; do
        number=$((number + 1))
        head -c $((number * number * 100)) /dev/urandom >"config/$name"
        touch -d "@$((981173106 + number * 86399))" "config/$name"
    done
    : >config/user/nat.conf
    ln -s ../remote.txt config/user/schedule.conf.link && mv -f config/user/schedule.conf{.link,}
    chmod 600 config/user/gateway.key
    chmod 4751 config/remote.txt
    touch -d '2001-02-03 04:05:06.789' config/user/filter.conf
    for name in failover.ini failover.ini.crg failoverd-config.crg; do echo "$name" >"$etc/$name"; done
    chmod 640 "$etc/failover.ini.crg"
    touch -d '1999-12-31 23:59:59' "$etc/failover.ini" config/hub/old
    chmod 710 config/hub/old config/station
}

# What no archive holds.
add_strangers() {
    (cd config && echo stranger | tee user/{config.db-journal,other.conf} hub/other .hidden) >"$etc/other"
}

# Kind, mode, owner, time in whole seconds and content of all that is packed. The two directories that no
# archive has a member for are left out.
manifest() {
    (cd "$1" && find . -mindepth 1 ! -path ./user ! -path ./hub | sort | while read -r path; do
        printf '%s %s\n' "$(stat -c '%F %a %U %G %Y %n' "$path")" "$([ -d "$path" ] || sha256sum <"$path")"
    done)
}

# The storage that the page shows.
make_storage() {
    confsave save before-change
    confsave save autosave-2026-11-20-23-00-00
    echo 'save weekly' | confsave shell
    confsave save --type corlu --version 4.3.2 corlu-config
    confsave save --type part --version 17230397439 trial
    sqlite3 "$storage" "
        update Config set save_time = 1795228800, load_time = 1795230300 where name = 'before-change';
        update Config set save_time = 1795212000 where name like 'autosave%';
        update Config set save_time = 1794718800 where name = 'weekly';
        update Config set save_time = 1793608200 where name = 'corlu-config';
        update Config set save_time = 1793608200 where name = 'trial'"
}

unpack() {
    run "$snapshot" "storage=$storage" "name=$1" "version=$2" "dir=$3"
}

# --- The tests ------------------------------------------------------------------------------------

test_table() {
    local columns
    sqlite3 "$storage" "select sql from sqlite_master where name = 'Config'" |
        same 'the statement of the table is another' "$(block sql 1)"
    [ "$(sqlite3 "$storage" 'select name from sqlite_master order by 1' | xargs)" = \
        'Config sqlite_autoindex_Config_1 sqlite_sequence' ] || complain 'there are other tables'
    [ "$(sqlite3 "$storage" 'pragma auto_vacuum')" = 2 ] || complain 'the layout is another'
    columns=$(sqlite3 "$storage" "select name || '|' || lower(type) from pragma_table_info('Config')")
    table Column | cut -d'|' -f1,2 | same 'the page has other columns' "$columns"
    sed -n '/^\.Ss The table/,/^\.Ss/s/^\.It Va \([a-z_]*\) Pq \([a-z0-9()]*\).*/\1|\2/p' "$manual" |
        same 'the manual page has other columns' "$columns"
}

# What tar finds when it is asked for the members that the page names is what the program packed.
test_members() {
    local name kind column cells where
    while read -r name kind column cells where; do
        sqlite3 "$storage" "select writefile('packed', $column) from Config where name = '$name'" >sizes
        # The patterns are for the shell.
        # shellcheck disable=SC2046
        (cd "$where" && tar cf - $(members "$cells" "$kind") | tar tf -) >expected/members
        tar tzf packed | same "other members in $column of the kind $kind" "$(cat expected/members)"
    done <<END
before-change full keybase 4 $scratch/config
trial part keybase 4 $scratch/config
corlu-config corlu keybase 4 $scratch/config
before-change full etc 3 $etc
trial part etc 3 $etc
END
    [ "$(sqlite3 "$storage" 'select typeof(etc) from Config where type = 3')" = null ] ||
        complain 'the kind corlu has an etc'
    sed -n '/^\.Ss The archives/,/^\.Ss/s/^\.It Pa \([^ ]*\).*/\1/p' "$manual" |
        same 'the manual page has other members' "$(table Member | cut -d'|' -f1)"
    sed -n '/^\.Ss The archives/,/^\.Ss/s/^\.It Pa \([^ ]*\) Pq \([0-9]*\)$/\1|\2/p' "$manual" |
        same 'the manual page has other numbers' "$(table Member | cut -d'|' -f1,2 | grep '|[0-9]')"
}

test_versions() {
    local expression number hex text count=0 stored
    stored=$(sqlite3 "$storage" "select version from Config where name = 'before-change'")
    run "$sum" | same 'the sum is another' "$(block text 1)"
    [ "$(block text 1)" = "$stored" ] || complain 'the running version is another'
    od -An -v -tx1 "$storage" | tr -d '\n' | grep -q ' 00 04 05 04 00 00 ' ||
        complain 'other bytes of a version'
    expression=$(block sql 2)
    while IFS='|' read -r number hex text _; do
        count=$((count + 1))
        [ "$(printf '0x%x' "$number")" = "$hex" ] || complain "$number is not $hex"
        [ "$(sqlite3 :memory: "select $expression from (select $number as version)")" = "$text" ] ||
            complain "the text of $number is not $text"
        [ "$(version_text "$number")" = "$text" ] || complain "to the program $number is not $text"
    done < <(table Number)
    [ "$count" = 9 ] || complain "$count versions"
    [ "$(number_of 4.256.0) $(number_of 4.5.300)" = "$(number_of 5.0.0) $(number_of 4.6.44)" ] ||
        complain 'versions carry over in another way'
}

# What the program makes of a version number that is stored.
version_text() {
    sqlite3 "$storage" "update Config set version = $1 where name = 'weekly'"
    confsave list | sed -n 's/^"weekly",\t\(version \([-0-9.]*\),\t\)\{0,1\}full, .*/\2/p'
    sqlite3 "$storage" "update Config set version = 0 where name = 'weekly'"
}

# As the page adds it up, for a text.
number_of() {
    local major minor build
    IFS=. read -r major minor build <<<"$1"
    block sh "$sum" | sed "s/4 << 32/$major << 32/; s/5 << 24/$minor << 24/; s/4 << 16/$build << 16/" | sh
}

test_row() {
    run "$row" "storage=$storage" | same 'the row in bytes is another' "$(block text 2)"
    KELMOR_GZIP=/usr/bin/gzip confsave save plain
    sqlite3 "$storage" "select hex(substr(keybase, 1, 8)) from Config where name = 'plain'" |
        same 'gzip writes other bytes' 1F8B080000000000
    sqlite3 "$storage" "select writefile('packed', keybase) from Config where name = 'plain'" >sizes
    gzip -dc packed >unpacked
    [ "$(head -c 18 unpacked | tr '\0' ' ')" = 'user/gateway.conf ' ] ||
        complain 'the first member is another'
    [ "$(tail -c +258 unpacked | head -c 5)" = ustar ] || complain 'no "ustar"'
    confsave delete plain
}

test_snapshot() {
    cp "$storage" before.db
    unpack before-change 17264017408 "$scratch/out" >answer || complain 'the snapshot was not unpacked'
    same 'the answer is another' "$(block text 3)" <answer
    manifest out/config | same 'the configuration is not what it was' "$(cat expected/config)"
    manifest out/etc | same 'the failover settings are not what they were' "$(cat expected/etc)"
    [ "$(stat -c %.9Y config/user/filter.conf out/config/user/filter.conf | xargs)" = \
        '981169506.789000000 981169506.000000000' ] || complain 'times are not kept in whole seconds'
    [ "$(stat -c %a out)" = 700 ] || complain 'others can look into what was unpacked'
    cmp "$storage" before.db || complain 'the storage changed'
}

# A gateway in two directories of its own, with something damaged, lost, new and running in it.
make_damaged_gateway() {
    rm -rf gateway failover kept
    cp -a config gateway
    cp -a "$etc" failover
    echo damaged | tee gateway/user/filter.conf gateway/user/users.conf >failover/failover.ini
    echo running >gateway/hub/out/corlu.serv
    echo new >gateway/user/key_set/second
    rm -r gateway/{hub/key,station,user/config.{db,db-journal,idx}} failover/failover.ini.crg
    chmod 750 gateway/user
    manifest gateway >expected/damaged
    manifest failover >expected/damaged-failover
}

on_gateway() {
    run "$1" "config=$scratch/gateway" "etc=$scratch/failover" "kept=$scratch/kept" "${@:2}"
}

# A missing row, a missing storage and a directory that is there already.
test_nothing_to_unpack() {
    unpack before-change 17230331904 "$scratch/none" >answer 2>&1 &&
        complain 'a missing version was unpacked'
    same 'a missing version is told in another way' "$(block text 3 | grep '^[+|]')" <answer
    [ ! -e none ] || complain 'a missing version left a directory'
    unpack before-change 17264017408 "$scratch/out" >answer 2>&1 && complain 'unpacked over another'
    grep -q 'File exists' answer || complain 'a directory that is there is not told'
    run "$snapshot" "storage=$scratch/missing.db" name=x version=1 "dir=$scratch/none" >answer 2>&1 &&
        complain 'a missing storage was listed'
    grep -q 'unable to open database' answer || complain 'a missing storage is not told'
    [ ! -e missing.db ] || complain 'a missing storage was made'
}

test_apostrophe() {
    sqlite3 "$storage" "insert into Config select 99, 'o''hare', 1, keybase, etc, type, save_time, load_time
        from Config where name = 'before-change'"
    unpack "\"o''hare\"" 1 "$scratch/hare" >answer || complain 'a name with an apostrophe was not unpacked'
    manifest hare/config | same 'a name with an apostrophe came out wrong' "$(cat expected/config)"
    sqlite3 "$storage" 'delete from Config where id = 99'
}

test_kind_without_etc() {
    unpack corlu-config 17230331904 "$scratch/corlu" >answer || complain 'the kind corlu was not unpacked'
    [ -z "$(ls corlu/etc)" ] || complain 'the kind corlu has failover settings'
    cmp corlu/config/user/filter.conf config/user/filter.conf || complain 'the kind corlu came out wrong'
    make_damaged_gateway
    on_gateway "$onto" "dir=$scratch/corlu" || complain 'the kind corlu was not restored'
    manifest failover |
        same 'the kind corlu touches the failover settings' "$(cat expected/damaged-failover)"
}

# An archive without a member, which the library refuses.
test_no_failover() {
    mkdir aside
    mv "$etc"/* aside
    confsave save no-failover 2>answer
    unpack no-failover 17264017408 "$scratch/no-failover" >answer ||
        complain 'no unpacking without failover files'
    manifest no-failover/config | same 'without failover files the rest is another' "$(cat expected/config)"
    [ -z "$(ls no-failover/etc)" ] || complain 'failover files from nowhere'
    confsave load --yes no-failover >answer 2>&1 && complain 'the library restores it after all'
    confsave delete no-failover
    mv aside/* "$etc"
    rmdir aside
}

# Neither file of the database is packed when one is missing, and a restore leaves none of an older one.
test_no_database() {
    mv config/user/config.idx aside
    confsave save no-database
    mv aside config/user/config.idx
    unpack no-database 17264017408 "$scratch/no-database" >answer ||
        complain 'no unpacking without a database'
    [ ! -e no-database/config/user/config.db ] || complain 'half a database was packed'
    make_damaged_gateway
    touch gateway/user/config.{db,db-journal,idx}
    on_gateway "$onto" "dir=$scratch/no-database" || complain 'no restoring without a database'
    [ -z "$(find gateway -name 'config.*')" ] || complain 'a database of before was left'
    confsave delete no-database
}

# All but the strangers, what is new, and the file of the running packet filter.
packed_manifest() {
    manifest "$1" | grep -vE ' \./(user/(config.db-journal|other.conf|key_set/second)) ' |
        grep -vE ' \./(hub/(other|out/corlu.serv)|\.hidden|other) '
}

test_onto_gateway() {
    make_damaged_gateway
    on_gateway "$onto" "dir=$scratch/out" || complain 'nothing was restored'
    [ "$(cat gateway/hub/out/corlu.serv)" = running ] || complain 'the packet filter lost its file'
    [ "$(cat gateway/user/other.conf gateway/user/key_set/second | xargs)" = 'stranger new' ] ||
        complain 'what is in no archive was touched'
    [ "$(stat -c %a gateway/user)" = 750 ] || complain 'a directory without a member has another mode'
    packed_manifest gateway | same 'the gateway is not what it was' "$(grep -v corlu.serv expected/config)"
    packed_manifest failover | same 'its failover settings are not what they were' "$(cat expected/etc)"
    [ "$(stat -c %a kept)" = 700 ] || complain 'others can look into what was kept'
}

test_back() {
    touch gateway/user/config.db-journal
    on_gateway "$back" || complain 'the way back failed'
    manifest gateway | grep -vE ' \./(hub/key|station|station/north) ' |
        same 'what was kept did not come back' "$(cat expected/damaged)"
    manifest failover | grep -v ' \./failover.ini.crg ' |
        same 'the failover settings that were kept did not come back' "$(cat expected/damaged-failover)"
}

# Whatever is wrong before, nothing is touched.
test_broken_archives() {
    local archive
    for archive in keybase etc; do
        make_damaged_gateway
        rm -rf broken
        cp -r out broken
        truncate -s -9 "broken/$archive.tar.gz"
        on_gateway "$onto" "dir=$scratch/broken" 2>answer && complain "a broken $archive was restored"
        manifest gateway | same "a broken $archive touches the gateway" "$(cat expected/damaged)"
    done
    on_gateway "$onto" "dir=$scratch/out" 2>answer && complain 'what was kept was written over'
    manifest gateway | same 'without keeping it the gateway was touched' "$(cat expected/damaged)"
    truncate -s -9 kept/etc.tar.gz
    on_gateway "$back" 2>answer && complain 'what was kept is broken and was used'
    manifest gateway | same 'what was kept is broken and touches the gateway' "$(cat expected/damaged)"
}

test_check() {
    run "$check" "storage=$storage" | same 'the check answers something else' "$(block text 4)"
    cp "$storage" broken.db
    dd if=/dev/urandom of=broken.db bs=4096 seek=2 count=1 conv=notrunc status=none
    [ "$(run "$check" "storage=$scratch/broken.db" 2>&1)" != "$(block text 4)" ] ||
        complain 'a broken storage is ok'
}

# While a process writes, which has to be waited for.
test_copy() {
    mkfifo begun
    { echo "begin exclusive; select 'begun';" && sleep 1 && echo 'commit;'; } | sqlite3 "$storage" >begun &
    read -r _ <begun
    run "$copy" "storage=$storage" "copy=$scratch/copy.db" || complain 'no copy'
    wait
    sqlite3 copy.db .dump | same 'the copy is another' "$(sqlite3 "$storage" .dump)"
    [ "$(stat -c %a copy.db)" = 600 ] || complain 'others can read the copy'
    run "$copy" "storage=$scratch/missing.db" "copy=$scratch/none.db" 2>answer &&
        complain 'a missing storage was copied'
}

test_lock() {
    flock state/confsave.lock confsave save --wait 0 locked 2>answer && complain 'the lock holds nobody off'
    confsave save locked
    [ "$(stat -c %s state/confsave.lock)" = 0 ] || complain 'a lock that nobody holds is not empty'
    confsave delete locked
}

make_configuration
manifest config >expected/config
manifest "$etc" >expected/etc
add_strangers
make_storage
[ "$(grep -c '^```sh$' "$page")" = 7 ] || complain 'the page has commands that are not run'
[ "$(grep -c '^```text$' "$page")" = 4 ] || complain 'the page shows answers that are not compared'

test_table
test_members
test_versions
test_row
test_snapshot
test_nothing_to_unpack
test_apostrophe
test_kind_without_etc
test_no_failover
test_no_database
test_onto_gateway
test_back
test_broken_archives
test_check
test_copy
test_lock
[ ! -e complaints ]

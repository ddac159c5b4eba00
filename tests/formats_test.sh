#!/bin/bash
# docs/formats.md and docs/by-hand.md are true: their commands, run as they stand on the page, list, check,
# copy, unpack and restore what the program stores, and print what the page shows. storage.db(5) has the
# same columns.
#
#   tests/formats_test.sh PROGRAM PRINT_CONTENTS
set -u

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/support/check.sh"
in_sandbox
make_gateway "$1"
contents=$("$2")
cd "$work" || exit 1
mkdir expected
export TZ=CET-1
umask 022
page=$tree/docs/formats.md
manual=$tree/docs/man/storage.db.5
etc=/mnt/main/etc
storage=$work/state/storage.db

# --- The pages -------------------------------------------------------------------------------------

# The blocks of commands, and those of answers: the page, and the number on it.
sum=formats:1 row=formats:2 snapshot=by-hand:1 onto=by-hand:2 back=by-hand:3 check=by-hand:4 copy=by-hand:5
sum_answer=formats:1 row_answer=formats:2 snapshot_answer=by-hand:1 check_answer=by-hand:2

commands_of() { block "${1%:*}" sh "${1#*:}"; }
answer_of() { block "${1%:*}" text "${1#*:}"; }
blocks() { grep -c "^\`\`\`$2\$" "$tree/docs/$1.md"; }

# run BLOCK [NAME=VALUE...]: a block of commands, with other values in the assignments that it begins with.
run() {
    local assignment name
    commands_of "$1" >commands
    for assignment in "${@:2}"; do
        name=${assignment%%=*}
        expect "lines of commands $1 that set $name" 1 "$(grep -c "^$name=" commands)"
        sed -i "s|^$name=.*|$assignment|" commands
    done
    if grep -vF "$work" commands | grep -E '/(etc|mnt|var)/'; then
        complain "commands $1 would work on this machine's files"
        return 1
    fi
    sh -u commands
}
unpack() {
    run "$snapshot" "storage=$storage" "name=$1" "version=$2" "dir=$work/$3"
}
on_gateway() {
    run "$1" "config=$work/gateway" "etc=$work/failover" "kept=$work/kept" "${@:2}"
}

# works WHAT COMMAND..., fails WHAT COMMAND...: what the command writes goes into the file "answer".
works() {
    "${@:2}" >answer 2>&1 || complain "$1: $(cat answer)"
}
fails() {
    ! "${@:2}" >answer 2>&1 || complain "$1"
}

# The cells of a table of docs/formats.md that begins with this column, without blanks and back quotes.
table() {
    awk -v first="| $1 |" 'index($0, first) == 1 { inside = 1; next } !/^\|/ { inside = 0 }
        inside && !/^\|---/' "$page" | sed -E 's/`//g; s/^\| ?//; s/ ?\| ?/|/g'
}

# members COLUMN TYPE: what the page says an archive holds. Its second table has no column for numbers.
members() {
    local cells=4
    [ "$1" = keybase ] || cells=3
    table Member | awk -F'|' -v type="$2" -v cells="$cells" 'NF == cells && $(NF - 1) ~ type { print $1 }'
}

# Part of the manual page, by the title of its subsection.
manual_part() {
    sed -n "/^\.Ss $1/,/^\.Ss/$2" "$manual"
}

# --- A gateway ------------------------------------------------------------------------------------

# The files and directories that the page shows, of all sizes, modes and times.
make_configuration() {
    local name where number=0
    while read -r name; do
        number=$((number + 1))
        where=config
        ! members etc full | grep -qxF "$name" || where=$etc
        mkdir -p "$(dirname "$where/${name}x")"
        [[ $name == */ ]] || head -c $((number * number * 100)) /dev/urandom >"$where/$name"
        touch -d "@$((981173106 + number * 86399))" "$where/$name"
    done < <(answer_of "$snapshot_answer" | grep -v '^[+|]')
    : >config/user/nat.conf
    ln -sf ../remote.txt config/user/schedule.conf
    chmod 600 config/user/gateway.key
    chmod 640 "$etc/failover.ini.crg"
    chmod 710 config/hub/old config/station
    chmod 4751 config/remote.txt
    touch -d '2001-02-03 04:05:06.789' config/user/filter.conf
    touch -d '1999-12-31 23:59:59' "$etc/failover.ini" config/hub/old
}

# What no archive holds.
add_strangers() {
    (cd config && echo stranger | tee user/{config.db-journal,other.conf} hub/other .hidden) >"$etc/other"
}

# Sort, mode, owner, time in whole seconds and content of everything, except the two directories that no
# archive has a member for.
manifest() {
    (cd "$1" && find . -mindepth 1 ! -path ./user ! -path ./hub | sort | while read -r path; do
        printf '%s %s\n' "$(stat -c '%F %a %U %G %Y %n' "$path")" "$([ -d "$path" ] || sha256sum <"$path")"
    done)
}

# is DIRECTORY EXPECTED: the directory has the manifest that was recorded under that name.
is() {
    manifest "$1" | same "$1 is not what was recorded as $2" "$(cat "expected/$2")"
}

# The storage that the page shows.
make_storage() {
    confsave save before-change
    confsave save autosave-2026-11-20-23-00-00
    confsave save --version none weekly
    confsave save --type corlu --version 4.3.2 corlu-config
    confsave save --type part --version 17230397439 trial
    sqlite3 "$storage" "
        update Config set save_time = 1795228800, load_time = 1795230300 where name = 'before-change';
        update Config set save_time = 1795212000 where name like 'autosave%';
        update Config set save_time = 1794718800 where name = 'weekly';
        update Config set save_time = 1793608200 where name in ('corlu-config', 'trial')"
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

# --- The tests ------------------------------------------------------------------------------------

test_table() {
    local columns
    sqlite3 "$storage" "select sql from sqlite_master where name = 'Config'" |
        same "the table's statement" "$(block formats sql 1)"
    expect 'tables and indices' 'Config sqlite_autoindex_Config_1 sqlite_sequence' \
        "$(sqlite3 "$storage" 'select name from sqlite_master order by 1' | xargs)"
    expect auto_vacuum 2 "$(sqlite3 "$storage" 'pragma auto_vacuum')"
    columns=$(sqlite3 "$storage" "select name || '|' || lower(type) from pragma_table_info('Config')")
    table Column | cut -d'|' -f1,2 | same 'columns on the page' "$columns"
    manual_part 'The table' 's/^\.It Va \([a-z_]*\) Pq \([a-z0-9()]*\).*/\1|\2/p' |
        same 'columns on the manual page' "$columns"
}

test_contents() {
    echo "$contents" | awk -F'\t' '$3 != "-" { gsub(",", " ", $3); print $1 "|" $3 }' |
        same 'the table of the sources' "$(table Member | awk -F'|' '{ print $1 "|" $(NF - 1) }')"
}

# What tar finds when it is asked for the members that the page names is what the program packed.
test_members() {
    local name type column where
    while read -r name type column where; do
        sqlite3 "$storage" "select writefile('packed', $column) from Config where name = '$name'" >answer
        # shellcheck disable=SC2046 # The patterns are for the shell.
        tar tzf packed | same "members in $column of the type $type" \
            "$(cd "$where" && tar cf - $(members "$column" "$type") | tar tf -)"
    done <<END
before-change full keybase $work/config
trial part keybase $work/config
corlu-config corlu keybase $work/config
before-change full etc $etc
trial part etc $etc
END
    expect 'etc of the type corlu' null \
        "$(sqlite3 "$storage" 'select typeof(etc) from Config where type = 3')"
    manual_part 'The archives' 's/^\.It Pa \([^ ]*\).*/\1/p' |
        same 'members on the manual page' "$(table Member | cut -d'|' -f1)"
    manual_part 'The archives' 's/^\.It Pa \([^ ]*\) Pq \([0-9]*\)$/\1|\2/p' |
        same 'numbers of files on the manual page' "$(table Member | cut -d'|' -f1,2 | grep '|[0-9]')"
}

# What the program makes of a version number that is stored.
version_text() {
    sqlite3 "$storage" "update Config set version = $1 where name = 'weekly'"
    confsave list | sed -n 's/^"weekly",\t\(version \([-0-9.]*\),\t\)\{0,1\}full, .*/\2/p'
    sqlite3 "$storage" "update Config set version = 0 where name = 'weekly'"
}

# number_of MAJOR MINOR BUILD: as the page adds it up.
number_of() {
    commands_of "$sum" | sed "s/4 << 32/$1 << 32/; s/5 << 24/$2 << 24/; s/4 << 16/$3 << 16/" | sh
}

test_versions() {
    local expression number hex text count=0
    run "$sum" | same 'the sum' "$(answer_of "$sum_answer")"
    expect 'the running version' "$(answer_of "$sum_answer")" \
        "$(sqlite3 "$storage" "select version from Config where name = 'before-change'")"
    od -An -v -tx1 "$storage" | tr -d '\n' | grep -q ' 00 04 05 04 00 00 ' ||
        complain 'a version is stored in other bytes'
    expression=$(block formats sql 2)
    while IFS='|' read -r number hex text _; do
        count=$((count + 1))
        expect "$number in hexadecimal" "$hex" "$(printf '0x%x' "$number")"
        expect "$number as SQL makes its text" "$text" \
            "$(sqlite3 :memory: "select $expression from (select $number as version)")"
        expect "$number as the program prints it" "$text" "$(version_text "$number")"
    done < <(table Number)
    expect 'versions on the page' 9 "$count"
    expect 'versions that carry over' "$(number_of 5 0 0) $(number_of 4 6 44)" \
        "$(number_of 4 256 0) $(number_of 4 5 300)"
}

test_row() {
    run "$row" "storage=$storage" | same 'the row in bytes' "$(answer_of "$row_answer")"
    KELMOR_GZIP=/usr/bin/gzip confsave save plain
    expect 'the bytes of gzip' 1F8B080000000000 \
        "$(sqlite3 "$storage" "select hex(substr(keybase, 1, 8)) from Config where name = 'plain'")"
    sqlite3 "$storage" "select writefile('packed', keybase) from Config where name = 'plain'" >answer
    gzip -dc packed >unpacked
    expect 'the first member' 'user/gateway.conf ' "$(head -c 18 unpacked | tr '\0' ' ')"
    expect 'the bytes from 257' ustar "$(tail -c +258 unpacked | head -c 5)"
    confsave delete plain
}

test_snapshot() {
    cp "$storage" before.db
    works 'a snapshot was not unpacked' unpack before-change 17264017408 out
    same 'the answer' "$(answer_of "$snapshot_answer")" <answer
    is out/config config
    is out/etc etc
    expect 'times in seconds' '981169506.789000000 981169506.000000000' \
        "$(stat -c %.9Y config/user/filter.conf out/config/user/filter.conf | xargs)"
    expect 'the mode of what was unpacked' 700 "$(stat -c %a out)"
    cmp "$storage" before.db || complain 'the storage changed'
}

# A missing row, a directory that exists already and a missing storage.
test_nothing_to_unpack() {
    fails 'a missing version was unpacked' unpack before-change 17230331904 none
    same 'the answer to a missing version' "$(answer_of "$snapshot_answer" | grep '^[+|]')" <answer
    [ ! -e none ] || complain 'a missing version left a directory'
    fails 'a snapshot was unpacked over another' unpack before-change 17264017408 out
    grep -q 'File exists' answer || complain 'an existing directory is not reported'
    fails 'a missing storage was listed' \
        run "$snapshot" "storage=$work/missing.db" name=x version=1 "dir=$work/none"
    grep -q 'unable to open database' answer || complain 'a missing storage is not reported'
    [ ! -e missing.db ] || complain 'a missing storage was made'
}

test_apostrophe() {
    sqlite3 "$storage" "insert into Config select 99, 'o''hare', 1, keybase, etc, type, save_time, load_time
        from Config where name = 'before-change'"
    works 'a name with an apostrophe' unpack "\"o''hare\"" 1 hare
    is hare/config config
    sqlite3 "$storage" 'delete from Config where id = 99'
}

test_corlu() {
    works 'the type corlu was not unpacked' unpack corlu-config 17230331904 corlu
    expect 'failover files of the type corlu' '' "$(ls corlu/etc)"
    cmp corlu/config/user/filter.conf config/user/filter.conf || complain 'the type corlu came out wrong'
    make_damaged_gateway
    works 'the type corlu was not restored' on_gateway "$onto" "dir=$work/corlu"
    is failover damaged-failover
}

# An archive without a member.
test_no_failover() {
    mkdir aside
    mv "$etc"/* aside
    confsave save no-failover 2>answer
    works 'a snapshot without failover files' unpack no-failover 17264017408 no-failover
    is no-failover/config config
    expect 'failover files from nowhere' '' "$(ls no-failover/etc)"
    confsave delete no-failover
    mv aside/* "$etc"
}

# Neither file of the database is packed when one is missing, and a restore leaves no older one.
test_no_database() {
    mv config/user/config.idx aside
    confsave save no-database
    mv aside/config.idx config/user
    works 'a snapshot without a database' unpack no-database 17264017408 no-database
    [ ! -e no-database/config/user/config.db ] || complain 'half a database was packed'
    make_damaged_gateway
    touch gateway/user/config.{db,db-journal,idx}
    works 'restoring without a database' on_gateway "$onto" "dir=$work/no-database"
    expect 'the older database' '' "$(find gateway -name 'config.*')"
    confsave delete no-database
}

# Without the strangers, what is new, and the file of the running packet filter.
packed_manifest() {
    manifest "$1" | grep -vE ' \./(user/(config.db-journal|other.conf|key_set/second)) ' |
        grep -vE ' \./(hub/(other|out/corlu.serv)|\.hidden|other) '
}

test_onto_gateway() {
    make_damaged_gateway
    works 'nothing was restored' on_gateway "$onto" "dir=$work/out"
    expect 'what is in no archive, or left out' 'running stranger new' \
        "$(cd gateway && cat hub/out/corlu.serv user/other.conf user/key_set/second | xargs)"
    expect 'the mode of a directory without a member' 750 "$(stat -c %a gateway/user)"
    packed_manifest gateway | same 'the gateway' "$(grep -v corlu.serv expected/config)"
    packed_manifest failover | same 'the failover files' "$(cat expected/etc)"
    expect 'the mode of what was kept' 700 "$(stat -c %a kept)"
}

test_back() {
    touch gateway/user/config.db-journal
    works 'the way back failed' on_gateway "$back"
    manifest gateway | grep -vE ' \./(hub/key|station|station/north) ' |
        same 'what was kept' "$(cat expected/damaged)"
    manifest failover | grep -v ' \./failover.ini.crg ' |
        same 'the failover files that were kept' "$(cat expected/damaged-failover)"
}

# Whatever is wrong before, nothing is touched.
test_broken_archives() {
    local archive
    for archive in keybase etc; do
        make_damaged_gateway
        rm -rf broken
        cp -r out broken
        truncate -s -9 "broken/$archive.tar.gz"
        fails "a broken $archive was restored" on_gateway "$onto" "dir=$work/broken"
        is gateway damaged
    done
    fails 'what was kept was overwritten' on_gateway "$onto" "dir=$work/out"
    is gateway damaged
    truncate -s -9 kept/etc.tar.gz
    fails 'what was kept is broken, and was used' on_gateway "$back"
    is gateway damaged
}

test_check() {
    run "$check" "storage=$storage" | same 'the check' "$(answer_of "$check_answer")"
    cp "$storage" broken.db
    dd if=/dev/urandom of=broken.db bs=8192 seek=2 count=1 conv=notrunc status=none
    [ "$(run "$check" "storage=$work/broken.db" 2>&1)" != "$(answer_of "$check_answer")" ] ||
        complain 'a broken storage passes the check'
}

# While a process writes: the copy waits for it.
test_copy() {
    mkfifo begun
    { echo "begin exclusive; select 'begun';" && sleep 1 && echo 'commit;'; } | sqlite3 "$storage" >begun &
    read -r _ <begun
    works 'no copy' run "$copy" "storage=$storage" "copy=$work/copy.db"
    wait
    sqlite3 copy.db .dump | same 'the copy' "$(sqlite3 "$storage" .dump)"
    expect 'the mode of the copy' 600 "$(stat -c %a copy.db)"
    fails 'a missing storage was copied' run "$copy" "storage=$work/missing.db" "copy=$work/none.db"
}

test_lock() {
    fails 'the lock excludes nobody' flock state/confsave.lock confsave save --wait 0 locked
    confsave save locked
    expect 'the size of a free lock' 0 "$(stat -c %s state/confsave.lock)"
    confsave delete locked
}

expect 'blocks of commands' '2 5' "$(blocks formats sh) $(blocks by-hand sh)"
expect 'blocks of answers' '2 2' "$(blocks formats text) $(blocks by-hand text)"
make_configuration
manifest config >expected/config
manifest "$etc" >expected/etc
add_strangers
make_storage
for name in table contents members versions row snapshot nothing_to_unpack apostrophe corlu no_failover \
    no_database onto_gateway back broken_archives check copy lock; do
    "test_$name"
done

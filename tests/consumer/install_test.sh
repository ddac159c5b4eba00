#!/bin/sh
# A stranger who follows the page on embedding, word for word, gets a host that links and runs.
#
#   [CXX=COMPILER] [CXXFLAGS=FLAGS] tests/consumer/install_test.sh BUILD_DIRECTORY
set -eu

# shellcheck source=tests/consumer/install.sh
. "$(dirname "$0")/install.sh"

lists() {
    tail -n 1 | sed -E 's/[0-9.]{10} at [0-9]{2}:[0-9]{2}/DATE/' |
        same "the host built by $1" '"weekly",	version 4.5.4,	full, saved on DATE, never loaded'
}

# The commands of the page, with directories of the test; what they would build is there already.
printf '#!/bin/sh\nexec "$@"\n' >"$work/bin/sudo"
printf '#!/bin/sh\n' >"$work/bin/ldconfig"
chmod +x "$work/bin/sudo" "$work/bin/ldconfig"
block embedding console | sed -n 's/^\$ //p' | sed -e "s|-B build/release|-B $work/configured|" \
    -e "s|--build build/release|--build $work/configured -- -n|" \
    -e "s|--install build/release --prefix /usr/local|--install $built --prefix $work/first|" \
    -e "s| /etc/kelmor| $work/etc/kelmor|; s| /var/lib| $work/var/lib|g" >"$work/commands"
(cd "$tree" && quietly sh -e "$work/commands")
expect 'the directories that the page makes' '700 700 700' \
    "$(cd "$work" && stat -c %a etc/kelmor var/lib/kelmor var/lib/kelmor/tmp | xargs)"
# Nothing in the tree may depend on where it was installed.
prefix=$work/prefix
mv "$work/first" "$prefix"
(cd "$prefix" && find . -not -type d | sed -E -e 's|^\./||' -e 's/\.so\.[0-9]+(\.[0-9]+)+$/.so.RELEASE/' \
    -e 's/-(debug|relwithdebinfo|release|noconfig)\.cmake$/-CONFIG.cmake/' | LC_ALL=C sort) |
    same 'installed files' "$(cat "$tree/tests/consumer/installed.txt")"
(
    # README.md begins where no gateway is.
    rm -r /mnt/main "$KELMOR_CONFIG_PATH"
    block ../README sh 2 | sed "s| /etc/kelmor| $KELMOR_CONFIG_PATH|g" >"$work/commands"
    PATH=$prefix/bin:$PATH quietly sh -e "$work/commands"
    cmp /etc/profile "$KELMOR_CONFIG_PATH/user/filter.conf" || complain 'README.md restores another file'
    rm "$KELMOR_DYNAMIC_DIR"/*
)
echo 'permit established' | tee "$KELMOR_CONFIG_PATH/user/filter.conf" >/mnt/main/etc/failover.ini
"$prefix/bin/confsave" save weekly || fail 'the program does not run'

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name confsave.pc)")
libraries=$(dirname "$(find "$prefix" -name libconfsave.so)")
export CMAKE_PREFIX_PATH="$prefix" PKG_CONFIG_PATH
# The host of the typed library takes a change back, is short, and has nothing to guard against.
write_project "$work/typed" 1 1
cd "$work/typed"
[ "$(wc -l <host.cpp)" -le 25 ] || complain 'the host of the typed library has more than 25 lines'
filter=$KELMOR_CONFIG_PATH/user/filter.conf
failover=/mnt/main/etc/failover.ini
takes_back() {
    failing="echo 'permit any' >'$filter'; rm $failover; touch '$KELMOR_CONFIG_PATH/user/nat.conf'; false"
    expect "what the host built by $1 prints of a command that fails" '[1]' \
        "$("$2" "$failing" 2>&1 || echo "[$?]")"
    expect "the files that the host built by $1 takes back" 'permit established permit established' \
        "$(cat "$filter" "$failover" "$KELMOR_CONFIG_PATH"/user/nat.conf 2>/dev/null | xargs)"
    expect "the comment of the host built by $1" "$failing" \
        "$(sqlite3 "$KELMOR_DYNAMIC_DIR/notes.db" "select comment from note where comment glob 'echo*'")"
    expect "what the host built by $1 prints of a command that succeeds" '' \
        "$("$2" "echo deny >'$filter'" 2>&1 || echo "[$?]")"
    expect "the file that the host built by $1 keeps" deny "$(cat "$filter")"
    echo 'permit established' >"$filter"
    rm "$KELMOR_DYNAMIC_DIR/notes.db"
}
block embedding sh 1 >commands
quietly sh -e commands
takes_back CMake build/host
block embedding sh 2 >commands
quietly sh -e commands
export LD_LIBRARY_PATH="$libraries"
takes_back pkg-config ./host
unset LD_LIBRARY_PATH
refused=$(build/host 2>&1) && complain 'the typed host accepts no arguments'
expect 'what it prints then' '' "$refused"
rm "$KELMOR_DYNAMIC_DIR"/*
confsave save weekly

write_project "$work/project"
cd "$work/project"
block embedding sh 1 >commands
quietly sh -e commands
build/host | lists CMake
block embedding sh 3 >commands
quietly sh -e commands
LD_LIBRARY_PATH=$libraries ./host | lists pkg-config

# A host needs no other headers than the installed ones.
for header in confsave.h confsave/snapshots.h; do
    echo "#include <$header>" | "$CXX" -std=c++17 -I"$prefix/include" -Wall -Wextra -pedantic -Werror \
        -fsyntax-only -x c++ - || complain "the installed $header does not compile"
done

# What the tests in shell share. To be sourced: . "$(dirname "$0")/support/check.sh"
#
# A failed check is printed, and kept in a file because many a check is the end of a pipe. The test goes on
# and fails at its end.
# shellcheck shell=sh

check_name=$(basename "$0" _test.sh)
# shellcheck disable=SC2034 # for the tests
tree=$(cd "$(dirname "$0")" && while [ ! -e CMakePresets.json ]; do cd ..; done && pwd)
work=$(mktemp -d)

cleanup() { :; }
finish() {
    status=$?
    [ ! -e "$work/complaints" ] || status=1
    cleanup && rm -rf --one-file-system "$work"
    exit "$status"
}
trap finish EXIT
trap 'exit 1' HUP INT TERM

complain() {
    printf '%s: %s\n' "$check_name" "$1" | tee -a "$work/complaints" >&2
}

fail() {
    complain "$1"
    exit 1
}

# expect WHAT EXPECTED SEEN
expect() {
    [ "$2" = "$3" ] || complain "$1: '$3', not '$2'"
}

# same WHAT EXPECTED: what is seen is standard input.
same() {
    printf '%s\n' "$2" >"$work/.expected"
    diff "$work/.expected" - >"$work/.diff" && return
    cut -c -200 "$work/.diff" | head -n 40 >&2
    complain "$1 (<: expected, >: seen)"
}

# Prints what a command wrote only if it fails.
quietly() {
    "$@" >"$work/.written" 2>&1 || { cat "$work/.written" >&2; fail "failed: $*"; }
}

# block PAGE LANGUAGE [NUMBER]: a code block of a page, so that a test runs what a reader would. PAGE is the
# name of one in docs, or ../README.
block() {
    awk -v opening="\`\`\`$2" -v number="${3-1}" '
        $0 == opening && ++count == number { inside = 1; found = 1; next }
        /^```/ { inside = 0 }
        inside
        END { exit !found }' "$tree/docs/$1.md" || fail "docs/$1.md has no block ${3-1} of $2"
}

in_sandbox() {
    [ "${CONFSAVE_SANDBOX-}" = 1 ] || fail 'this fills /mnt/main/etc: run it by ctest or script/lib/sandbox'
}

# make_gateway PROGRAM: a gateway of the test's own, in $work; "confsave" runs the program, see
# tests/support/confsave.
make_gateway() {
    mkdir -p "$work/config/user" "$work/state" "$work/tmp" "$work/home" "$work/bin"
    CONFSAVE_PROGRAM=$(realpath "$1")
    CONFSAVE_TREE=$tree
    export CONFSAVE_PROGRAM CONFSAVE_TREE
    ln -s "$tree/tests/support/confsave" "$work/bin/confsave"
    export PATH="$work/bin:$PATH" HOME="$work/home"
    export KELMOR_CONFIG_PATH="$work/config/" KELMOR_DYNAMIC_DIR="$work/state"
    export KELMOR_TEMP_DIR="$work/tmp" KELMOR_LOG_FILE="$work/log"
}

# compiles FLAG...: standard input, by each compiler that is installed.
compiles() {
    cat >"$work/.program.cpp"
    compilers=
    for compiler in g++ clang++; do
        command -v "$compiler" >/dev/null || continue
        compilers="$compilers $compiler"
        "$compiler" -std=c++17 -Wall -Wextra -Werror -fsyntax-only "$@" "$work/.program.cpp" || return 1
    done
    [ -n "$compilers" ]
}

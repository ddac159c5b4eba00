# What the tests of the installed library share. To be sourced, with the build directory as an argument, and
# what it was built with in CXX and CXXFLAGS.
# shellcheck shell=sh disable=SC2034  # What it sets is for those who source it.

build=$1
: "${CXXFLAGS:=}"
CXX=$(command -v "${CXX:-c++}")
export CXX CXXFLAGS
here=$(cd "$(dirname "$0")/../.." && pwd)

[ "${CONFSAVE_SANDBOX-}" = 1 ] || { echo 'run this by script/lib/sandbox' >&2; exit 125; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$(basename "$0"): $1" >&2
    exit 1
}

# Prints what the command said only if it fails.
quietly() {
    if ! "$@" >"$scratch/said" 2>&1; then
        cat "$scratch/said" >&2
        fail "failed: $*"
    fi
}

configure() {
    quietly cmake -G Ninja -DCMAKE_BUILD_TYPE=Debug "$@"
}

# A block of a page: its name, a language, a number.
block() {
    "$here/tests/support/block" "$here/docs/$1.md" "$2" "$3"
}

# A stranger's project, as the page has it.
write_project() {
    mkdir "$1"
    block embedding cpp 1 >"$1/host.cpp"
    block embedding cmake 1 >"$1/CMakeLists.txt"
}

# To the commands of a page, c++ is the compiler that the library was built with.
use_compiler() {
    mkdir "$scratch/bin"
    printf '#!/bin/sh\nexec %s %s "$@"\n' "$CXX" "$CXXFLAGS" >"$scratch/bin/c++"
    chmod +x "$scratch/bin/c++"
    PATH=$scratch/bin:$PATH
}

# Without a directory for its files the host could not open the storage.
make_gateway() {
    mkdir -p "$scratch/gateway/config/user" "$scratch/gateway/state" "$scratch/gateway/tmp"
    echo 'permit established' >"$scratch/gateway/config/user/filter.conf"
    echo 'permit established' >/mnt/main/etc/failover.ini
    export KELMOR_CONFIG_PATH="$scratch/gateway/config/" KELMOR_DYNAMIC_DIR="$scratch/gateway/state"
    export KELMOR_TEMP_DIR="$scratch/gateway/tmp" KELMOR_LOG_FILE="$scratch/log"
    export GATEWAY_ROOT="$scratch/gateway"
}

expect() {
    [ "$2" = "$3" ] || fail "$1: '$3', not '$2'"
}

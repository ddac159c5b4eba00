#!/bin/sh
# The library with a maker's platform instead of the stand-in: installed in its place, named as a
# directory or as a package, or supplied by the host itself.
#
#   [CXX=COMPILER] [CXXFLAGS=FLAGS] tests/consumer/platform_test.sh BUILD_DIRECTORY
set -eu

# The library is built anew, which takes clang++ little more than half of the time of g++.
[ -n "${CXXFLAGS-}" ] || CXX=$(command -v clang++ || echo "${CXX:-c++}")
# shellcheck source=tests/consumer/install.sh
. "$(dirname "$0")/install.sh"

# Only the maker's platform stores below GATEWAY_ROOT.
unset KELMOR_CONFIG_PATH KELMOR_DYNAMIC_DIR KELMOR_TEMP_DIR
export GATEWAY_ROOT="$work"
maker=$work/maker
export maker

# run_host NAME: the program saves a snapshot of that name, the host lists it.
run_host() {
    rm -f "$work/state/storage.db"
    "$work/$1/bin/confsave" save "$1" || fail "the program with $1"
    expect "the storage with $1" "$1" \
        "$(sqlite3 "$work/state/storage.db" 'select group_concat(name) from Config')"
    lists_name "$1" "$1"
}
lists_name() {
    expect "the host with $1" "$2" "$("$work/$1-host/build/host" | sed 's/"\([a-z-]*\)".*/\1/')"
}

build_host() {
    build "$work/$1-host" -B "$work/$1-host/build" -DCMAKE_PREFIX_PATH="$work/$1;$maker"
}

# build_with NAME DEFINITION...: builds and installs the library, and a host.
build_with() {
    name=$1
    shift
    build "$tree" -B "$work/build" -DCMAKE_CXX_FLAGS_DEBUG= -DCONFSAVE_BUILD_EXAMPLES=OFF "$@"
    quietly cmake --install "$work/build" --prefix "$work/$name"
    [ -d "$work/$name-host" ] || write_project "$work/$name-host"
    build_host "$name"
}

refuses() {
    if cmake -G Ninja -S "$tree" -B "$work/refused" -DCONFSAVE_PLATFORM="$1" >"$work/said" 2>&1; then
        complain "CMake accepts '$1' as a platform"
    fi
    tr -s '\n ' ' ' <"$work/said" | grep -qF "CONFSAVE_PLATFORM: $2" ||
        complain "CMake does not say what is wrong with '$1'"
}
refuses ./maker "'./maker' must be an absolute path without a blank."
refuses "$work/the maker" "'$work/the maker' must be an absolute path without a blank."
refuses "$work" "$work is no platform: it has no include/kelmor/status.h."

block platform cpp 1 | c++ -std=c++17 -I"$tree/platform/include" -Wall -Wextra -Werror -fsyntax-only \
    -x c++ - || complain 'the log on the page does not compile'

# The maker's platform, as a directory and as a CMake package.
block platform sh 2 >"$work/commands"
(cd "$tree" && quietly sh -e "$work/commands")
mkdir -p "$maker/lib/cmake/maker"
cat >"$maker/lib/cmake/maker/maker-config.cmake" <<'END'
get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
add_library(kelmor::platform SHARED IMPORTED GLOBAL)
set_target_properties(
  kelmor::platform PROPERTIES IMPORTED_LOCATION "${root}/lib/libkelmor-platform.so.1"
                              INTERFACE_INCLUDE_DIRECTORIES "${root}/include")
END

# In the stand-in's place: the library is not built again.
block platform sh 1 >"$work/commands"
build=$built prefix=$work/replaced quietly sh -e "$work/commands"
expect 'files of the stand-in' '' \
    "$(find "$work/replaced" -name '*kelmor-platform*' -o -name kelmor-gzip)"
mkdir "$work/replaced/lib/cmake/kelmor-platform"
cp "$maker/lib/cmake/maker/maker-config.cmake" \
    "$work/replaced/lib/cmake/kelmor-platform/kelmor-platform-config.cmake"
cp -P "$maker"/lib/libkelmor-platform.so* "$work/replaced/lib"
write_project "$work/replaced-host"
build_host replaced
run_host replaced

build_with directory -DCONFSAVE_PLATFORM="$maker"
run_host directory
build_with package -DCONFSAVE_PLATFORM=maker -DCMAKE_PREFIX_PATH="$maker"
run_host package

# The host supplies everything: the functions that are linked into it find the storage.
rm -r "${maker:?}/lib"
write_project "$work/nothing-host"
cp "$tree/examples/own_platform.cpp" "$work/nothing-host"
sed -i 's/host\.cpp/& own_platform.cpp/' "$work/nothing-host/CMakeLists.txt"
build_with nothing -DCONFSAVE_PLATFORM="$maker"
lists_name nothing package
if readelf --dynamic "$work/nothing-host/build/host" "$work/nothing/lib/libconfsave.so" |
    grep kelmor-platform; then
    complain 'the host or the library links a platform'
fi

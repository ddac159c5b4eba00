#!/bin/sh
# The library with a maker's platform in place of the stand-in: put in its place, named as a directory or as
# a package, or brought by the host itself.
#
#   [CXX=COMPILER] [CXXFLAGS=FLAGS] tests/consumer/platform_test.sh BUILD_DIRECTORY
set -eu

# shellcheck source=tests/consumer/install.sh
. "$(dirname "$0")/install.sh"

maker=$scratch/maker

# Nothing is stored below GATEWAY_ROOT but by the maker's platform.
stored() {
    sqlite3 "$scratch/gateway/state/storage.db" 'select group_concat(name) from Config' 2>/dev/null || true
}

run_host() {
    rm -f "$scratch/gateway/state/storage.db"
    "$2/bin/confsave" save "$1" || fail "$1: the program"
    expect "$1: the storage" "$1" "$(stored)"
    expect "$1: the host" "$1" "$("$3" | sed 's/"\([a-z-]*\)".*/\1/')"
}

make_maker() {
    block platform sh 2 >"$scratch/commands"
    (cd "$here" && maker=$maker quietly sh -e "$scratch/commands")
    mkdir -p "$maker/lib/cmake/maker"
    cat >"$maker/lib/cmake/maker/maker-config.cmake" <<'END'
get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
add_library(kelmor::platform SHARED IMPORTED GLOBAL)
set_target_properties(
  kelmor::platform PROPERTIES IMPORTED_LOCATION "${root}/lib/libkelmor-platform.so.1"
                              INTERFACE_INCLUDE_DIRECTORIES "${root}/include")
END
}

# In the stand-in's place: the library is not built again.
replace_component() {
    prefix=$scratch/replaced
    block platform sh 1 >"$scratch/commands"
    build=$build prefix=$prefix quietly sh -e "$scratch/commands"
    if find "$prefix" -name '*kelmor-platform*' -o -name kelmor-gzip | grep .; then
        fail 'the stand-in was not left out'
    fi
    mkdir "$prefix/lib/cmake/kelmor-platform"
    cp "$maker/lib/cmake/maker/maker-config.cmake" \
        "$prefix/lib/cmake/kelmor-platform/kelmor-platform-config.cmake"
    cp -P "$maker"/lib/libkelmor-platform.so* "$prefix/lib"
    write_project "$scratch/replaced-host"
    configure -S "$scratch/replaced-host" -B "$scratch/replaced-host/build" -DCMAKE_PREFIX_PATH="$prefix"
    quietly cmake --build "$scratch/replaced-host/build"
    run_host replaced "$prefix" "$scratch/replaced-host/build/host"
}

# Builds the library with a platform, installs it, and builds a host with both.
build_with() {
    name=$1
    shift
    configure -S "$here" -B "$scratch/build" "$@"
    quietly cmake --build "$scratch/build"
    quietly cmake --install "$scratch/build" --prefix "$scratch/$name"
    write_project "$scratch/$name-host"
    configure -S "$scratch/$name-host" -B "$scratch/$name-host/build" \
        -DCMAKE_PREFIX_PATH="$scratch/$name;$maker"
}

refuses() {
    if cmake -G Ninja -S "$here" -B "$scratch/refused" -DCONFSAVE_PLATFORM="$1" >"$scratch/said" 2>&1; then
        fail "took '$1' for a platform"
    fi
    tr -s '\n ' ' ' <"$scratch/said" | grep -qF "CONFSAVE_PLATFORM: $2" ||
        fail "does not say what is wrong with '$1'"
}

refuses ./maker "'./maker' is to be an absolute path without a blank."
refuses "$scratch/the maker" "'$scratch/the maker' is to be an absolute path without a blank."
refuses "$scratch" "$scratch holds no platform: there is no include/kelmor/status.h in it."

make_gateway
use_compiler
block platform cpp 1 | c++ -std=c++17 -I"$here/platform/include" -Wall -Wextra -Werror -fsyntax-only \
    -x c++ - || fail 'the log on the page'
unset KELMOR_CONFIG_PATH KELMOR_DYNAMIC_DIR KELMOR_TEMP_DIR
make_maker
replace_component

build_with directory -DCONFSAVE_PLATFORM="$maker"
quietly cmake --build "$scratch/directory-host/build"
run_host directory "$scratch/directory" "$scratch/directory-host/build/host"

build_with package -DCONFSAVE_PLATFORM=maker -DCMAKE_PREFIX_PATH="$maker"
quietly cmake --build "$scratch/package-host/build"
run_host package "$scratch/package" "$scratch/package-host/build/host"

# The host brings everything: its storage is found by the functions that are linked into it.
rm -r "${maker:?}/lib"
build_with nothing -DCONFSAVE_PLATFORM="$maker"
cp "$here/examples/own_platform.cpp" "$scratch/nothing-host"
sed -i 's/host\.cpp/& own_platform.cpp/' "$scratch/nothing-host/CMakeLists.txt"
quietly cmake --build "$scratch/nothing-host/build"
expect 'nothing: the host' package "$("$scratch/nothing-host/build/host" | sed 's/"\([a-z-]*\)".*/\1/')"
if readelf --dynamic "$scratch/nothing-host/build/host" "$scratch/nothing/lib/libconfsave.so" |
    grep kelmor-platform; then
    fail 'a platform was linked that there is not'
fi

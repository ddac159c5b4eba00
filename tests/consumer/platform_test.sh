#!/bin/sh
# The library with a maker's platform in place of the stand-in: put in its place, named as a directory or as
# a package, or brought by the host itself.
#
#   [CXX=COMPILER] [CXXFLAGS=FLAGS] tests/consumer/platform_test.sh BUILD_DIRECTORY
set -eu

# shellcheck source=tests/consumer/install.sh
. "$(dirname "$0")/install.sh"

maker=$scratch/maker
compile() {
    # The flags are words.
    # shellcheck disable=SC2086
    quietly "$CXX" $CXXFLAGS -std=c++17 "$@"
}

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
    mkdir -p "$maker/lib/cmake/maker"
    cp -R "$here/platform/include" "$maker/include"
    compile -fPIC -shared -I"$maker/include" "$here/examples/own_platform.cpp" \
        -Wl,-soname,libkelmor-platform.so.1 -o "$maker/lib/libkelmor-platform.so"
    ln -s libkelmor-platform.so "$maker/lib/libkelmor-platform.so.1"
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
    for component in library development program; do
        quietly cmake --install "$build" --prefix "$prefix" --component "$component"
    done
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
    configure -S "$here" -B "$scratch/build" -DCONFSAVE_BUILD_EXAMPLES=OFF "$@"
    quietly cmake --build "$scratch/build"
    quietly cmake --install "$scratch/build" --prefix "$scratch/$name"
    write_project "$scratch/$name-host"
    configure -S "$scratch/$name-host" -B "$scratch/$name-host/build" \
        -DCMAKE_PREFIX_PATH="$scratch/$name;$maker"
}

make_gateway
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
build_with nothing -DCONFSAVE_PLATFORM="$maker" -DCONFSAVE_BUILD_CONSOLE=OFF
cp "$here/examples/own_platform.cpp" "$scratch/nothing-host"
sed -i 's/host\.cpp/& own_platform.cpp/' "$scratch/nothing-host/CMakeLists.txt"
quietly cmake --build "$scratch/nothing-host/build"
expect 'nothing: the host' package "$("$scratch/nothing-host/build/host" | sed 's/"\([a-z-]*\)".*/\1/')"
if readelf --dynamic "$scratch/nothing-host/build/host" "$scratch/nothing/lib/libconfsave.so" |
    grep kelmor-platform; then
    fail 'a platform was linked that there is not'
fi

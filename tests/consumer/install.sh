# What the tests of the installed library share. To be sourced, with the build directory as an argument, and
# what it was built with in CXX and CXXFLAGS.
# shellcheck shell=sh

# shellcheck source=tests/support/check.sh
. "$(dirname "$0")/../support/check.sh"
in_sandbox
built=$1
: "${CXXFLAGS:=}"
CXX=$(command -v "${CXX:-c++}")
export CXX CXXFLAGS
make_gateway "$built/console/confsave"
echo 'permit established' | tee "$work/config/user/filter.conf" >/mnt/main/etc/failover.ini

# build SOURCE -B DIRECTORY [DEFINITION...]: configures and builds.
build() {
    quietly cmake -G Ninja -DCMAKE_BUILD_TYPE=Debug -S "$@"
    quietly cmake --build "$3"
}

# write_project DIRECTORY [PROGRAM CMAKE]: a stranger's project, as the page has it in these blocks.
write_project() {
    mkdir "$1"
    block embedding cpp "${2-2}" >"$1/host.cpp"
    block embedding cmake "${3-2}" >"$1/CMakeLists.txt"
}

# To the commands of a page, c++ is the compiler that the library was built with.
printf '#!/bin/sh\nexec %s %s "$@"\n' "$CXX" "$CXXFLAGS" >"$work/bin/c++"
chmod +x "$work/bin/c++"

#!/bin/sh
# A stranger who follows the page on embedding, word for word, gets a host that links and runs.
#
#   [CXX=COMPILER] [CXXFLAGS=FLAGS] tests/consumer/install_test.sh BUILD_DIRECTORY
set -eu

# shellcheck source=tests/consumer/install.sh
. "$(dirname "$0")/install.sh"

listing='"weekly",	version 4.5.4,	full, saved on DATE, never loaded'
without_dates() {
    sed -E 's/[0-9.]{10} at [0-9]{2}:[0-9]{2}/DATE/'
}

quietly cmake --install "$build" --prefix "$scratch/first"
# Nothing in the tree may depend on where it was put.
mv "$scratch/first" "$scratch/prefix"
prefix=$scratch/prefix
(cd "$prefix" && find . -not -type d | sed -E -e 's|^\./||' -e 's/\.so\.[0-9]+(\.[0-9]+)+$/.so.RELEASE/' \
    -e 's/-(debug|relwithdebinfo|release|noconfig)\.cmake$/-CONFIG.cmake/' | LC_ALL=C sort) |
    diff "$here/tests/consumer/installed.txt" - || fail 'other files are installed'

make_gateway
"$prefix/bin/confsave" save weekly || fail 'the program does not run'
pkgconfig=$(dirname "$(find "$prefix" -name confsave.pc)")
export CMAKE_PREFIX_PATH="$prefix" PKG_CONFIG_PATH="$pkgconfig"

write_project "$scratch/by-cmake"
block embedding sh 1 >"$scratch/by-cmake/commands"
if ! (cd "$scratch/by-cmake" && sh -e commands >../output 2>../errors); then
    cat "$scratch/errors" >&2
    fail 'by CMake'
fi
expect 'by CMake' "$listing" "$(tail -n 1 "$scratch/output" | without_dates)"

write_project "$scratch/by-pkg-config"
use_compiler
block embedding sh 2 >"$scratch/by-pkg-config/commands"
(cd "$scratch/by-pkg-config" && sh -e commands) || fail 'by pkg-config'
libraries=$(dirname "$(find "$prefix" -name libconfsave.so)")
expect 'by pkg-config' "$listing" \
    "$(LD_LIBRARY_PATH=$libraries "$scratch/by-pkg-config/host" | without_dates)"

# The headers that were installed are all that a host needs.
echo '#include <confsave.h>' | "$CXX" -std=c++17 -I"$prefix/include" -Wall -Wextra -pedantic -Werror \
    -fsyntax-only -x c++ - || fail 'the installed header'

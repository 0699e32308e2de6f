#!/bin/sh
# Installs the library and builds the application beside this script against it in every way that
# an application can, and runs it each time.
#
# usage: build.sh BUILD_FOLDER SCRATCH_FOLDER, with these in the environment:
#   CMAKE, CC, CXX, PYTHON, VERSION  the programs and the library's version
#   LIBDIR                  where the installation puts libraries, relative to its prefix
#   SHARED                  ON when BUILD_FOLDER has shared libraries
#   SANITIZE                the sanitizers of BUILD_FOLDER, such as address,undefined, or empty
#   LAUNCHER                compiler launcher, such as ccache, or empty
set -eu
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
build=$1
scratch=$2
prefix=$scratch/moved/prefix
flags=${SANITIZE:+-fsanitize=$SANITIZE}

step() { printf '== %s\n' "$*"; }

record() {  # record PROGRAM NAME: a whole recording, and one that is cut off and repaired
    "$1" "$scratch/$2.mp4" "$VERSION"
    "$1" "$scratch/$2-half.mp4" "$VERSION" 20
    "$1" "$scratch/$2-half.mp4" "$VERSION" | grep -q 'repaired, 20 pictures$'
}

configure() {  # configure NAME OPTION...
    name=$1
    shift
    "$CMAKE" -S "$here" -B "$scratch/$name" -G Ninja -DKX_MP4_FROM="$name" \
        -DKX_MP4_LANGUAGE=CXX \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$CXX" \
        -DCMAKE_CXX_COMPILER_LAUNCHER="${LAUNCHER:-}" -DBUILD_SHARED_LIBS="$SHARED" "$@"
}

rm -rf "$scratch"
mkdir -p "$scratch/moved"

step "install, then move the tree: nothing in it may depend on where it was"
for component in library development; do
    "$CMAKE" --install "$build" --prefix "$scratch/prefix" --component $component
done
mv "$scratch/prefix" "$prefix"

step "find_package"
configure find_package -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags"
"$CMAKE" --build "$scratch/find_package"
record "$scratch/find_package/recorder" find_package

step "find_package, C only"
"$CMAKE" -S "$here" -B "$scratch/c" -G Ninja -DKX_MP4_FROM=find_package -DKX_MP4_LANGUAGE=C \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$CC" -DCMAKE_C_FLAGS="$flags"
"$CMAKE" --build "$scratch/c"
"$scratch/c/recorder" "$scratch/c.mp4"

step "pkg-config, C++20"
PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig
export PKG_CONFIG_PATH
test "$(pkg-config --modversion kx_mp4)" = "$VERSION"
# shellcheck disable=SC2046,SC2086  # the words of the flags are meant to split
"$CXX" -std=c++20 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror $flags \
    -o "$scratch/recorder" "$here/main.cpp" "$here/log.cpp" \
    $(pkg-config --static --cflags --libs kx_mp4_repair kx_mp4)
LD_LIBRARY_PATH=$prefix/$LIBDIR record "$scratch/recorder" pkg-config

step "pkg-config, C99"
# shellcheck disable=SC2046,SC2086
"$CC" -std=c99 -Wall -Wextra -Wpedantic -Werror $flags -o "$scratch/record_c" \
    "$source/examples/record.c" $(pkg-config --static --cflags --libs kx_mp4_c)
LD_LIBRARY_PATH=$prefix/$LIBDIR "$scratch/record_c" "$scratch/record_c.mp4"
if test "$SHARED" = ON && test -n "$PYTHON" && test -z "$SANITIZE"; then
    step "Python"
    LD_LIBRARY_PATH=$prefix/$LIBDIR "$PYTHON" "$source/examples/record.py" "$scratch/python.mp4"
fi

step "the program of README.md"
sed -n '/^<!-- examples.record.cpp -->$/,/^<!-- end -->$/p' "$source/README.md" |
    sed '/^<!--/d; /^```/d' >"$scratch/record.cpp"
# shellcheck disable=SC2046,SC2086
"$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror $flags \
    -o "$scratch/record" "$scratch/record.cpp" $(pkg-config --cflags --libs --static kx_mp4)
LD_LIBRARY_PATH=$prefix/$LIBDIR "$scratch/record" "$scratch/record.mp4" | grep -q ' bytes$'

step "add_subdirectory"
configure add_subdirectory -DKX_MP4_SOURCE_DIR="$source"
"$CMAKE" --build "$scratch/add_subdirectory" --parallel 2
record "$scratch/add_subdirectory/recorder" add_subdirectory
if "$CMAKE" --install "$scratch/add_subdirectory" --prefix "$scratch/application" &&
    test -e "$scratch/application"; then
    echo "the application's installation contains the library" >&2
    exit 1
fi

step "FetchContent: configure only, as it builds the same as add_subdirectory"
configure fetch_content -DKX_MP4_SOURCE_DIR="$source"

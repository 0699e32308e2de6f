#!/bin/sh
# Writes a vcpkg port of the committed sources, and their archive, into a folder of overlay ports.
#
# Usage: packaging/vcpkg/export.sh FOLDER [COMMIT]      (default: HEAD)
# Then:  vcpkg install kx-mp4 --overlay-ports=FOLDER
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
mkdir -p "${1:?usage: export.sh FOLDER [COMMIT]}/kx-mp4"
port=$(cd "$1/kx-mp4" && pwd)
commit=${2:-HEAD}

version=$(sed -n 's/^  "version": "\(.*\)",$/\1/p' "$here/kx-mp4/vcpkg.json")
archive=$port/kx_mp4-$version.tar.gz
# By commit and not by tree, so that the time stamps, and with them the hash, are the commit's.
git -C "$root" archive --format=tar --prefix="kx_mp4-$version/" "$commit" >"$port/sources.tar"
gzip -n <"$port/sources.tar" >"$archive"
rm "$port/sources.tar"
sum=$(sha512sum "$archive" | cut -d ' ' -f 1)
short=$(printf %.12s "$sum")
sed -e "s|@ARCHIVE@|$archive|" -e "s|@VERSION@|$version|" -e "s|@SHA512@|$sum|" \
    -e "s|@SHORT_SHA512@|$short|" "$here/kx-mp4/portfile.cmake.in" >"$port/portfile.cmake"
cp "$here/kx-mp4/vcpkg.json" "$here/kx-mp4/usage" "$port"
echo "$port: kx_mp4 $version, SHA512 $short..."

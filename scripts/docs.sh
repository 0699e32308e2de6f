#!/usr/bin/env bash
# Builds the reference of the public interface with Doxygen and fails on a warning, such as an
# undocumented public entity or a link that leads nowhere. Installs Doxygen where it is missing.
# Usage: scripts/docs.sh [OUTPUT DIRECTORY]      (default: build-doxygen)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
output=${1:-$root/build-doxygen}

if ! command -v doxygen >/dev/null; then
    as_root=()
    [[ $(id -u) == 0 ]] || as_root=(sudo)
    "${as_root[@]}" apt-get update
    "${as_root[@]}" apt-get install -y --no-install-recommends doxygen
fi

version=$(sed -n 's/^project(kx_mp4 VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
# The headers that the installation puts beside those of inc/kx_mp4.
headers=$(sed -n '/^set(KX_MP4_PUBLIC_HEADERS/,/)/s|^ *\(src/[A-Za-z0-9_]*\.h\).*|'"$root"'/\1|p' \
    "$root/cmake/kx_mp4_install.cmake" | tr '\n' ' ')
mkdir -p "$output"
sed -e "s|@VERSION@|$version|" -e "s|@OUTPUT@|$output|" -e "s|@ROOT@|$root|g" \
    -e "s|@HEADERS@|$headers|" "$root/docs/Doxyfile.in" >"$output/Doxyfile"

if ! doxygen "$output/Doxyfile"; then
    cat "$output/warnings.txt" >&2
    exit 1
fi

# Entities that a reader of the reference sees, and those of them that say something.
python3 - "$output/xml" <<'COUNT'
import glob
import sys
import xml.etree.ElementTree as xml

total = documented = 0
for name in glob.glob(sys.argv[1] + "/*.xml"):
    for item in xml.parse(name).getroot().iter():
        public = item.tag == "enumvalue" or (
            item.tag in ("memberdef", "compounddef") and item.get("prot", "public") == "public"
            and item.get("kind") not in ("page", "dir", "friend"))
        if not public:
            continue
        total += 1
        text = "".join("".join(item.find(tag).itertext()) for tag in
                       ("briefdescription", "detaileddescription") if item.find(tag) is not None)
        documented += bool(text.strip())
print(f"{documented} of {total} public entities are documented: {sys.argv[1][:-4]}/html/index.html")
COUNT

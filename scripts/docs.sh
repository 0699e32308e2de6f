#!/usr/bin/env bash
# Builds the reference of the public interface with Doxygen and fails on a warning, such as an
# undocumented public entity, and on a link in the documents that leads nowhere. Installs Doxygen
# where it is missing.
# Usage: scripts/docs.sh [OUTPUT DIRECTORY]      (default: build/doxygen)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
output=${1:-$root/build/doxygen}

"$root/scripts/require.sh" doxygen python3

version=$(sed -n 's/^project(kx_mp4 VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
mkdir -p "$output"
sed -e "s|@VERSION@|$version|" -e "s|@OUTPUT@|$output|" -e "s|@ROOT@|$root|g" \
    "$root/docs/Doxyfile.in" >"$output/Doxyfile"

if ! doxygen "$output/Doxyfile"; then
    cat "$output/warnings.txt" >&2
    exit 1
fi

# Entities that a reader of the reference sees, and those of them that say something. What the
# language makes by itself (destructors, deleted and defaulted members) is none.
python3 - "$output/xml" <<'COUNT'
import glob
import re
import sys
import xml.etree.ElementTree as xml


def is_public(item):
    if item.tag == "enumvalue":
        return True
    if item.get("prot", "public") != "public":
        return False
    if item.tag == "compounddef":
        return item.get("kind") in ("class", "struct", "union")
    name = item.findtext("name") or ""
    made = re.search(r"=\s*(default|delete)$", item.findtext("argsstring") or "")
    return item.tag == "memberdef" and not made and not re.match("[~@]", name)


def says_something(item):
    texts = [item.find(tag) for tag in ("briefdescription", "detaileddescription")]
    return any("".join(text.itertext()).strip() for text in texts if text is not None)


entities = [item for name in glob.glob(sys.argv[1] + "/*.xml")
            for item in xml.parse(name).getroot().iter() if is_public(item)]
for item in entities:
    if not says_something(item):
        print("undocumented:", item.findtext("name") or item.findtext("compoundname"))
documented = sum(map(says_something, entities))
print(f"{documented} of {len(entities)} public entities are documented: "
      f"{sys.argv[1][:-4]}/html/index.html")
sys.exit(documented != len(entities))
COUNT

# Links of the documents: to files, and to headings by the names that browsers of Markdown give them.
cd "$root"
python3 - README.md CONTRIBUTING.md docs/*.md <<'LINKS'
import os
import re
import sys


def headings(path):
    text = re.sub(r"^```.*?^```", "", open(path).read(), flags=re.M | re.S)
    for title in re.findall(r"^#+ (.*)$", text, flags=re.M):
        yield re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")


broken = 0
for path in sys.argv[1:]:
    for link in re.findall(r"\]\(([^)\s]+)\)", open(path).read()):
        if re.match("[a-z]+:", link):
            continue
        target, _, heading = link.partition("#")
        target = os.path.normpath(os.path.join(os.path.dirname(path), target)) if target else path
        if not os.path.exists(target):
            print(f"{path}: {link}: no such file")
        elif heading and heading not in headings(target):
            print(f"{path}: {link}: no such heading")
        else:
            continue
        broken += 1
sys.exit(broken != 0)
LINKS

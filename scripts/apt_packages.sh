#!/usr/bin/env bash
# Installs those of the named Debian packages that are missing.
#
# Usage: scripts/apt_packages.sh PACKAGE...
set -euo pipefail

missing=()
for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
        missing+=("$package")
done
((${#missing[@]})) || exit 0

if ! command -v apt-get >/dev/null; then
    echo "apt_packages.sh: no apt-get here; please install: ${missing[*]}" >&2
    exit 1
fi
as_root=()
[[ $(id -u) == 0 ]] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -qq -y --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# check_spdx.sh LIST LIBRARY: what the list says of the libraries that are linked into the software key is what is in it.
set -euo pipefail
list=$1 library=$2
for part in OpenSSL SQLite; do
    grep --quiet "^Relationship: SPDXRef-softkey STATIC_LINK SPDXRef-$part\$" "$list" || { echo "$part is not listed"; exit 1; }
    version=$(sed -n "/^SPDXID: SPDXRef-$part\$/{n;s/^PackageVersion: //p}" "$list")
    [ -n "$version" ]
    grep --quiet --text --perl-regexp "\\x00${version//./\\.}\\x00" "$library" || { echo "$part is not of version $version"; exit 1; }
done

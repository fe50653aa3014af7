#!/usr/bin/env bash
# check_components.sh BUILD FOLDER: an installation of BUILD is its components, each file in one of them; and it is the same
# below a DESTDIR, where it says of itself what is true once it is moved to its place.
set -euo pipefail
build=$1 folder=$2 tree=$2/whole
rm -rf "$folder"
mkdir "$folder"
cmake --install "$build" --prefix "$tree" >/dev/null

for component in module softkey dev; do
    cmake --install "$build" --prefix "$folder/$component" --component "$component" >/dev/null
done
files_of() { (cd "$1" && find . -type f -o -type l) | sort; }
diff --label "the whole" --label "its components" --unified=0 <(files_of "$tree") \
    <(for component in module softkey dev; do files_of "$folder/$component"; done | sort)

# The same bytes.
DESTDIR=$folder/staged cmake --install "$build" --prefix "$tree" >/dev/null
diff --recursive "$tree" "$folder/staged$tree"
cmake --install "$build" --prefix "$folder/stripped" --strip >/dev/null
diff --unified=0 <(files_of "$tree") <(files_of "$folder/stripped")
! readelf --sections --wide "$folder"/stripped/bin/velkor-softkey | grep --fixed-strings .symtab

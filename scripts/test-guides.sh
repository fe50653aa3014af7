#!/usr/bin/env bash
# On a fresh Debian below build/, with the packages of a folder, a user without rights follows the guides, word by word:
# from the quickstart to a login by ssh, a signed PDF and a certificate in Firefox. As root:
#   scripts/test-guides.sh FOLDER
set -euo pipefail
. "$(dirname "$0")/fresh-debian.sh"
# The programs of the guides; python3 for the test's own servers and for the hand that drives Firefox.
fresh_debian guides opensc,openssl,openssh-client,openssh-server,poppler-utils,libnss3-tools,firefox-esr,python3

echo "  apt install ./*.deb"
install_packages
quiet inside useradd --create-home ann
mkdir "$root/srv/sources"
cp -r --parents docs tests/clients "$root/srv/sources"

echo "  the guides, as a user without rights"
guides=(/srv/sources/docs/{quickstart,hosts/{openssh,pdfsig,firefox}}.md)
quiet inside setpriv --reuid ann --regid ann --init-groups /srv/sources/tests/clients/run_guide.sh installed \
    /home/ann/guide "${guides[@]}"
# What it comes to, in the words of ssh, pdfsig and the server.
for outcome in '^I am in\.$' '^I am in, by the agent\.$' 'Validation: Signature is Valid\.$' '^Client certificate$'; do
    grep --max-count 1 -e "$outcome" "$root.log" || { echo "the guides do not come to: $outcome" >&2; exit 1; }
done
echo "The guides lead there"

#!/usr/bin/env bash
# Each page of docs/hosts is run by one host's script, is listed in the table of pages, and each that is run is there.
# Whoever copies a command from a page logs in to the token that it names, and shows nobody the PIN.
#   check_guides.sh SOURCES
set -euo pipefail
cd "$1"
pages() { find docs/hosts -name '*.md' ! -name README.md -printf '%f\n' | sed 's/\.md$//' | sort; }
diff --label "pages of docs/hosts" --label "pages that scripts run" --unified=0 \
    <(pages) <(sed -n 's/^guide //p' tests/clients/hosts/*.sh | sort)
for page in $(pages); do
    grep -q "($page.md)" docs/hosts/README.md || { echo "docs/hosts/README.md does not list $page.md"; exit 1; }
    grep -q '^```sh$' "docs/hosts/$page.md" || { echo "docs/hosts/$page.md has no command"; exit 1; }
done

fail() {
    echo "$1"
    exit 1
}
# A login without the token's name may spend tries of another key. `token` is the function that names it in opensc.md.
if grep -rn -e '--login' README.md docs scripts/trace-example.sh | grep -v -e '--token-label' -e 'token=' -e ':token '; then
    fail "these log in to whatever token comes first"
fi
# Written to a file by the shell itself, or to the environment, a PIN is on no command line.
if grep -n '\$PIN' README.md docs/*.md docs/hosts/*.md | grep -v -e 'umask 077 && [a-z %]* "\$PIN" >pin' -e 'export GNUTLS_PIN=' \
    -e ':pdfsig ' -e 'with `\$module`'; then
    fail "these put the PIN on a command line"
fi
grep -q "list of processes" docs/hosts/pdfsig.md || fail "docs/hosts/pdfsig.md does not say who sees the PIN"

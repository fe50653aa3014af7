#!/usr/bin/env bash
# Each command of the documents is run as it stands, or is in a list that says what runs it instead, or why nothing does.
#   check_commands.sh SOURCES
# Run are the blocks marked `sh` of the pages that a host's script gives to run_guide.sh. Of other blocks, indented ones
# among them, commands are the lines that begin with a script or with one of the programs below. A line of
# commands_elsewhere.txt is "page | command, without its comment | reason"; one whose command is gone fails the test, too.
# What stands in a table or in a sentence is not looked at.
set -euo pipefail
cd "$1"
programs='(sudo|apt|adduser|cp|podman|systemctl|export|cmake|ctest|cpack|git|reg|msiexec|python3|p11-kit|p11tool|openssl|set|setx)'
command="^([\$] )?([A-Z_]+=[^ ]+ )*($programs|velkor-[a-z]+|pkcs11-tool|ssh[a-z-]*|(scripts|bench|build|tests)/[^ ]+)( |\$)"

is_run() { # is_run PAGE: those of docs/hosts by ClientGuides.EachIsRunByItsHost
    [[ $1 = docs/hosts/* ]] || grep --quiet "\"\$sources/$1\"" tests/clients/hosts/*.sh
}
blocks() { # blocks KIND PAGE: lines of sh or of other blocks, continued ones joined, without comments
    awk -v kind="$1" '
        /^```/ { fence = fence == "" ? ($0 == "```sh" ? "sh" : "other") : ""; next }
        (fence != "" ? fence : /^    / ? "other" : "") == kind { printf sub(/\\$/, "") ? "%s" : "%s\n", $0 }' "$2" |
        sed -E 's/^ +//; s/ +# .*//; s/  +/ /g'
}
not_run() {
    local page
    for page in README.md CONTRIBUTING.md SECURITY.md docs/*.md docs/hosts/*.md; do
        {
            is_run "$page" || blocks sh "$page"
            blocks other "$page" | grep -E "$command" || true
        } | sed "/^$/d; s#^#$page | #"
    done
}
diff --label "commands_elsewhere.txt" --label "commands that are not run as they stand" --unified=0 \
    <(grep '^[A-Za-z]' tests/clients/commands_elsewhere.txt | sed 's/ | [^|]*$//' | LC_ALL=C sort) <(not_run | LC_ALL=C sort -u)
if grep '^[A-Za-z]' tests/clients/commands_elsewhere.txt | grep -vE ' \| [^|]{10,}$'; then
    echo "these have no reason"
    exit 1
fi

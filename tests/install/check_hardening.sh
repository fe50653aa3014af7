#!/usr/bin/env bash
# check_hardening.sh FILE...: what hardens a program is to be seen in each of these files.
set -u
status=0

# expect WHAT COMMAND...: says what is wrong with `file` unless the command succeeds.
expect() {
    local what=$1
    shift
    "$@" && return
    echo "${file##*/}: $what"
    status=1
}

# has TABLE PATTERN: a line of one of the file's tables.
has() { readelf "--$1" --wide "$file" | grep --quiet --extended-regexp -e "$2"; }
lacks() { ! has "$@"; }
finds_only_its_own() { ! readelf --dynamic --wide "$file" | grep -E 'R(UN)?PATH' | grep --quiet --invert-match '\[\$ORIGIN\]'; }

# The first function that others call: of a library what it exports, of a program main, which its start hands on.
entry() {
    local start
    if lacks segments INTERP; then
        readelf --dyn-syms --wide "$file" | awk '$4 == "FUNC" && $5 == "GLOBAL" && $7 != "UND" { print "0x" $2; exit }'
        return
    fi
    start=$(readelf --file-header "$file" | sed --quiet 's/^ *Entry point address: *//p')
    objdump --disassemble --start-address="$start" --stop-address=$((start + 64)) "$file" |
        sed --quiet 's/.*%rdi *# \([0-9a-f]*\).*/0x\1/p' | head --lines=1
}
# Marks of the linker's say nothing: it keeps them only where the C library's start files have them, too.
is_marked() {
    local first
    first=$(entry)
    [ -n "$first" ] &&
        objdump --disassemble --start-address="$first" --stop-address=$((first + 4)) "$file" | grep --quiet endbr64
}

for file in "$@"; do
    [ -f "$file" ] || { echo "there is no $file"; exit 2; }
    expect "loads at a fixed address" has file-header 'Type: *DYN'
    expect "relocations stay writable" has segments 'GNU_RELRO'
    expect "symbols are bound late" has dynamic 'FLAGS.*NOW'
    expect "its stack is executable" has segments 'GNU_STACK.* RW '
    expect "text is relocated" lacks dynamic 'TEXTREL'
    expect "looks for libraries in other folders than its own" finds_only_its_own
    expect "stacks are not protected" has dyn-syms ' __stack_chk_fail(@|$)'
    expect "calls of the C library are not checked" has dyn-syms ' __[a-z0-9]+(_[a-z0-9]+)*_chk(@|$)'
    [ "$(uname -m)" != x86_64 ] || expect "where calls may go is not marked" is_marked
done
exit "$status"

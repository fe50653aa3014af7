#!/usr/bin/env bash
# Reads the tables of the built DLL with tools of this machine and holds them against what they have to be.
#   check_tables.sh WHAT SOURCE-FOLDER DLL [OBJECT...]
set -euo pipefail
what=$1 source=$2 dll=$3
shift 3

# same NAME: two lists, expected and found, one entry a line.
same() {
    diff --unified=0 <(sort <<<"$2") <(sort <<<"$3") && [ -n "$2" ] || {
        echo "$1: '-' is missing, '+' should not be there" >&2
        exit 1
    }
}

listed() { sed -n "s/^$1(\(C_[A-Za-z]*\))\$/\1/p" "$source/src/frame/exports.inc"; }
exported() { llvm-readobj --coff-exports "$dll" | sed -n 's/^ *Name: \(.*\)$/\1/p'; }
imported_libraries() { llvm-readobj --coff-imports "$dll" | sed -n 's/^ *Name: \(.*\)$/\1/p'; }
imported_from() { # Of one library.
    llvm-readobj --coff-imports "$dll" | sed -n "/^ *Name: $1\$/,/^}/s/^ *Symbol: \([^ ]*\) .*\$/\1/p"
}
device_operations() {
    local declared
    declared=$(grep --only-matching 'velkor_[A-Za-z]*(' "$source/include/velkor/device_service.h" | tr -d '(' | sort -u)
    [ "$(wc -l <<<"$declared")" -eq 29 ] && echo "$declared"
}
without_parameters() { llvm-cxxfilt | sed 's/[[(].*//'; }

case $what in
exports)
    names=$(exported)
    same "C names" "$(listed EXPORT)" "$(grep '^C_' <<<"$names")"
    same "C++ names" "$(listed EXTENSION)" "$(grep -v '^C_' <<<"$names" | without_parameters)"
    same "their parameters" '(unsigned long)
(unsigned long)
(unsigned long*, unsigned long*)' "$(grep -v '^C_' <<<"$names" | llvm-cxxfilt | sed 's/^[^(]*//')"
    [ "$(wc -l <<<"$names")" -eq 71 ]
    ;;
strict-exports)
    same "names" "$(listed EXPORT)" "$(exported)"
    [ "$(exported | wc -l)" -eq 68 ]
    ;;
softkey-exports)
    same "operations" "$(device_operations)" "$(exported | without_parameters)"
    ;;
libraries)
    # System libraries by pattern: the C runtime is one library or several, after the kind of the compiler.
    strangers=$(imported_libraries | grep --invert-match --ignore-case --line-regexp \
        'kernel32\.dll\|advapi32\.dll\|msvcrt\.dll\|api-ms-win-crt-[a-z0-9-]*\.dll\|velkordsclibrary\.dll' || true)
    [ -z "$strangers" ] || { echo "imported, and should not be: $strangers" >&2; exit 1; }
    imported_libraries | grep --quiet --line-regexp 'VelkorDSCLibrary\.dll'
    ;;
device-operations)
    same "operations" "$(device_operations)" "$(imported_from VelkorDSCLibrary.dll | without_parameters)"
    ;;
system-calls)
    # What the module's own code takes of the system libraries; the runtime of the compiler takes more.
    calls=$(comm -12 <({ imported_from 'KERNEL32\.dll' && imported_from 'ADVAPI32\.dll'; } | sort -u) \
        <(llvm-nm --undefined-only "$@" | sed -n 's/^ *U \(__imp_\)\?\(.*\)$/\2/p' | sort -u))
    same "calls of the system" "$(cat "$source/tests/windows/system_calls.txt")" "$calls"
    ;;
*)
    echo "check_tables.sh: unknown: $what" >&2
    exit 2
    ;;
esac

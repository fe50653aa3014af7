#!/usr/bin/env bash
# Cross-compiles the module for Windows on x86-64 and ARM64 and runs its tests as Windows programs under Wine.
# It ends with a table of its steps, and a last line that counts what passed, failed and was skipped; the exit code is 0
# when nothing failed.
#   scripts/test-windows.sh [x64] [arm64]      both when none is named
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
[ $# -ne 0 ] || set -- x64 arm64
. scripts/steps.sh
step "setup for Windows" scripts/setup-windows.sh "$@" || exit 1
tools=${VELKOR_WINDOWS_TOOLS:-${XDG_CACHE_HOME:-$HOME/.cache}/velkor-windows}
trap 'for architecture in "$@"; do scripts/wine.sh "$architecture" --stop >/dev/null 2>&1; done' EXIT
trap 'exit 130' INT TERM

passed=0
failed=0
skipped=0
summary=

fail() {
    failed=$((failed + 1))
    echo "FAILED: $1"
}

# build PRESET SOFTKEY
build() {
    cmake --preset "$1" -D VELKOR_BUILD_SOFTKEY="$2" -D VELKOR_BUILD_TRACE="$2" >"build/$1.configure.log" 2>&1 ||
        { cat "build/$1.configure.log"; return 1; }
    cmake --build --preset "$1" >"build/$1.build.log" 2>&1 || { cat "build/$1.build.log"; return 1; }
}

# run_tests PRESET NAME SOFTKEY: adds the tests of one build, each of which is reported by itself.
run_tests() {
    local report=build/$1.tests.tsv status=0 good left bad
    rm -f "$report"
    # Wine at times loses a process at its start, or one spins at its end: about one of some thousands, on a busy machine.
    # So a test that fails is run once more, and told of.
    scripts/run-tests.py "$1" "$report" --patient || status=$?
    good=$(results passed "$report" | wc -l) left=$(results skipped "$report" | wc -l)
    bad=$(results failed "$report" | wc -l)
    # A run that failed, or ran nothing, never counts as good.
    if [ $((good + left + bad)) -eq 0 ] || { [ "$status" -ne 0 ] && [ "$bad" -eq 0 ]; }; then
        fail "tests of $1"
        return
    fi
    [ "$left" -eq 0 ] || { echo "skipped on $2:"; results skipped "$report" | sed 's/\t/\n    /'; }
    passed=$((passed + good)) skipped=$((skipped + left)) failed=$((failed + bad))
    summary+="$2: $good passed, $bad failed, $left skipped"
    [ "$3" = ON ] || summary+=", without the software key"
    summary+='; '
    # No other test may skip itself than those that are known to.
    diff <(known_skips "$1" "$3" | sort) <(results skipped "$report" | cut -f 1 | sort) ||
        fail "the list of skipped tests of $1"
}

# known_skips PRESET SOFTKEY: those of the software key, which alone have no layout in their name, only with it.
known_skips() {
    sed -n "s/^$1 //p" tests/windows/skipped.txt | { [ "$2" = ON ] && cat || grep _packed; }
}

# What only Windows compiles, with the headers that the cross compiler for x86-64 uses.
check_tidy() {
    local headers file files=() compiled
    compiled=$(find build/windows-x64 \( -name compile_commands.json -o -path '*/Unity/*.cxx' \) -exec cat {} +)
    for file in $(git ls-files '*_windows.cpp' ':!tests'); do
        ! grep -q "/$file\"" <<<"$compiled" || files+=("$file")
    done
    headers=$(x86_64-w64-mingw32-g++-posix -print-file-name=include)/c++
    scripts/check-tidy.py build/windows-x64 "${files[@]}" -- --extra-arg-before=--target=x86_64-w64-mingw32 \
        --extra-arg="-isystem$headers" --extra-arg="-isystem$headers/x86_64-w64-mingw32"
}

test_architecture() { # ARCHITECTURE NAME
    local preset=windows-$1 softkey=OFF
    [ ! -e "$tools/libraries-$1/complete" ] || softkey=ON # Its libraries cannot always be had.
    step "build $preset" build "$preset" $softkey || { fail "build $preset"; return; }
    step "start Wine for $1" scripts/wine.sh "$1" --start || { fail "Wine for $1"; return; }
    step "test $preset" run_tests "$preset" "$2" $softkey
}

mkdir -p build
for architecture; do
    case $architecture in
    x64)
        test_architecture x64 "x86-64 Wine"
        step "clang-tidy for Windows" check_tidy || fail "clang-tidy"
        ;;
    arm64) test_architecture arm64 "ARM64 Wine, emulated" ;;
    *) fail "there is no architecture '$architecture'" ;;
    esac
done

print_steps
echo "${summary}together: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]

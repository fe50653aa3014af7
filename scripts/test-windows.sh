#!/usr/bin/env bash
# Cross-compiles the module for Windows on x86-64 and ARM64 and runs its tests as Windows programs under Wine.
# The last line counts what passed, failed and was skipped; the exit code is 0 when nothing failed.
#   scripts/test-windows.sh [x64] [arm64]      both when none is named
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
[ $# -ne 0 ] || set -- x64 arm64
scripts/setup-windows.sh "$@" || exit 1
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
    cmake --preset "$1" -D VELKOR_SOFTKEY="$2" >"build/$1.configure.log" 2>&1 ||
        { cat "build/$1.configure.log"; return 1; }
    cmake --build --preset "$1" >"build/$1.build.log" 2>&1 || { cat "build/$1.build.log"; return 1; }
}

count() { grep -c "$1" "$2" 2>/dev/null || true; }

# run_tests PRESET NAME SOFTKEY: adds the tests of one build, each of which is reported by itself.
run_tests() {
    local report=build/$1.tests.xml status=0 tests good left
    rm -f "$report"
    # Wine at times loses a process at its start, or one spins at its end: about one of some thousands, on a busy machine.
    # So a test that fails is run once more, and told of.
    ctest --preset "$1" --repeat until-pass:2 --output-junit "$PWD/$report" >"build/$1.tests.log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || grep -v -e ' Passed ' -e '^ *Start ' "build/$1.tests.log"
    sed -n 's/^.* Test *#[0-9]*: \(.*[^.]\) \.*\*\*\*\(Failed\|Timeout\|Exception.*\) .*$/did not pass at once: \1 (\2)/p' \
        "build/$1.tests.log"
    tests=$(count '<testcase ' "$report") good=$(count '<testcase .*status="run"' "$report")
    left=$(count '<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"' "$report")
    # A run that failed, or ran nothing, never counts as good; what did not run for no reason of its own failed.
    if [ "${tests:-0}" -eq 0 ] || { [ "$status" -ne 0 ] && [ $((tests - good - left)) -eq 0 ]; }; then
        fail "tests of $1"
        return
    fi
    [ "$left" -eq 0 ] || { echo "skipped on $2:"; skip_reasons "$report"; }
    passed=$((passed + good)) skipped=$((skipped + left)) failed=$((failed + tests - good - left))
    summary+="$2: $good passed, $((tests - good - left)) failed, $left skipped"
    [ "$3" = ON ] || summary+=", without the software key"
    summary+='; '
    # No other test may skip itself than those that are known to.
    diff <(known_skips "$1" "$3" | sort) <(skip_reasons "$report" | sed -n '/^ /!p' | sort) ||
        fail "the list of skipped tests of $1"
}

# known_skips PRESET SOFTKEY: those of the software key, which alone have no layout in their name, only with it.
known_skips() {
    sed -n "s/^$1 //p" tests/windows/skipped.txt | { [ "$2" = ON ] && cat || grep _packed; }
}

# Name and reason of each skipped test.
skip_reasons() {
    sed -n -e 's/.*<testcase name="\([^"]*\)".*status="notrun".*/\1/p' -e '/: Skipped$/{n;s/^/    /p}' "$1"
}

# What only Windows compiles, with the headers that the cross compiler for x86-64 uses.
check_tidy() {
    local headers files
    files=$(git ls-files '*_windows.cpp' ':!tests' |
        while read -r file; do ! grep -q "/$file\"" build/windows-x64/compile_commands.json || echo "$file"; done)
    headers=$(x86_64-w64-mingw32-g++-posix -print-file-name=include)/c++
    xargs -P "$(nproc)" -n 2 clang-tidy --quiet -p build/windows-x64 --extra-arg-before=--target=x86_64-w64-mingw32 \
        --extra-arg="-isystem$headers" --extra-arg="-isystem$headers/x86_64-w64-mingw32" \
        <<<"$files" 2>build/windows-tidy.log ||
        { grep -v 'warnings generated' build/windows-tidy.log; return 1; }
}

test_architecture() { # ARCHITECTURE NAME
    local preset=windows-$1 softkey=OFF
    [ ! -e "$tools/libraries-$1/complete" ] || softkey=ON # Its libraries cannot always be had.
    echo "building $preset"
    SECONDS=0
    build "$preset" $softkey || { fail "build $preset"; return; }
    echo "testing $preset (built in $SECONDS s)"
    SECONDS=0
    scripts/wine.sh "$1" --start || { fail "Wine for $1"; return; }
    run_tests "$preset" "$2" $softkey
    echo "tested $preset in $SECONDS s"
}

mkdir -p build
for architecture; do
    case $architecture in
    x64)
        test_architecture x64 "x86-64 Wine"
        check_tidy || fail "clang-tidy"
        ;;
    arm64) test_architecture arm64 "ARM64 Wine, emulated" ;;
    *) fail "there is no architecture '$architecture'" ;;
    esac
done

echo "${summary}together: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]

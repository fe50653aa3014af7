#!/usr/bin/env bash
# Builds and runs everything that has to pass: the optimised build, both sanitizer builds, format and tidy checks.
# It ends with a table of its steps, and a last line that counts what passed and what failed; the exit code is 0 when
# nothing failed.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
. scripts/steps.sh
step "setup" scripts/setup.sh || exit 1

passed=0
failed=0

# count NAME COMMAND...: one check that passes or fails as a whole.
count() {
    local name=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAILED: $name"
    fi
}

# The benchmarks are compiled with the optimised build; running them is up to the reader of their figures.
build() {
    local options=()
    [ "$1" = release ] && options=(-D VELKOR_BUILD_BENCHMARKS=ON)
    cmake --preset "$1" "${options[@]}" >"build/$1.configure.log" 2>&1 || { cat "build/$1.configure.log"; return 1; }
    cmake --build --preset "$1" >"build/$1.build.log" 2>&1 || { cat "build/$1.build.log"; return 1; }
}

# run_tests PRESET: adds the tests of one build, each of which is reported by itself.
run_tests() {
    local report=build/$1.tests.tsv status=0 good left bad
    rm -f "$report"
    scripts/run-tests.py "$1" "$report" >"build/$1.tests.log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || cat "build/$1.tests.log"
    good=$(results passed "$report" | wc -l) left=$(results skipped "$report" | wc -l)
    bad=$(results failed "$report" | wc -l)
    # A run that failed, or ran nothing, never counts as good.
    if [ "$bad" -eq 0 ] && { [ "$status" -ne 0 ] || [ "$good" -eq 0 ]; }; then
        failed=$((failed + 1))
        echo "FAILED: tests of $1"
    fi
    echo "$1: $good passed, $bad failed, $left skipped"
    results skipped "$report" | sed 's/^/  skipped: /; s/\t/: /'
    passed=$((passed + good))
    failed=$((failed + bad))
}

check_format() {
    git ls-files '*.cpp' '*.c' '*.h' | xargs clang-format --dry-run --Werror
}

check_tidy() {
    git ls-files 'src/*.cpp' 'strict/*.cpp' 'softkey/*.cpp' 'trace/*.cpp' ':!*_windows.cpp' | xargs scripts/check-tidy.py build/release
}

demo() {
    scripts/demo.sh >build/demo.log 2>&1 || { cat build/demo.log; return 1; }
}

# Every kind of what scripts/softkey-hard.sh does, but few of each.
softkey_hard() {
    scripts/softkey-hard.sh --short >build/softkey-hard.log 2>&1 || { cat build/softkey-hard.log; return 1; }
}

# A minute of each fuzzer, over the libraries that have just been tested.
fuzz() {
    scripts/fuzz.sh 60 >build/fuzz.log 2>&1 || { cat build/fuzz.log; return 1; }
}

mkdir -p build
for preset in release asan tsan; do
    before=$failed
    step "build $preset" count "build $preset" build "$preset"
    [ "$failed" -gt "$before" ] || step "test $preset" run_tests "$preset"
    [ "$preset" != asan ] || step "fuzz" count "fuzz" fuzz
done
step "demo" count "demo" demo
step "softkey-hard" count "softkey-hard" softkey_hard
step "clang-format" count "clang-format" check_format
step "clang-tidy" count "clang-tidy" check_tidy

print_steps
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]

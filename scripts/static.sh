#!/usr/bin/env bash
# Looks at the code with what is not part of every build: clang's analyzer over all products, GCC's -fanalyzer, and the
# tests of the optimised build under valgrind's memcheck. clang-tidy is scripts/test.sh's.
#     scripts/static.sh [scan-build] [fanalyzer] [valgrind]      all three by default
# Each leaves its findings below build/static and says how many there are. Those that scripts/static-explained.txt
# (fanalyzer) or scripts/valgrind.supp (valgrind) explain do not count. The exit code is 0 when nothing else was found.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
scripts/setup.sh && scripts/setup.sh clang-tools valgrind || exit 1
out=$PWD/build/static
mkdir -p "$out"
failed=0

# findings NAME COUNT FILE
findings() {
    echo "$1: $2 findings${3:+, in $3}"
    [ "$2" -eq 0 ] || failed=1
}

# give_up LOG: a check that could not be made is one that failed.
give_up() {
    tail -n 50 "$1"
    failed=1
}

# configure FOLDER OPTION...: the products alone, without a cache that would keep the analyzers from looking.
configure() {
    local folder=$1
    shift
    rm -rf "$folder"
    cmake -S . -B "$folder" -G Ninja -D CMAKE_BUILD_TYPE=Debug -D VELKOR_BUILD_TESTS=OFF \
        -D CMAKE_C_COMPILER_LAUNCHER= -D CMAKE_CXX_COMPILER_LAUNCHER= "$@" >"$folder.configure.log" 2>&1 ||
        { cat "$folder.configure.log"; return 1; }
}

run_scan_build() {
    local count
    configure "$out/scan-build" -D CMAKE_C_COMPILER=/usr/share/clang/scan-build-14/libexec/ccc-analyzer \
        -D CMAKE_CXX_COMPILER=/usr/share/clang/scan-build-14/libexec/c++-analyzer || { failed=1; return; }
    rm -rf "$out/scan-build-report"
    scan-build-14 --use-analyzer /usr/bin/clang-14 -o "$out/scan-build-report" --keep-empty \
        cmake --build "$out/scan-build" >"$out/scan-build.log" 2>&1 || { give_up "$out/scan-build.log"; return; }
    count=$(grep -c 'warning: .*\[[a-z]*\.[a-zA-Z.]*\]$' "$out/scan-build.log")
    findings scan-build "$count" "$out/scan-build.log"
}

# One line each: file, warning. An explained one is the beginning of such a line, a tab, and why it is none.
run_fanalyzer() {
    local explained=scripts/static-explained.txt
    configure "$out/fanalyzer" -D CMAKE_C_COMPILER=gcc -D CMAKE_CXX_COMPILER=g++ -D CMAKE_CXX_FLAGS=-fanalyzer ||
        { failed=1; return; }
    cmake --build "$out/fanalyzer" >"$out/fanalyzer.log" 2>&1 || { give_up "$out/fanalyzer.log"; return; }
    sed -n "s|^$PWD/\([^:]*\):[0-9]*:[0-9]*: warning: \(.*\)|\1: \2|p" "$out/fanalyzer.log" | grep -e '-Wanalyzer' |
        sort -u >"$out/fanalyzer.found"
    grep -v '^#' "$explained" | cut -f1 >"$out/fanalyzer.explained"
    grep -v -F -f "$out/fanalyzer.explained" "$out/fanalyzer.found" >"$out/fanalyzer.txt"
    findings fanalyzer "$(wc -l <"$out/fanalyzer.txt")" "$out/fanalyzer.txt"
}

# A forked child, a process that is killed and a bound on time are no matter of memory; those tests are left out.
VALGRIND_PROGRAMS="unit_test log_test secret_test library_buffer_test frame_test frame_test_packed log_lines_test
    sessions_test sessions_test_packed crypto_test crypto_test_packed object_test object_test_packed
    object_storage_test object_storage_test_packed watched_memory_test recorded_run_test_packed threads_test
    strict_test softkey_module_test softkey_test"
VALGRIND_FILTER='-*Fork*:*Crash*:*Killed*:*Exit*:*Within*:*Process*'

run_valgrind() {
    local program count=0 errors
    { cmake --preset release && cmake --build --preset release; } >"$out/release.log" 2>&1 ||
        { give_up "$out/release.log"; return; }
    rm -rf "$out/valgrind"
    mkdir -p "$out/valgrind"
    for program in $VALGRIND_PROGRAMS; do
        (cd "$out/valgrind" &&
            TMPDIR=$out/valgrind valgrind --leak-check=full --errors-for-leak-kinds=definite --fair-sched=yes \
                --suppressions=../../../scripts/valgrind.supp --log-file="$program.log" \
                "../../release/bin/$program" --gtest_filter="$VALGRIND_FILTER" >"$program.tests" 2>&1)
        local code=$?
        errors=$(sed -n 's/.* ERROR SUMMARY: \([0-9]*\) errors .*/\1/p' "$out/valgrind/$program.log" | tail -n 1)
        errors=${errors:-1} # It did not come to its end.
        count=$((count + errors))
        if [ "$errors" -ne 0 ]; then
            echo "  $program: $errors errors, in $out/valgrind/$program.log"
        elif [ "$code" -ne 0 ]; then # A test that is too slow here fails without valgrind having anything to say.
            echo "  $program: no errors of memory, but tests that fail here, in $out/valgrind/$program.tests"
        fi
    done
    findings valgrind "$count" ""
}

[ $# -gt 0 ] || set -- scan-build fanalyzer valgrind
for check in "$@"; do
    case $check in
    scan-build) run_scan_build ;;
    fanalyzer) run_fanalyzer ;;
    valgrind) run_valgrind ;;
    *)
        echo "static.sh: no check of the name $check" >&2
        exit 1
        ;;
    esac
done
exit "$failed"

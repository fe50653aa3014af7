#!/usr/bin/env bash
# Fuzzes the libraries and their readers under AddressSanitizer and UndefinedBehaviorSanitizer, and prints for each
# harness how many inputs it ran, how many a second, and what they covered. The exit code is 0 when nothing was found.
#   scripts/fuzz.sh SECONDS [HARNESS...]          each for so long, or those that are named; one on each processor
#   scripts/fuzz.sh --keep HARNESS...             puts what earlier runs found worth keeping into tests/fuzz/corpus
# An input that ends a run lies in build/fuzz/found; `build/asan/bin/fuzz_HARNESS FILE` runs it again.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
root=$PWD
all=(module module-packed strict templates templates-strict certificates configuration key-file tool)

keep=
if [ "${1:-}" = --keep ]; then
    keep=yes
else
    seconds=${1:-}
    [[ $seconds =~ ^[1-9][0-9]*$ ]] || { sed -n '2,6p' "$0" | cut -c 3- >&2; exit 2; }
fi
shift
[ $# -gt 0 ] && all=("$@")

mkdir -p build/fuzz
cmake --preset asan >build/fuzz/configure.log 2>&1 || { cat build/fuzz/configure.log; exit 1; }
cmake --build --preset asan --target fuzz >build/fuzz/build.log 2>&1 || { cat build/fuzz/build.log; exit 1; }

# Both layouts, and both libraries under the templates, share what they keep.
kept_of() { case $1 in module*) echo module ;; templates*) echo templates ;; *) echo "$1" ;; esac; }

# Files that are written for each input are none of the disk's business.
scratch=$(mktemp -d /dev/shm/velkor-fuzz.XXXXXX 2>/dev/null || mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p build/fuzz/found build/fuzz/corpus

# run HARNESS OPTION... FOLDER...: in the scratch folder, without a terminal.
run() {
    local harness=$1
    shift
    (cd "$scratch" && ASAN_OPTIONS=intercept_tls_get_addr=0 exec setsid --wait \
        "$root/build/asan/bin/fuzz_$harness" -close_fd_mask=3 -dict="$root/tests/fuzz/words.dict" -timeout=30 \
        -artifact_prefix="$root/build/fuzz/found/$harness-" "$@") </dev/null
}

# keep HARNESS: what earlier runs found, as far as it covers more than what is kept.
keep() {
    run "$1" -merge=1 "$root/tests/fuzz/corpus/$(kept_of "$1")" "$root/build/fuzz/corpus/$1" \
        >"build/fuzz/$1.log" 2>&1 || return
    echo "$1: $(find "tests/fuzz/corpus/$(kept_of "$1")" -type f | wc -l) inputs kept"
}

# fuzz HARNESS: tells in one line what came of it, and more where something was found.
fuzz() {
    local harness=$1 log=build/fuzz/$1.log result=nothing
    run "$harness" -max_total_time="$seconds" -print_final_stats=1 "$root/build/fuzz/corpus/$harness" \
        "$root/tests/fuzz/corpus/$(kept_of "$harness")" >"$log" 2>&1 || result=SOMETHING
    printf '%-17s %10s inputs, %6s a second, coverage %6s, found %s\n' "$harness" \
        "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" \
        "$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")" \
        "$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)" "$result"
    [ "$result" = nothing ] || { grep -v -e '^#[0-9]' -e '^stat::' "$log" | tail -n 60; touch "$scratch/.found"; }
}

for harness in "${all[@]}"; do
    [ -x "build/asan/bin/fuzz_$harness" ] || { echo "fuzz.sh: there is no harness $harness" >&2; exit 2; }
    mkdir -p "tests/fuzz/corpus/$(kept_of "$harness")" "build/fuzz/corpus/$harness"
done
status=0
if [ -n "$keep" ]; then
    for harness in "${all[@]}"; do
        keep "$harness" || status=1
    done
    exit "$status"
fi
# One on each processor.
for harness in "${all[@]}"; do
    [ "$(jobs -pr | wc -l)" -lt "$(nproc)" ] || wait -n
    fuzz "$harness" &
done
wait
[ ! -e "$scratch/.found" ]

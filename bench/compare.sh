#!/usr/bin/env bash
# What one operation costs: libcrypto alone, SoftHSM2, the module over the software key, and the strict front over the
# module, in turn, ten times.
#
#   bench/compare.sh            builds, makes the keys, measures, and prints the table
#   bench/compare.sh prepare    builds and makes the keys only
#   bench/compare.sh measure    measures with what is there, and prints the table; ROUNDS=1 for once instead of ten times
#   bench/compare.sh write      puts tables, profile and pictures of what was measured into docs/performance.md; installs
#                               perf and matplotlib from Debian's packages
#   bench/compare.sh document   all of this, from the build to the pictures
#
# Installs SoftHSM2 from Debian's packages. Writes below build/compare only: the keys stay there, so that a second run
# is quick; the figures are in *.json. To be run on a machine that does nothing else.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
folder=$root/build/compare
build=$root/build/bench
sizes="2 4 64 512 2000"
pin=1234
so_pin=12345678
module=$build/lib/velkor-pkcs11.so
strict=$build/lib/velkor-pkcs11-strict.so
program=$build/bin/compare_bench

# for_size N: the environment in which each library finds its token with N key pairs.
for_size() {
    export VELKOR_SOFTKEY_HOME=$folder/velkor-$1 SOFTHSM2_CONF=$folder/softhsm-$1.conf
}

build() {
    scripts/setup.sh
    scripts/setup.sh softhsm2
    softhsm=$(find_softhsm)
    cmake --preset release -B "$build" -D VELKOR_BUILD_BENCHMARKS=ON >"$folder/build.log"
    cmake --build "$build" --target compare_bench entry_points_bench entry_points_bench_instant softkey_bench \
        line_bench velkor-pkcs11 velkor-pkcs11-strict velkor-softkey >>"$folder/build.log"
}

find_softhsm() {
    find /usr/lib -name libsofthsm2.so | head -n 1
}

make_keys() {
    local size
    for size in $sizes; do
        for_size "$size"
        if [ ! -d "$folder/softhsm-$size" ]; then
            mkdir -p "$folder/softhsm-$size"
            printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
                "$folder/softhsm-$size" >"$SOFTHSM2_CONF"
            softhsm2-util --init-token --free --label "bench" --pin $pin --so-pin $so_pin >/dev/null
        fi
        if [ ! -d "$VELKOR_SOFTKEY_HOME" ]; then
            USER_PIN=$pin SO_PIN=$so_pin "$build/bin/velkor-softkey" create --serial BENCH --label "bench" \
                --pin-env USER_PIN --so-pin-env SO_PIN >/dev/null
        fi
        echo "$size key pairs" >&2
        "$program" "$softhsm" $pin "$size"
        "$program" "$module" $pin "$size"
    done
}

# Two tokens for two threads. The software key's have the same key pair: the module's record of the key in use is that of
# all sessions, and two threads with two keys would take each other's.
join_keys() {
    local serial
    for_size two
    [ ! -d "$VELKOR_SOFTKEY_HOME" ] || return 0
    mkdir -p "$folder/softhsm-two"
    cp -r "$folder"/softhsm-2/* "$folder"/softhsm-4/* "$folder/softhsm-two"
    sed 's/softhsm-2$/softhsm-two/' "$folder/softhsm-2.conf" >"$SOFTHSM2_CONF"
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$folder/two.pem"
    for serial in BENCH BENCH2; do
        USER_PIN=$pin SO_PIN=$so_pin "$build/bin/velkor-softkey" create --serial $serial --label "bench" \
            --pin-env USER_PIN --so-pin-env SO_PIN >/dev/null
        USER_PIN=$pin "$build/bin/velkor-softkey" import $serial "$folder/two.pem" --id 00000002 --label "bench" \
            --pin-env USER_PIN >/dev/null
    done
}

# measure NAME SIZE LIBRARY: all rows for two and four key pairs, for others those that depend on the number.
measure() {
    local filter=.
    case $2 in
    2 | 4) ;;
    two) filter='^SignP256OnTwoTokens' ;;
    *) filter='^(SignP256/|FiveAttributes|FindPrivateKeyById|ListPublicKeys|Once)' ;;
    esac
    for_size "$2"
    "$program" --benchmark_filter="$filter" --benchmark_min_time=0.05 --benchmark_format=json \
        --benchmark_out="$folder/$1-$2-$round.json" "$3" $pin >/dev/null
}

measure_all() {
    local size round
    join_keys # Quickly done, for keys that were made before there were two tokens.
    rm -f "$folder"/*.json
    for round in $(seq "${ROUNDS:-10}"); do
        echo "round $round" >&2
        "$build/bin/line_bench" --benchmark_min_time=0.05 --benchmark_format=json \
            --benchmark_out="$folder/line-$round.json" >/dev/null
        for size in $sizes two; do
            # Beside those that are compared with it: the machine's clock is another one a minute later.
            case $size in 4 | 2000 | two)
                "$program" --benchmark_min_time=0.05 --benchmark_format=json \
                    --benchmark_out="$folder/libcrypto-$size-$round.json" libcrypto >/dev/null ;;
            esac
            measure module "$size" "$module"
            measure strict "$size" "$strict"
            measure softhsm2 "$size" "$softhsm"
        done
    done
    rm -rf "$folder/velkor-entry-points" # A key of its own, since its PIN is changed there and back.
    cp -r "$folder/velkor-2" "$folder/velkor-entry-points"
    VELKOR_SOFTKEY_HOME=$folder/velkor-entry-points "$build/bin/entry_points_bench" --benchmark_format=json \
        --benchmark_out="$folder/entry-points-softkey.json" "$module" $pin >/dev/null
    "$build/bin/entry_points_bench_instant" --benchmark_format=json \
        --benchmark_out="$folder/entry-points-instant.json" "$module" $pin >/dev/null
}

write_document() {
    scripts/setup.sh linux-perf python3-matplotlib
    bench/table "$folder" docs/performance.md
    bench/profile "$program" "$module" "$folder" docs/performance.md
    mkdir -p docs/performance
    bench/plot "$folder" docs/performance
}

mkdir -p "$folder/tmp"
# The level's file is older than any look at it, as on a machine that is set up.
export VELKOR_CONFIG=$folder/velkor.conf TMPDIR=$folder/tmp
[ -e "$VELKOR_CONFIG" ] || echo "logLevel = 2" >"$VELKOR_CONFIG"
softhsm=$(find_softhsm)
case ${1:-all} in
prepare)
    build
    make_keys
    join_keys
    ;;
measure)
    measure_all
    bench/table "$folder"
    ;;
write)
    write_document
    ;;
document)
    build
    make_keys
    measure_all
    write_document
    ;;
all)
    build
    make_keys
    measure_all
    bench/table "$folder"
    ;;
*)
    echo "usage: bench/compare.sh [prepare | measure | write | document]" >&2
    exit 2
    ;;
esac

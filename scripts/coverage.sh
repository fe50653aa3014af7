#!/usr/bin/env bash
# Which lines and branches of src/, strict/ and softkey/ the tests reach. It builds and runs the tests of the preset
# "coverage", prints a table, leaves build/coverage/report (pages for a browser) and build/coverage/missed.txt (each
# line that no test reached), and fails where a folder is below its floor in scripts/coverage-floor.txt.
#     scripts/coverage.sh [--report]      --report: of the last run's tests
# What a process reaches that ends by a signal or by _exit is not counted.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/setup.sh llvm-14
folder=build/coverage

if [ "${1:-}" != --report ]; then
    cmake --preset coverage >/dev/null
    cmake --build --preset coverage
    rm -rf "$folder/profiles"
    mkdir -p "$folder/profiles"
    ctest --preset coverage --parallel $((2 * $(nproc)))
fi

# The products, and the test programs that are made of their sources.
objects=(lib/velkor-pkcs11.so lib/velkor-pkcs11-packed.so lib/velkor-pkcs11-strict.so softkey/libVelkorDSCLibrary.so
    bin/softkey_test bin/unit_test bin/log_test bin/secret_test bin/library_buffer_test bin/log_level_file_test)
tool=$(find "$folder" -name velkor-softkey -type f -perm -u+x -print -quit)
arguments=("$tool")
for object in "${objects[@]}"; do
    arguments+=(-object "$folder/$object")
done

llvm-profdata-14 merge --sparse --output "$folder/tests.profdata" "$folder"/profiles/*.profraw
profile=(--instr-profile "$folder/tests.profdata")
others='(^|/)(tests|include|build)/|^/usr/'
rm -rf "$folder/report"
llvm-cov-14 show "${arguments[@]}" "${profile[@]}" --ignore-filename-regex "$others" --format html \
    --show-branches count --output-dir "$folder/report" >/dev/null
llvm-cov-14 export "${arguments[@]}" "${profile[@]}" --ignore-filename-regex "$others" >"$folder/coverage.json"
python3 scripts/coverage.py "$folder/coverage.json" "$folder/missed.txt"

#!/usr/bin/env bash
# Holds the worked example of docs/logging.md against what the programs print, but for times of the day and durations.
#   check_example.sh SOURCES BUILD
set -euo pipefail
sources=$1 build=$2

# The column of durations is as wide as ever.
without_times() {
    sed -E 's/[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} {2,}([0-9.]+) m?s/TIME DURATION/'
}

diff --unified=0 --label docs/logging.md --label "what is printed" \
    <(sed -n '/^### A worked example/,/^## /s/^    //p' "$sources/docs/logging.md" | without_times) \
    <("$sources/scripts/trace-example.sh" "$build" | without_times)

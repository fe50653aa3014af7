# Sourced by the test scripts: measures their steps and prints the table that each of them ends with.
#   step NAME COMMAND...    runs the command in this shell and keeps its seconds; its exit code is the command's
#   print_steps             the table; its rows also go to the file VELKOR_STEPS, if that is set
steps=()

step() {
    local name=$1 start=$SECONDS status=0
    shift
    "$@" || status=$?
    steps+=("$(printf '%6d s  %s' $((SECONDS - start)) "$name")")
    return "$status"
}

print_steps() {
    steps+=("$(printf '%6d s  %s' "$SECONDS" "${0##*/} in all")")
    printf '%s\n' "${steps[@]}"
    [ -z "${VELKOR_STEPS:-}" ] || printf '%s\n' "${steps[@]}" >>"$VELKOR_STEPS"
}

# results KIND REPORT: name and reason of each test with that result, in a report of scripts/run-tests.py.
results() {
    [ ! -e "$2" ] || sed -n "s/^$1\t//p" "$2"
}

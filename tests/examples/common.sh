# shellcheck shell=bash
# What the checks of example programs share. Sourced, not run.

set -euo pipefail

readonly patience=60 # seconds that anything here may take

work=$(mktemp -d)
program_pid=
cleanup() {
    [ -z "$program_pid" ] || kill -KILL "$program_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    printf 'FAILED: %s\n--- what the program wrote:\n' "$*" >&2
    cat "$work/out" >&2
    exit 1
}

expect() { # expect WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || fail "$1 is \"$3\", expected \"$2\""
}

# Runs the program under test, which is in the array `program`, to its end; its output is in "$work/out", what it says
# on standard error also in "$work/errors": run_with STATUS ARGUMENT...
run_with() {
    local expected=$1 status=0
    shift
    # shellcheck disable=SC2154 # each check names its own program
    "${program[@]}" "$@" >"$work/out" 2>"$work/errors" || status=$?
    cat "$work/errors" >>"$work/out"
    expect "exit status for: $*" "$expected" "$status"
}

# Starts the program under test in the background: start COMMAND...
start() {
    # Emptied here and not by the background process, which may begin after somebody has looked.
    : >"$work/out"
    "$@" >>"$work/out" 2>&1 &
    program_pid=$!
}

# Waits until a command succeeds: eventually COMMAND...
eventually() {
    local step
    for ((step = 0; step < patience * 20; ++step)); do
        ! "$@" >/dev/null 2>&1 || return 0
        kill -0 "$program_pid" 2>/dev/null || fail "the program ended before: $*"
        sleep 0.05
    done
    fail "not within $patience seconds: $*"
}

# Sends the program a signal and expects it to end with a status: end_with SIGNAL STATUS
end_with() {
    local status=0
    kill -s "$1" "$program_pid"
    wait "$program_pid" || status=$?
    program_pid=
    expect "exit status after $1" "$2" "$status"
}

# One line to a port, and the answer.
ask() { # ask PORT LINE
    printf '%s\n' "$2" | timeout $patience nc -N 127.0.0.1 "$1"
}

# Five clients at the same time, each of which has its line answered in capital letters.
expect_five_answers() { # expect_five_answers PORT
    local number pids=()
    for number in 1 2 3 4 5; do
        ask "$1" "client $number" >"$work/answer$number" &
        pids+=($!)
    done
    wait "${pids[@]}"
    for number in 1 2 3 4 5; do
        expect "answer $number" "CLIENT $number" "$(cat "$work/answer$number")"
    done
}

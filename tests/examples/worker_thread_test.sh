#!/usr/bin/env bash
# The worker thread example measures pauses that are never too short, survives its own exception, and ends its thread.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly program=("$@")

count_of() { # count_of TEXT, in lines of the output that end with it
    grep -c -- "$1\$" "$work/out" || true
}

run_with 0
expect "threads started" 1 "$(count_of 'CSocketThread::ThreadProc - started')"
expect "priorities asked for" 0 "$(grep -c 'thread priority' "$work/out" || true)"
expect "exceptions" 1 "$(count_of 'CSocketThread::ThreadProc - Do threw exception!')"
expect "stops" 1 "$(count_of 'CSocketThread::Stop - wait for thread sync - succeeded')"
shortest=$(sed -n 's/^worker_thread: 50 pauses of 10 ms at least: shortest \([0-9]*\)\.[0-9]*, median .*, longest .* ms$/\1/p' "$work/out")
[ -n "$shortest" ] || fail "no line with the measured pauses"
[ "$shortest" -ge 10 ] || fail "a pause of $shortest ms"

# Whether the priority is granted is the machine's affair; that it was asked for is told either way.
run_with 0 10
expect "priorities asked for" 1 "$(grep -c 'CSocketThread::Start - .*thread priority' "$work/out" || true)"

for refused in 0 100 ten 5x -1 ''; do
    run_with 2 "$refused"
    expect "words for \"$refused\"" "worker_thread: \"$refused\" is not a priority; give a number from 1 to 99" \
        "$(cat "$work/errors")"
done
run_with 2 1 2
expect "words for two" 'worker_thread: "2" is one argument too many; usage: worker_thread [priority]' "$(cat "$work/errors")"

#!/usr/bin/env bash
# The stream server answers several clients at once in capitals, logs, and ends cleanly on SIGINT and SIGTERM.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

start_server() {
    start "$@" 0
    eventually grep -q 'listening on port [0-9]' "$work/out"
    port=$(sed -n 's/^stream_server: listening on port //p' "$work/out")
}

logged() { grep -c -- "- $1\$" "$work/out" || true; }
readonly accepted='CAsyncIO::MultiConnectionAcceptor - new connection'
readonly removed='CAsyncIO::MultiConnectionPoller - removing socket context'
all_have_ended() { [ "$(logged "$accepted")" = "$(logged "$removed")" ]; }
logged_times() { [ "$(logged "$1")" = "$2" ]; }

# bash sets background processes of a script to ignore SIGINT, so a server that ends on it has asked for it.
start_server "$@"
expect_five_answers "$port"
eventually logged_times "$removed" 5
expect "connections in the log" 5 "$(logged "$accepted")"

# Clients that send and never read keep nobody waiting, not even the end.
for number in 1 2 3 4 5; do
    head -c 50000000 /dev/zero | (exec 3<>"/dev/tcp/127.0.0.1/$port" && cat >&3) 2>/dev/null || true
done
expect "answer among clients that do not read" "STILL HERE" "$(ask "$port" "still here")"
eventually grep -q 'does not read its answers' "$work/out"

# Nor do clients that leave answers unread at their end, although closing would wait a second for each of them: they
# write what they receive into a pipe that nobody empties.
eventually all_have_ended
before=$(logged "$accepted")
mkfifo "$work/full"
exec 4<>"$work/full"
head -c 1500000 /dev/zero >"$work/zeros"
pids=()
for number in 1 2 3 4 5 6 7 8; do
    nc -N 127.0.0.1 "$port" <"$work/zeros" >"$work/full" &
    pids+=($!)
done
started=$SECONDS
eventually logged_times "$accepted" $((before + 8))
eventually all_have_ended
end_with TERM 0
[ $((SECONDS - started)) -lt 6 ] || fail "unread answers held the server for $((SECONDS - started)) seconds"
exec 4>&-
kill "${pids[@]}" 2>/dev/null || true

start_server "$@"
exec 3<>"/dev/tcp/127.0.0.1/$port"
eventually logged_times "$accepted" 1
end_with INT 0
expect "rest of a connection that the server closed" "" "$(cat <&3)"
exec 3>&-

start_server "$@"
second_status=0
"$@" "$port" >"$work/second" 2>&1 || second_status=$?
expect "exit status with a port in use" 1 "$second_status"
grep -q "cannot listen on port $port" "$work/second" || fail "no word of the port in use: $(cat "$work/second")"
end_with TERM 0

status=0
"$@" 1 2 >"$work/second" 2>&1 || status=$?
expect "exit status with two arguments" 2 "$status"
grep -qF '"2" is one argument too many' "$work/second" || fail "no word of the second argument: $(cat "$work/second")"

for wrong in 65536 -1 12x ''; do
    status=0
    "$@" "$wrong" >"$work/second" 2>&1 || status=$?
    expect "exit status for port \"$wrong\"" 2 "$status"
    grep -qF "\"$wrong\" is not a port" "$work/second" || fail "no word of the wrong port: $(cat "$work/second")"
done

#!/usr/bin/env bash
# The stream client sends its lines, and prints what the server answers until the server ends.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

# A server that nobody here wrote, on a port that it names; it answers in capitals when the client has said everything.
serve() {
    : >"$work/out"
    socat -d -d TCP4-LISTEN:0,bind=127.0.0.1 SYSTEM:'tr a-z A-Z' 2>"$work/out" &
    program_pid=$!
    eventually grep -q 'listening on' "$work/out"
    port=$(sed -n 's/.*listening on.*:\([0-9]*\)$/\1/p' "$work/out")
}
serve
expect "answers" "$(printf 'HELLO\nWORLD')" "$(printf 'hello\nworld\n' | timeout $patience "$@" localhost "$port")"

serve
seq -f 'line %g of a longer text' 2000 >"$work/text"
timeout $patience "$@" 127.0.0.1 "$port" <"$work/text" >"$work/answer"
expect "2,000 lines" "$(tr '[:lower:]' '[:upper:]' <"$work/text" | cksum)" "$(cksum <"$work/answer")"
program_pid=

# Nobody listens there any more.
run_with 1 127.0.0.1 "$port" </dev/null
grep -qF "cannot connect to 127.0.0.1, port $port" "$work/errors" || fail "no word of the refused connection"

run_with 2 127.0.0.1
run_with 2 127.0.0.1 70000

#!/usr/bin/env bash
# The stream server that an endpoint runs by itself answers several clients at once, and ends cleanly.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

start_server() {
    start "$@" 0
    eventually grep -q 'listening on port [0-9]' "$work/out"
    port=$(sed -n 's/^connection_server: listening on port //p' "$work/out")
}

start_server "$@"
expect_five_answers "$port"
# One that only sends is thrown out and keeps nobody waiting.
head -c 50000000 /dev/zero | (exec 3<>"/dev/tcp/127.0.0.1/$port" && cat >&3) 2>/dev/null || true
expect "answer after a client that does not read" "STILL HERE" "$(ask "$port" "still here")"
end_with TERM 0

start_server "$@"
run_with_port_in_use() {
    local status=0
    timeout $patience "${program[@]}" "$port" >"$work/second" 2>&1 || status=$?
    expect "exit status with a port in use" 1 "$status"
    grep -q "cannot listen on port $port" "$work/second" || fail "no word of the port in use: $(cat "$work/second")"
}
run_with_port_in_use
end_with INT 0

for wrong in 65536 -1 12x ''; do
    run_with 2 "$wrong"
    grep -qF "\"$wrong\" is not a port" "$work/errors" || fail "no word of the wrong port"
done

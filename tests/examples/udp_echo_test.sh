#!/usr/bin/env bash
# The datagram server sends back what comes, to the fixed port of its sender.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

# A port that nobody has, from below the range that the kernel hands out.
free_port() {
    local port
    for ((port = 20000 + RANDOM % 8000; ; ++port)); do
        [ -n "$(ss -Hlun "sport = :$port")" ] || break
    done
    printf '%s\n' "$port"
}
reply_port=$(free_port)
start "$@" 0 "$reply_port"
eventually grep -q 'receiving on port [0-9]' "$work/out"
port=$(sed -n 's/^udp_echo: receiving on port \([0-9]*\),.*/\1/p' "$work/out")

# socat ends with the first datagram that it gets.
say_and_hear() {
    printf '%s' "$1" | timeout $patience socat -T $patience - "UDP4-DATAGRAM:127.0.0.1:$port,bind=127.0.0.1:$reply_port" |
        head -c "${#1}"
}
expect "echo" "hello" "$(say_and_hear hello)"
long=$(head -c 1400 /dev/zero | tr '\0' x)
expect "echo of 1400 bytes" "$long" "$(say_and_hear "$long")"
eventually grep -qx '1400 bytes from 127.0.0.1' "$work/out"
end_with TERM 0

start "$@" 0 "$reply_port"
eventually grep -q 'receiving on port [0-9]' "$work/out"
end_with INT 0

for wrong in 65536 -1 12x ''; do
    run_with 2 "$wrong"
    grep -qF "\"$wrong\" is not a port" "$work/errors" || fail "no word of the wrong port"
done
run_with 2 1 2 3

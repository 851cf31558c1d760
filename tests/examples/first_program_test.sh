#!/usr/bin/env bash
# The README's first program echoes what a client sends.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# It prints no port, but the kernel knows which one the program was given.
listening_port() { ss -Hltnp | sed -n "s/.*:\([0-9]*\) .*pid=$program_pid,.*/\1/p" | grep .; }

start "$@" 0
eventually listening_port
port=$(listening_port)

expect "first answer" "hello" "$(ask "$port" hello)"
expect "second answer" "and again" "$(ask "$port" "and again")"

#!/usr/bin/env bash
# The addresses example shows every form of an address, lists them in order, and refuses what is none.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly program=("$@")

expect_line() { # expect_line LINE
    grep -qxF -- "$1" "$work/out" || fail "no line: $1"
}

run_with 0 192.168.1.20 ' 010.0.0.1' 0x0a.1.1.1 0 52:54:0:12:34:fe
expect_line '"192.168.1.20" is 192.168.1.20, in hexadecimal c0.a8.1.14, as a number 3232235796'
expect_line '" 010.0.0.1" is 8.0.0.1, in hexadecimal 8.0.0.1, as a number 134217729'
expect_line '"52:54:0:12:34:fe" is 52:54:00:12:34:fe, in capitals 52:54:00:12:34:FE'
expect_line 'in order: 0.0.0.0 8.0.0.1 10.1.1.1 192.168.1.20'

run_with 1 10.0.0.1 192.168.1.256
expect_line 'in order: 10.0.0.1'
expect "words of refusal" \
    'addresses: "192.168.1.256" is refused: bad ip address string field; write four numbers, as in 192.168.1.20. Read leniently it is 192.168.1.0' \
    "$(cat "$work/errors")"

run_with 1 aa:bb
expect "words of refusal" \
    'addresses: "aa:bb" is refused: incorrect length for MAC address string; write six numbers, as in 00:1a:2b:3c:4d:5e' \
    "$(cat "$work/errors")"

run_with 2
expect "words without a text" 'addresses: no text given; try: addresses 192.168.1.20 00:1a:2b:3c:4d:5e' "$(cat "$work/errors")"

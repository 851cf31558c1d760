#!/usr/bin/env bash
# The pinger gets its replies from the kernel.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

if [ "$(id -u)" -eq 0 ]; then
    run_with 0 127.0.0.1 2
    expect "replies" 2 "$(grep -c '^reply from 127.0.0.1 after [0-9]*\.[0-9]* ms$' "$work/out")"
    expect "summary" "2 requests, 2 replies" "$(tail -n 1 "$work/out")"
    run_with 1 host.invalid 1
    grep -qF "cannot send to host.invalid" "$work/errors" || fail "no word of the unknown host"
    # The same without the privilege.
    program=(setpriv --bounding-set -net_raw --inh-caps -net_raw "$@")
fi
run_with 1 127.0.0.1 1
grep -qF "CAP_NET_RAW" "$work/errors" || fail "no word of the missing privilege"

program=("$@")
run_with 2
run_with 2 127.0.0.1 0
grep -qF '"0" is not a count' "$work/errors" || fail "no word of the wrong count"

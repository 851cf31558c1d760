#!/usr/bin/env bash
# The list has each address of this host under its interface's name.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

program=("$@")
if [ "$(id -u)" -eq 0 ]; then
    program=(unshare --net bash -c '
        ip link set lo up
        ip link add wire0 type veth peer name wire1
        ip address add 192.0.2.1/26 broadcast 192.0.2.63 dev wire0
        ip address add 192.0.2.7/26 broadcast 192.0.2.63 dev wire0 label wire0:1
        exec "$@"' bash "$@")
    run_with 0
    expect "list" "lo: 127.0.0.1 netmask 255.0.0.0 up loopback
wire0: 192.0.2.1 netmask 255.255.255.192 broadcast 192.0.2.63 down
wire0:1: 192.0.2.7 netmask 255.255.255.192 broadcast 192.0.2.63 down" "$(cat "$work/out")"
fi

program=("$@")
run_with 0
expect "loopback" 1 "$(grep -c '^lo: 127.0.0.1 netmask 255.0.0.0 .*loopback$' "$work/out")"
run_with 2 eth0
grep -qF '"eth0"' "$work/errors" || fail "no word of the argument that is one too many"

#!/usr/bin/env bash
# The list has each interface and each alias once, with its address.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# In a network of its own.
if [ "$(id -u)" -eq 0 ] && [ -z "${own_network-}" ]; then
    own_network=yes exec unshare --net bash "${BASH_SOURCE[0]}" "$@"
fi

program=("$@")
if [ "$(id -u)" -eq 0 ]; then
    ip link set lo up
    ip link add wire0 type veth peer name wire1
    ip address add 192.0.2.1/26 broadcast 192.0.2.63 dev wire0
    ip address add 192.0.2.2/26 broadcast 192.0.2.63 dev wire0
    ip address add 192.0.2.7/26 broadcast 192.0.2.63 dev wire0 label wire0:1
    # More than it asks for at first.
    for host in {10..29}; do
        ip address add "192.0.2.$host/26" dev wire1
    done
    run_with 0
    expect "list" "lo: 127.0.0.1 netmask 255.0.0.0 up loopback
wire0: 192.0.2.1 netmask 255.255.255.192 broadcast 192.0.2.63 down
wire0:1: 192.0.2.7 netmask 255.255.255.192 broadcast 192.0.2.63 down
wire1: 192.0.2.10 netmask 255.255.255.192 broadcast 0.0.0.0 down" "$(cat "$work/out")"
fi

run_with 0
expect "loopback" 1 "$(grep -c '^lo: 127.0.0.1 netmask 255.0.0.0 .*loopback$' "$work/out")"
run_with 2 eth0
grep -qF '"eth0"' "$work/errors" || fail "no word of the argument that is one too many"

if "${program[@]}" >/dev/full 2>"$work/errors"; then
    fail "success with nothing written"
fi
grep -qF 'cannot write' "$work/errors" || fail "no word of the output that is full"

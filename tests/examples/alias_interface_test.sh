#!/usr/bin/env bash
# Aliases are there for the system's own tools, and are gone for them.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# In a network of its own.
if [ "$(id -u)" -eq 0 ] && [ -z "${own_network-}" ]; then
    own_network=yes exec unshare --net bash "${BASH_SOURCE[0]}" "$@"
fi

program=("$@")
run_with 2
grep -qF 'usage: ' "$work/errors" || fail "no usage"
run_with 2 add wire0 wire0:1
run_with 2 add wire0 wire0:1 192.0.2.256
expect "word of the bad address" 'alias_interface: "192.0.2.256" is no address: bad ip address string field' \
    "$(cat "$work/out")"

if [ "$(id -u)" -eq 0 ]; then
    ip link add wire0 type veth peer name wire1
    ip address add 192.0.2.1/26 broadcast 192.0.2.63 dev wire0
    addresses() { ip -oneline -4 address show dev wire0 | sed -E 's/.* inet ([^ ]*) brd ([^ ]*) .* ([^ ]*)\\.*/\3 \1 \2/'; }

    run_with 0 add wire0 wire0:1 192.0.2.7
    expect "added" "wire0 192.0.2.1/26 192.0.2.63
wire0:1 192.0.2.7/26 192.0.2.63" "$(addresses)"

    run_with 0 change wire0 wire0:1 192.0.2.8 255.255.255.0 192.0.2.255
    expect "changed" "wire0 192.0.2.1/26 192.0.2.63
wire0:1 192.0.2.8/24 192.0.2.255" "$(addresses)"

    run_with 0 change wire0 wire0:1 0.0.0.0 1.0.0.0 0.0.0.0
    # The kernel takes a broadcast address along that went with the old netmask.
    expect "changed in the netmask" "wire0 192.0.2.1/26 192.0.2.63
wire0:1 192.0.2.8/26 192.0.2.63" "$(addresses)"

    run_with 0 change wire0 wire0:1 0.0.0.0 0.0.0.0 192.0.2.60
    expect "changed in the broadcast address" "wire0 192.0.2.1/26 192.0.2.63
wire0:1 192.0.2.8/26 192.0.2.60" "$(addresses)"

    run_with 1 add wire0 a_long_name_____:1 192.0.2.9
    grep -qF 'add of a_long_name_____:1 failed: Invalid argument' "$work/errors" || fail "no word of the long name"
    run_with 1 delete wire0 wire0
    grep -qF 'delete of wire0 failed: Invalid argument' "$work/errors" || fail "no word of the interface"
    run_with 0 delete wire0 wire0:1
    expect "deleted" "wire0 192.0.2.1/26 192.0.2.63" "$(addresses)"
    run_with 1 delete wire0 wire0:1
    grep -qF 'delete of wire0:1 failed: ' "$work/errors" || fail "no word of the alias that is not there"

    # The same without the privilege.
    program=(setpriv --bounding-set -net_admin --inh-caps -net_admin "$@")
fi
run_with 1 add wire0 wire0:1 192.0.2.7
grep -qF 'add of wire0:1 failed: Operation not permitted' "$work/errors" || fail "no word of the missing privilege"

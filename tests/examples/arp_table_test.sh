#!/usr/bin/env bash
# Both ways of asking know the neighbour that has been pinged.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# In a network of its own.
if [ "$(id -u)" -eq 0 ] && [ -z "${own_network-}" ]; then
    own_network=yes exec unshare --net bash "${BASH_SOURCE[0]}" "$@"
fi

program=("$@")
run_with 2
run_with 2 eth0
run_with 2 eth0 192.0.2.1 192.0.2.256
expect "word of the bad address" 'arp_table: "192.0.2.256" is no address: bad ip address string field' "$(cat "$work/out")"

[ "$(id -u)" -eq 0 ] || exit 0
: >"$work/out"
unshare --net sleep 120 &
program_pid=$!
# The process has entered its network when it has become sleep.
eventually grep -qx sleep "/proc/$program_pid/comm"
neighbour() { nsenter --net="/proc/$program_pid/ns/net" "$@"; }
ip link add wire0 type veth peer name wire0 netns "$program_pid"
ip address add 192.0.2.1/24 dev wire0
ip link set wire0 up
neighbour ip address add 192.0.2.2/24 dev wire0
neighbour ip link set wire0 up
eventually ping -q -c 1 -W 1 192.0.2.2

mac=$(neighbour ip -oneline link show dev wire0 | sed -E 's/.* link\/ether ([^ ]*) .*/\1/')
run_with 0 wire0 192.0.2.2
if [ $# -eq 1 ]; then
    expect "neighbour" "192.0.2.2 file ${mac^^} kernel ${mac^^}" "$(cat "$work/out")"
else
    # An emulator does not hand the query on.
    expect "neighbour" "192.0.2.2 file ${mac^^}" "$(grep -o '192.0.2.2 file [^ ]*' "$work/out")"
fi
run_with 0 wire0 192.0.2.99
expect "nobody" "192.0.2.99 file 00:00:00:00:00:00 kernel 00:00:00:00:00:00" "$(grep -o '192.0.2.99 file.*' "$work/out")"

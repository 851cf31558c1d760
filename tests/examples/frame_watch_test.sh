#!/usr/bin/env bash
# The watcher shows the frames of a conversation, and ends after as many as it was told.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

if [ "$(id -u)" -eq 0 ]; then
    # A network of its own, where nobody else sends anything.
    quiet=(unshare --net bash -c 'ip link set lo up && exec "$@"' bash)
    if ! "${quiet[@]}" true 2>/dev/null; then
        printf 'not tried: no right to make a network namespace\n'
        exit 0
    fi
    start "${quiet[@]}" "$@" 3
    eventually grep -q '^frame_watch: watching$' "$work/out"
    # Datagrams to a port where nobody listens: the frame, and the kernel's refusal.
    send() { nsenter --net="/proc/$program_pid/ns/net" bash -c 'printf hello >/dev/udp/127.0.0.1/9' 2>/dev/null || true; }
    send
    send
    status=0
    wait "$program_pid" || status=$?
    program_pid=
    expect "exit status after three frames" 0 "$status"
    expect "first frame" "47 bytes, protocol 17, 127.0.0.1 to 127.0.0.1" "$(sed -n 2p "$work/out")"
    expect "frames" 3 "$(grep -c ' bytes, protocol ' "$work/out")"

    start "$@"
    eventually grep -q '^frame_watch: watching$' "$work/out"
    end_with INT 0
    program=(setpriv --bounding-set -net_raw --inh-caps -net_raw "$@")
fi
run_with 1 1
grep -qF "CAP_NET_RAW" "$work/errors" || fail "no word of the missing privilege"
program=("$@")
run_with 2 0
grep -qF '"0" is not a count' "$work/errors" || fail "no word of the wrong count"
run_with 2 1 2

#!/usr/bin/env bash
# Two hosts that have joined a group hear each other, and not themselves.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=("$@")

run_with 2
run_with 2 ann 239.192.7.7 port
run_with 1 ann 10.0.0.1 </dev/null
grep -qF "cannot join 10.0.0.1" "$work/errors" || fail "no word of the group"

if ! unshare --net true 2>/dev/null; then
    printf 'not tried: no right to make a network namespace\n'
    exit 0
fi

# Two hosts and a wire between them. Each is kept alive by a process that waits.
new_host() { # new_host: its process in $host
    unshare --net bash -c 'ip link set lo up; exec sleep 300' &
    host=$!
    local step
    for ((step = 0; step < patience * 20; ++step)); do
        nsenter --net="/proc/$host/ns/net" ip -o link show lo 2>/dev/null | grep -q 'UP' && break
        sleep 0.05
    done
    hosts+=("$host")
}
on() { # on HOST COMMAND...
    local host=$1
    shift
    nsenter --net="/proc/$host/ns/net" "$@"
}
hosts=() # and what else is to be ended
end_hosts() {
    kill "${hosts[@]}" 2>/dev/null || true
    cleanup
}
trap end_hosts EXIT
new_host
one=$host
new_host
two=$host
on "$one" ip link add name wire0 type veth peer name wire0 netns "$two"
number=1
for host in "$one" "$two"; do
    on "$host" ip address add "192.0.2.$number/24" dev wire0
    on "$host" ip link set wire0 up
    on "$host" ip route add 239.192.0.0/14 dev wire0
    number=$((number + 1))
done

# Each says what comes out of a pipe, for as long as it is open.
mkfifo "$work/ann_says" "$work/bob_says"
exec 3<>"$work/ann_says" 4<>"$work/bob_says"
chat_on() { # chat_on HOST NAME: becomes the program
    exec nsenter --net="/proc/$1/ns/net" "${program[@]}" "$2" <"$work/$2_says" >"$work/$2_hears" 2>&1 3>&- 4>&-
}
chat_on "$one" ann &
hosts+=($!)
chat_on "$two" bob &
program_pid=$!
: >"$work/out"
eventually grep -q joined "$work/ann_hears"
eventually grep -q joined "$work/bob_hears"
heard() { # heard WHO LINE, said again and again until it is: the wire may not carry yet
    printf '%s\n' "$3" >&"$4"
    grep -qx "$2" "$work/$1"
}
eventually heard bob_hears 'ann: hello' hello 3
eventually heard ann_hears 'bob: good morning' 'good morning' 4
expect "what ann hears of herself" 0 "$(grep -c '^ann: ' "$work/ann_hears" || true)"
expect "what bob hears of himself" 0 "$(grep -c '^bob: ' "$work/bob_hears" || true)"

# It ends with its input.
exec 4>&-
status=0
wait "$program_pid" || status=$?
program_pid=
expect "exit status at the end of the input" 0 "$status"

#!/usr/bin/env bash
# tarnctl helps on standard output, complains on standard error, and serves.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/../examples/common.sh"

# expect_run STATUS STREAM TEXT ARGUMENT...: one run of the tool; the text stands in that stream, the other is empty.
expect_run() {
    local -r status=$1 stream=$2 text=$3
    shift 3
    local actual=0 silent=out
    [ "$stream" = err ] || silent=err
    "${tool[@]}" "$@" >"$work/out" 2>"$work/err" || actual=$?
    expect "exit status of tarnctl $*" "$status" "$actual"
    grep -qF -- "$text" "$work/$stream" || fail "tarnctl $*: no \"$text\" in: $(cat "$work/$stream")"
    [ ! -s "$work/$silent" ] || fail "tarnctl $*: also wrote: $(cat "$work/$silent")"
}

tool=("$@")

expect_run 0 out "usage: tarnctl COMMAND" --help
expect_run 0 out "tarnctl 1." --version
expect_run 0 out "usage: tarnctl serve" serve --help
expect_run 2 err "usage: tarnctl COMMAND"
expect_run 2 err 'unknown command "sevre"' sevre
expect_run 2 err '"70000" is not a port' serve --port 70000
expect_run 2 err '"" is not a port' serve --port ''
expect_run 2 err 'unexpected argument "7000"' serve 7000
expect_run 2 err "tarnctl serve: unrecognized option '--prot'" serve --prot 7000

start "${tool[@]}" serve --quiet
eventually grep -q '^listening on port [0-9]' "$work/out"
port=$(sed -n 's/^listening on port //p' "$work/out")
expect "answer" "hello" "$(ask "$port" hello)"
expect "what a quiet server wrote" "listening on port $port" "$(cat "$work/out")"
# A client that sends without reading is thrown out; the server goes on.
head -c 50000000 /dev/zero | (exec 3<>"/dev/tcp/127.0.0.1/$port" && cat >&3) 2>/dev/null || true
expect "answer after a client that did not read" "still here" "$(ask "$port" "still here")"

expect_run 1 err "cannot listen on port $port: in use" serve --quiet --port "$port"
end_with TERM 0

start "${tool[@]}" serve
eventually grep -q '^listening on port [0-9]' "$work/out"
port=$(sed -n 's/^listening on port //p' "$work/out")
expect "answer" "logged" "$(ask "$port" logged)"
eventually grep -q 'CAsyncIO::MultiConnectionAcceptor - new connection' "$work/out"
end_with INT 0

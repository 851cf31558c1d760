#!/usr/bin/env bash
# The signal report example shows what each fault was, and each child is ended by the signal of its fault.
# shellcheck source=tests/examples/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly program=("$@")

# The part of the output that does not depend on where things are in memory, nor on an emulator's own words.
report() { grep -v -e '^$' -e 'registering instance' -e '^qemu: ' "$work/out" | sed 's/handler at 0x[0-9a-f]*/handler at ADDRESS/'; }

readonly address='signal_report: fault "address"
CSignalHandler::SignalHandler - got signal 11, handler at ADDRESS
		*** signal caught *** - SEGMENTATION FAULT: address not mapped to object
		At address 0x10
signal_report: the child was ended by signal 11'
readonly file='signal_report: fault "file"
CSignalHandler::SignalHandler - got signal 7, handler at ADDRESS
		*** signal caught *** - BUS: non-existant physical address
signal_report: the child was ended by signal 7'
readonly terminate='signal_report: fault "terminate"
CSignalHandler::SignalHandler - got signal 15, handler at ADDRESS
		*** signal caught *** - SIGTERM
signal_report: the child was ended by signal 15'

run_with 0
expect "report of all faults" "$address
$file
$terminate" "$(report)"

run_with 0 terminate address
expect "report of chosen faults" "$terminate
$address" "$(report)"

run_with 2 address flood
expect "words of refusal" 'signal_report: "flood" is not a fault; known are address, file and terminate' \
    "$(cat "$work/out")"

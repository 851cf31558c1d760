#!/usr/bin/env bash
# scripts/setup installs what is missing and nothing else, and says what it cannot do.
#
# The package tools are stand-ins on the search path: nothing is installed.
set -euo pipefail

setup=$1/setup
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# Only what the script itself needs, and the stand-ins.
tools=$work/bin
mkdir "$tools"
for tool in bash env basename dirname awk sort; do
    ln -s "$(command -v "$tool")" "$tools/$tool"
done

stand_in() { # stand_in NAME SCRIPT
    printf '#!/bin/bash\n%s\n' "$2" >"$tools/$1"
    chmod +x "$tools/$1"
}

# Runs setup among the stand-ins: its status, what it says, and the calls of apt-get.
run_setup() {
    : >"$work/apt"
    status=0
    PATH=$tools "$setup" "$@" >"$work/out" 2>"$work/err" || status=$?
}

packages=$(PATH=$tools "$setup" --list build demo)
grep -qx 'g++' <<<"$packages" || fail "the compiler is not listed"
grep -qx 'socat' <<<"$packages" || fail "a client of the demo is not listed"
! grep -q 'powerpc' <<<"$packages" || fail "a group that was not asked for is listed"
packages=$(PATH=$tools "$setup" --list)
grep -q 'powerpc' <<<"$packages" || fail "without a group, not all of them are listed"

run_setup no_such_group
[ $status -eq 2 ] || fail "an unknown group ended with $status"
grep -q '"no_such_group"' "$work/err" || fail "the unknown group is not named"

run_setup build
[ $status -eq 1 ] || fail "a system without Debian's tools ended with $status"
grep -q 'not a Debian system' "$work/err" || fail "not said: this is not Debian"
grep -q 'g++' "$work/err" || fail "not said: what is needed"

# shellcheck disable=SC2016  # expanded by the stand-in
stand_in dpkg-query 'case "${@: -1}" in cmake | ninja-build) exit 1 ;; esac; printf installed'
stand_in apt-get 'printf "%s\n" "$*" >>"'"$work"'/apt"'
stand_in id 'echo 0'
run_setup build
[ $status -eq 0 ] || fail "installing ended with $status: $(cat "$work/err")"
[ "$(tail -n 1 "$work/apt")" = "install -y -qq --no-install-recommends cmake ninja-build" ] ||
    fail "installed something else: $(cat "$work/apt")"

stand_in id 'echo 1000'
run_setup build
[ $status -eq 1 ] || fail "without root and sudo it ended with $status"
grep -q 'as root, install: cmake ninja-build' "$work/err" || fail "not said what root must do: $(cat "$work/err")"
[ ! -s "$work/apt" ] || fail "apt-get was called without the right to"

stand_in sudo 'printf "sudo: " >>"'"$work"'/apt"; "$@"'
run_setup build
[ $status -eq 0 ] || fail "with sudo it ended with $status"
grep -q '^sudo: install .* cmake ninja-build$' "$work/apt" || fail "not through sudo: $(cat "$work/apt")"

stand_in dpkg-query 'printf installed'
run_setup
[ $status -eq 0 ] || fail "with all in place it ended with $status"
[ ! -s "$work/apt" ] || fail "apt-get was called although nothing is missing: $(cat "$work/apt")"
[ ! -s "$work/out" ] || fail "something was said although nothing is missing: $(cat "$work/out")"

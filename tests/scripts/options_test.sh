#!/usr/bin/env bash
# Every script explains itself with --help and refuses what it does not know, naming it.
set -euo pipefail

scripts=$1

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

for name in setup demo test lint benchmark; do
    help=$("$scripts/$name" --help) || fail "$name --help ended with $?"
    grep -q "^Usage: scripts/$name" <<<"$help" || fail "$name --help does not say how it is used"
    grep -q -- "--help" <<<"$help" || fail "$name --help does not name itself"

    status=0
    error=$("$scripts/$name" --no-such-option 2>&1 >/dev/null) || status=$?
    [ "$status" -eq 2 ] || fail "$name with an unknown option ended with $status, not 2"
    grep -q '"--no-such-option"' <<<"$error" || fail "$name does not name what it refuses: $error"
done

# From any directory, and through a path with blanks.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/with blank"
ln -s "$(dirname "$scripts")" "$work/with blank/project"
(cd / && "$work/with blank/project/scripts/setup" --list build >/dev/null) || fail "not from a path with a blank"

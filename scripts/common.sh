# shellcheck shell=bash
# What the scripts share. Sourced, not run.

set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck disable=SC2034  # used by the scripts
readonly root
name=$(basename "$0")
readonly name

# A heading, so that a long run can be followed.
say() { printf '\n== %s\n' "$*"; }

# Shows a command, then runs it.
run() {
    printf '+ %s\n' "$*"
    "$@"
}

# Prints an error and ends the script with a status: fail STATUS TEXT...
fail() {
    local -r status=$1
    shift
    printf '%s: %s\n' "$name" "$*" >&2
    exit "$status"
}

# The script's own help: the comment at its head.
show_help() { awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; }

processors() { nproc 2>/dev/null || echo 1; }

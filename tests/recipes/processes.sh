# Sourced by the scripts of this folder.
# shellcheck shell=bash

# The processes in whose environment is the line $1. Programs hand it on to all that they start, so none gets away.
processes_with() {
    grep --files-with-matches --null-data --line-regexp --fixed-strings --no-messages -- "$1" /proc/[0-9]*/environ |
        cut --delimiter=/ --fields=3 || true
}

# Sends signal $1 to all with $2 in their environment.
signal_all_with() {
    local processes
    mapfile -t processes < <(processes_with "$2")
    [[ ${#processes[@]} -eq 0 ]] || kill -s "$1" "${processes[@]}" 2>/dev/null || true # some have just ended
}

# Sourced by the checks that are scripts: a broker for the programs that they run.
#   start_broker PROGRAM   starts it; at the latest it ends with the script
#   stop_broker            ends it, and fails unless it was there and ended well
#   started                the processes that are ended with the script, too
# shellcheck shell=bash

started=()
trap 'kill "${started[@]}" 2>/dev/null || true' EXIT

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

# Clients wait until a broker answers, so nothing needs to wait for this one.
start_broker() {
    "$1" &
    broker=$!
    started+=("$broker")
}

stop_broker() {
    kill -TERM "$broker" || fail "the broker has ended"
    wait "$broker" || fail "the broker exited with $?"
}

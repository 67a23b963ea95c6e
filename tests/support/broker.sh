# Sourced by the checks that are scripts: a broker for the programs that they run.
#   start_broker COMMAND   starts it; at the latest it ends with the script
#   wait_for_broker STATUSCTL   until it answers; for the tool, which waits for none
#   stop_broker            ends it, and fails unless it was there and ended well
#   started                the processes that are ended with the script, too
#   TEST_TIME_FACTOR       how many times longer than elsewhere things may take, emulated for example
# shellcheck shell=bash

export TEST_TIME_FACTOR=${TEST_TIME_FACTOR:-1}
started=()
trap 'kill "${started[@]}" 2>/dev/null || true' EXIT

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

# Clients wait until a broker answers, so nothing needs to wait for this one.
start_broker() {
    "$@" &
    broker=$!
    started+=("$broker")
}

wait_for_broker() {
    local tries=$((300 * TEST_TIME_FACTOR))
    while ((tries-- > 0)); do
        "$@" --quiet ping >/dev/null 2>&1 && return
        read -r -t 0.1 <> <(:) || true
    done
    fail "the broker did not start"
}

stop_broker() {
    kill -TERM "$broker" || fail "the broker has ended"
    wait "$broker" || fail "the broker exited with $?"
}

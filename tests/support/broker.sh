# Sourced by the checks that are scripts. Starts a broker for the programs that they run.
#   start_broker COMMAND   starts a broker, which ends with the script at the latest
#   wait_for_broker STATUSCTL   waits until the broker answers, for tools that do not wait themselves
#   stop_broker            ends the broker, and fails unless it was running and ended well
#   started                other processes that end with the script
#   TEST_TIME_FACTOR       the factor by which things may be slower than usual, for example emulated
# shellcheck shell=bash

export TEST_TIME_FACTOR=${TEST_TIME_FACTOR:-1}
started=()
trap 'kill "${started[@]}" 2>/dev/null || true' EXIT

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

# Clients wait until a broker answers, so this does not.
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

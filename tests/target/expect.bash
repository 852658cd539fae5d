# shellcheck shell=bash
# How the tests of this folder's scripts judge a function: sourced by them. They end with `result`
# as their status.

result=0

# Expects a function, in a shell of its own, to end with a status and to say just this, on either
# output: expect_result STATUS TEXT FUNCTION [WORD]...
# shellcheck disable=SC2034  # used by the tests
expect_result() {
    local status=$1 text=$2 found ended=0
    shift 2
    found=$("$@" 2>&1) || ended=$?
    [[ $ended == "$status" && $found == "$text" ]] || {
        printf '%s\nstatus %d, found:\n%s\nexpected %d:\n%s\n' \
            "$*" "$ended" "$found" "$status" "$text"
        result=1
    }
}

# shellcheck shell=bash
# Reads the lists beside it: sourced by the scripts of this folder.

# The programs of the unit tests that run there: list_unit_programs anywhere|sandbox
list_unit_programs() { sed -n "s/^$1 //p" "${BASH_SOURCE[0]%/*}/unit-programs"; }

# What the emulation of a process leaves out, as PROGRAM TEST REASON: list_user_skips always|exec
list_user_skips() { sed -n "s/^$1 //p" "${BASH_SOURCE[0]%/*}/user-skips"; }

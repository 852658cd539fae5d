# shellcheck shell=bash
# Reads the list of programs beside it: sourced by the scripts of this folder.

# The programs of the unit tests that run there: list_unit_programs anywhere|sandbox
list_unit_programs() { sed -n "s/^$1 //p" "${BASH_SOURCE[0]%/*}/unit-programs"; }

# shellcheck shell=bash
# What the tests of docs/target.md and docs/porting.md share: sourced by the scripts beside it.

checkout=$(realpath -- "${BASH_SOURCE[0]%/*}/../..") || exit 1
# shellcheck source=tests/readme/pages.bash
. "$checkout/tests/readme/pages.bash"
# shellcheck disable=SC2034  # used by the scripts
readonly target=docs/target.md porting=docs/porting.md

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# Takes the arguments of a script that is given nothing but the folder whose "checkout" is the copy:
# take_copy WORD...
take_copy() {
    (($# == 1)) || {
        usage >&2
        exit 2
    }
    copy=$(realpath -m -- "$1")/checkout || exit 1
}

# Ends the test where there is no sandbox.
need_sandbox() { "$checkout/scripts/sandbox" true || exit 77; }

# Ends the test where nothing can be built for the target.
need_cross_compiler() {
    command -v powerpc-linux-gnu-g++ >/dev/null || {
        echo 'POWERPC NOT TESTED: no powerpc-linux-gnu-g++'
        exit 0
    }
}

# Builds in folders of these names, below the copy's build/, begin anew: forget_builds NAME...
forget_builds() { rm -rf -- "${@/#/$copy/build/}" || exit 1; }

# Runs a command in the copy, and in the sandbox, so that no slip of a page restarts this machine. At
# the lowest priority, also among the sessions that the kernel shares processors among, of which the
# sandbox makes one: other tests look at the time meanwhile.
run_in_copy() {
    # shellcheck disable=SC2016  # for the shell inside
    (cd "$copy" && env -u CMAKE_CXX_COMPILER_LAUNCHER LC_ALL=C \
        "CMAKE_BUILD_PARALLEL_LEVEL=$(nproc)" scripts/sandbox --share . nice -n 19 \
        bash -c '{ echo 19 >/proc/self/autogroup; } 2>/dev/null; exec "$@"' porting "$@")
}

# Runs the block of a page that has this text, of which there must be just one: run_block PAGE TEXT
run_block() {
    local block
    block=$(print_blocks "$copy/$1" |
        TEXT=$2 awk -v RS= 'index($0, ENVIRON["TEXT"]) { print; ++count } END { exit count != 1 }') ||
        fail "$1 has no block with '$2', or more than one"
    printf '%s\n' "$block"
    run_in_copy bash -o errexit -o pipefail -c "$block" || fail "$1: a command of this block"
}

# These have to be programs for the target: expect_powerpc PROGRAM...
expect_powerpc() {
    local program
    for program in "$@"; do
        powerpc-linux-gnu-objdump -f "$copy/$program" | grep -q 'file format elf32-powerpc$' ||
            fail "$program is no program for the target"
    done
}

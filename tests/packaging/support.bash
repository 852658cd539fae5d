#!/bin/bash
# What the tests of the packaging share. A test begins with
#     . "${BASH_SOURCE[0]%/*}/support.bash"
# and ends with finish.
set -u

checkout=$(realpath -- "${BASH_SOURCE[0]%/*}/../..")
failures=0

fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

expect() {
    local what=$1 expected=$2 actual=$3
    [[ $actual == "$expected" ]] || fail "$what: expected '$expected', got '$actual'"
}

# Compares two lists of lines, and shows what one has and the other has not.
expect_lines() {
    local what=$1 difference
    difference=$(diff <(printf '%s\n' "$2") <(printf '%s\n' "$3")) ||
        fail "$what (< expected, > actual):"$'\n'"$difference"
}

expect_match() {
    # shellcheck disable=SC2053 # a pattern
    [[ $3 == $2 ]] || fail "$1: '$3' does not match '$2'"
}

# Ends the test at once where going on makes no sense.
need() {
    "$@" || {
        printf 'FAILED: status %s of: %s\n' $? "$*"
        exit 1
    }
}

# A folder that goes away when the test ends: scratch.
make_scratch() {
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/ovard-packaging.XXXXXX") || exit 1
    trap 'rm -rf "$scratch"' EXIT
}

# Installs a component of the build with a prefix: install_into BUILD PREFIX COMPONENT.
install_into() {
    local output
    output=$(cmake --install "$1" --prefix "$2" --component "$3" 2>&1) || {
        printf 'FAILED: cmake --install: %s\n' "$output"
        exit 1
    }
}

# What the runtime component installs with prefix /usr, apart from the papers in docs.
runtime_files() {
    LC_ALL=C sort <<'END'
etc/default/ovard
etc/init.d/ovard-monitor
usr/bin/ovardctl
usr/lib/ovard/boot-marker
usr/lib/systemd/system/ovard-monitor.service
usr/lib/tmpfiles.d/ovard.conf
usr/sbin/ovard
usr/share/bash-completion/completions/ovard
usr/share/bash-completion/completions/ovardctl
usr/share/doc/ovard/CHANGELOG.md
usr/share/doc/ovard/README.md
usr/share/doc/ovard/copyright
usr/share/doc/ovard/examples/requests.ini
usr/share/man/man1/ovardctl.1
usr/share/man/man5/ovard-requests.5
usr/share/man/man5/ovard-segments.5
usr/share/man/man8/ovard.8
END
}

# The files below a folder, sorted.
files_below() { (cd "$1" && find . ! -type d -printf '%P\n' | LC_ALL=C sort); }

# Makes the Debian packages of a build: make_packages BUILD FOLDER.
make_packages() {
    local output
    output=$(cpack -G DEB --config "$1/CPackConfig.cmake" -B "$2" 2>&1) || {
        printf 'FAILED: cpack: %s\n' "$output"
        exit 1
    }
}

# Runs a script of this folder in the sandbox, where the scratch folder may be changed:
# in_sandbox BUILD SCRIPT [ARGUMENT]...
in_sandbox() {
    local build=$1 script=$checkout/tests/packaging/$2
    shift 2
    OVARD_SANDBOX_INIT=$build/bin/ovard_sandbox_init "$checkout/scripts/sandbox" \
        --share "$scratch" --bring "$build/bin" bash "$script" "$@" ||
        fail "${script##*/} $*: status $?"
}

# For scripts that are to run in the sandbox only.
need_sandbox() {
    [[ ${OVARD_SANDBOX-} == 1 ]] || {
        printf 'FAILED: this must run in scripts/sandbox\n'
        exit 1
    }
}

# Waits up to ten seconds until a command succeeds.
await() {
    local n
    for n in {1..200}; do
        "$@" && return
        sleep 0.05
    done
    fail "in vain, $n times: $*"
}

# The processes that are called ovard, in order.
monitors() {
    local directory line
    for directory in /proc/[0-9]*; do
        { IFS= read -r line <"$directory/stat"; } 2>/dev/null || continue
        [[ $line != *' (ovard) '[!Z]* ]] || printf '%s\n' "${directory#/proc/}"
    done
}

finish() {
    ((failures == 0)) || exit 1
    exit 0
}

# shellcheck shell=bash
# One test machine as seen from outside: sourced by tests/target/machine. The machine is told over
# its second serial line what to run and tells how that ended (tests/target/init.cpp); QEMU tells
# what happened to it. Whatever is not as it must be ends the shell that started the machine, and
# with that the machine.

# Seconds that a machine may run, and may take to boot.
readonly kMachineLimit=1100
readonly kBootPatience=120
# tests/target/Machine.h knows it, too.
readonly kMachineMark=ovard.test-machine

fail() {
    printf 'machine: %s\n' "$*" >&2
    exit 1
}

# Starts a machine and waits until it is ready: start_machine FOLDER KERNEL INITRD COMMAND
# [QEMU-OPTION]... The folder, called as the scenario, gets its console, the events and what the
# emulator says. An empty command is none; its words are separated by commas.
start_machine() {
    machine=$1
    local kernel=$2 initrd=$3 words="$kMachineMark scenario=${machine##*/}" fifo
    [[ -z $4 ]] || words+=" run=$4"
    shift 4
    rm -rf "$machine"
    mkdir -p "$machine" || fail "cannot make $machine"
    for fifo in line.in line.out events.in; do
        mkfifo "$machine/$fifo" || fail "cannot make $machine/$fifo"
    done
    : >"$machine/events.out"
    # Open for both directions: neither side has to wait for the other one.
    exec {line_in}<>"$machine/line.in" {line_out}<>"$machine/line.out" \
        {events_in}<>"$machine/events.in"
    local network
    for network in 0 1; do
        set -- "$@" -netdev "user,id=n$network,net=10.0.$((network + 2)).0/24,restrict=on" \
            -device "virtio-net-pci,netdev=n$network,id=nic$network,romfile="
    done
    timeout --foreground --kill-after=10 "$kMachineLimit" \
        qemu-system-ppc -M ppce500 -cpu e500mc -m 512 \
        -display none -nodefaults -no-user-config -kernel "$kernel" -initrd "$initrd" \
        -append "console=ttyS0,115200 quiet panic=1 now=$(date +%s) $words" \
        -serial "file:$machine/console" \
        -chardev "pipe,id=line,path=$machine/line" -serial chardev:line \
        -chardev "pipe,id=events,path=$machine/events" -mon chardev=events,mode=control \
        "$@" </dev/null >"$machine/emulator" 2>&1 &
    emulator=$!
    trap 'kill "$emulator" 2>/dev/null && wait "$emulator"' EXIT
    trap 'exit 143' TERM
    events_seen=0
    passed=0
    printf '{"execute":"qmp_capabilities"}\n' >&"$events_in"
    expect READY "$kBootPatience"
}

# Reads what the machine says next into `said`: hear SECONDS. Fails when it says nothing.
hear() {
    local part='' limit=$((SECONDS + $1))
    said=''
    while ((SECONDS <= limit)); do
        if IFS= read -r -t 1 -u "$line_out" part; then
            said=${said}${part%$'\r'}
            return 0
        fi
        said+=$part
        kill -0 "$emulator" 2>/dev/null || return 1
    done
    return 1
}

# The machine has to say that next: expect PATTERN SECONDS.
expect() {
    hear "$2" || fail "the machine says nothing; awaited: $1"
    # shellcheck disable=SC2053  # a pattern
    [[ $said == $1 ]] || fail "the machine says '$said'; awaited: $1"
}

tell() { printf '%s\n' "$1" >&"$line_in"; }

# What has happened to a machine, one word in a line: list_events FOLDER
list_events() {
    sed -n -e 's/.*"event": *"WATCHDOG".*/watchdog/p' \
        -e 's/.*"reason": *"\([a-z-]*\)".*/\1/p' "$1/events.out"
}

# What has happened to the machine since the last call, into `happened`, in one word each.
look_at_events() {
    local all
    mapfile -t all < <(list_events "$machine")
    happened="${all[*]:events_seen}"
    events_seen=${#all[@]}
}

# Nothing else may have happened to it since the last call: expect_events WORD...
expect_events() {
    look_at_events
    [[ $happened == "$*" ]] || fail "happened to the machine: '$happened'; awaited: '$*'"
}

# How often a program of the machine has said on its console that the scenario passed:
# count_passed FOLDER
count_passed() {
    tr -d '\r' <"$1/console" | grep -cxF "PASSED ${1##*/}"
}

# The programs of the machine have to have said so once for each command that succeeded, no more and
# no less. The console may lag behind the line.
expect_passed() {
    local limit=$((SECONDS + 10))
    until (($(count_passed "$machine") >= passed)); do
        ((SECONDS < limit)) || break
        sleep 0.1
    done
    (($(count_passed "$machine") == passed)) ||
        fail "the console has 'PASSED ${machine##*/}' $(count_passed "$machine") times; awaited: $passed"
}

# Fails unless a scenario has come to its own end: the machine has said that it passed, and the last
# that happened to it is that it switched itself off. check_end FOLDER
check_end() {
    (($(count_passed "$1") > 0)) || fail "the console has no 'PASSED ${1##*/}'"
    list_events "$1" | tail -n 1 | grep -qx guest-shutdown || fail "it was not switched off"
}

# Runs a command, which has to succeed: run SECONDS WORD...
run() {
    local patience=$1
    shift
    tell "$*"
    await_success "$patience"
}

# The command that runs has to succeed: await_success SECONDS
await_success() {
    expect "RESULT 0" "$1"
    expect READY 5
    expect_events
    passed=$((passed + 1))
    expect_passed
}

# Runs a command that says "MARK NAME", upon which the machine has to be reset; the command has to
# be cut off: run_until_reset EVENTS LEAST-SECONDS MOST-SECONDS NAME PATIENCE WORD...
run_until_reset() {
    local events=$1 least=$2 most=$3 name=$4 patience=$5 begin took
    shift 5
    tell "$*"
    expect "MARK $name" "$patience"
    begin=$EPOCHREALTIME
    expect READY $((most + kBootPatience))
    # shellcheck disable=SC2086  # words
    expect_events $events
    expect_passed
    took=$(time_of_last_reset) || fail "the time of the reset is unknown"
    took=$(bc <<<"$took - $begin")
    printf '  %s: reset after %.1f s (%s to %s)\n' "$name" "$took" "$least" "$most"
    (($(bc <<<"$took >= $least && $took <= $most"))) || fail "reset at the wrong time"
}

# The console has to have these texts, in this order: expect_on_console FOLDER TEXT...
expect_on_console() {
    local console text
    console=$(<"$1/console")
    shift
    for text in "$@"; do
        [[ $console == *"$text"* ]] || fail "the console lacks '$text', or has it in another order"
        console=${console#*"$text"}
    done
}

# In seconds since the epoch.
time_of_last_reset() {
    sed -n '/"event": *"RESET"/s/.*"seconds": *\([0-9]*\), *"microseconds": *\([0-9]*\).*/\1 \2/p' \
        "$machine/events.out" | tail -n 1 | {
        read -r seconds microseconds && printf '%d.%06d\n' "$seconds" "$microseconds"
    }
}

# Switches the machine off.
switch_off() {
    tell off
    local limit=$((SECONDS + 30))
    while kill -0 "$emulator" 2>/dev/null; do
        ((SECONDS < limit)) || fail "the machine does not switch itself off"
        sleep 0.1
    done
    expect_events guest-shutdown
}

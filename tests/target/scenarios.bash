# shellcheck shell=bash
# What is tested in virtual machines: sourced by tests/target/machine, which has made the kernel and
# the files of the machines. Each scenario is a function that gets a folder for its machine and runs
# in a shell of its own.

# The longest first.
# shellcheck disable=SC2034  # used by machine
scenarios=(suites restart boot units fed held stopped killed left_armed no_watchdog adoption
    requests cost)

readonly kTests=/opt/ovard/ovard_target_tests
readonly kWatchdog=(-device i6300esb -action watchdog=reset)

# A machine whose clock counts instructions, so that it is neither disturbed nor slowed down by what
# else runs here: one takes 2^1 nanoseconds, and what the machine sleeps takes no time at all. Not
# for what waits for somebody outside: its clock goes on meanwhile, fast.
readonly kShift=1
readonly kCounting=(-icount "shift=$kShift,sleep=off")

# Boots a machine of that kind: boot FOLDER KIND [QEMU-OPTION]...
boot() {
    local folder=$1 kind=$2
    shift 2
    boot_and_run "$folder" "$kind" '' "$@"
}

# The same for a machine that runs a command, words separated by commas, as soon as it is up.
boot_and_run() {
    local folder=$1 kind=$2
    shift 2
    pack "$kind" || fail "cannot make the files of the machine"
    # shellcheck disable=SC2154  # set by machine
    start_machine "$folder" "$kernel" "$work/$kind.initrd" "$@"
}

# Tests of tests/target by their names: test_inside SECONDS NAME...
test_inside() {
    local patience=$1
    shift
    run "$patience" "$kTests" "--gtest_filter=$(IFS=: && printf '%s' "$*")"
}

# A test at whose mark the machine has to be reset by the watchdog, between so many seconds later,
# and to come up again: reset_by_watchdog FOLDER TEST MARK LEAST MOST
reset_by_watchdog() {
    boot "$1" usual "${kWatchdog[@]}"
    test_inside 30 HardwareWatchdog.TellsAColdStart
    run_until_reset "watchdog guest-reset" "$4" "$5" "$3" 150 "$kTests" "--gtest_filter=$2"
    test_inside 60 HardwareWatchdog.TellsThatItResetTheMachine
    switch_off
}

# The time-out is five seconds, and the last feeding up to one second before the mark. Everything
# takes its time on a machine that has to share.
scenario_stopped() { reset_by_watchdog "$1" HardwareWatchdog.StoppedMonitorIsReset stopped 3.5 9; }

scenario_killed() { reset_by_watchdog "$1" HardwareWatchdog.KilledMonitorIsReset killed 3.5 9; }

scenario_left_armed() {
    reset_by_watchdog "$1" HardwareWatchdog.MonitorThatLeavesItArmedIsReset left_armed 3.5 9
}

# The last turn of the main loop gives the feeding its budget of 25 seconds: as many ticks, of which
# the first comes up to one second after the turn. So the last feeding is 24 to 25 seconds after it,
# the reset, with the time-out, 29 to 30, and the mark 5. A mark that is heard late brings the reset
# nearer, ticks that a busy host lets fall together put it off. With a budget of 20 or 30 seconds it
# would come 19 to 20 or 29 to 30 seconds after the mark.
scenario_held() { reset_by_watchdog "$1" HeldMainLoop.IsReset held 23 28; }

scenario_fed() {
    boot "$1" usual "${kWatchdog[@]}"
    test_inside 150 HardwareWatchdog.FedForAMinuteAndDisarmedByTermination
    switch_off
}

scenario_no_watchdog() {
    boot "$1" usual "${kCounting[@]}"
    test_inside 60 HardwareWatchdog.MayBeMissing
    switch_off
}

# With shared libraries, as most meters have the programs.
scenario_boot() {
    boot_and_run "$1" shared "$kTests,--gtest_filter=BootStory.*" \
        "${kWatchdog[@]}" "${kCounting[@]}"
    await_success 400
    switch_off
}

# The restart is the kernel's, not the watchdog's.
scenario_restart() {
    boot "$1" usual "${kWatchdog[@]}" "${kCounting[@]}"
    run_until_reset guest-reset 0 60 failure 300 "$kTests" \
        --gtest_filter=Restart.FailureUnderPolicyOneRestartsTheMachine
    grep -q 'reboot: Restarting system' "$1/console" || fail "it was not the monitor's restart"
    test_inside 250 Restart.ApplicationsAreSupervisedAgainAfterwards
    switch_off
}

scenario_adoption() {
    boot "$1" usual "${kCounting[@]}"
    test_inside 200 Adoption.ApplicationsOfAKilledMonitorAreTakenOver
    switch_off
}

scenario_requests() {
    boot "$1" usual "${kCounting[@]}"
    test_inside 600 Adoption.ThousandRequestsLeaveNothingBehind
    switch_off
}

# Emulated instructions, and memory in kB.
scenario_cost() {
    boot "$1" usual "${kCounting[@]}"
    run 600 /opt/ovard/ovard_target_cost "$kShift"
    test_inside 600 '*Memory.*'
    tr -d '\r' <"$1/console" | sed -n 's/^COST /  /p'
    switch_off
}

# Ends the scenario where the machine has no shell.
require_shell() {
    [[ -z $busybox ]] || return 0
    printf 'the machine needs a shell for it\n'
    # shellcheck disable=SC2154  # set by machine
    exit "$kNotTested"
}

# The unit tests, all of them.
scenario_units() {
    require_shell
    local program
    boot "$1" units "${kCounting[@]}"
    for program in unit platform client hostile; do
        run 600 "/opt/ovard/ovard_${program}_tests" --gtest_brief=1
        tr -d '\r' <"$1/console" | sed -n 's/^\[==========\] \(.*\)/  \1/p' | tail -n 1
    done
    switch_off
}

readonly kSuitesAtATime=8

# The system tests, several suites at a time: they sleep more than they work.
scenario_suites() {
    require_shell
    local status=0
    boot "$1" suites "${kCounting[@]}"
    (run 1000 /opt/ovard/suites "$kSuitesAtATime") || status=$?
    tr -d '\r' <"$1/console" | sed -n 's/.*SUITE /  /p' # behind what another suite is telling
    ((status == 0)) || exit "$status"
    switch_off
}

// What the programs of the test machine agree on.

#ifndef OVARD_TESTS_TARGET_MACHINE_H
#define OVARD_TESTS_TARGET_MACHINE_H

#include <string>

namespace target {

/// Serial line over which the machine is told what to run and tells how it ended; the first one is
/// the console.
inline constexpr const char* kControlLine = "/dev/ttyS1";

/// What tests/target/machine puts on the kernel's command line.
inline constexpr const char* kMachineMark = "ovard.test-machine";

/// Addresses of its interfaces, as QEMU's user networks expect them.
inline constexpr const char* kAddressOfEth0 = "10.0.2.15";
inline constexpr const char* kAddressOfEth1 = "10.0.3.15";

/// Why tests must not run here; empty on the test machine.
std::string reasonToRefuse();

/// Tells on the console that a command of the scenario that the machine is for has done all that it
/// had to. tests/target/machine.bash counts on it, once for each command that has to succeed.
void sayPassed();

/// Where the machine has busybox, which tests/target/machine puts there.
inline constexpr const char* kShellProgram = "/bin/busybox";

/// Whether it was made with a shell: it is made without where busybox cannot be had. One that does
/// not work is there all the same, so that what needs it fails and is not left out.
bool hasShell();

/// Seconds since the machine was switched on.
double uptimeSec();

/// Waits until the machine has been up for so long.
void waitForUptime(double seconds);

/// Supervision rests for that many seconds after the boot.
inline constexpr double kRestSec = 90;

} // namespace target

#endif // OVARD_TESTS_TARGET_MACHINE_H

// Tests of the monitor on a machine that is really its own.

#ifndef OVARD_TESTS_TARGET_MACHINE_TEST_H
#define OVARD_TESTS_TARGET_MACHINE_TEST_H

#include <string>
#include <vector>

#include "tests/system/Supervision.h"
#include "tests/target/Machine.h"

namespace target {

/// Tells outside that the machine is going to be reset: the reset is awaited, and timed, from now.
void sayMark(const std::string& name);

/// Waits for a reset that ends the test; fails the test when it does not come within the time.
void awaitReset(int seconds);

/// As systemtest::SupervisionTest, but nothing is around the monitor except the machine.
class MachineTest : public systemtest::SupervisionTest {
protected:
    /// A start request for a supervised application that reports heartbeats.
    reqcmd makeBeating(const std::string& name, int policy);

    /// Requests for that many applications, "app_1" and so on, each with a heartbeat.
    std::vector<reqcmd> makeManyRequests(int count);

    /// Writes a file of requests, for the option -x.
    static bool writeRequests(const std::string& path, const std::vector<reqcmd>& requests);

    /// Waits until so many applications are published as started, without talking to the monitor.
    static bool areStarted(std::size_t count, int timeoutMs);
};

} // namespace target

#endif // OVARD_TESTS_TARGET_MACHINE_TEST_H

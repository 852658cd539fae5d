// What a system test needs: the fixture, and with it the rest of the harness.

#ifndef OVARD_TESTS_SYSTEM_HARNESS_H
#define OVARD_TESTS_SYSTEM_HARNESS_H

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/system/Client.h"
#include "tests/system/Daemon.h"
#include "tests/system/Logs.h"
#include "tests/system/Processes.h"
#include "tests/system/Support.h"

namespace systemtest {

/// Every test begins on a clean machine and leaves one: no process, no file of an earlier one.
///
/// A suite is one alias or subclass of it and is named after its file: ShutdownTest.cpp holds the
/// suite Shutdown. Further suites of a file must be listed in CMakeLists.txt.
class SystemTest : public testing::Test {
protected:
    void SetUp() override;

    /// Fails the test when a monitor is left over that no Daemon object owns; ends applications.
    void TearDown() override;

    /// Copies the sample application to /home/kelvo/root/NAME and returns that path.
    std::string installSample(const std::string& name);

    /// Copies it to any other path.
    std::string installSampleAt(const std::string& path);

    /// Has the monitor serve a request, and waits for the line that it logs once the connection is
    /// closed. Then its main loop rests, for a second.
    static void serveOne();
};

/// Why the tests must not run here; empty when they may.
std::string reasonToRefuse();

/// Remembers the processes that were there before the first test; called once by main.
void rememberMachine();

/// Processes that the tests have brought about: all but those that were there at the beginning.
std::vector<pid_t> strangers();

/// Their command lines, but for that of the monitor. A process that ends has none any more.
std::multiset<std::string> commandLinesBeside(pid_t monitor);

/// Ends the strangers by their ids. False when some are still there after a while.
bool endStrangers();

/// Puts files and logs back to an empty state. For use while no monitor runs.
void cleanMachine();

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_HARNESS_H

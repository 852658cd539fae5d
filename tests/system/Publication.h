// A monitor whose publishing cycles can be waited for.

#ifndef OVARD_TESTS_SYSTEM_PUBLICATION_H
#define OVARD_TESTS_SYSTEM_PUBLICATION_H

#include <string>
#include <vector>

#include "tests/system/Segments.h"
#include "tests/system/Supervision.h"

namespace systemtest {

/// Cycles follow each other in a fraction of a second while the test waits for them.
class PublicationTest : public SupervisionTest {
protected:
    /// Starts a monitor as startSupervisor does and waits for its first cycle.
    bool startPublisher(const std::vector<std::string>& options = {});

    /// A whole cycle goes by, from its beginning to its end. False when none does.
    static bool letACycleGoBy();

    /// Waits until these are the applications that are published, in this order, cycles going by.
    static bool publishes(const std::vector<std::string>& names);

    /// Names of the published applications.
    static std::vector<std::string> publishedNames();

    /// Waits until an application is published with that pid and status, cycles going by.
    static bool publishes(const std::string& name, pid_t pid, const std::string& status);
};

/// Runs a line of the shell, the folders of the system's programs included. False when it fails;
/// the test then shows why.
bool runShell(const std::string& line);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_PUBLICATION_H

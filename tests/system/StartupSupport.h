// What the event log shows of a start.

#ifndef OVARD_TESTS_SYSTEM_STARTUP_SUPPORT_H
#define OVARD_TESTS_SYSTEM_STARTUP_SUPPORT_H

#include <string>
#include <vector>

#include "tests/system/Harness.h"

namespace systemtest {

inline const std::vector<std::string> kStartEvents = {"Application Monitor Started.",
                                                      "Application Monitor Initialized."};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_STARTUP_SUPPORT_H

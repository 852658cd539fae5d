// A sandbox within the sandbox, whose machine the monitor inside may restart for real.

#ifndef OVARD_TESTS_SYSTEM_ANOTHER_MACHINE_H
#define OVARD_TESTS_SYSTEM_ANOTHER_MACHINE_H

#include <string>

#include "tests/system/Processes.h"

namespace systemtest {

/// Runs lines of the shell there, with the programs "$OVARD", "$CONTROL" (ovardctl) and "$SAMPLE".
ProgramResult runOnAnotherMachine(const std::string& lines);

/// What is left of that machine.
class Remains {
public:
    explicit Remains(const ProgramResult& result);

    std::string of(const std::string& path) const;

    /// Empty when nothing was found.
    std::string sanitizerReports() const;

private:
    std::string folder_ = "/nonexistent";
};

/// The machine was restarted, which ended what ran there, and until then no sanitizer has found
/// anything. The lines make "/tmp/survived" at their end.
void expectRestart(const ProgramResult& result);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_ANOTHER_MACHINE_H

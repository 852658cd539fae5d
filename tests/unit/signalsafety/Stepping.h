// Has a traced process go on step by step: all of the tests here that depends on the processor.

#ifndef OVARD_TESTS_UNIT_SIGNALSAFETY_STEPPING_H
#define OVARD_TESTS_UNIT_SIGNALSAFETY_STEPPING_H

#include <sys/types.h>

#include <cstdint>

namespace signalsafety {

using Address = std::uintptr_t;

/// Where a stopped process goes on.
Address instructionPointer(pid_t process);

/// Has a stopped process execute one instruction, or all up to the end of those that would never
/// succeed one at a time; these call nothing. False when it has ended or stopped for another
/// reason.
bool step(pid_t process);

} // namespace signalsafety

#endif // OVARD_TESTS_UNIT_SIGNALSAFETY_STEPPING_H

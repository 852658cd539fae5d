// Finds out which functions of the shared libraries a piece of code calls, by executing it one
// instruction at a time.

#ifndef OVARD_TESTS_UNIT_SIGNALSAFETY_CALL_TRACE_H
#define OVARD_TESTS_UNIT_SIGNALSAFETY_CALL_TRACE_H

#include <set>
#include <string>

namespace signalsafety {

/// What a traced piece of code did.
struct CallTrace {
    /// Why there is no trace; empty when there is one.
    std::string failure;

    /// Functions outside this program that were entered from this program, each once, by their
    /// names. What such a function calls in its turn is its own affair.
    std::set<std::string> calls;

    /// Instructions executed in this program.
    long instructions = 0;
};

/// Runs `prepare` and then `code` in a child process and traces `code`. `knownNames` help to name
/// functions of which the library has several forms. For programs without lazy binding: the dynamic
/// linker would show otherwise.
CallTrace traceCalls(void (*prepare)(), void (*code)(), const std::set<std::string>& knownNames);

} // namespace signalsafety

#endif // OVARD_TESTS_UNIT_SIGNALSAFETY_CALL_TRACE_H

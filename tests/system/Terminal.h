// A program on a terminal of its own.

#ifndef OVARD_TESTS_SYSTEM_TERMINAL_H
#define OVARD_TESTS_SYSTEM_TERMINAL_H

#include <string>
#include <vector>

#include "tests/system/Processes.h"

namespace systemtest {

/// A program whose standard files are a terminal of 24 rows and 80 columns that says to be an
/// xterm. It is killed with the object.
class TerminalProgram {
public:
    TerminalProgram() = default;
    TerminalProgram(const TerminalProgram&) = delete;
    TerminalProgram& operator=(const TerminalProgram&) = delete;
    ~TerminalProgram();

    /// Starts it in an environment that holds TERM and what is given ("NAME=value", which may
    /// replace TERM). False when there is no terminal to be had.
    bool start(const std::string& path, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment = {});

    /// All that it has written to the terminal so far.
    const std::string& output();

    /// Waits until `text` is in what it has written since the last `forget`.
    bool shows(const std::string& text, int timeoutMs = 10000);

    /// Lets later calls of `shows` look at nothing of what was written before.
    void forget();

    /// Types on its keyboard: "\x03" is Ctrl-C.
    bool type(const std::string& keys) const;

    /// Waits for its end.
    Ending waitForEnd(int timeoutMs = 10000);

private:
    pid_t pid_ = 0;
    int terminal_ = -1; ///< its other side
    std::string output_;
    std::size_t forgotten_ = 0;
    Ending ending_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_TERMINAL_H

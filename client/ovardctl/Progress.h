// A line on the terminal that tells, while a reply is waited for, how long and for what.

#ifndef OVARD_CLIENT_OVARDCTL_PROGRESS_H
#define OVARD_CLIENT_OVARDCTL_PROGRESS_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "client/ovardctl/Screen.h"
#include "records/reqcmd.h"

namespace ovardctl {

/// What the monitor is asked to do, as it is put on the command line: "start meter", "restart
/// --all". Printable ASCII.
std::string describeRequest(const reqcmd& request);

/// The line, in one place of a terminal. Elsewhere nothing is written.
class ProgressLine {
public:
    /// `output` is not owned and has to outlive the line; `screen` is what it leads to.
    ProgressLine(std::FILE* output, const Screen& screen, const reqcmd& request);

    /// Erases it.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Draws it in place of what it showed before.
    void show(std::int64_t elapsedSec);

private:
    std::FILE* output_;
    Screen screen_;
    std::string subject_;
    bool isShown_ = false;
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_PROGRESS_H

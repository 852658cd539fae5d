// What in a request file would go wrong when the monitor replays it.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_CHECK_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_CHECK_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "client/ovardctl/ProgramSearch.h"
#include "client/ovardctl/RequestFile.h"

namespace ovardctl {

enum class Severity {
    Error,   ///< a record is lost, or what it asks for fails
    Warning, ///< it may be meant so
};

/// One problem, and what to do about it.
struct Problem {
    Severity severity;
    std::size_t record; ///< from 1; 0 for the file as a whole
    std::string text;   ///< without a line feed; bytes of the file stand in it as they are
};

/// Tells what lies at the absolute path of a program.
using ProgramExaminer = std::function<ProgramState(const std::string& program)>;

/// Everything that the monitor would meet on a machine with the byte order `target`: first the
/// problems of the file, then those of the records in their order. Records that the monitor does
/// not replay are not looked at.
std::vector<Problem> checkRequests(const RequestFile& file, ByteOrder target,
                                   const ProgramExaminer& examine);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_CHECK_H

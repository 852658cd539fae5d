// Requests as a text that a person reads and writes, see ovard-requests(5).

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_TEXT_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ovardctl/RequestFile.h"
#include "records/reqcmd.h"

namespace ovardctl {

/// Most problems of one text that are told.
inline constexpr std::size_t kMostTextProblems = 20;

/// What is wrong in a line.
struct TextProblem {
    std::size_t line; ///< from 1
    std::string text; ///< printable ASCII without a line feed
};

/// A text, understood.
struct RequestText {
    std::vector<reqcmd> records;        ///< integers in the byte order of this machine
    std::optional<ByteOrder> byteOrder; ///< where the text gives one
    std::vector<TextProblem> problems; ///< in the order of the lines; with any, nothing else counts
};

/// Reads a text. `meterRoot`, the value of METER_ROOT or null where it is not set, becomes part of
/// the pid-file names that are filled in. Never throws for bad text; touches nothing outside.
RequestText parseRequestText(std::string_view text, const char* meterRoot);

/// The text of whole records, printable ASCII and line feeds. Read again it gives the same records,
/// byte for byte, and their byte order.
std::string formatRequests(const std::vector<reqcmd>& records, ByteOrder order);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_TEXT_H

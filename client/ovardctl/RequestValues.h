// Texts as a person writes them, read into the fields of a request. Each function returns what is
// wrong with a text, without a line feed; an empty result means that it was taken. The record stays
// as it was otherwise.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_VALUES_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_VALUES_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "platform/Text.h"
#include "records/reqcmd.h"

namespace ovardctl {

/// Limits of the numbers of a start request.
inline constexpr std::int32_t kMinPriority = -20;
inline constexpr std::int32_t kMaxPriority = 19;
inline constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();
inline constexpr std::int32_t kMinInt = std::numeric_limits<std::int32_t>::min();

/// A decimal number from `low` to `high`. Other notations are refused: a leading zero is no octal.
std::string readNumber(std::string_view text, std::int32_t low, std::int32_t high,
                       std::int32_t& number);

/// "none", "com:N" with any N from 0, or "eth:N" with an IP port.
std::string readPort(std::string_view text, reqcmd& request);

/// "self", "all" or the number of another policy.
std::string readRestartType(std::string_view text, reqcmd& request);

/// What is said of a text of `size` characters where at most `limit` fit.
std::string tooLong(std::size_t size, std::size_t limit);

/// A text for a field, which holds one character less than its size.
template <std::size_t Size> std::string readField(std::string_view text, char (&field)[Size]) {
    if (text.size() >= Size) {
        return tooLong(text.size(), Size - 1);
    }
    platform::copyToField(field, text);
    return {};
}

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_VALUES_H

// Any bytes as a line of printable ASCII, and back.

#ifndef OVARD_CLIENT_OVARDCTL_ESCAPED_TEXT_H
#define OVARD_CLIENT_OVARDCTL_ESCAPED_TEXT_H

#include <string>
#include <string_view>

namespace ovardctl {

/// Every byte other than printable ASCII, and a blank at either end, as \xNN; a backslash doubled.
std::string escaped(std::string_view bytes);

/// Takes the escapes back; a tab may stand for itself. Returns what is wrong with the text; `bytes`
/// is then unspecified. Empty when all is well.
std::string unescape(std::string_view text, std::string& bytes);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_ESCAPED_TEXT_H

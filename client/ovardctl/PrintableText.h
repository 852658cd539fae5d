// Texts from outside, made harmless for a terminal.

#ifndef OVARD_CLIENT_OVARDCTL_PRINTABLE_TEXT_H
#define OVARD_CLIENT_OVARDCTL_PRINTABLE_TEXT_H

#include <string>
#include <string_view>

namespace ovardctl {

/// `text` with every byte other than printable ASCII and those in `kept` shown as \xNN. The result
/// has as many columns as characters.
std::string printable(std::string_view text, std::string_view kept = {});

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_PRINTABLE_TEXT_H

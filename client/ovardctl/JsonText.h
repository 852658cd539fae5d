// Values from published records in JSON. For sources only: the library's header is large.

#ifndef OVARD_CLIENT_OVARDCTL_JSON_TEXT_H
#define OVARD_CLIENT_OVARDCTL_JSON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "client/ovardctl/Publication.h"
#include "platform/Text.h"

namespace ovardctl {

/// Keys keep the order in which they were set.
using Json = nlohmann::ordered_json;

/// A text field up to its NUL, or the whole field when it has none.
template <std::size_t Size> Json jsonField(const char (&field)[Size]) {
    return std::string(platform::fieldText(field));
}

/// A measured value with the seven digits that a float holds; null for what is no number.
Json jsonValue(float value);

/// An instrument time in milliseconds since the epoch; null for one that was never set.
Json jsonTime(const std::uint8_t (&time)[8]);

/// The object with the circumstances, to which the data are added.
Json jsonOf(const Publication& publication, const Finding& finding);

/// The text of an object, ASCII only, with a line feed at the end. Bytes that are no UTF-8 become
/// the replacement character.
std::string jsonText(const Json& object, const ViewStyle& style);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_JSON_TEXT_H

#include "client/ovardctl/JsonText.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "client/ovardctl/Format.h"

namespace ovardctl {
namespace {

constexpr int kIndent = 2;
constexpr int kOneLine = -1;

} // namespace

Json jsonValue(float value) {
    if (!std::isfinite(value)) {
        return nullptr;
    }
    // The nearest double would be printed with all the digits that the float never had.
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.7g", static_cast<double>(value)); // always fits
    return std::strtod(text, nullptr);
}

Json jsonTime(const std::uint8_t (&time)[8]) {
    const std::int64_t milliseconds = toMilliseconds(time);
    return milliseconds == 0 ? Json(nullptr) : Json(milliseconds);
}

Json jsonOf(const Publication& publication, const Finding& finding) {
    Json object;
    object["monitor"] = monitorWord(publication.monitor);
    object["data"] = finding.dataWord;
    object["stale"] = finding.isStale;
    if (finding.hasData) {
        const std::int64_t age = ageMs(publication);
        object["published_ms"] = publication.segment.modifiedMs;
        object["age_ms"] = age < 0 ? Json(nullptr) : Json(age);
    }
    return object;
}

std::string jsonText(const Json& object, const ViewStyle& style) {
    return object.dump(style.inLine ? kOneLine : kIndent, ' ', true,
                       Json::error_handler_t::replace) +
           '\n';
}

} // namespace ovardctl

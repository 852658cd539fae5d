#include "client/ovardctl/RequestValues.h"

#include <charconv>
#include <system_error>

#include "records/codes.h"

namespace ovardctl {

std::string readNumber(std::string_view text, std::int32_t low, std::int32_t high,
                       std::int32_t& number) {
    std::int32_t value = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || value < low || value > high) {
        return "\"" + std::string(text) + "\" is not a number from " + std::to_string(low) +
               " to " + std::to_string(high);
    }
    number = value;
    return {};
}

std::string readPort(std::string_view text, reqcmd& request) {
    const std::string_view kind = text.substr(0, 4);
    std::int32_t type = PORT_TYPE_NONE;
    std::int32_t number = 0;
    std::string problem;
    if (kind == "com:") {
        type = PORT_TYPE_COM;
        problem = readNumber(text.substr(4), 0, kMaxInt, number);
    } else if (kind == "eth:") {
        type = PORT_TYPE_ETH;
        problem = readNumber(text.substr(4), 1, 65535, number);
    } else if (text != "none") {
        problem = "\"" + std::string(text) + "\" is none of none, com:N and eth:N";
    }
    if (problem.empty()) {
        request.porttype = type;
        request.portnum = number;
    }
    return problem;
}

std::string readRestartType(std::string_view text, reqcmd& request) {
    if (text == "self") {
        request.restart_type = RESTART_TYPE_SELF;
        return {};
    }
    if (text == "all") {
        request.restart_type = RESTART_TYPE_ALL;
        return {};
    }
    const std::string problem = readNumber(text, kMinInt, kMaxInt, request.restart_type);
    return problem.empty() ? problem : problem + ", nor is it self or all";
}

std::string tooLong(std::size_t size, std::size_t limit) {
    return std::to_string(size) + " characters are too long for a request, at most " +
           std::to_string(limit) + " fit; shorten it";
}

} // namespace ovardctl

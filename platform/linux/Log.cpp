#include "platform/Log.h"

#include <syslog.h>

#include <string_view>

namespace {

/// syslog's "%.*s" takes an int; a message beyond this would be cut by every collector anyway.
constexpr std::size_t kLongestText = 65536;

std::string_view messageText(const char* text) {
    std::string_view message = text != nullptr ? text : "";
    if (!message.empty() && message.back() == '\n') {
        message.remove_suffix(1);
    }
    return message.substr(0, kLongestText);
}

} // namespace

int open_zor_log(zor_log* handle, const char* ident, int options, int facility) {
    if (handle == nullptr || ident == nullptr) {
        return -1;
    }
    *handle = {ident, options, facility, 1};
    ::openlog(ident, options, facility);
    return 0;
}

int write_zor_log(const zor_log& handle, int level, const char* text, int) {
    if (handle.opened == 0) {
        return -1;
    }
    const std::string_view message = messageText(text);
    ::syslog((handle.facility & LOG_FACMASK) | (level & LOG_PRIMASK), "%.*s",
             static_cast<int>(message.size()), message.data());
    return 0;
}

int close_zor_log(zor_log* handle) {
    if (handle == nullptr || handle->opened == 0) {
        return -1;
    }
    *handle = {};
    ::closelog();
    return 0;
}

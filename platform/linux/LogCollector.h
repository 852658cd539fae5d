// The road to the program that collects the machine's logs.

#ifndef OVARD_PLATFORM_LINUX_LOG_COLLECTOR_H
#define OVARD_PLATFORM_LINUX_LOG_COLLECTOR_H

#include <string_view>

#include "platform/UniqueFd.h"

namespace platform {

/// Sends messages to the log collector that listens at /dev/log, as syslog(3) does, but is never
/// held up by one that reads nothing: the first message waits for it for kPatienceMs at most, and
/// the following ones not at all until one is taken again. A collector that is restarted is found
/// again by the next message. Not thread-safe; the caller does not get cancelled.
class LogCollector {
public:
    static constexpr int kPatienceMs = 100;

    /// Sends one message, `head` followed by `text`. False when it is lost: nobody listens, the
    /// collector is stuck, or there is no descriptor left.
    bool send(std::string_view head, std::string_view text);

    void close() { socket_.reset(); }

private:
    bool open();

    UniqueFd socket_;
    bool isStuck_ = false;
};

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_LOG_COLLECTOR_H

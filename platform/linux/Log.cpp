#include "platform/Log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <string_view>

#include "platform/MutexGuard.h"
#include "platform/UniqueFd.h"
#include "platform/linux/FixedText.h"
#include "platform/linux/LogCollector.h"

// Not syslog(3): with a collector that exists but reads nothing it would hold the monitor for ever,
// and with it the supervision, the watchdog and the shutdown. The messages are the same.

namespace {

using platform::FixedText;

/// A message beyond this would be cut by every collector anyway.
constexpr std::size_t kLongestText = 65536;

/// Priority, date, ident and process id; an ident beyond this is cut.
using MessageHead = FixedText<256>;

// Guards the collector. Held for LogCollector::kPatienceMs at most.
pthread_mutex_t g_collectorMutex = PTHREAD_MUTEX_INITIALIZER;
platform::LogCollector g_collector;

std::string_view messageText(const char* text) {
    std::string_view message = text != nullptr ? text : "";
    if (!message.empty() && message.back() == '\n') {
        message.remove_suffix(1);
    }
    return message.substr(0, kLongestText);
}

/// "Nov 14 22:13:20 ", local time.
FixedText<32> dateText() {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    char date[32] = "";
    if (::localtime_r(&now, &parts) != nullptr) {
        (void)std::strftime(date, sizeof date, "%h %e %T ", &parts); // "" where it does not fit
    }
    FixedText<32> text;
    text.add(date);
    return text;
}

/// "Ovard[1234]: ".
MessageHead senderText(const zor_log& handle) {
    MessageHead text;
    text.add(handle.ident);
    if ((handle.options & LOG_PID) != 0) {
        text.add("[").addNumber(::getpid()).add("]");
    }
    text.add(": ");
    return text;
}

bool sendToCollector(int priority, std::string_view dateAndSender, std::string_view text) {
    MessageHead head;
    head.add("<").addNumber(priority).add(">").add(dateAndSender);
    const platform::MutexGuard guard(g_collectorMutex);
    return g_collector.send(head.view(), text);
}

/// Writes the three texts to a terminal or file at once.
void writeLine(int descriptor, std::string_view head, std::string_view text, std::string_view end) {
    const iovec parts[] = {{const_cast<char*>(head.data()), head.size()},
                           {const_cast<char*>(text.data()), text.size()},
                           {const_cast<char*>(end.data()), end.size()}};
    (void)!::writev(descriptor, parts, 3); // the last resort has no other one
}

void writeToSystemConsole(std::string_view sender, std::string_view text) {
    const platform::UniqueFd console(
        ::open("/dev/console", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (console.valid()) {
        writeLine(console.get(), sender, text, "\r\n");
    }
}

} // namespace

int open_zor_log(zor_log* handle, const char* ident, int options, int facility) {
    if (handle == nullptr || ident == nullptr) {
        return -1;
    }
    *handle = {ident, options, facility, 1};
    return 0;
}

int write_zor_log(const zor_log& handle, int level, const char* text, int) {
    if (handle.opened == 0) {
        return -1;
    }
    const std::string_view message = messageText(text);
    const MessageHead sender = senderText(handle);
    MessageHead head;
    head.add(dateText().view()).add(sender.view());
    if ((handle.options & LOG_PERROR) != 0) {
        writeLine(STDERR_FILENO, sender.view(), message, "\n");
    }
    const int priority = (handle.facility & LOG_FACMASK) | (level & LOG_PRIMASK);
    if (!sendToCollector(priority, head.view(), message) && (handle.options & LOG_CONS) != 0) {
        writeToSystemConsole(sender.view(), message);
    }
    return 0;
}

int close_zor_log(zor_log* handle) {
    if (handle == nullptr || handle->opened == 0) {
        return -1;
    }
    *handle = {};
    const platform::MutexGuard guard(g_collectorMutex);
    g_collector.close();
    return 0;
}

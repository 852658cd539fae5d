#include "client/ovardctl/Sending.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/UniqueFd.h"

namespace ovardctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

platform::UniqueFd checked(int fd, const char* what) {
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return platform::UniqueFd(fd);
}

/// What both threads work with; whichever is the last frees it.
struct Exchange {
    explicit Exchange(const CommandLine& commandLine)
        : socketPath(commandLine.socketPath)
        , timeoutMs(commandLine.timeoutSec * 1000)
        , request(commandLine.request)
        , done(checked(::eventfd(0, EFD_CLOEXEC), "cannot wait for the reply")) {}

    const std::string socketPath;
    const std::int32_t timeoutMs;
    const reqcmd request;
    std::promise<Sending> result;
    platform::UniqueFd done; ///< readable once the result is there
};

void carryOut(const std::shared_ptr<Exchange>& exchange) {
    const ovard_client::Endpoint endpoint{exchange->socketPath.c_str(), exchange->timeoutMs};
    Sending sending;
    sending.outcome = ovard_client::sendRequest(&endpoint, &exchange->request, &sending.reply);
    exchange->result.set_value(sending);
    (void)::eventfd_write(exchange->done.get(), 1); // cannot fail: it is the only one
}

/// Takes SIGINT by a descriptor while it lives. A program that ignores the signal, as those that a
/// shell runs in the background do, goes on to ignore it.
class InterruptWatch {
public:
    InterruptWatch() {
        struct sigaction present = {};
        if (::sigaction(SIGINT, nullptr, &present) == 0 && present.sa_handler == SIG_IGN) {
            return;
        }
        sigset_t interrupt;
        (void)::sigemptyset(&interrupt);
        (void)::sigaddset(&interrupt, SIGINT);
        fd_ = checked(::signalfd(-1, &interrupt, SFD_CLOEXEC), "cannot wait for signals");
        (void)::pthread_sigmask(SIG_BLOCK, &interrupt, &before_); // fails for wrong arguments only
    }
    ~InterruptWatch() {
        if (fd_.valid()) {
            fd_.reset();
            (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        }
    }
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    /// The descriptor, which is readable once the signal has come; -1 when it is ignored.
    int fd() const { return fd_.get(); }

    /// Takes the signal that has come, so that it does nothing more.
    void consume() const {
        signalfd_siginfo facts;
        (void)!::read(fd_.get(), &facts, sizeof facts); // it is there
    }

private:
    platform::UniqueFd fd_;
    sigset_t before_{};
};

int untilNextSecond(Clock::time_point begin) {
    const auto passed = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    return 1000 - static_cast<int>(passed.count() % 1000);
}

/// Waits for the outcome, ticking; false when SIGINT came first.
bool waitForOutcome(const Exchange& exchange, const InterruptWatch& interrupt,
                    const std::function<void(std::int64_t)>& tick) {
    const Clock::time_point begin = Clock::now();
    for (;;) {
        pollfd entries[] = {{exchange.done.get(), POLLIN, 0}, {interrupt.fd(), POLLIN, 0}};
        const int ready = ::poll(entries, 2, untilNextSecond(begin));
        if (ready == 0) {
            tick(std::chrono::duration_cast<seconds>(Clock::now() - begin).count());
        } else if (ready > 0 && entries[0].revents != 0) {
            return true;
        } else if (ready > 0) {
            interrupt.consume();
            return false;
        }
    }
}

} // namespace

Sending sendWatched(const CommandLine& commandLine,
                    const std::function<void(std::int64_t elapsedSec)>& tick) {
    const auto exchange = std::make_shared<Exchange>(commandLine);
    const InterruptWatch interrupt;
    std::thread(carryOut, exchange).detach();
    if (waitForOutcome(*exchange, interrupt, tick)) {
        return exchange->result.get_future().get();
    }
    Sending sending;
    sending.isInterrupted = true;
    return sending;
}

} // namespace ovardctl

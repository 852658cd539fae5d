#include "platform/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Time.h"

namespace {

using namespace testsupport;

// syslog's option bits: a copy on standard error makes the log visible without a log daemon.
constexpr int kWithPid = 0x01;
constexpr int kToStandardError = 0x20;
constexpr int kLocal2 = 144;

class DaemonLog : public testing::Test {
protected:
    ~DaemonLog() override { (void)close_zor_log(&log_); }

    /// What a log that is open with `options` prints for `text`.
    std::string printed(const char* text, int options = kToStandardError) {
        EXPECT_EQ(open_zor_log(&log_, "Ovard", options, kLocal2), 0);
        const CapturedDescriptor errors(STDERR_FILENO);
        EXPECT_EQ(write_zor_log(log_, kLogInfo, text, 0), 0);
        return errors.text();
    }

    zor_log log_;
};

TEST_F(DaemonLog, IsHarmlessWhenItWasNeverOpened) {
    const CapturedDescriptor errors(STDERR_FILENO);
    EXPECT_EQ(write_zor_log(log_, kLogError, "text", 0), -1);
    EXPECT_EQ(write_zor_log(zor_log(), kLogError, nullptr, 0), -1);
    EXPECT_EQ(close_zor_log(&log_), -1);
    EXPECT_EQ(close_zor_log(nullptr), -1);
    EXPECT_EQ(errors.text(), "");
}

TEST_F(DaemonLog, CannotBeOpenedWithoutHandleOrIdent) {
    EXPECT_EQ(open_zor_log(nullptr, "Ovard", 0, kLocal2), -1);
    EXPECT_EQ(open_zor_log(&log_, nullptr, 0, kLocal2), -1);
    EXPECT_EQ(log_.opened, 0);
}

TEST_F(DaemonLog, WritesItsIdentBeforeTheText) {
    EXPECT_EQ(printed("App monitor started"), "Ovard: App monitor started\n");
}

TEST_F(DaemonLog, WritesThePidWhereTheOptionsSaySo) {
    EXPECT_EQ(printed("text", kToStandardError | kWithPid),
              "Ovard[" + std::to_string(::getpid()) + "]: text\n");
}

TEST_F(DaemonLog, TakesTheTextForNoFormat) {
    EXPECT_EQ(printed("100%s %d %n %"), "Ovard: 100%s %d %n %\n");
}

TEST_F(DaemonLog, WritesAnEmptyLineForNoText) {
    EXPECT_EQ(printed(""), "Ovard: \n");
    EXPECT_EQ(printed("\n"), "Ovard: \n");
    EXPECT_EQ(printed(nullptr), "Ovard: \n");
}

TEST_F(DaemonLog, WritesLongTextsWhole) {
    const std::string text(2047, 'x');
    EXPECT_EQ(printed(text.c_str()), "Ovard: " + text + "\n");
    const std::string huge(200000, 'y');
    EXPECT_EQ(printed(huge.c_str()), "Ovard: " + std::string(65536, 'y') + "\n");
}

TEST_F(DaemonLog, WritesEveryLevel) {
    ASSERT_EQ(open_zor_log(&log_, "Ovard", kToStandardError, kLocal2), 0);
    const CapturedDescriptor errors(STDERR_FILENO);
    for (const int level : {kLogError, kLogInfo, kLogDebug, 1000, -1}) {
        EXPECT_EQ(write_zor_log(log_, level, "x", 0), 0) << level;
    }
    EXPECT_EQ(errors.text(), "Ovard: x\nOvard: x\nOvard: x\nOvard: x\nOvard: x\n");
}

TEST_F(DaemonLog, WritesThroughACopyOfTheHandle) {
    ASSERT_EQ(open_zor_log(&log_, "Ovard", kToStandardError, kLocal2), 0);
    const zor_log copy = log_;
    EXPECT_STREQ(copy.ident, "Ovard");
    EXPECT_EQ(copy.options, kToStandardError);
    EXPECT_EQ(copy.facility, kLocal2);
    const CapturedDescriptor errors(STDERR_FILENO);
    EXPECT_EQ(write_zor_log(copy, kLogInfo, "copied", 0), 0);
    EXPECT_EQ(errors.text(), "Ovard: copied\n");
}

TEST_F(DaemonLog, IsClosedOnce) {
    ASSERT_EQ(open_zor_log(&log_, "Ovard", kToStandardError, kLocal2), 0);
    EXPECT_EQ(close_zor_log(&log_), 0);
    EXPECT_EQ(log_.opened, 0);
    EXPECT_EQ(log_.ident, nullptr);
    EXPECT_EQ(close_zor_log(&log_), -1);
    const CapturedDescriptor errors(STDERR_FILENO);
    EXPECT_EQ(write_zor_log(log_, kLogInfo, "late", 0), -1);
    EXPECT_EQ(errors.text(), "");
}

// --- what the collector gets ---

constexpr int kNoLogSocket = 100;

/// The bytes of one message on its way to the log daemon.
struct Message {
    char bytes[4096] = "";
};

/// Gives this process a /dev of its own, without a log socket; false when that is not allowed.
bool enterPrivateDevices() {
    const bool isAlone = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    return isAlone && ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

/// Binds a socket of `type` to /dev/log; a stream listens.
platform::UniqueFd bindLogSocket(int type = SOCK_DGRAM) {
    (void)::unlink("/dev/log");
    platform::UniqueFd receiver(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (::bind(receiver.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (type == SOCK_STREAM && ::listen(receiver.get(), 5) != 0)) {
        receiver.reset();
    }
    return receiver;
}

bool isReadable(int fd, int timeoutMs) {
    pollfd entries[] = {{fd, POLLIN, 0}};
    return ::poll(entries, 1, timeoutMs) == 1;
}

/// The next message at `receiver`, "none" when there is none within 5 seconds.
std::string receiveMessage(int receiver, int timeoutMs = 5000) {
    Message message;
    if (!isReadable(receiver, timeoutMs)) {
        return "none";
    }
    const ssize_t size = ::recv(receiver, message.bytes, sizeof message.bytes, 0);
    return size >= 0 ? std::string(message.bytes, static_cast<std::size_t>(size)) : "error";
}

/// Runs `body` in a child with a /dev of its own: the number of the check that failed, 0 for none,
/// kNoLogSocket when the machine does not let the test have one.
template <typename Body> int runWithPrivateDevices(Body body) {
    return runInChild([&] { return enterPrivateDevices() ? body() : kNoLogSocket; });
}

#define EXPECT_NO_FAILED_CHECK(expression)                                                         \
    do {                                                                                           \
        const int failed = (expression);                                                           \
        if (failed == kNoLogSocket) {                                                              \
            GTEST_SKIP() << "no mount namespace of its own";                                       \
        }                                                                                          \
        EXPECT_EQ(failed, 0);                                                                      \
    } while (false)

/// The message that a log daemon gets for `text`, without its date; "none" when the machine does
/// not let the test have a log socket.
std::string sentMessage(int options, int level, const char* text) {
    const Shared<Message> message;
    const int result = runWithPrivateDevices([&] {
        const platform::UniqueFd receiver = bindLogSocket();
        zor_log log;
        if (open_zor_log(&log, "Ovard", options, kLocal2) != 0 ||
            write_zor_log(log, level, text, 0) != 0) {
            return 1;
        }
        const std::string sent = receiveMessage(receiver.get());
        sent.copy(message->bytes, sizeof message->bytes - 1);
        return 0;
    });
    if (result == kNoLogSocket) {
        return "none";
    }
    EXPECT_EQ(result, 0);
    std::string sent = message->bytes;
    const std::size_t priority = sent.find('>');
    EXPECT_NE(priority, std::string::npos) << sent;
    constexpr std::size_t kDateLength = 16; // "Nov 14 22:13:20 "
    return sent.erase(priority + 1, kDateLength);
}

TEST(LogMessage, CarriesFacilityAndLevel) {
    if (sentMessage(0, kLogInfo, "x") == "none") {
        GTEST_SKIP() << "no mount namespace of its own";
    }
    EXPECT_EQ(sentMessage(0, kLogError, "bind error, exit"), "<147>Ovard: bind error, exit");
    EXPECT_EQ(sentMessage(0, kLogInfo, "App monitor started"), "<150>Ovard: App monitor started");
    EXPECT_EQ(sentMessage(0, kLogDebug, "kicked watchdog"), "<151>Ovard: kicked watchdog");
}

TEST(LogMessage, LosesOneTrailingLineFeed) {
    if (sentMessage(0, kLogInfo, "x") == "none") {
        GTEST_SKIP() << "no mount namespace of its own";
    }
    EXPECT_EQ(sentMessage(0, kLogInfo, "fork2: errno=7\n"), "<150>Ovard: fork2: errno=7");
    EXPECT_EQ(sentMessage(0, kLogInfo, "a\n\n"), "<150>Ovard: a\n");
    EXPECT_EQ(sentMessage(0, kLogInfo, "\nFatal Error\n"), "<150>Ovard: \nFatal Error");
}

// The form of RFC 3164, section 4.1.2: month, day padded with a blank, local time.
TEST(LogMessage, CarriesTheLocalTime) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        ::setenv("TZ", "TST-5", 1); // five hours ahead
        ::tzset();                  // an earlier test may have made use of the real one
        const platform::UniqueFd receiver = bindLogSocket();
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        const std::time_t before = std::time(nullptr) + 5 * 3600L;
        (void)write_zor_log(log, kLogInfo, "x", 0);
        const std::string sent = receiveMessage(receiver.get());
        for (const std::time_t second : {before, before + 1}) {
            std::tm parts = {};
            char expected[64];
            ::gmtime_r(&second, &parts);
            std::strftime(expected, sizeof expected, "<150>%b %e %H:%M:%S Ovard: x", &parts);
            if (sent == expected) {
                return 0;
            }
        }
        return 1;
    }));
}

TEST(LogMessage, ReachesACollectorThatListensToAStream) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        const platform::UniqueFd listener = bindLogSocket(SOCK_STREAM);
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        (void)write_zor_log(log, kLogInfo, "streamed", 0);
        if (!isReadable(listener.get(), 5000)) {
            return 1;
        }
        const platform::UniqueFd connection(::accept(listener.get(), nullptr, nullptr));
        const std::string sent = receiveMessage(connection.get());
        const std::string end = std::string("Ovard: streamed") + '\0';
        return sent.size() > end.size() && sent.substr(sent.size() - end.size()) == end ? 0 : 2;
    }));
}

TEST(LogMessage, FindsACollectorThatComesLaterOrIsRestarted) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        (void)write_zor_log(log, kLogInfo, "nobody listens", 0);
        for (const char* text : {"first", "second"}) {
            const platform::UniqueFd receiver = bindLogSocket();
            (void)write_zor_log(log, kLogInfo, text, 0);
            if (receiveMessage(receiver.get()).find(text) == std::string::npos) {
                return 1;
            }
        }
        return 0;
    }));
}

TEST(LogMessage, GoesToTheConsoleWhenNobodyListensAndTheOptionsSaySo) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        constexpr int kToConsole = 0x02;
        writeText("/dev/console", "");
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        (void)write_zor_log(log, kLogInfo, "lost", 0);
        if (!readText("/dev/console").empty()) {
            return 1;
        }
        (void)open_zor_log(&log, "Ovard", kToConsole, kLocal2);
        (void)write_zor_log(log, kLogInfo, "kept", 0);
        return readText("/dev/console") == "Ovard: kept\r\n" ? 0 : 2;
    }));
}

/// Milliseconds that `count` messages take.
std::int64_t spanOfMessages(const zor_log& log, int count) {
    const std::int64_t start = platform::monotonicMilliseconds();
    for (int message = 0; message < count; ++message) {
        (void)write_zor_log(log, kLogInfo, std::string(2000, 'x').c_str(), 0);
    }
    return platform::monotonicMilliseconds() - start;
}

TEST(LogMessage, IsNotHeldUpByACollectorThatReadsNothing) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        const platform::UniqueFd receiver = bindLogSocket();
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        // More than any queue holds. Waiting for each of them would take minutes.
        if (spanOfMessages(log, 5000) > 5000) {
            return 1;
        }
        while (receiveMessage(receiver.get(), 0) != "none") {
        }
        (void)write_zor_log(log, kLogInfo, "read again", 0);
        return receiveMessage(receiver.get()).find("read again") != std::string::npos ? 0 : 2;
    }));
}

TEST(LogMessage, IsNotHeldUpWhileSignalsKeepComing) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {{0, 10000}, {0, 10000}}; // ten times within the patience
        ::setitimer(ITIMER_REAL, &often, nullptr);
        const platform::UniqueFd receiver = bindLogSocket();
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        return spanOfMessages(log, 1000) < 5000 ? 0 : 1;
    }));
}

TEST(LogMessage, WaitsForACollectorThatIsOnlySlow) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        constexpr int kMessages = 1000;
        const platform::UniqueFd receiver = bindLogSocket();
        std::atomic<int> received{0};
        std::thread collector([&] {
            while (received < kMessages && receiveMessage(receiver.get()) != "none") {
                ++received;
                ::usleep(500);
            }
        });
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        (void)spanOfMessages(log, kMessages);
        collector.join();
        return received == kMessages ? 0 : 1;
    }));
}

TEST(LogMessage, DescriptorIsClosedWithTheLogAndNotInherited) {
    EXPECT_NO_FAILED_CHECK(runWithPrivateDevices([] {
        const platform::UniqueFd receiver = bindLogSocket();
        const int next = ::dup(0);
        ::close(next);
        zor_log log;
        (void)open_zor_log(&log, "Ovard", 0, kLocal2);
        (void)write_zor_log(log, kLogInfo, "x", 0);
        if (::fcntl(next, F_GETFD) != FD_CLOEXEC) {
            return 1;
        }
        (void)close_zor_log(&log);
        return ::fcntl(next, F_GETFD) < 0 ? 0 : 2;
    }));
}

} // namespace

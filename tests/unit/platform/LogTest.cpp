#include "platform/Log.h"

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"

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

constexpr int kNoLogSocket = 100;

/// The bytes of one message on its way to the log daemon.
struct Message {
    char bytes[4096] = "";
};

/// Binds a log socket of this process's own over the machine's; invalid when that is not allowed.
platform::UniqueFd bindPrivateLogSocket() {
    const bool isAlone = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    if (!isAlone || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
        return {};
    }
    platform::UniqueFd receiver(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (::bind(receiver.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        receiver.reset();
    }
    return receiver;
}

/// The message that a log daemon gets for `text`, without its date; "none" when the machine does
/// not let the test have a log socket.
std::string sentMessage(int options, int level, const char* text) {
    const Shared<Message> message;
    const int result = runInChild([&] {
        const platform::UniqueFd receiver = bindPrivateLogSocket();
        if (!receiver.valid()) {
            return kNoLogSocket;
        }
        zor_log log;
        if (open_zor_log(&log, "Ovard", options, kLocal2) != 0 ||
            write_zor_log(log, level, text, 0) != 0) {
            return 1;
        }
        const pollfd entry = {receiver.get(), POLLIN, 0};
        pollfd entries[] = {entry};
        if (::poll(entries, 1, 5000) != 1) {
            return 2;
        }
        return ::recv(receiver.get(), message->bytes, sizeof message->bytes - 1, 0) > 0 ? 0 : 3;
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

} // namespace

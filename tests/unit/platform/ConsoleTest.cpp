#include "platform/Console.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;

TEST(Console, PrintsTheTextAsItStands) {
    const CapturedDescriptor output(STDOUT_FILENO);
    platform::printConsole("a %s\tb");
    platform::printConsole("");
    platform::printConsoleLine("c");
    EXPECT_EQ(output.text(), "a %s\tbc\n");
}

TEST(Console, PrintsMoreThanAPipeHolds) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const std::string text(200000, 'x');
    const ChildGuard child(startChild([&] {
        ::close(ends[0]);
        ::dup2(ends[1], STDOUT_FILENO);
        platform::printConsole(text);
        return 0;
    }));
    ::close(ends[1]);
    const platform::UniqueFd reader(ends[0]);
    std::string read(text.size() + 1, '\0');
    EXPECT_EQ(platform::readFully(reader.get(), read.data(), read.size()),
              static_cast<ssize_t>(text.size()));
}

TEST(Console, DropsWhatAReaderDoesNotTakeWithinHalfASecond) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const platform::UniqueFd reader(ends[0]);
    const auto begin = platform::monotonicMilliseconds();
    EXPECT_EQ(runInChild([&] {
                  ::dup2(ends[1], STDOUT_FILENO);
                  platform::printConsole(std::string(200000, 'x'));
                  platform::printConsole(std::string(200000, 'x'));
                  return 0;
              }),
              0);
    const auto spanMs = platform::monotonicMilliseconds() - begin;
    ::close(ends[1]);
    EXPECT_GE(spanMs, 500);
    EXPECT_LT(spanMs, 950) << "the second text must not wait again";
}

TEST(Console, DoesNotWaitLongerWhenHandlersInterruptIt) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const platform::UniqueFd reader(ends[0]);
    const auto begin = platform::monotonicMilliseconds();
    EXPECT_EQ(runInChild([&] {
                  ::dup2(ends[1], STDOUT_FILENO);
                  ::signal(SIGALRM, [](int) {});
                  const itimerval often = {{0, 20000}, {0, 20000}};
                  ::setitimer(ITIMER_REAL, &often, nullptr);
                  platform::printConsole(std::string(200000, 'x'));
                  return 0;
              }),
              0);
    ::close(ends[1]);
    EXPECT_LT(platform::monotonicMilliseconds() - begin, 950);
}

TEST(Console, DoesNotWaitForATerminalThatNobodyReads) {
    const platform::UniqueFd reader(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(reader.valid());
    ASSERT_EQ(::grantpt(reader.get()), 0);
    ASSERT_EQ(::unlockpt(reader.get()), 0);
    const platform::UniqueFd terminal(
        ::open(::ptsname(reader.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.valid());
    const auto begin = platform::monotonicMilliseconds();
    EXPECT_EQ(runInChild([&] {
                  ::dup2(terminal.get(), STDOUT_FILENO);
                  for (int line = 0; line < 100; ++line) {
                      platform::printConsole(std::string(1001, 'x'));
                  }
                  return ::fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK;
              }),
              0)
        << "the flags of the shared terminal must stay";
    // The terminal may make room once or twice as it passes the text on; 100 waits would be 50 s.
    EXPECT_LT(platform::monotonicMilliseconds() - begin, 5000);
}

TEST(Console, PrintsErrorsLikePerror) {
    const CapturedDescriptor output(STDERR_FILENO);
    errno = ENOENT;
    platform::printError("remove socket path error");
    EXPECT_EQ(errno, ENOENT);
    errno = EAGAIN;
    platform::printError("fcntl");
    errno = 0;
    platform::printError("bind error");
    EXPECT_EQ(output.text(), "remove socket path error: No such file or directory\n"
                             "fcntl: Resource temporarily unavailable\n"
                             "bind error: Success\n");
}

TEST(Console, PrintsErrorsWithoutANumberOfTheLibrary) {
    const CapturedDescriptor output(STDERR_FILENO);
    errno = 9999;
    platform::printError("x");
    errno = -1;
    platform::printError("y");
    EXPECT_EQ(output.text(), "x: Unknown error 9999\ny: Unknown error -1\n");
}

TEST(Console, PrintsTheErrorAloneWithoutAText) {
    const CapturedDescriptor output(STDERR_FILENO);
    errno = EINVAL;
    platform::printError("");
    platform::printError(nullptr);
    EXPECT_EQ(output.text(), "Invalid argument\nInvalid argument\n");
}

TEST(Console, PrintsTextOnStandardErrorAsItStands) {
    const CapturedDescriptor output(STDERR_FILENO);
    platform::printErrorText("Error: %d\n");
    EXPECT_EQ(output.text(), "Error: %d\n");
}

TEST(Console, IgnoresFailuresAndKeepsErrno) {
    EXPECT_EQ(runInChild([] {
                  ::close(STDOUT_FILENO);
                  ::close(STDERR_FILENO);
                  errno = ENOENT;
                  platform::printConsole("lost");
                  platform::printErrorText("lost");
                  platform::printError("lost");
                  return errno == ENOENT ? 0 : 1;
              }),
              0);
}

} // namespace

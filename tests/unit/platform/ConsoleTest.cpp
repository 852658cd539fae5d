#include "platform/Console.h"

#include <fcntl.h>
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

TEST(Console, DropsWhatAReaderDoesNotTakeWithinASecond) {
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
    EXPECT_GE(spanMs, 1000);
    EXPECT_LT(spanMs, 1900) << "the second text must not wait again";
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

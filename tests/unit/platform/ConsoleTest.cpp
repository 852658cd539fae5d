#include "platform/Console.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Settings.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/Wait.h"

namespace {

using namespace testsupport;

/// Milliseconds that printing `text` takes.
std::int64_t spanOfPrinting(const std::string& text) {
    const auto begin = platform::monotonicMilliseconds();
    platform::printConsole(text);
    return platform::monotonicMilliseconds() - begin;
}

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
    const platform::UniqueFd writer(ends[1]);
    EXPECT_EQ(runInChild([&] {
                  ::dup2(writer.get(), STDOUT_FILENO);
                  const std::string much(200000, 'x');
                  const auto span = spanOfPrinting(much);
                  if (span < 499 || span > 3000) {
                      return 1;
                  }
                  return spanOfPrinting(much) < 450 ? 0 : 2; // it is not waited for again
              }),
              0);
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

// --- a pipe that cannot be opened once more ---

/// A pipe that holds nothing more, and whose reader takes nothing.
struct FullPipe {
    FullPipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        ::fcntl(writer.get(), F_SETFL, O_NONBLOCK);
        const std::string page(4096, 'f');
        while (::write(writer.get(), page.data(), page.size()) > 0) {
        }
        ::fcntl(writer.get(), F_SETFL, 0);
    }
    platform::UniqueFd reader;
    platform::UniqueFd writer;
};

/// No descriptor can be opened any more in this process.
bool exhaustDescriptors() {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && ::open("/dev/null", O_RDONLY) == -1;
}

/// Runs `body` in a child whose standard output is a full pipe that cannot be opened once more. A
/// child that hangs is ended by SIGALRM.
template <typename Body> int runBeforeAFullPipe(Body body) {
    const FullPipe pipe;
    return runInChild([&] {
        ::dup2(pipe.writer.get(), STDOUT_FILENO);
        if (!exhaustDescriptors()) {
            return 100;
        }
        ::alarm(10);
        return body();
    });
}

TEST(Console, FullPipeThatCannotBeReopenedHoldsItForHalfASecond) {
    EXPECT_EQ(runBeforeAFullPipe([] {
                  const auto span = spanOfPrinting("x");
                  if (span < 499 || span > 3000) {
                      return 1;
                  }
                  return spanOfPrinting("y") < 450 ? 0 : 2; // it is not waited for again
              }),
              0);
}

TEST(Console, LongTextFillsAPipeThatCannotBeReopenedAndIsDroppedThere) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const platform::UniqueFd reader(ends[0]);
    const platform::UniqueFd writer(ends[1]);
    EXPECT_EQ(runInChild([&] {
                  ::dup2(writer.get(), STDOUT_FILENO);
                  if (!exhaustDescriptors()) {
                      return 100;
                  }
                  ::alarm(10);
                  const auto span = spanOfPrinting(std::string(200000, 'x'));
                  return span >= 499 && span <= 3000 ? 0 : 1;
              }),
              0);
}

TEST(Console, FullPipeThatCannotBeReopenedIsNotWaitedForDuringShutdown) {
    EXPECT_EQ(runBeforeAFullPipe([] {
                  g_bDaemonShutdown = -1;
                  return spanOfPrinting(std::string(200000, 'x')) < 450 ? 0 : 1;
              }),
              0);
}

TEST(Console, FullPipeThatCannotBeReopenedIsNotWaitedForWhenTerminationIsPending) {
    EXPECT_EQ(runBeforeAFullPipe([] {
                  sigset_t watched;
                  ::sigemptyset(&watched);
                  ::sigaddset(&watched, SIGUSR1);
                  ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
                  platform::watchForTermination(watched);
                  ::raise(SIGUSR1);
                  return spanOfPrinting(std::string(200000, 'x')) < 450 ? 0 : 1;
              }),
              0);
}

TEST(Console, WaitForAFullPipeEndsWhenTerminationIsAskedFor) {
    EXPECT_EQ(runBeforeAFullPipe([] {
                  ::signal(SIGUSR1, [](int) { g_bDaemonShutdown = -1; });
                  const pid_t self = ::getpid();
                  const ChildGuard sender(startChild([self] {
                      ::usleep(100000);
                      return ::kill(self, SIGUSR1);
                  }));
                  return spanOfPrinting("x") < 450 ? 0 : 1;
              }),
              0);
}

TEST(Console, ReopenedPipeIsNotWaitedForDuringShutdownEither) {
    const FullPipe pipe;
    EXPECT_EQ(runInChild([&] {
                  ::dup2(pipe.writer.get(), STDOUT_FILENO);
                  g_bDaemonShutdown = -1;
                  return spanOfPrinting(std::string(200000, 'x')) < 450 ? 0 : 1;
              }),
              0);
}

TEST(Console, PrintsTheWholeTextThroughAPipeThatCannotBeReopened) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::string text;
    for (int line = 0; line < 30000; ++line) {
        text += std::to_string(line) + "\n";
    }
    const ChildGuard child(startChild([&] {
        ::close(ends[0]);
        ::dup2(ends[1], STDOUT_FILENO);
        if (!exhaustDescriptors()) {
            return 1;
        }
        ::alarm(20);
        platform::printConsole(text);
        return 0;
    }));
    ::close(ends[1]);
    const platform::UniqueFd reader(ends[0]);
    std::string read;
    char block[3000]; // less than what one write brings
    ssize_t count = 0;
    while ((count = ::read(reader.get(), block, sizeof block)) > 0) {
        read.append(block, static_cast<std::size_t>(count));
        if (read.size() % 7 == 0) {
            ::usleep(2000); // now and then the pipe is full
        }
    }
    EXPECT_EQ(read, text);
}

TEST(Console, ReaderThatTakesOneTextIsWaitedForAgain) {
    EXPECT_EQ(runInChild([] {
                  int ends[2];
                  if (::pipe2(ends, O_CLOEXEC) != 0) {
                      return 1;
                  }
                  ::dup2(ends[1], STDOUT_FILENO);
                  const std::string much(200000, 'x');
                  const auto patient = spanOfPrinting(much);
                  const auto impatient = spanOfPrinting(much);
                  if (patient < 499 || impatient > 450) {
                      return 2;
                  }
                  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
                  char block[65536];
                  while (::read(ends[0], block, sizeof block) > 0) {
                  }
                  platform::printConsole("x");
                  return spanOfPrinting(much) >= 499 ? 0 : 3;
              }),
              0);
}

TEST(Console, EndsAtADeviceThatTakesNothing) {
    const pid_t gone = startChild([] {
        ::pause();
        return 0;
    });
    const std::string path = "/proc/" + std::to_string(gone) + "/mem";
    const platform::UniqueFd memory(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    ::kill(gone, SIGKILL);
    ASSERT_EQ(awaitChild(gone), 128 + SIGKILL);
    // The memory of a process that has gone takes nothing, and reports no error either.
    if (!memory.valid() || ::write(memory.get(), "x", 1) != 0) {
        GTEST_SKIP() << "nothing on this machine takes nothing";
    }
    EXPECT_EQ(runInChild([&] {
                  ::dup2(memory.get(), STDOUT_FILENO);
                  ::alarm(5);
                  errno = ENOENT;
                  platform::printConsole("lost");
                  return errno == ENOENT ? 0 : 1;
              }),
              0);
}

TEST(Console, PrintsToASocket) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const platform::UniqueFd reader(ends[0]);
    platform::UniqueFd writer(ends[1]);
    EXPECT_EQ(runInChild([&] {
                  ::dup2(writer.get(), STDOUT_FILENO);
                  platform::printConsole("text");
                  return 0;
              }),
              0);
    writer.reset();
    char text[8] = "";
    EXPECT_EQ(platform::readFully(reader.get(), text, sizeof text), 4);
    EXPECT_STREQ(text, "text");
}

} // namespace

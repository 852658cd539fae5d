// A process in which no descriptor, or only one, can be opened any more.

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Network.h"
#include "platform/Process.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/Wait.h"
#include "tests/unit/OpenDescriptors.h"

namespace {

using namespace testsupport;

/// Lets only descriptors below `end` be opened; those above stay open.
void allowDescriptorsBelow(int end) {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(end);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// The number that the next descriptor gets.
int nextDescriptor() {
    const platform::UniqueFd next(::dup(STDIN_FILENO));
    return next.get();
}

/// Runs `body` in a child that can open `count` more descriptors.
template <typename Body> int runWithDescriptors(int count, Body body) {
    return runInChild([&] {
        allowDescriptorsBelow(nextDescriptor() + count);
        return body();
    });
}

TEST(DescriptorShortage, LeavesTheListOfProcessesEmpty) {
    EXPECT_EQ(runWithDescriptors(0,
                                 [] {
                                     platform::ProcDirectory directory;
                                     platform::ProcDirectory::Entry entry = {};
                                     return directory.isOpen() || directory.next(entry) ? 1 : 0;
                                 }),
              0);
}

TEST(DescriptorShortage, HidesAnotherProcessOfTheSameName) {
    EXPECT_EQ(runWithDescriptors(0, [] { return process_comm_pid(0) == 0 ? 0 : 1; }), 0);
}

TEST(DescriptorShortage, LeavesAnAddressEmpty) {
    EXPECT_EQ(runWithDescriptors(0,
                                 [] {
                                     char text[INET6_ADDRSTRLEN] = "unchanged";
                                     const int result =
                                         getIpAddress("lo", AF_INET, text, sizeof text, 0, 0);
                                     return result == -1 && text[0] == '\0' ? 0 : 1;
                                 }),
              0);
}

/// An initialization mutex that can be had at once.
class FreeLock final : public InterprocessWaitable {
public:
    int tryAcquire() override { return 1; }
};

TEST(DescriptorShortage, LeavesTheDaemonWithTheLaunchersFiles) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer opens a pipe to look at an object";
#endif
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const platform::UniqueFd reader(ends[0]);
    platform::UniqueFd writer(ends[1]);
    EXPECT_EQ(runInChild([&] {
                  ::dup2(writer.get(), STDOUT_FILENO);
                  allowDescriptorsBelow(0);
                  const pid_t launcher = ::getpid();
                  FreeLock lock;
                  daemonize_withSTDFILE_waitforInterprocessNamedMutex(&lock);
                  if (::getpid() == launcher) {
                      return 99; // it may not go on
                  }
                  return ::write(STDOUT_FILENO, "d", 1) == 1 ? 0 : 1;
              }),
              0);
    writer.reset();
    char byte = 0;
    EXPECT_EQ(platform::readFully(reader.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'd');
}

// --- waits ---

TEST(DescriptorShortage, MakesAWaitFailThatTheSystemRefuses) {
    EXPECT_EQ(runInChild([] {
                  allowDescriptorsBelow(0); // ppoll takes no more entries than that
                  errno = 0;
                  const auto result = platform::waitReadable(STDIN_FILENO, 0);
                  return result == platform::WaitResult::Failed && errno == EINVAL ? 0 : 1;
              }),
              0);
}

TEST(DescriptorShortage, DoesNotKeepAWaitFromBeingEnded) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer opens a pipe to look at an object";
#endif
    constexpr int kLongMs = 20000;
    EXPECT_EQ(runWithDescriptors(1,
                                 [] {
                                     sigset_t none;
                                     ::sigemptyset(&none);
                                     const std::vector<int> before = openDescriptors();
                                     platform::watchForTermination(none);
                                     std::thread other([] {
                                         ::usleep(100000); // the sleep has begun
                                         platform::endWatchedWaits();
                                     });
                                     const auto begin = platform::monotonicMilliseconds();
                                     platform::sleepMilliseconds(kLongMs);
                                     other.join();
                                     if (platform::monotonicMilliseconds() - begin >= kLongMs) {
                                         return 1;
                                     }
                                     platform::stopWatchingForTermination();
                                     return openDescriptors() == before ? 0 : 2;
                                 }),
              0);
}

} // namespace

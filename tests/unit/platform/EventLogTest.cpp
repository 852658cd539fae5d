#include "platform/linux/EventLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/linux/Files.h"

namespace {

using namespace testsupport;

constexpr std::size_t kLimit = 1048576;

zortime8b timeOf(std::int64_t milliseconds) {
    zortime8b time;
    getZortime8BFromTimeStamp(&time, milliseconds);
    return time;
}

class EventLog : public testing::Test {
protected:
    int append(const char* text, const char* tag = "Ovard",
               std::int64_t milliseconds = 1700000000123) {
        return platform::appendEvent(log_.c_str(), tag, timeOf(milliseconds), text);
    }

    TemporaryDirectory directory_;
    std::string log_ = directory_.file("meter_events.log");
    std::string oldLog_ = log_ + ".1";
};

constexpr char kLine[] = "2023-11-14 22:13:20.123 Ovard: Application Monitor Started.\n";

TEST_F(EventLog, AppendsOneLinePerEvent) {
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
    EXPECT_EQ(append("Caught signal 15", "Other", 1700000000004), 0);
    EXPECT_EQ(readText(log_),
              std::string(kLine) + "2023-11-14 22:13:20.004 Other: Caught signal 15\n");
}

TEST_F(EventLog, PrintsEveryTime) {
    EXPECT_EQ(append("x", "T", 0), 0);
    EXPECT_EQ(append("x", "T", -1), 0);
    EXPECT_EQ(append("x", "T", 253402300799999), 0);
    EXPECT_EQ(readText(log_), "1970-01-01 00:00:00.000 T: x\n"
                              "1969-12-31 23:59:59.999 T: x\n"
                              "9999-12-31 23:59:59.999 T: x\n");
}

TEST_F(EventLog, AppendsBehindWhatOthersWrote) {
    writeText(log_, "other\n");
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), std::string("other\n") + kLine);
}

TEST_F(EventLog, PrintsMissingTextsAsEmptyOnes) {
    EXPECT_EQ(append(nullptr, nullptr), 0);
    EXPECT_EQ(append("", ""), 0);
    EXPECT_EQ(readText(log_), "2023-11-14 22:13:20.123 : \n2023-11-14 22:13:20.123 : \n");
}

TEST_F(EventLog, CutsTextsThatAreTooLong) {
    EXPECT_EQ(append(std::string(100000, 'x').c_str(), std::string(5000, 't').c_str()), 0);
    EXPECT_EQ(readText(log_), "2023-11-14 22:13:20.123 " + std::string(256, 't') + ": " +
                                  std::string(2048, 'x') + "\n");
}

/// While it lives, files of this process cannot grow beyond `size`.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t size)
        : action_(std::signal(SIGXFSZ, SIG_IGN)) {
        (void)::getrlimit(RLIMIT_FSIZE, &before_); // cannot fail
        const rlimit limit = {size, before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        (void)::setrlimit(RLIMIT_FSIZE, &before_); // it was allowed before
        (void)std::signal(SIGXFSZ, action_);       // as above
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit before_ = {};
    void (*action_)(int);
};

TEST_F(EventLog, LineThatFitsOnlyInPartIsTakenBack) {
    ASSERT_EQ(append("Application Monitor Started."), 0);
    for (const std::size_t room : {0U, 1U, 30U, static_cast<unsigned>(sizeof kLine) - 2U}) {
        const FileSizeLimit limit(sizeof kLine - 1 + room);
        errno = 0;
        EXPECT_NE(append("Application Monitor Started."), 0) << room;
        EXPECT_EQ(errno, room == 0 ? EFBIG : ENOSPC);
        EXPECT_EQ(readText(log_), kLine) << room;
    }
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), std::string(kLine) + kLine);
}

/// Write calls of this process so far; -1 where the kernel does not count them.
long writeCalls() {
    char buffer[512]; // without a stream, below which sanitizers make write calls of their own
    const ssize_t count = platform::readFileOnce("/proc/self/io", buffer, sizeof buffer);
    const std::string text(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
    const std::size_t label = text.find("syscw: ");
    return label == std::string::npos ? -1 : std::stol(text.substr(label + 7));
}

TEST_F(EventLog, WritesALineWithASingleCall) {
    const std::string path = log_;
    const std::string text(2048, 'x');
    const zortime8b time = timeOf(0);
    const long before = writeCalls();
    const int result = platform::appendEvent(path.c_str(), "Ovard", time, text.c_str());
    const long after = writeCalls();
    if (before < 0) {
        GTEST_SKIP() << "this kernel does not count write calls";
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(after, before + 1);
}

TEST_F(EventLog, HasItsModeUnderAnyMask) {
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const UmaskGuard guard(mask);
        ::unlink(log_.c_str());
        EXPECT_EQ(append("x"), 0);
        EXPECT_EQ(modeOf(log_), 0644U) << mask;
    }
}

TEST_F(EventLog, SettlesTheModeOfAnExistingFile) {
    writeText(log_, "");
    ASSERT_EQ(::chmod(log_.c_str(), 0666), 0);
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(modeOf(log_), 0644U);
}

TEST_F(EventLog, FillsTheFileUpToItsLimit) {
    const std::string old(kLimit - std::strlen(kLine), 'o');
    writeText(log_, old);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), old + kLine);
    EXPECT_FALSE(exists(oldLog_));
}

TEST_F(EventLog, StartsANewFileBeforeTheLimitIsPassed) {
    const std::string old(kLimit - std::strlen(kLine) + 1, 'o');
    writeText(log_, old);
    const UmaskGuard guard(077);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
    EXPECT_EQ(modeOf(log_), 0644U);
    EXPECT_EQ(readText(oldLog_), old);
}

TEST_F(EventLog, KeepsOneOldFile) {
    writeText(oldLog_, "ancient\n");
    const std::string old(kLimit, 'o');
    writeText(log_, old);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
    EXPECT_EQ(readText(oldLog_), old);
    EXPECT_FALSE(exists(log_ + ".2"));
    EXPECT_FALSE(exists(oldLog_ + ".1"));
}

TEST_F(EventLog, RetiresAFileThatIsFarBeyondTheLimit) {
    writeText(log_, "x");
    ASSERT_EQ(::truncate(log_.c_str(), off_t{5} << 30), 0); // a hole, no space is taken
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
}

TEST_F(EventLog, DoesNotGrowWhenTheOldFileCannotBeReplaced) {
    ASSERT_EQ(::mkdir(oldLog_.c_str(), 0755), 0);
    writeText(log_, std::string(kLimit, 'o'));
    EXPECT_EQ(append("x"), -1);
    EXPECT_EQ(readText(log_).size(), kLimit);
}

TEST_F(EventLog, ReplacesALinkInPlaceOfTheOldFileWithoutFollowingIt) {
    writeText(directory_.file("victim"), "precious");
    ASSERT_EQ(::symlink("victim", oldLog_.c_str()), 0);
    writeText(log_, std::string(kLimit, 'o'));
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(directory_.file("victim")), "precious");
    EXPECT_EQ(readText(log_), kLine);
}

TEST_F(EventLog, NeverFollowsALink) {
    writeText(directory_.file("victim"), "precious");
    ASSERT_EQ(::symlink("victim", log_.c_str()), 0);
    EXPECT_EQ(append("x"), -1);
    EXPECT_EQ(readText(directory_.file("victim")), "precious");
    ::unlink(log_.c_str());
    ASSERT_EQ(::symlink("nowhere", log_.c_str()), 0);
    EXPECT_EQ(append("x"), -1);
    EXPECT_FALSE(exists(directory_.file("nowhere")));
}

TEST_F(EventLog, DoesNotWaitForTheReaderOfAFifo) {
    ASSERT_EQ(::mkfifo(log_.c_str(), 0600), 0);
    EXPECT_EQ(append("x"), -1);
    const platform::UniqueFd reader(::open(log_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(append("x"), -1);
    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0) << "nothing was written into it";
}

TEST_F(EventLog, FailsWhereItCannotBeWritten) {
    ASSERT_EQ(::mkdir(log_.c_str(), 0755), 0);
    EXPECT_EQ(append("x"), -1) << "a directory";
    EXPECT_EQ(errno, EISDIR);
    const zortime8b time = timeOf(0);
    EXPECT_EQ(platform::appendEvent(directory_.file("missing/log").c_str(), "T", time, "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(platform::appendEvent("/dev/full", "T", time, "x"), -1);
    EXPECT_EQ(errno, EINVAL) << "no plain file";
    EXPECT_EQ(platform::appendEvent("", "T", time, "x"), -1);
}

TEST_F(EventLog, LeavesNoDescriptorOpen) {
    const int next = ::dup(0);
    ::close(next);
    writeText(log_, std::string(kLimit, 'o'));
    EXPECT_EQ(append("x"), 0);
    ASSERT_EQ(::symlink("x", directory_.file("link").c_str()), 0);
    (void)platform::appendEvent(directory_.file("link").c_str(), "T", timeOf(0), "x");
    (void)platform::appendEvent(directory_.path().c_str(), "T", timeOf(0), "x");
    EXPECT_EQ(platform::UniqueFd(::dup(0)).get(), next);
}

TEST_F(EventLog, KeepsTheLinesOfManyWritersWholeAcrossARotation) {
    constexpr int kWriters = 4;
    constexpr int kLinesEach = 100;
    writeText(log_, std::string(kLimit - 5000, 'o') + "\n");
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(startChild([&] {
            for (int line = 0; line < kLinesEach; ++line) {
                if (append(std::string(40, static_cast<char>('A' + writer)).c_str()) != 0) {
                    return 1;
                }
            }
            return 0;
        }));
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(awaitChild(writer), 0);
    }
    const std::string all = readText(oldLog_) + readText(log_);
    std::string rest = all.substr(all.find('\n') + 1);
    int lines = 0;
    while (!rest.empty()) {
        const std::string line = rest.substr(0, rest.find('\n') + 1);
        rest.erase(0, line.size());
        const char letter = line.size() > 31 ? line[31] : '?';
        ASSERT_EQ(line, "2023-11-14 22:13:20.123 Ovard: " + std::string(40, letter) + "\n");
        ++lines;
    }
    EXPECT_EQ(lines, kWriters * kLinesEach);
    EXPECT_LT(readText(log_).size(), kLimit / 2) << "the file was rotated once";
}

/// What a full log that is locked may still take, in bytes.
constexpr std::size_t kReserve = 65536;

/// A lock on a log that is never given back.
class LockedLog {
public:
    explicit LockedLog(const std::string& path)
        : log_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        EXPECT_EQ(::flock(log_.get(), LOCK_EX | LOCK_NB), 0);
    }

private:
    platform::UniqueFd log_;
};

TEST_F(EventLog, LockOfAnotherPutsTheRotationOff) {
    const std::string old(kLimit, 'o');
    writeText(log_, old);
    const LockedLog lock(log_);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), old + kLine);
    EXPECT_FALSE(exists(oldLog_));
}

TEST_F(EventLog, LockDoesNotMatterWhileThereIsRoom) {
    writeText(log_, "other\n");
    const LockedLog lock(log_);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), std::string("other\n") + kLine);
}

TEST_F(EventLog, LockIsHonouredUpTo64KibibytesBeyondTheLimit) {
    const std::string old(kLimit + kReserve - std::strlen(kLine), 'o');
    writeText(log_, old);
    const LockedLog lock(log_);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), old + kLine);
    EXPECT_FALSE(exists(oldLog_));
}

TEST_F(EventLog, LockThatIsNeverGivenBackStopsTheRotationNoLonger) {
    const std::string old(kLimit + kReserve, 'o');
    writeText(log_, old);
    const LockedLog lock(log_);
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
    EXPECT_EQ(readText(oldLog_), old);
}

TEST_F(EventLog, LogThatIsLockedForEverStaysWithinItsBounds) {
    writeText(log_, std::string(kLimit - 1000, 'o'));
    const LockedLog lock(log_);
    const std::string text(2048, 'x');
    for (int line = 0; line < 100; ++line) {
        ASSERT_EQ(append(text.c_str()), 0);
        ASSERT_LE(readText(log_).size(), kLimit + kReserve + 2100);
    }
    EXPECT_TRUE(exists(oldLog_));
    EXPECT_LT(readText(log_).size(), kLimit);
}

TEST_F(EventLog, LockThatWasGivenBackIsForgotten) {
    const std::string old(kLimit, 'o');
    writeText(log_, old);
    { const LockedLog lock(log_); }
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), kLine);
    EXPECT_EQ(readText(oldLog_), old);
}

TEST_F(EventLog, LockOfAnotherProcessCountsLikeOneOfAnotherDescriptor) {
    const std::string old(kLimit, 'o');
    writeText(log_, old);
    const Shared<std::atomic<bool>> locked;
    const ChildGuard holder(startChild([&] {
        const LockedLog lock(log_);
        *locked = true;
        ::pause();
        return 0;
    }));
    ASSERT_TRUE(eventually([&] { return locked->load(); }));
    EXPECT_EQ(append("Application Monitor Started."), 0);
    EXPECT_EQ(readText(log_), old + kLine);
    EXPECT_FALSE(exists(oldLog_));
}

} // namespace

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/unit/appmanager/RequestFileFixture.h"

namespace requestfiles {
namespace {

using testing::EndsWith;
using testing::SizeIs;
using testing::StartsWith;

/// The lines of a trace, each split into its leading number and the rest.
struct NumberedLine {
    int number;
    std::string rest;
};

std::vector<NumberedLine> numberedLines(const std::string& text) {
    std::vector<NumberedLine> lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        const std::string line = text.substr(begin, end - begin);
        lines.push_back({static_cast<int>(std::strtol(line.c_str(), nullptr, 10)),
                         line.substr(line.find(')'))});
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

// --- appending -----------------------------------------------------------------------------------

using AppendTest = RequestFileTest;

TEST_F(AppendTest, WithoutAPathDoesNothing) {
    verbose = 9;
    EXPECT_EQ(manager().appendAppConfigurationFile(nullptr, 0, makeRequest(0, "app")), -1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(AppendTest, WritesTheImageOfTheRecord) {
    reqcmd request;
    std::memset(&request, 0xA7, sizeof request);
    EXPECT_EQ(append(request), 0);
    EXPECT_EQ(fileContent(), imageOf(request));
}

TEST_F(AppendTest, AppendsAndNumbersTheLines) {
    verbose = 5;
    const reqcmd request = makeRequest(APPMONCTL_Restart, "app");
    EXPECT_EQ(append(request), 0);
    EXPECT_EQ(append(request), 0);
    EXPECT_EQ(fileContent(), imageOf(request) + imageOf(request));
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0].rest, ") writing to " + path_ + ", REQUEST_CMD={action=5,app}");
    EXPECT_EQ(lines[1].rest, lines[0].rest);
    EXPECT_EQ(lines[1].number, lines[0].number + 1);
    EXPECT_GE(lines[0].number, 1);
}

TEST_F(AppendTest, KeepsWhatTheFileHolds) {
    writeFile("before");
    EXPECT_EQ(append(makeRequest(0, "app")), 0);
    EXPECT_EQ(fileContent(), "before" + imageOf(makeRequest(0, "app")));
}

TEST_F(AppendTest, CreatesTheFileForOwnerAndGroup) {
    ::umask(0);
    EXPECT_EQ(append(makeRequest(0, "app")), 0);
    struct stat facts = {};
    ASSERT_EQ(::stat(path_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0660U);
}

TEST_F(AppendTest, IsSilentAtVerbosityFour) {
    verbose = 4;
    EXPECT_EQ(append(makeRequest(0, "app")), 0);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(AppendTest, YieldsOnceWhenAllGoesWell) {
    EXPECT_EQ(append(makeRequest(0, "app")), 0);
    EXPECT_EQ(world().count("yield"), 1U);
}

TEST_F(AppendTest, ReportsAFileThatCannotBeOpenedWhateverTheVerbosity) {
    verbose = 0;
    EXPECT_EQ(manager().appendAppConfigurationFile(kMissing, 0, makeRequest(APPMONCTL_Stop, "app")),
              -2);
    EXPECT_EQ(world().consoleText(), std::string("Error 2 opening ") + kMissing +
                                         " for appending REQUEST_CMD={action=1,app}\n");
    EXPECT_EQ(world().count("yield"), 3U);
    EXPECT_THAT(requests::logLines(), IsEmpty());
}

TEST_F(AppendTest, ReadsANameWithoutNulWithinItsBounds) {
    reqcmd request;
    std::memset(&request, 'n', sizeof request);
    request.action = -1;
    EXPECT_EQ(manager().appendAppConfigurationFile(kMissing, 0, request), -2);
    EXPECT_THAT(world().consoleText(), EndsWith("{action=-1," + std::string(64, 'n') + "}\n"));
}

class FailedWriteTest : public AppendTest, public testing::WithParamInterface<int> {};

TEST_P(FailedWriteTest, IsReportedAtEveryVerbosityButZero) {
    verbose = GetParam();
    EXPECT_EQ(manager().appendAppConfigurationFile("/dev/full", 0, makeRequest(4, "app")), 0);
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].rest, ") Error 28 writing to /dev/full, REQUEST_CMD={action=4,app}");
}

INSTANTIATE_TEST_SUITE_P(Verbosities, FailedWriteTest, testing::Values(-1, 1));

TEST_F(AppendTest, FailsSilentlyAtVerbosityZero) {
    verbose = 0;
    EXPECT_EQ(manager().appendAppConfigurationFile("/dev/full", 0, makeRequest(4, "app")), 0);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(AppendTest, NumbersAFailedWriteToo) {
    verbose = 5;
    EXPECT_EQ(manager().appendAppConfigurationFile("/dev/full", 0, makeRequest(4, "app")), 0);
    EXPECT_EQ(append(makeRequest(4, "app")), 0);
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[1].number, lines[0].number + 1);
}

TEST_F(AppendTest, NumbersNoFailedOpening) {
    verbose = 5;
    EXPECT_EQ(append(makeRequest(4, "app")), 0);
    const std::vector<NumberedLine> before = numberedLines(world().consoleText());
    EXPECT_EQ(manager().appendAppConfigurationFile(kMissing, 0, makeRequest(4, "app")), -2);
    world().forgetRecords();
    EXPECT_EQ(append(makeRequest(4, "app")), 0);
    const std::vector<NumberedLine> after = numberedLines(world().consoleText());
    ASSERT_THAT(before, SizeIs(1));
    ASSERT_THAT(after, SizeIs(1));
    EXPECT_EQ(after[0].number, before[0].number + 1);
}

TEST_F(AppendTest, ThirdAttemptToOpenCounts) {
    ASSERT_EQ(::rmdir(folder_.c_str()), 0);
    world().onCall = [this](const std::string& call) {
        if (call == "yield" && world().count("yield") == 2) {
            ASSERT_EQ(::mkdir(folder_.c_str(), 0700), 0);
        }
    };
    EXPECT_EQ(append(makeRequest(4, "late")), 0);
    world().onCall = nullptr;
    EXPECT_EQ(fileContent(), imageOf(makeRequest(4, "late")));
}

/// No file of this process grows beyond 100 bytes while it lives.
class ShortFiles {
public:
    ShortFiles()
        : savedHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit limit = saved_;
        limit.rlim_cur = 100;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ShortFiles() {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        (void)std::signal(SIGXFSZ, savedHandler_);
    }
    ShortFiles(const ShortFiles&) = delete;
    ShortFiles& operator=(const ShortFiles&) = delete;

private:
    void (*savedHandler_)(int);
    rlimit saved_ = {};
};

TEST_F(AppendTest, ShortWriteIsReportedAndStaysInTheFile) {
    verbose = 1;
    const reqcmd request = makeRequest(0, "app");
    {
        const ShortFiles limited;
        EXPECT_EQ(append(request), 0);
    }
    EXPECT_EQ(fileContent(), imageOf(request).substr(0, 100));
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0].rest, StartsWith(") Error "));
    EXPECT_THAT(lines[0].rest, EndsWith(" writing to " + path_ + ", REQUEST_CMD={action=0,app}"));
}

// The end of a fifo's last page takes what fits whole, and a single write is never cut: that of a
// record that does not fit leaves nothing behind, the first of several would.
TEST_F(AppendTest, WritesARecordWithOneCall) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd reader = platform::openFile(path_.c_str(), O_RDONLY);
    const platform::UniqueFd writer = platform::openFile(path_.c_str(), O_WRONLY);
    const int capacity = ::fcntl(writer.get(), F_SETPIPE_SZ, 1);
    ASSERT_GT(capacity, static_cast<int>(sizeof(reqcmd)));
    const std::string pending(static_cast<std::size_t>(capacity) - sizeof(reqcmd) + 1, 'x');
    ASSERT_EQ(::write(writer.get(), pending.data(), pending.size()),
              static_cast<ssize_t>(pending.size()));
    EXPECT_EQ(append(makeRequest(0, "app")), 0);
    int size = 0;
    ASSERT_EQ(::ioctl(reader.get(), FIONREAD, &size), 0);
    EXPECT_EQ(size, static_cast<int>(pending.size()));
}

// --- reading -------------------------------------------------------------------------------------

class ReadTest : public RequestFileTest {
protected:
    int read() { return readAppConfigurationFileList(path_.c_str(), 0, queue_); }
};

TEST_F(ReadTest, WithoutAPathDoesNothing) {
    EXPECT_EQ(readAppConfigurationFileList(nullptr, 0, queue_), -1);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(queue_, IsEmpty());
}

TEST_F(ReadTest, ReportsAFileThatCannotBeOpenedWhateverTheVerbosity) {
    verbose = 0;
    EXPECT_EQ(readAppConfigurationFileList(kMissing, 0, queue_), -2);
    EXPECT_EQ(world().consoleText(), std::string("Error 2 opening ") + kMissing + " for reading\n");
    EXPECT_EQ(world().count("yield"), 3U);
}

TEST_F(ReadTest, EmptyFileIsASuccess) {
    writeFile("");
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReadTest, TakesWholeRecordsAndIgnoresTheRest) {
    verbose = 5;
    const reqcmd first = makeRequest(APPMONCTL_Start, "one", "/bin/one");
    const reqcmd second = makeRequest(APPMONCTL_Stop, "two");
    writeFile(imageOf(first) + imageOf(second) + std::string(100, 'x'));
    EXPECT_EQ(read(), 0);
    ASSERT_THAT(queue_, SizeIs(2));
    EXPECT_EQ(imageOf(queue_[0]), imageOf(first));
    EXPECT_EQ(imageOf(queue_[1]), imageOf(second));
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0].rest, ") reading " + path_ + " REQUEST_CMD={action=0,one}");
    EXPECT_EQ(lines[1].rest, ") reading " + path_ + " REQUEST_CMD={action=1,two}");
    EXPECT_EQ(lines[1].number, lines[0].number + 1);
}

TEST_F(ReadTest, ReadsSilentlyAtVerbosityFour) {
    verbose = 4;
    writeFile(imageOf(makeRequest(0, "one")));
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, SizeIs(1));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReadTest, ThirdAttemptToOpenCounts) {
    world().onCall = [this](const std::string& call) {
        if (call == "yield" && world().count("yield") == 2) {
            writeFile(imageOf(makeRequest(0, "late")));
        }
    };
    EXPECT_EQ(read(), 0);
    world().onCall = nullptr;
    ASSERT_THAT(queue_, SizeIs(1));
    EXPECT_STREQ(queue_[0].name, "late");
}

TEST_F(ReadTest, FragmentAloneGivesNoRequest) {
    writeFile(std::string(sizeof(reqcmd) - 1, 'x'));
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, IsEmpty());
}

TEST_F(ReadTest, AppendsToTheQueueAndYieldsPerRecord) {
    queue_.push_back(makeRequest(0, "zero"));
    writeFile(imageOf(makeRequest(0, "one")) + imageOf(makeRequest(0, "two")));
    EXPECT_EQ(read(), 0);
    ASSERT_THAT(queue_, SizeIs(3));
    EXPECT_STREQ(queue_[0].name, "zero");
    EXPECT_STREQ(queue_[2].name, "two");
    EXPECT_EQ(world().count("yield"), 2U);
}

TEST_F(ReadTest, LeavesTheFileAsItIs) {
    const std::string content = imageOf(makeRequest(0, "one")) + "rest";
    writeFile(content);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(fileContent(), content);
}

TEST_F(ReadTest, ReadsBackWhatWasAppended) {
    reqcmd request;
    std::memset(&request, 0xC3, sizeof request);
    EXPECT_EQ(append(request), 0);
    EXPECT_EQ(append(makeRequest(3, "two")), 0);
    EXPECT_EQ(read(), 0);
    ASSERT_THAT(queue_, SizeIs(2));
    EXPECT_EQ(imageOf(queue_[0]), imageOf(request));
}

TEST_F(ReadTest, MisalignedRecordsStayMisaligned) {
    const std::string image = imageOf(makeRequest(APPMONCTL_Stop, "two"));
    writeFile(std::string(100, 'x') + image);
    EXPECT_EQ(read(), 0);
    ASSERT_THAT(queue_, SizeIs(1));
    EXPECT_EQ(imageOf(queue_[0]), (std::string(100, 'x') + image).substr(0, sizeof(reqcmd)));
}

TEST_F(ReadTest, ReadsANameWithoutNulWithinItsBounds) {
    verbose = 5;
    writeFile(std::string(sizeof(reqcmd), 'n'));
    EXPECT_EQ(read(), 0);
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0].rest, EndsWith("," + std::string(64, 'n') + "}"));
}

// --- what is no file -----------------------------------------------------------------------------

/// Records that are read at most, whatever the source.
constexpr std::size_t kMostRecords = 65536;

TEST_F(ReadTest, SourceWithoutEndGivesABoundedNumberOfRecords) {
    EXPECT_EQ(readAppConfigurationFileList("/dev/zero", 0, queue_), 0);
    ASSERT_THAT(queue_, SizeIs(kMostRecords));
    EXPECT_EQ(imageOf(queue_.front()), std::string(sizeof(reqcmd), '\0'));
    EXPECT_EQ(imageOf(queue_.back()), std::string(sizeof(reqcmd), '\0'));
}

TEST_F(ReadTest, LargestNumberOfRecordsIsReadWhole) {
    // Without a hole the file would take a lot of room.
    writeFile("");
    constexpr off_t kMore = (off_t{kMostRecords} + 10) * off_t{sizeof(reqcmd)};
    ASSERT_EQ(::truncate(path_.c_str(), kMore), 0);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, SizeIs(kMostRecords));
}

TEST_F(ReadTest, WithoutMemoryTheRestIsLeftAndThatIsShown) {
    world().mallocs.failCalls = {3};
    EXPECT_EQ(readAppConfigurationFileList("/dev/zero", 0, queue_), 0);
    ASSERT_FALSE(queue_.empty());
    EXPECT_LT(queue_.size() * sizeof(reqcmd), 2U * 65536U) << "what was left has been used up";
    EXPECT_EQ(world().consoleText(),
              "Error 12 reading /dev/zero after " + std::to_string(queue_.size()) + " requests\n");
}

TEST_F(ReadTest, FolderGivesNoRequest) {
    ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, IsEmpty());
}

TEST_F(ReadTest, FifoWithoutWriterIsLikeAnEmptyFile) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(queue_, IsEmpty());
}

TEST_F(ReadTest, FifoGivesTheWholeRecordsThatItHoldsWithoutWaitingForMore) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd writer(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string content =
        imageOf(makeRequest(0, "one")) + imageOf(makeRequest(0, "two")) + std::string(100, 'x');
    ASSERT_EQ(platform::writeFully(writer.get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    EXPECT_EQ(read(), 0);
    ASSERT_THAT(queue_, SizeIs(2));
    EXPECT_STREQ(queue_[0].name, "one");
    EXPECT_STREQ(queue_[1].name, "two");
}

TEST_F(ReadTest, FifoWhoseWriterNeverStopsIsLeftInTheEnd) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd both(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(both.valid());
    std::atomic<bool> enough{false};
    std::thread writer([&] {
        const std::string block(16 * sizeof(reqcmd), 'x');
        while (!enough) {
            (void)!::write(both.get(), block.data(), block.size()); // the fifo may be full
        }
    });
    EXPECT_EQ(read(), 0);
    enough = true;
    writer.join();
    EXPECT_LE(queue_.size(), kMostRecords);
}

TEST_F(AppendTest, FifoThatNobodyReadsDoesNotHoldItUp) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(append(makeRequest(APPMONCTL_Stop, "app")), -2);
    EXPECT_EQ(world().consoleText(),
              "Error 6 opening " + path_ + " for appending REQUEST_CMD={action=1,app}\n");
}

TEST_F(AppendTest, FullFifoDoesNotHoldItUp) {
    verbose = 1;
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd reader(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, 'x');
    while (::write(reader.get(), block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(append(makeRequest(APPMONCTL_Stop, "app")), 0);
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].rest, ") Error 11 writing to " + path_ + ", REQUEST_CMD={action=1,app}");
}

// --- in a folder that everybody may write to -----------------------------------------------------

TEST_F(AppendTest, FifoThatMayBePlantedTakesNothing) {
    ASSERT_EQ(::chmod(folder_.c_str(), 01777), 0);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd both(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(append(makeRequest(APPMONCTL_Stop, "app")), -2);
    EXPECT_EQ(world().consoleText(),
              "Error 13 opening " + path_ + " for appending REQUEST_CMD={action=1,app}\n");
    int size = -1;
    ASSERT_EQ(::ioctl(both.get(), FIONREAD, &size), 0);
    EXPECT_EQ(size, 0);
}

TEST_F(AppendTest, PlainFileTakesRequestsThereToo) {
    ASSERT_EQ(::chmod(folder_.c_str(), 01777), 0);
    EXPECT_EQ(append(makeRequest(APPMONCTL_Stop, "app")), 0);
    EXPECT_EQ(append(makeRequest(APPMONCTL_Stop, "app")), 0);
    EXPECT_THAT(fileContent(), SizeIs(2 * sizeof(reqcmd)));
}

TEST_F(ReadTest, FifoThatMayBePlantedGivesNothing) {
    ASSERT_EQ(::chmod(folder_.c_str(), 0777), 0);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(read(), -2);
    EXPECT_EQ(world().consoleText(), "Error 13 opening " + path_ + " for reading\n");
}

} // namespace
} // namespace requestfiles

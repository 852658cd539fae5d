#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "platform/UniqueFd.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::makeRequest;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using Access = AppManagerTestAccess;

constexpr const char* kMissing = "/nonexistent/folder/requests";

/// A folder of the test's own, with one request file in it.
class RequestFileTest : public testing::Test {
protected:
    RequestFileTest() {
        char folder[] = "/tmp/ovard_request_files.XXXXXX";
        folder_ = ::mkdtemp(folder);
        path_ = folder_ + "/requests";
        world().textFiles["/proc/stat"] = ""; // else the manager's making would be traced
    }

    ~RequestFileTest() override {
        std::remove(path_.c_str());
        ::rmdir(folder_.c_str());
    }

    int append(const reqcmd& request) {
        return manager().appendAppConfigurationFile(path_.c_str(), 0, request);
    }

    void writeFile(const std::string& content) {
        std::ofstream(path_, std::ios::binary) << content;
    }

    std::string fileContent() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    static std::string imageOf(const reqcmd& request) {
        return {reinterpret_cast<const char*>(&request), sizeof request};
    }

    static AppManager& manager() { return *AppManager::Instance(verbose); }

    std::string folder_;
    std::string path_;
    std::deque<reqcmd> queue_;
};

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
        lines.push_back({std::atoi(line.c_str()), line.substr(line.find(')'))});
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

TEST_F(AppendTest, ReportsAFailedWriteAboveVerbosityZero) {
    verbose = 1;
    EXPECT_EQ(manager().appendAppConfigurationFile("/dev/full", 0, makeRequest(4, "app")), 0);
    const std::vector<NumberedLine> lines = numberedLines(world().consoleText());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].rest, ") Error 28 writing to /dev/full, REQUEST_CMD={action=4,app}");
}

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

TEST_F(ReadTest, FolderGivesNoRequest) {
    EXPECT_EQ(readAppConfigurationFileList(folder_.c_str(), 0, queue_), 0);
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

// --- replay at start-up --------------------------------------------------------------------------

class ReplayTest : public RequestFileTest {
protected:
    void replay() {
        (void)manager(); // before the thread, as at start-up
        pszExecuteAppConfigurationFile = path_.c_str();
        EXPECT_EQ(startupAppConfigurationProcess(nullptr), nullptr);
    }

    void writeRequests(const std::vector<std::string>& names) {
        std::string content;
        for (const std::string& name : names) {
            content += imageOf(makeRequest(APPMONCTL_Stop, name));
        }
        writeFile(content);
    }

    static std::vector<std::string> handedOver() {
        std::vector<std::string> names;
        for (const reqcmd& request : Access::queue(manager())) {
            names.emplace_back(platform::fieldText(request.name));
        }
        return names;
    }

    /// Sets the shutdown flag during the given sleep, counted from 1.
    static void shutDownDuringSleep(int which) {
        world().onSleep = [which](int) {
            if (world().count("sleep") == static_cast<std::size_t>(which)) {
                g_bDaemonShutdown = -1;
            }
        };
    }
};

TEST_F(ReplayTest, WithoutAConfiguredFileEndsAfterTwoSeconds) {
    (void)manager();
    EXPECT_EQ(startupAppConfigurationProcess(nullptr), nullptr);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000"));
    EXPECT_THAT(handedOver(), IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReplayTest, MissingFileIsReportedAndEndsAfterTwoSeconds) {
    replay();
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000"));
    EXPECT_EQ(world().consoleText(), "Error 2 opening " + path_ + " for reading\n");
    EXPECT_THAT(handedOver(), IsEmpty());
}

TEST_F(ReplayTest, HandsTheRequestsOverInOrderOneEveryTwoSeconds) {
    writeRequests({"one", "two", "three"});
    std::vector<std::size_t> counts;
    world().onSleep = [&](int) { counts.push_back(Access::queue(manager()).size()); };
    replay();
    EXPECT_THAT(handedOver(), ElementsAre("one", "two", "three"));
    EXPECT_THAT(counts, ElementsAre(0U, 0U, 1U, 1U, 2U, 2U, 3U, 3U));
    EXPECT_THAT(world().callsOf("sleep"), testing::Each("sleep 1000"));
    EXPECT_THAT(file_request_list, IsEmpty());
}

TEST_F(ReplayTest, HandsOverARequestWithoutNulAsItIs) {
    writeFile(std::string(sizeof(reqcmd), '\xEE'));
    replay();
    ASSERT_THAT(Access::queue(manager()), SizeIs(1));
    EXPECT_EQ(imageOf(Access::queue(manager())[0]), std::string(sizeof(reqcmd), '\xEE'));
}

TEST_F(ReplayTest, ShowsEachRequestWithTheTimeOfTheEpochAboveVerbositySix) {
    writeRequests({"one", "two"});
    g_verbose = 7;
    replay();
    const std::string console = world().consoleText();
    EXPECT_THAT(console, StartsWith("Thu Jan  1 00:00:00 1970 1) file_request_list Command:\n"
                                    "Request Command:\n\tname = one\n"));
    EXPECT_THAT(console,
                testing::HasSubstr("Thu Jan  1 00:00:00 1970 2) file_request_list Command:\n"
                                   "Request Command:\n\tname = two\n"));
}

TEST_F(ReplayTest, IsSilentAtVerbositySix) {
    writeRequests({"one"});
    g_verbose = 6;
    replay();
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReplayTest, ShutdownInTheFirstSecondSkipsTheSecondAndHandsOneMoreOver) {
    writeRequests({"one", "two"});
    shutDownDuringSleep(1);
    replay();
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_THAT(handedOver(), ElementsAre("one"));
}

TEST_F(ReplayTest, ShutdownInTheFirstSecondAfterARequestHandsOneMoreOver) {
    writeRequests({"one", "two", "three"});
    shutDownDuringSleep(3);
    replay();
    EXPECT_EQ(world().count("sleep"), 3U);
    EXPECT_THAT(handedOver(), ElementsAre("one", "two"));
}

TEST_F(ReplayTest, ShutdownInTheSecondSecondAfterARequestHandsOneMoreOver) {
    writeRequests({"one", "two", "three"});
    shutDownDuringSleep(4);
    replay();
    EXPECT_EQ(world().count("sleep"), 4U);
    EXPECT_THAT(handedOver(), ElementsAre("one", "two"));
}

TEST_F(ReplayTest, ShutdownBeforeTheReplayHandsOneRequestOverWithoutASleep) {
    writeRequests({"one", "two"});
    g_bDaemonShutdown = -1;
    replay();
    EXPECT_EQ(world().count("sleep"), 0U);
    EXPECT_THAT(handedOver(), ElementsAre("one"));
}

TEST_F(ReplayTest, RecordsNothingIntoTheAppendFile) {
    const std::string appended = folder_ + "/appended";
    pszAppendToAppConfigurationFile = appended.c_str();
    writeRequests({"one"});
    replay();
    EXPECT_NE(::access(appended.c_str(), F_OK), 0);
}

} // namespace

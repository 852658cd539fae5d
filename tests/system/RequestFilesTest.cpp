// Recording requests with -f and replaying them with -x. The formats of the lines and the reading
// itself have unit tests; the end in the middle of large files is in ShutdownAtWorkTest.cpp.

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <random>
#include <regex>
#include <set>

#include "tests/system/Applications.h"
#include "tests/system/SanitizerReports.h"

namespace systemtest {
namespace {

constexpr const char* kRecorded = "/tmp/recorded";
constexpr const char* kReplayed = "/tmp/replayed";
constexpr std::size_t kRecordSize = sizeof(reqcmd);

/// The main thread and the command thread: the replay is over.
constexpr std::size_t kThreadsAfterReplay = 2 + kSanitizerThreads;
constexpr int kMomentMs = 300;

std::string imagesOf(const std::vector<reqcmd>& requests) {
    std::string images;
    for (const reqcmd& request : requests) {
        images += bytesOf(request);
    }
    return images;
}

/// Stop requests for what is not there.
std::vector<reqcmd> stopsOf(const std::vector<std::string>& names) {
    std::vector<reqcmd> requests;
    for (const std::string& name : names) {
        requests.push_back(makeRequest(APPMONCTL_Stop, name));
    }
    return requests;
}

/// "ACTION NAME" of every request that a monitor has handed to its queue, in order. Lines of an
/// earlier monitor may still come in.
std::vector<std::string> queuedRequests(const Daemon& monitor) {
    static const std::regex form(R"(processRequest: action=(-?\d+) name=([^,]*), cmd=.*)");
    std::vector<std::string> queued;
    for (const LogLine& line : daemonLog()) {
        std::smatch parts;
        if (line.pid == monitor.pid() && std::regex_match(line.text, parts, form)) {
            queued.push_back(parts[1].str() + " " + parts[2].str());
        }
    }
    return queued;
}

std::vector<std::string> asQueued(const std::vector<reqcmd>& requests) {
    std::vector<std::string> queued;
    for (const reqcmd& request : requests) {
        queued.push_back(std::to_string(request.action) + " " + request.name);
    }
    return queued;
}

class RequestFiles : public ApplicationTest {
protected:
    bool startRecording() { return startMonitorInForeground({"-f", kRecorded}); }

    bool startReplaying(const std::string& path, std::vector<std::string> more = {}) {
        more.insert(more.end(), {"-x", path});
        return startMonitorInForeground(more);
    }

    void expectServing() { EXPECT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "nobody")).came); }

    /// Right before the replay there are as many threads as after it, for a moment.
    bool replayEnds(int timeoutMs = kPatienceMs) const {
        const auto isOver = [this] {
            return threadsOf(monitor_.pid()).size() == kThreadsAfterReplay;
        };
        return eventually(
            [&] {
                if (!isOver()) {
                    return false;
                }
                sleepMs(kMomentMs);
                return isOver();
            },
            timeoutMs);
    }

    void expectOrderlyEnd() {
        const Ending ending = monitor_.terminate();
        EXPECT_EQ(ending.text(), "status 0");
        EXPECT_LT(ending.tookMs, 5000);
    }

    /// Command lines of the applications that run.
    std::multiset<std::string> applications() const { return commandLinesBeside(monitor_.pid()); }
};

// --- recording -----------------------------------------------------------------------------------

TEST_F(RequestFiles, EveryReceivedRequestIsRecordedInOrder) {
    ASSERT_TRUE(startRecording());
    std::vector<reqcmd> requests = {
        makeRequest(APPMONCTL_Stop, "one", "/bin/one -x", "/tmp/one.pid"),
        makeRequest(77, "two"), // an action that is not known
        makeRequestWithWholeName(APPMONCTL_Stop, std::string(64, 'n')),
        makeRequest(APPMONCTL_Stop, "quiet")};
    requests[0].restart_type = RESTART_TYPE_ALL;
    requests[0].reserved = 0xA5;
    requests[1].nowait = 1;
    requests[3].nowait = 1;
    for (const reqcmd& request : requests) {
        Client client;
        ASSERT_TRUE(sendRequest(client, request));
        ASSERT_TRUE(client.waitUntilRead());
        if (request.nowait == 0) {
            EXPECT_TRUE(client.receiveReply());
        }
    }
    EXPECT_TRUE(
        eventually([&] { return readFile(kRecorded).size() == requests.size() * kRecordSize; }));
    EXPECT_EQ(readFile(kRecorded), imagesOf(requests));
    EXPECT_EQ(permissions(kRecorded), 0660);
}

TEST_F(RequestFiles, RecordsAreAppendedToWhatTheFileHolds) {
    const std::string before = imagesOf(stopsOf({"before"}));
    ASSERT_TRUE(writeFile(kRecorded, before));
    ASSERT_TRUE(startRecording());
    const reqcmd request = makeRequest(APPMONCTL_Stop, "after");
    ASSERT_TRUE(askFor(request).came);
    EXPECT_EQ(readFile(kRecorded), before + bytesOf(request));
    EXPECT_EQ(queuedRequests(monitor_), asQueued({request})) << "it was replayed";
}

TEST_F(RequestFiles, ClientThatSaysNothingRecordsTheLastRequestOnceMore) {
    // Deliberate: the buffer is recorded as it is.
    ASSERT_TRUE(startRecording());
    const reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    ASSERT_TRUE(askFor(request).came);
    Client client;
    ASSERT_TRUE(client.connect());
    client.close();
    EXPECT_TRUE(eventually([&] { return readFile(kRecorded) == imagesOf({request, request}); }));
    EXPECT_EQ(queuedRequests(monitor_).size(), 1U);
}

TEST_F(RequestFiles, FileThatCannotBeOpenedHoldsNobodyUp) {
    ASSERT_TRUE(makeDirectories("/tmp/folder"));
    ASSERT_EQ(::mkfifo("/tmp/fifo", 0600), 0);
    const std::vector<std::pair<std::string, int>> places = {
        {"/tmp/nowhere/recorded", ENOENT}, {"/tmp/folder", EISDIR}, {"/tmp/fifo", ENXIO}};
    for (const auto& [path, error] : places) {
        Daemon monitor;
        ASSERT_TRUE(monitor.startInForeground({"-v", "0", "-f", path}));
        EXPECT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "nobody")).came) << path;
        EXPECT_EQ(countOf(monitor.console(), "Error " + std::to_string(error) + " opening " + path +
                                                 " for appending "
                                                 "REQUEST_CMD={action=1,nobody}\n"),
                  1U)
            << monitor.console();
        EXPECT_EQ(monitor.terminate().text(), "status 0") << path;
    }
}

/// A disk with room for so many bytes, a multiple of the page size.
class SmallDisk {
public:
    explicit SmallDisk(int size)
        : mounted_(makeDirectories(kPlace) && mount(size, 0)) {}
    ~SmallDisk() {
        if (mounted_) {
            (void)::umount2(kPlace, MNT_DETACH); // it ends with the sandbox at the latest
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool mounted() const { return mounted_; }

    bool resize(int size) { return mount(size, MS_REMOUNT); }

    static constexpr const char* kPlace = "/mnt/small";

private:
    static bool mount(int size, unsigned long flags) {
        return ::mount("tmpfs", kPlace, "tmpfs", flags, ("size=" + std::to_string(size)).c_str()) ==
               0;
    }

    bool mounted_;
};

TEST_F(RequestFiles, LimitOfTheFileSizeDoesNotEndTheMonitor) {
    ASSERT_TRUE(startRecording());
    const rlimit limit = {100, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(monitor_.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    expectServing();
    EXPECT_TRUE(eventually([] { return readFile(kRecorded).size() == 100; }));
    expectServing();
    EXPECT_EQ(readFile(kRecorded).size(), 100U);
    expectOrderlyEnd();
}

TEST_F(RequestFiles, FullDiskIsReportedAndDisturbsNothingElse) {
    constexpr int kRoom = 4096;
    if (::sysconf(_SC_PAGESIZE) != kRoom) {
        GTEST_SKIP() << "the smallest disk takes more than a few records";
    }
    SmallDisk disk(kRoom);
    ASSERT_TRUE(disk.mounted());
    const std::string path = std::string(disk.kPlace) + "/recorded";
    ASSERT_TRUE(startMonitorInForeground({"-f", path}));
    const std::vector<reqcmd> requests = stopsOf({"one", "two", "three", "four", "five"});
    for (const reqcmd& request : requests) {
        EXPECT_EQ(askFor(request).message, std::string(request.name) + " is not found\n");
    }
    const std::string room = imagesOf(requests).substr(0, kRoom);
    EXPECT_EQ(readFile(path), room) << "the last record is cut";
    const std::string console = monitor_.console();
    EXPECT_EQ(countOf(console, " writing to " + path), 2U) << console;
    EXPECT_TRUE(std::regex_search(console, std::regex(R"((^|\n)4\) Error \d+ writing to )" + path +
                                                      R"(, REQUEST_CMD=\{action=1,four\}\n)")))
        << console;
    EXPECT_EQ(
        countOf(console, "5) Error 28 writing to " + path + ", REQUEST_CMD={action=1,five}\n"), 1U)
        << console;

    // What follows the cut record stays misaligned.
    ASSERT_TRUE(disk.resize(4 * kRoom));
    const reqcmd last = makeRequest(APPMONCTL_Stop, "last");
    ASSERT_TRUE(askFor(last).came);
    EXPECT_EQ(readFile(path), room + bytesOf(last));
    expectOrderlyEnd();
}

using RequestFilesReading = RequestFiles;

// --- replaying -----------------------------------------------------------------------------------

TEST_F(RequestFilesReading, CutFileGivesItsWholeRecords) {
    const std::vector<reqcmd> requests = stopsOf({"one", "two"});
    ASSERT_TRUE(writeFile(kReplayed, imagesOf(requests) + std::string(100, 'x')));
    ASSERT_TRUE(startReplaying(kReplayed, {"-v", "7"}));
    ASSERT_TRUE(replayEnds());
    EXPECT_EQ(queuedRequests(monitor_), asQueued(requests));
    const std::string console = monitor_.console();
    const std::string reading = std::string(") reading ") + kReplayed + " REQUEST_CMD=";
    EXPECT_EQ(countOf(console, reading), 2U);
    EXPECT_EQ(countOf(console, "1" + reading + "{action=1,one}\n"), 1U);
    EXPECT_EQ(countOf(console, "2" + reading + "{action=1,two}\n"), 1U);
    EXPECT_EQ(countOf(console, " 1) file_request_list Command:\nRequest Command:\n\tname = one\n"),
              1U);
    EXPECT_EQ(countOf(console, " 2) file_request_list Command:\nRequest Command:\n\tname = two\n"),
              1U);
    expectServing();
}

TEST_F(RequestFilesReading, FilesWithoutRequestsEndTheReplayAfterTwoSeconds) {
    ASSERT_TRUE(writeFile("/tmp/empty", ""));
    ASSERT_TRUE(writeFile("/tmp/fragment", std::string(kRecordSize - 1, 'x')));
    ASSERT_TRUE(makeDirectories("/tmp/folder"));
    ASSERT_EQ(::mkfifo("/tmp/fifo", 0600), 0);
    for (const char* path :
         {"/tmp/empty", "/tmp/fragment", "/tmp/nowhere", "/tmp/folder", "/tmp/fifo"}) {
        Daemon monitor;
        const std::int64_t begin = monotonicMs();
        ASSERT_TRUE(monitor.startInForeground({"-x", path}));
        const auto hasThreads = [&](std::size_t count) {
            return eventually([&] { return threadsOf(monitor.pid()).size() == count; }, 4000);
        };
        ASSERT_TRUE(hasThreads(kThreadsAfterReplay + 1)) << path;
        ASSERT_TRUE(hasThreads(kThreadsAfterReplay)) << path;
        EXPECT_GE(monotonicMs() - begin, 1900) << path;
        EXPECT_EQ(queuedRequests(monitor), std::vector<std::string>{}) << path;
        EXPECT_EQ(monitor.terminate().text(), "status 0") << path;
    }
}

/// Records of random bytes, the same in every run.
std::string randomRecords(std::size_t count) {
    std::mt19937 random(20);
    std::string bytes;
    for (std::size_t index = 0; index < count * kRecordSize; ++index) {
        bytes += static_cast<char>(random() % 256);
    }
    return bytes;
}

TEST_F(RequestFilesReading, CorruptFileDoesNoHarm) {
    std::string content = randomRecords(2);
    content += "shift" + imagesOf(stopsOf({"misaligned"}));
    content += std::string(kRecordSize, '\xFF');
    ASSERT_TRUE(writeFile(kReplayed, content));
    ASSERT_TRUE(startReplaying(kReplayed));
    // The log cannot show what they are; that all were handed over shows in the end of the replay.
    ASSERT_TRUE(replayEnds(2 * kPatienceMs));
    EXPECT_TRUE(monitor_.alive());
    EXPECT_EQ(applications(), std::multiset<std::string>{});
    expectServing();
    expectOrderlyEnd();
    EXPECT_EQ(readFile(kReplayed), content);
}

TEST_F(RequestFilesReading, SourceWithoutEndDoesNoHarm) {
    // All of it is read before the first request is handed over. That takes longer than a start.
    ASSERT_TRUE(monitor_.spawn({"-d", "-i", "3600", "-x", "/dev/zero"}));
    ASSERT_TRUE(eventually([&] { return !queuedRequests(monitor_).empty(); }, 3 * kPatienceMs));
    for (const auto& [number, target] : descriptorsOf(monitor_.pid())) {
        EXPECT_NE(target, "/dev/zero") << number;
    }
#ifndef OVARD_IS_SANITIZED // which takes memory of its own
    constexpr long kMostKb = 200L * 1024;
    EXPECT_LT(std::atol(statusValue(monitor_.pid(), "VmRSS").c_str()), kMostKb);
#endif
    expectServing();
    expectOrderlyEnd();
}

TEST_F(RequestFilesReading, ReplayedRequestsAreNotRecordedAgain) {
    const std::vector<reqcmd> filed = stopsOf({"one", "two"});
    ASSERT_TRUE(writeFile(kReplayed, imagesOf(filed)));
    ASSERT_TRUE(startReplaying(kReplayed, {"-f", kRecorded}));
    ASSERT_TRUE(replayEnds());
    EXPECT_EQ(queuedRequests(monitor_), asQueued(filed));
    EXPECT_FALSE(fileExists(kRecorded));
    const reqcmd sent = makeRequest(APPMONCTL_Stop, "three");
    ASSERT_TRUE(askFor(sent).came);
    EXPECT_EQ(readFile(kRecorded), bytesOf(sent));
}

TEST_F(RequestFilesReading, OneFileMayBeReplayedAndRecordedTo) {
    const std::vector<reqcmd> filed = stopsOf({"one", "two"});
    ASSERT_TRUE(writeFile(kReplayed, imagesOf(filed)));
    ASSERT_TRUE(startReplaying(kReplayed, {"-f", kReplayed}));
    // The file is read before the first pause.
    ASSERT_TRUE(eventually([&] {
        return threadsOf(monitor_.pid()).size() == kThreadsAfterReplay + 1 &&
               monitor_.workersWait();
    }));
    const reqcmd sent = makeRequest(APPMONCTL_Stop, "sent");
    ASSERT_TRUE(askFor(sent).came);
    ASSERT_TRUE(replayEnds());
    EXPECT_EQ(queuedRequests(monitor_).size(), 3U) << "what was sent was not replayed";
    EXPECT_EQ(readFile(kReplayed), imagesOf(filed) + bytesOf(sent));
}

TEST_F(RequestFilesReading, TerminationInTheMiddleOfAReplayStartsNothingMore) {
    std::vector<reqcmd> filed;
    for (int number = 1; number <= 6; ++number) {
        filed.push_back(makeStart("app" + std::to_string(number)));
    }
    ASSERT_TRUE(writeFile(kReplayed, imagesOf(filed)));
    ASSERT_TRUE(startReplaying(kReplayed));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Start app2"));
    ASSERT_TRUE(eventually([&] { return applications().size() == 2; }));
    expectOrderlyEnd();
    sleepMs(2500); // longer than it would take to the next request
    EXPECT_EQ(applications(), (std::multiset<std::string>{commandOf("app1"), commandOf("app2")}));
    EXPECT_EQ(queuedRequests(monitor_), asQueued({filed[0], filed[1]}));
    EXPECT_EQ(readFile(kReplayed), imagesOf(filed));
}

// --- a whole life --------------------------------------------------------------------------------

class RequestFilesReplay : public RequestFiles {
protected:
    reqcmd makePortStart(const std::string& name, int type, int number) {
        reqcmd request = makeStart(name);
        request.porttype = type;
        request.portnum = number;
        return request;
    }

    /// What an installation may look like after a while.
    std::vector<reqcmd> twentyRequests() {
        return {makeStart("app01", "--version 2.1"),
                makeStart("app02", "--heartbeat 300"),
                makeStart("app03"),
                makeStart("app04", "--daemonize-after 300"),
                makePortStart("app05", PORT_TYPE_ETH, 502),
                makePortStart("app06", PORT_TYPE_COM, 1),
                makeRequest(APPMONCTL_Stop, "app03"),
                makeStart("app07", "--ignore-term"),
                makeStart("app08", "word --other=word"),
                makeRequest(APPMONCTL_Restart, "app02"),
                makeRequest(APPMONCTL_Stop, "nobody"),
                makeRequest(APPMONCTL_Stop_PortApps),
                makeStart("app09"),
                makeStart("app09"), // runs already
                makePortStart("app05", PORT_TYPE_ETH, 503),
                makeRequest(APPMONCTL_Stop, "app08"),
                makeStart("app08", "other words"),
                makeRequest(APPMONCTL_Restart, "app01"),
                makeStart("app10", "--no-pidfile"),
                makeRequest(APPMONCTL_Stop, "app09")};
    }

    /// Times at which the requests were handed over, by monotonicMs.
    std::vector<std::int64_t> watchHandOvers(std::size_t count) const {
        std::vector<std::int64_t> times;
        (void)eventually( // the caller counts them
            [&] {
                const std::size_t queued = queuedRequests(monitor_).size();
                times.resize(std::max(times.size(), queued), monotonicMs());
                return queued >= count;
            },
            static_cast<int>(count) * 3000);
        return times;
    }
};

/// The last of the twenty requests was executed.
bool lastStopIsDone() {
    const std::vector<std::string> texts = daemonLogTexts(6);
    return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
        return withoutDates(text) == "app09 is stopped @DATE";
    });
}

TEST_F(RequestFilesReplay, RebuildsTheSameSetOfApplications) {
    const std::vector<reqcmd> requests = twentyRequests();
    ASSERT_EQ(requests.size(), 20U);
    ASSERT_TRUE(startRecording());
    for (const reqcmd& request : requests) {
        ASSERT_TRUE(askFor(request).came) << request.name;
    }
    const std::string images = imagesOf(requests);
    ASSERT_EQ(readFile(kRecorded), images);
    const std::multiset<std::string> before = applications();
    EXPECT_EQ(before.size(), 7U) << testing::PrintToString(before);
    expectOrderlyEnd();
    EXPECT_EQ(applications(), before);

    // The machine is switched off and on: nothing of them is left.
    ASSERT_TRUE(endStrangers());
    ASSERT_TRUE(writeFile(kDaemonLogPath, ""));
    const std::int64_t begin = monotonicMs();
    // The timer's signals shorten none of the pauses.
    ASSERT_TRUE(startReplaying(kRecorded, {"-w", "0", "-I", "1"}));
    const std::vector<std::int64_t> times = watchHandOvers(requests.size());
    EXPECT_EQ(queuedRequests(monitor_), asQueued(requests));
    ASSERT_EQ(times.size(), requests.size());
    EXPECT_GE(times[0] - begin, 1900);
    for (std::size_t index = 1; index < times.size(); ++index) {
        EXPECT_GE(times[index] - times[index - 1], 1500) << index;
        EXPECT_LE(times[index] - times[index - 1], 3500) << index;
    }
    EXPECT_GE(times.back() - times.front(), 19 * 2000 - 500);
    ASSERT_TRUE(eventually(lastStopIsDone));
    EXPECT_TRUE(eventually([&] { return applications() == before; }))
        << testing::PrintToString(applications());
    EXPECT_TRUE(replayEnds());
    EXPECT_EQ(readFile(kRecorded), images);
    // All of them are known to the new monitor.
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)).code, 0);
    EXPECT_EQ(applications(), std::multiset<std::string>{});
}

} // namespace
} // namespace systemtest

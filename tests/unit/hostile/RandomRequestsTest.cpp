// A million random requests through the queue and the commands, in a world that is as unreliable.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/hostile/RandomRequests.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using hostile::Random;
using hostile::Trend;
using requests::makeRequest;
using testing::SizeIs;
using Access = AppManagerTestAccess;

constexpr std::uint64_t kDefaultCount = 1000000;
constexpr std::uint64_t kDefaultSeed = 20260102;

/// Requests between two examinations of the manager.
constexpr std::uint64_t kBatch = 1000;

/// Entries beyond which a stretch stops growing the registry.
constexpr std::size_t kManyApps = 60;

/// So many live processes are in the world at a time.
constexpr std::size_t kProcesses = 5;

constexpr std::time_t kBeginning = 1700000000;

/// How much memory a run may take beyond what its first fifth took. Instrumented programs keep
/// freed memory for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::int64_t kMostGrowthKb = 409600;
#else
constexpr std::int64_t kMostGrowthKb = 16384;
#endif

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

std::uint64_t seed() {
    return fromEnvironment("OVARD_HOSTILE_SEED", kDefaultSeed);
}

std::int64_t residentKb() {
    long pages = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*s %ld", &pages) != 1) {
            pages = 0;
        }
        std::fclose(file);
    }
    return static_cast<std::int64_t>(pages) * ::sysconf(_SC_PAGESIZE) / 1024;
}

template <std::size_t Size> bool isTerminated(const char (&field)[Size]) {
    return std::memchr(field, '\0', Size) != nullptr;
}

bool isWellFormed(const appinfo& app) {
    return isTerminated(app.name) && isTerminated(app.version) && isTerminated(app.cmd) &&
           isTerminated(app.pidfile);
}

/// What the requests met with, to show that every road was taken.
struct Tally {
    std::uint64_t requests = 0;
    std::uint64_t replies = 0;
    std::uint64_t cutReplies = 0;
    std::uint64_t failedStops = 0;
    std::uint64_t failedStarts = 0;
    std::uint64_t launches = 0;
    std::uint64_t unknownActions = 0;
    std::size_t mostApps = 0;
    std::uint64_t timesEmpty = 0;
};

class RandomRequestsTest : public testing::Test {
protected:
    RandomRequestsTest()
        : random_(seed()) {}

    void SetUp() override { manager_.initCommunication(); } // opens the log

    // --- the world ------------------------------------------------------------------------------

    void addRandomProcess() {
        const std::size_t index = random_.below(hostile::kSharedNames);
        fakes::Process& process =
            world().addProcess(randomPid(), hostile::sharedName(index),
                               hostile::sharedCommand(index), random_.below(100000));
        process.ignoresTerm = random_.onceIn(4);
        process.zombie = random_.onceIn(8);
        process.killErrno = random_.onceIn(32) ? EPERM : 0;
        process.factsAvailable = !random_.onceIn(16);
        process.pidFilename = random_.onceIn(4) ? std::string(random_.below(80), 'p') : "";
    }

    /// Few enough for launches and processes to meet.
    pid_t randomPid() { return static_cast<pid_t>(5000 + random_.below(12)); }

    /// What the next launches read as the pids of their processes.
    void scriptLaunches() {
        while (world().reads.size() < 4) {
            const int pid = randomPid();
            std::string word(reinterpret_cast<const char*>(&pid), sizeof pid);
            if (random_.onceIn(16)) {
                word.resize(random_.below(sizeof pid)); // a short read
            }
            world().reads.push_back({word, random_.onceIn(64) ? EIO : 0});
        }
    }

    void scriptSends() {
        world().sendResults.clear();
        sendsFail_ = random_.onceIn(16);
        if (sendsFail_) {
            world().sendResults = {{-1, EPIPE}, {static_cast<int>(random_.below(1032)), 0}};
        }
    }

    /// Nothing waits for ever: processes end, daemons appear, and the clock jumps.
    void onSleep() {
        if (random_.onceIn(3) && !world().processes.empty()) {
            world().processes[random_.below(world().processes.size())].alive = false;
        }
        if (random_.onceIn(6)) {
            world().now += 31;
        }
        if (random_.onceIn(16) && world().processes.size() < 4 * kProcesses) {
            addRandomProcess();
            world().processes.back().starttime = 100000000;
        }
    }

    void renewWorld() {
        world().processes.clear();
        for (std::size_t count = random_.below(kProcesses + 1); count > 0; --count) {
            addRandomProcess();
        }
        world().procCanBeOpened = !random_.onceIn(16);
        world().uptimeSec = random_.onceIn(16) ? -1 : 10000;
        world().mallocs.failNext = random_.onceIn(32) ? 4 : 0;
        world().strdups.failNext = random_.onceIn(32) ? 4 : 0;
        world().reallocs.failNext = random_.onceIn(16) ? 3 : 0;
        verbose = random_.onceIn(32) ? 9 : 0;
    }

    void calmWorld() {
        world().processes.clear();
        world().reads.clear();
        world().sendResults.clear();
        world().procCanBeOpened = true;
        world().uptimeSec = 10000;
        world().mallocs.failNext = 0;
        world().strdups.failNext = 0;
        world().reallocs.failNext = 0;
        world().now = kBeginning;
        world().nowMs = 0;
        world().forgetRecords();
        verbose = 0;
    }

    // --- one stretch of requests ----------------------------------------------------------------

    Trend trend() const {
        if (applist.size() > kManyApps) {
            return Trend::Shrink;
        }
        constexpr Trend kTrends[] = {Trend::Grow, Trend::Mix, Trend::Grow, Trend::Mix,
                                     Trend::Shrink};
        return kTrends[(tally_.requests / 80) % 5];
    }

    void executeSome() {
        scriptLaunches();
        scriptSends();
        if (random_.onceIn(8)) {
            renewWorld();
        }
        for (std::size_t count = 1 + random_.below(4); count > 0; --count) {
            ASSERT_EQ(manager_.processRequest(hostile::randomRequest(random_, trend())), 0);
            ++tally_.requests;
        }
        ASSERT_TRUE(Access::drainQueue(manager_));
        examineReplies();
        examineLog();
        tally_.mostApps = std::max(tally_.mostApps, applist.size());
        tally_.timesEmpty += applist.empty() ? 1U : 0U;
        world().forgetRecords();
    }

    void examineReplies() {
        for (const fakes::Output& output : world().sent) {
            if (output.data.size() != sizeof(response_struct)) {
                ASSERT_TRUE(sendsFail_);
                ++tally_.cutReplies;
                continue;
            }
            response_struct reply;
            std::memcpy(&reply, output.data.data(), sizeof reply);
            ASSERT_EQ(reply.completed, 1);
            ASSERT_TRUE(isTerminated(reply.message));
            ASSERT_NE(reply.message[0], '\0');
            ASSERT_TRUE(reply.code == 0 || reply.code == -4 || reply.code == -5 ||
                        reply.code == -20)
                << reply.code;
            ++tally_.replies;
        }
    }

    void examineLog() {
        for (const fakes::LogLine& line : world().log) {
            ASSERT_LT(line.text.size(), 2048U);
            const std::string_view text = line.text;
            const auto contains = [text](std::string_view part) {
                return text.find(part) != std::string_view::npos;
            };
            if (line.level == 7) {
                continue; // the request itself
            }
            tally_.failedStops += contains(" fails to stop") ? 1U : 0U;
            tally_.failedStarts += contains(" fails to start") ? 1U : 0U;
            tally_.launches += contains("start_process: name=") ? 1U : 0U;
            tally_.unknownActions += text == "request.action=UNKNOWN" ? 1U : 0U;
        }
    }

    // --- between the stretches ------------------------------------------------------------------

    void examineManager() {
        ASSERT_TRUE(std::all_of(applist.begin(), applist.end(), isWellFormed));
        ASSERT_TRUE(Access::queue(manager_).empty());
        ASSERT_EQ(world().liveBlocks(), 0U);
        ASSERT_EQ(world().foreignReleases, 0);
        ASSERT_TRUE(locks::isFree(Access::appLock(manager_)));
        ASSERT_TRUE(locks::isFree(Access::queueLock(manager_)));
        ASSERT_FALSE(Access::shuttingDown(manager_));
        ASSERT_LT(applist.size(), 10 * kManyApps);
        // Entries may be nameless, so the registry need not be empty for the next.
        ASSERT_NO_FATAL_FAILURE(expectAnswer(makeRequest(APPMONCTL_Stop, "no such application"),
                                             -20, "no such application is not found\n"));
        world().scriptLaunch(40001, 40002);
        ASSERT_NO_FATAL_FAILURE(
            expectAnswer(makeRequest(APPMONCTL_Start, "well-formed", "/bin/app -x"), 0,
                         "well-formed [pid=40002] is started @2023-11-14 22:13:20\n"));
        ASSERT_NO_FATAL_FAILURE(expectAnswer(makeRequest(APPMONCTL_Stop, "well-formed"), 0,
                                             "well-formed is stopped @2023-11-14 22:13:20\n"));
    }

    void expectAnswer(const reqcmd& request, int code, const std::string& message) {
        const std::size_t before = applist.size();
        ASSERT_EQ(manager_.processRequest(request), 0);
        ASSERT_TRUE(Access::drainQueue(manager_));
        const std::vector<response_struct> found = requests::replies();
        world().forgetRecords();
        ASSERT_THAT(found, SizeIs(1));
        ASSERT_EQ(found[0].code, code);
        ASSERT_EQ(found[0].completed, 1);
        ASSERT_STREQ(found[0].message, message.c_str());
        ASSERT_LE(applist.size(), before + 1);
    }

    Random random_;
    FixtureManager manager_;
    Tally tally_;
    bool sendsFail_ = false;
};

TEST_F(RandomRequestsTest, NeitherHarmTheManagerNorFillTheMemory) {
    const std::uint64_t count = fromEnvironment("OVARD_HOSTILE_COUNT", kDefaultCount);
    const auto begin = std::chrono::steady_clock::now();
    std::printf("%llu requests, seed %llu\n", static_cast<unsigned long long>(count),
                static_cast<unsigned long long>(seed()));
    std::int64_t earlyKb = 0;
    std::uint64_t examined = 0;
    while (tally_.requests < count) {
        world().onSleep = [this](int) { onSleep(); };
        while (tally_.requests < std::min(count, examined + kBatch)) {
            ASSERT_NO_FATAL_FAILURE(executeSome()) << "after " << tally_.requests << " requests";
        }
        examined = tally_.requests;
        world().onSleep = nullptr;
        calmWorld();
        ASSERT_NO_FATAL_FAILURE(examineManager()) << "after " << tally_.requests << " requests";
        if (earlyKb == 0 && examined >= count / 5) {
            earlyKb = residentKb();
        }
    }
    EXPECT_LT(residentKb() - earlyKb, kMostGrowthKb);

    std::printf("%llu replies and %llu cut ones, %llu launches, %llu failed starts, %llu failed "
                "stops, %llu unknown actions, at most %zu applications, %llu times none, %lld KiB "
                "more, %lld ms\n",
                static_cast<unsigned long long>(tally_.replies),
                static_cast<unsigned long long>(tally_.cutReplies),
                static_cast<unsigned long long>(tally_.launches),
                static_cast<unsigned long long>(tally_.failedStarts),
                static_cast<unsigned long long>(tally_.failedStops),
                static_cast<unsigned long long>(tally_.unknownActions), tally_.mostApps,
                static_cast<unsigned long long>(tally_.timesEmpty),
                static_cast<long long>(residentKb() - earlyKb),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - begin)
                                           .count()));
    if (count >= 10 * kBatch) { // else chance decides
        EXPECT_GT(tally_.replies, count / 10);
        EXPECT_GT(tally_.cutReplies, 0U);
        EXPECT_GT(tally_.launches, count / 20);
        EXPECT_GT(tally_.failedStarts, 0U);
        EXPECT_GT(tally_.failedStops, 0U);
        EXPECT_GT(tally_.unknownActions, count / 20);
        EXPECT_GT(tally_.mostApps, 20U);
        EXPECT_GT(tally_.timesEmpty, 0U);
    }
}

// --- the same through the real command thread ----------------------------------------------------

class RandomRequestsThreadTest : public testing::Test {
protected:
    static constexpr int kRounds = 40;
    static constexpr int kRequestsPerProducer = 40;

    void SetUp() override { ASSERT_EQ(manager_.init(false), 0); }

    ~RandomRequestsThreadTest() override { manager_.processTermination(&manager_); }

    void produce(std::uint64_t ownSeed) {
        Random random(ownSeed);
        for (int count = 0; count < kRequestsPerProducer; ++count) {
            reqcmd request = hostile::randomRequest(random, Trend::Mix);
            request.pidfile[0] = '\0'; // A stop that fails takes real time here.
            EXPECT_EQ(manager_.processRequest(request), 0);
        }
    }

    bool isAnswered(const std::string& name) {
        manager_.processRequest(makeRequest(APPMONCTL_Stop, name));
        return fakes::waitUntil([&] {
            (void)manager_.notify();
            const std::vector<response_struct> found = requests::replies();
            return std::any_of(found.begin(), found.end(), [&](const response_struct& reply) {
                return reply.message == name + " is not found\n" && reply.code == -20;
            });
        });
    }

    FixtureManager manager_;
};

TEST_F(RandomRequestsThreadTest, FromTwoProducersLeaveTheThreadAtWork) {
    for (int round = 0; round < kRounds; ++round) {
        const auto roundSeed = seed() + static_cast<std::uint64_t>(round) * 2;
        std::thread other([&] { produce(roundSeed + 1); });
        produce(roundSeed);
        other.join();
        ASSERT_TRUE(isAnswered("probe " + std::to_string(round))) << "seed " << roundSeed;
        for (const response_struct& reply : requests::replies()) {
            ASSERT_EQ(reply.completed, 1);
            ASSERT_TRUE(isTerminated(reply.message));
        }
        world().forgetRecords();
    }
    EXPECT_EQ(fakes::liveWorkers(), 1);
}

} // namespace

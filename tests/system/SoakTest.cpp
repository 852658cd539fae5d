// Twenty applications and one random fault a second, for as long as one likes: nothing may grow, no
// pass may be missed.
//
// The seed is printed. OVARD_SOAK_SEED and OVARD_SOAK_SECONDS change seed and length.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"
#include "tests/system/SoakFaults.h"
#include "tests/system/SoakWatch.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

constexpr int kApplications = 20;
constexpr std::uint64_t kDefaultSeconds = 60;

constexpr int kFaultMs = 1000;
constexpr int kSampleMs = 10000;
constexpr int kProgressMs = 60000;
constexpr int kLookMs = 20;

/// Time for everything to be as it should be, before and afterwards: a launch a second, and for
/// each the grace time and two passes.
constexpr int kSettleMs = 120000;

/// Quiet time before the last sample: two passes.
constexpr int kQuietMs = 15000;

/// The watchdog is fed every second, while it is away too, which shows when it is back.
constexpr int kFeedMs = 1000 + kSoakAbsenceMs + 2000;

/// A pass that takes longer than that starves it, as is required.
constexpr int kFeedBudgetMs = 25000;

/// The default interval and as many polls as one second takes; launches, which are frequent here,
/// are looked at after a shorter grace than by default.
const std::vector<std::string> kOptions = {"-w", "0",  "-I", "1", "-v", "8",
                                           "-s", "15", "-p", "1", "-h", "10"};

/// Pid files lie on a disk of their own: a program that finds /tmp full would die before its launch
/// is over, and the launch then lasts for half a minute, as is required.
constexpr const char* kPidFileFolders[] = {"/tmp/pid", "/tmp/run"};

/// Growth of memory that no leak explains, in kB: whatever happens for the first time takes a page
/// or two of heap or data.
constexpr std::int64_t kMemoryNoiseKb = 64;

/// The smallest block of memory takes 32 bytes. In two hours one that every fault leaves behind is
/// found, in ten minutes five.
constexpr std::int64_t kBytesPerFault = 16;

class Soak : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        for (const char* folder : kPidFileFolders) {
            ASSERT_TRUE(
                runShell(std::string("mkdir -p ") + folder + " && mount -t tmpfs tmpfs " + folder));
        }
    }

    void TearDown() override {
        FaultTest::TearDown();
        for (const char* folder : kPidFileFolders) {
            (void)runShell(std::string("umount -l ") + folder);
        }
    }

    /// With and without heartbeats, conventional pid files and ports; replaced when they die, or
    /// not.
    reqcmd makeApplication(int number) {
        const std::string name = "soak" + std::to_string(number);
        const bool beats = number % 2 == 0;
        const bool byConvention = number % 4 < 2;
        const std::string pidFile =
            byConvention ? "/tmp/pid" + programPath(name) + ".pid" : "/tmp/run/" + name + ".pid";
        std::string options = byConvention ? "" : " --exact-pidfile " + pidFile;
        options += beats ? " --heartbeat 500" : "";
        options += number % 5 == 0 ? " --ignore-term" : "";
        options += number % 7 == 0 ? " --daemonize-after 100" : "";
        reqcmd request = makeStart(name, options.empty() ? "" : options.substr(1), pidFile);
        std::string("1.0").copy(request.version, sizeof request.version);
        request.heartbeat = beats ? 1 : 0;
        request.porttype = number % 6 == 0 ? PORT_TYPE_COM : PORT_TYPE_NONE;
        request.restart_type = number % 3 == 0 ? 2 + number % 2 : RESTART_TYPE_SELF;
        request.priority = number % 4;
        return request;
    }

    void startAll() {
        ASSERT_TRUE(monitor_.startInBackground(kOptions));
        monitorPid_ = monitor_.pid();
        for (int number = 0; number < kApplications; ++number) {
            applications_.push_back(makeApplication(number));
            ASSERT_GT(launch(applications_.back()), 0);
        }
        ASSERT_TRUE(eventually([this] { return troubles().empty(); }, kSettleMs)) << troubles();
    }

    /// Applications that are not as they should be, for people: each runs once, and is published as
    /// started.
    std::string troubles() const {
        std::string text;
        for (const reqcmd& application : applications_) {
            const std::string name = application.name;
            const std::vector<pid_t> found = SoakFaults::processesOf(application);
            const PublishedApp published = publishedApp(name);
            if (found.size() != 1 || published.pid != found[0] || published.status != "started") {
                text += name + ": " + std::to_string(found.size()) + " processes, published as " +
                        testing::PrintToString(published) + "\n";
            }
        }
        return publishedCount() == kApplications ? text : text + "wrong number of them\n";
    }

    void soak(std::uint64_t seed, std::int64_t lengthMs) {
        passes_ = std::make_unique<SoakPasses>();
        faults_ = std::make_unique<SoakFaults>(seed, monitorPid_, applications_,
                                               [this] { passes_->look(faults_->disturbances()); });
        first_ = sampleWithoutMoments(monitorPid_);
        const std::int64_t begin = monotonicMs();
        std::int64_t nextFault = begin;
        std::int64_t nextSample = begin;
        std::int64_t nextProgress = begin + kProgressMs;
        while (monotonicMs() < begin + lengthMs && monitor_.alive()) {
            goOn();
            if (monotonicMs() >= nextFault) {
                // What was taken away must be back, however late this one comes.
                nextFault = std::max(nextFault + kFaultMs, monotonicMs() + kSoakAbsenceMs);
                faults_->inject();
            }
            if (monotonicMs() >= nextSample) {
                nextSample += kSampleMs;
                takeSample();
            }
            if (monotonicMs() >= nextProgress) {
                nextProgress += kProgressMs;
                showProgress((monotonicMs() - begin) / 1000);
            }
        }
    }

    /// A look at everything.
    void goOn() {
        sleepMs(kLookMs);
        feeds_.watchFor(0);
        faults_->goOn();
        passes_->look(faults_->disturbances());
    }

    /// The processes that were zombies ten seconds ago, and still are, are there for good.
    void takeSample() {
        const SoakSample sample = sampleOf(monitorPid_);
        const std::set<pid_t> before =
            samples_.empty() ? std::set<pid_t>{} : samples_.back().zombies;
        for (const pid_t pid : sample.zombies) {
            EXPECT_EQ(before.count(pid), 0U) << pid << " stays a zombie";
        }
        samples_.push_back(sample);
    }

    void showProgress(std::int64_t seconds) const {
        std::cout << seconds << " s: " << faults_->total() << " faults, " << passes_->count()
                  << " passes of " << passes_->longestPassMs() << " ms at most, "
                  << passes_->longestGapMs() << " ms apart at most, " << passes_->late().size()
                  << " late, " << faults_->unclosed() << " connections not seen to be closed"
                  << ", longest pause of the watchdog " << longestFeedPauseMs() << " ms; "
                  << textOf(samples_.empty() ? first_ : samples_.back()) << std::endl;
    }

    std::int64_t longestFeedPauseMs() const {
        return std::max(feeds_.pauseAfterMs(feeds_.feedBeforeLongestPause()), feeds_.sinceLastMs());
    }

    /// Ends the faults, and waits until all is as it should be again.
    void rest() {
        faults_->endAll();
        for (const char* path : kSegmentPaths) {
            (void)std::remove(path); // it may have any size
        }
        std::int64_t nextHelp = 0;
        const std::int64_t end = monotonicMs() + kSettleMs;
        while (monotonicMs() < end && !troubles().empty()) {
            if (monotonicMs() >= nextHelp) {
                nextHelp = monotonicMs() + kQuietMs;
                faults_->startTheDead();
            }
            goOn();
        }
        for (const std::int64_t quiet = monotonicMs(); monotonicMs() < quiet + kQuietMs;) {
            goOn();
        }
        passes_->judge(faults_->disturbances());
        last_ = sampleWithoutMoments(monitorPid_);
    }

    void expectNoHarm() {
        EXPECT_TRUE(monitor_.alive());
        EXPECT_EQ(processesNamed("ovard"), std::vector<pid_t>{monitorPid_});
        EXPECT_EQ(troubles(), "");
        EXPECT_EQ(passes_->late(), std::vector<std::string>{});
        const std::int64_t starvedMs = passes_->longestGapMs() - kFeedBudgetMs;
        EXPECT_LE(longestFeedPauseMs(), kFeedMs + std::max<std::int64_t>(starvedMs, 0));
        EXPECT_EQ(last_.descriptors, first_.descriptors);
        // Deliberate: a connection without a reply stays open.
        EXPECT_LE(last_.connections,
                  first_.connections + static_cast<std::size_t>(faults_->unclosed()));
        EXPECT_EQ(last_.threads, first_.threads);
        EXPECT_EQ(last_.children, 0U);
#ifndef OVARD_IS_SANITIZED // whose own memory grows
        expectNoGrowth("anonymous memory", &SoakSample::anonymousKb);
        expectNoGrowth("data", &SoakSample::dataKb);
#endif
        EXPECT_EQ(monitor_.terminate().text(), "ended");
        EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
    }

    /// The first tenth of the time fills buffers and caches.
    void expectNoGrowth(const std::string& what, std::int64_t SoakSample::*figure) {
        const std::int64_t early = medianOfTenth(samples_, figure, 1);
        const std::int64_t late = medianOfTenth(samples_, figure, 9);
        const std::int64_t faults = std::int64_t{faults_->total()} * 8 / 10;
        const std::int64_t mostKb = kMemoryNoiseKb + faults * kBytesPerFault / 1024;
        std::cout << what << ": " << first_.*figure << " kB at the beginning, " << early
                  << " kB in the second tenth, " << late << " kB in the last, " << last_.*figure
                  << " kB at the end; may grow by " << mostKb << " kB" << std::endl;
        EXPECT_LE(late - early, mostKb) << what;
    }

    /// In a short run some may not have had their turn, or not when they could be brought about.
    void expectEveryKind() const {
        if (!faults_->hadTwoRounds()) {
            return;
        }
        for (const auto& [kind, count] : faults_->counts()) {
            EXPECT_GT(count, 0) << kind;
        }
    }

    void showFigures() const {
        for (const auto& count : faults_->counts()) {
            std::cout << "  " << count.second << " " << count.first << "\n";
        }
        std::cout << "beginning: " << textOf(first_) << "\nend: " << textOf(last_) << std::endl;
    }

    std::vector<reqcmd> applications_;
    FeedWatcher feeds_;
    std::unique_ptr<SoakPasses> passes_;
    std::unique_ptr<SoakFaults> faults_;
    std::vector<SoakSample> samples_;
    SoakSample first_;
    SoakSample last_;
};

TEST_F(Soak, NothingGrowsAndNoPassIsMissed) {
    const std::uint64_t seed = numberFromEnvironment("OVARD_SOAK_SEED", std::random_device{}());
    const std::uint64_t seconds = numberFromEnvironment("OVARD_SOAK_SECONDS", kDefaultSeconds);
    std::cout << "seed " << seed << ", " << seconds << " s" << std::endl;
    ASSERT_GT(seconds, 0U);
    ASSERT_NO_FATAL_FAILURE(startAll());
    soak(seed, static_cast<std::int64_t>(seconds) * 1000);
    rest();
    showProgress(static_cast<std::int64_t>(seconds));
    showFigures();
    expectEveryKind();
    expectNoHarm();
}

} // namespace
} // namespace systemtest

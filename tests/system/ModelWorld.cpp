#include "tests/system/ModelWorld.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>

#include "tests/system/AdoptionSupport.h"
#include "tests/system/SettableClock.h"

namespace systemtest {
namespace {

/// How long the monitor may take until it agrees: entries that wait for a pid file that never comes
/// cost a second in every pass.
constexpr int kAgreementMs = 60000;

/// What differs for so long does not only need some passes more: the end of the first phase, which
/// erases entries, must not hide it.
constexpr int kLastingMs = 20000;

/// How many passes the monitor may take for one of the model's, and for the second of grace of what
/// was launched last: with the pause of the main loop a pass takes a tenth of a second at least.
constexpr int kPassesForOne = 2;
constexpr int kGracePasses = 10;

/// How long it is checked that no reply comes.
constexpr int kNoReplyMs = 20;

/// From the begin of its main loop on a monitor spares entries without a pid file for 30 seconds,
/// give or take the rounding of its clock.
constexpr int kFirstPhaseMs = 31500;
constexpr int kShortestFirstPhaseMs = 28500;

/// A step that begins later might not have happened before the end of the first phase.
constexpr int kLatestStepMs = 22000;

/// How old a last beat is made: older than every limit.
constexpr std::uint32_t kOldBeatMs = 60000;

constexpr const char* kHeartbeatPath = "/dev/shm/meter_heartbeat.shared";
constexpr std::size_t kHeartbeatHeader = 16;
constexpr std::size_t kHeartbeatSlot = 16;
constexpr std::size_t kLastBeatAt = 8;

/// Dates are in seconds, and a reply may have taken a while.
constexpr std::int64_t kDateToleranceSec = 2;

/// What precedes a pid in a reply.
constexpr const char* kPidSign = "[pid=";

bool loadsLibraries(pid_t pid) {
    return readFile("/proc/" + std::to_string(pid) + "/maps").find("/libc.so") != std::string::npos;
}

/// Writes four bytes into a file in their place.
void patch(const std::string& path, std::size_t offset, std::uint32_t number) {
    std::FILE* const file = std::fopen(path.c_str(), "r+be");
    ASSERT_NE(file, nullptr) << path;
    EXPECT_EQ(std::fseek(file, static_cast<long>(offset), SEEK_SET), 0);
    EXPECT_EQ(std::fwrite(&number, sizeof number, 1, file), 1U);
    EXPECT_EQ(std::fclose(file), 0);
}

} // namespace

ModelCounts ModelWorld::run(std::uint64_t seed, std::uint64_t steps) {
    for (const std::string& program : programsOfSteps()) {
        (void)installSampleAt(program);
    }
    std::optional<SettableClock> clock;
    if (SettableClock::isPossible()) {
        clock.emplace();
        EXPECT_TRUE(SettableClock::set(0));
    }
    startTheMonitor({});
    const bool setsClock = SettableClock::isReadBy(monitor_.pid());
    EXPECT_TRUE(setsClock || !SettableClock::isPossible() || !loadsLibraries(monitor_.pid()));
    counts_.add(kClocks, setsClock ? 1 : 0);
    counts_.add(kPairsWithPriorities, inheritedNice_ < 0 ? 1 : 0);
    StepSource source(seed, setsClock);
    for (std::uint64_t number = 1; number <= steps && !HasFailure(); ++number) {
        const Step step = nextStep(source);
        history_.push_back(std::to_string(number) + ": " + textOf(step));
        counts_.add(nameOf(step.kind));
        happen(step);
        if (!HasFailure()) {
            expectAgreement();
        }
    }
    EXPECT_EQ(source.lastResorts(), 0);
    std::cout << "seed " << seed << ": " << counts_.text() << std::endl;
    if (HasFailure()) {
        (void)std::remove(console_.path().c_str()); // it would bury all else
        ADD_FAILURE() << "seed " << seed << ", step " << history_.size() << " of " << steps
                      << "; what has happened:\n"
                      << history() << "the model:\n"
                      << resolved(model_.text());
    }
    return counts_;
}

Step ModelWorld::nextStep(StepSource& source) {
    Step step = source.next(model_, age_);
    const bool isLate = monotonicMs() - monitorSinceMs_ > kLatestStepMs;
    if (isLate && !model_.times().isFirstPhaseOver() && step.kind != StepKind::Monitor) {
        step = {};
        step.kind = StepKind::FirstPhaseEnd; // a slow machine: the seed alone does not tell
    }
    age_ = step.kind == StepKind::Monitor ? 0 : age_ + 1;
    return step;
}

std::string ModelWorld::history() const {
    std::string lines;
    for (const std::string& line : history_) {
        lines += "  " + line + "\n";
    }
    return lines;
}

void ModelWorld::happen(const Step& step) {
    switch (step.kind) {
    case StepKind::Request:
        request(step);
        return;
    case StepKind::Crash:
        EXPECT_TRUE(killAndWait(pids_.at(step.process)));
        break;
    case StepKind::LostHeartbeat:
        loseHeartbeat(pids_.at(step.process), step.beat);
        break;
    case StepKind::LatePidFile: {
        const ModelEntry& entry = model_.entries().at(step.entry);
        EXPECT_TRUE(writeFile(resolved(entry.pidfile), std::to_string(pids_.at(entry.process)) +
                                                           "\n" + entry.version + "\n"));
        break;
    }
    case StepKind::FirstPhaseEnd:
        sleepMs(static_cast<int>(
            std::max<std::int64_t>(monitorSinceMs_ + kFirstPhaseMs - monotonicMs(), 0)));
        break;
    case StepKind::Clock:
        EXPECT_TRUE(SettableClock::set(step.setting));
        break;
    case StepKind::Monitor:
        EXPECT_TRUE(endTheMonitor(step.signal));
        startTheMonitor(step.options);
        break;
    }
    (void)apply(step, model_); // only requests have a result
}

void ModelWorld::startTheMonitor(const ModelOptions& how) {
    std::vector<std::string> options = {"-v", "6", "-s", how.longGrace ? "3600" : "1"};
    if (!how.discovers) {
        options.emplace_back("-a");
    }
    ASSERT_TRUE(startSupervisor(options));
    monitorSinceMs_ = monotonicMs();
    inheritedNice_ = ::getpriority(PRIO_PROCESS, static_cast<id_t>(monitor_.pid()));
    requests_ = 0;
    launchedBefore_ = model_.machine().youngest();
    console_ = ModelConsole(linkOf(monitor_.pid(), "fd/1"));
}

bool ModelWorld::endTheMonitor(int signal) {
    const Ending ending = monitor_.signal(signal) ? monitor_.waitForEnd() : Ending();
    (void)std::remove(console_.path().c_str()); // it is long, and another one follows
    return ending.text() == (signal == SIGTERM ? "status 0" : "signal 9");
}

/// Sends the request and compares what comes of it at once.
void ModelWorld::request(const Step& step) {
    const std::int64_t askedSec = std::time(nullptr);
    Client client;
    ASSERT_TRUE(client.connect() && client.send(step.bytes));
    client.endSending(); // a short record is over then
    const ModelResult expected = model_.receive(step.bytes);
    ++requests_;
    ASSERT_TRUE(eventually(
        [&] {
            console_.update();
            return console_.results().size() >= requests_;
        },
        kAgreementMs));
    EXPECT_EQ(console_.results().back(), expected.result);
    const bool namesProcess = expected.message.find(kPidSign) != std::string::npos;
    if (namesProcess) { // Else supervision may have gone on already.
        ASSERT_TRUE(eventually([this] { return recognizeProcesses(); })) << differentProcesses();
    }
    expectReply(client, expected, askedSec);
    if (step.crashes) {
        const ProcessNumber launched = model_.entries().back().process;
        EXPECT_TRUE(killAndWait(pids_.at(launched)));
        model_.crash(launched);
    }
}

void ModelWorld::expectReply(Client& client, const ModelResult& expected, std::int64_t askedSec) {
    const Received received = client.receive(expected.replied ? kAgreementMs : kNoReplyMs);
    if (!expected.replied) {
        EXPECT_EQ(received.bytes, "");
        EXPECT_FALSE(received.ended);
        return;
    }
    counts_.add(kReplies);
    ASSERT_EQ(received.bytes.size(), sizeof(response_struct));
    EXPECT_TRUE(received.ended);
    response_struct record = {};
    std::memcpy(&record, received.bytes.data(), sizeof record);
    const Reply reply = toReply(record);
    EXPECT_EQ(reply, replyOf(expected.code, resolved(expected.message)));
    if (!reply.date.empty()) {
        expectDate(reply, expected, askedSec);
    }
}

void ModelWorld::expectDate(const Reply& reply, const ModelResult& expected,
                            std::int64_t askedSec) const {
    const bool isStart = expected.startedOf != 0;
    const std::int64_t earliest = isStart ? startSecOf(pidOf(expected.startedOf)) : askedSec;
    const std::int64_t latest = isStart ? earliest : std::time(nullptr);
    const std::int64_t dateSec = timeOf(reply.date) - expected.dateSetting;
    EXPECT_GE(dateSec, earliest - kDateToleranceSec) << reply;
    EXPECT_LE(dateSec, latest + kDateToleranceSec) << reply;
}

/// Stops a process and makes its last beat old, or takes it out of the registry of heartbeats.
void ModelWorld::loseHeartbeat(pid_t pid, Beat beat) {
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    ASSERT_TRUE(eventually([pid] { return processFacts(pid).state == 'T'; }));
    const std::string table = readFile(kHeartbeatPath);
    std::size_t slot = kHeartbeatHeader;
    while (slot < table.size() && numberAt<std::int32_t>(table, slot) != pid) {
        slot += kHeartbeatSlot;
    }
    ASSERT_LT(slot, table.size()) << "process " << pid << " has never beaten";
    if (beat == Beat::Missing) {
        patch(kHeartbeatPath, slot, 0);
    } else {
        patch(kHeartbeatPath, slot + kLastBeatAt,
              static_cast<std::uint32_t>(monotonicMs()) - kOldBeatMs);
    }
}

// --- comparison ----------------------------------------------------------------------------------

/// Waits until supervision has come to where the model is. What agrees at once must still agree
/// after the second pass.
void ModelWorld::expectAgreement() {
    mostPasses_ = kGracePasses;
    settleModel();
    ASSERT_TRUE(model_.isPredictable());
    console_.update();
    EXPECT_EQ(console_.results().size(), requests_);
    const std::size_t before = console_.cycles();
    std::size_t seen = before;
    const std::map<ProcessNumber, pid_t> known = pids_;
    std::string last = "no pass goes by";
    const std::int64_t begin = monotonicMs();
    turnMainLoop();
    const bool agrees = eventually(
        [&] {
            console_.update();
            if (console_.cycles() == seen) {
                return false;
            }
            seen = console_.cycles();
            noteEndOfFirstPhase(monotonicMs() - begin, last);
            pids_ = known; // what was learned too early may be wrong
            last = difference();
            const bool isOver = last.empty() && seen >= before + 2;
            if (!isOver) {
                turnMainLoop(); // once for each pass, so that no request has to wait for many
            }
            return isOver;
        },
        kAgreementMs);
    EXPECT_TRUE(agrees) << last;
    EXPECT_LE(seen - before, mostPasses_);
    // What is launched and gone again at once is no difference that would last.
    EXPECT_EQ(console_.launches(), model_.machine().youngest() - launchedBefore_);
    forgetProcesses();
}

void ModelWorld::settleModel() {
    mostPasses_ += static_cast<std::size_t>(kPassesForOne * model_.settle());
}

/// On a slow machine the first phase may end while the monitor is followed.
void ModelWorld::noteEndOfFirstPhase(std::int64_t followedMs, const std::string& last) {
    if (!model_.times().isFirstPhaseOver() &&
        monotonicMs() - monitorSinceMs_ > kShortestFirstPhaseMs) {
        EXPECT_LT(followedMs, kLastingMs) << last;
        history_.emplace_back("meanwhile the first half minute went by");
        counts_.add(nameOf(StepKind::FirstPhaseEnd));
        model_.endFirstPhase();
        settleModel();
    }
}

} // namespace systemtest

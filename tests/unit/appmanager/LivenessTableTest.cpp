// Every combination of what a check of one application can meet, compared with the table.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/LivenessTable.h"

namespace livenesstable {
namespace {

using fakes::world;
using Combinations = std::function<void(const Combination&)>;

constexpr std::time_t kNow = 1700000000;
constexpr int kPid = 700;
constexpr int kPriority = 5;
constexpr int kPollsPerSecond = 10;
constexpr const char* kPidFile = "/tmp/meter_io.pid";
constexpr const char* kVersion = "1.2";
constexpr int kRefusal = -2;         ///< of the pid file
constexpr int kEarlierHeartbeat = 9; ///< result that an earlier check left
constexpr int kMostVerbose = 9;

/// Differences after which a test gives up.
constexpr int kMostDifferences = 5;

/// Without polls the looks of a life are those of ten.
constexpr int kPollsOfLifeWithoutAny = 10;

struct Start {
    int sinceNowSec;
    const char* date;
};
constexpr Start kStarts[kGraces] = {
    {-29, "2023-11-14 22:12:51"},
    {-30, "2023-11-14 22:12:50"},
    {1, "2023-11-14 22:13:21"},
};

/// First and last look that meets the process alive.
struct LifeSpan {
    Count first;
    Count last;
};
constexpr Count kForever = {0, 1000};
constexpr LifeSpan kLifeSpans[kLives] = {
    {kForever, kNone},  {kOne, kForever}, {kTwo, kForever}, {kAll, kForever},
    {{1, 1}, kForever}, {kOne, kOne},     {kOne, kTwo},     {kOne, kAllButOne},
    {kOne, kAll},       {kTwo, kTwo},     {kAll, kAll},
};

constexpr Count kFirstConfirming[kConfirmings] = {kForever, kOne, kTwo, kAll, {1, 1}};

template <typename Row> using Rows = std::vector<const Row*>;

Rows<EntryRow> entryRowsOf(const Combination& met) {
    Rows<EntryRow> rows;
    for (const EntryRow& row : kEntryRows) {
        if (row.statuses.has(met.status)) {
            rows.push_back(&row);
        }
    }
    return rows;
}

Rows<FindingRow> findingRowsOf(const Combination& met) {
    Rows<FindingRow> rows;
    for (const FindingRow& row : kFindingRows) {
        if (row.statuses.has(met.status) && row.graces.has(met.grace) &&
            row.pollSeconds.has(met.pollSeconds) && row.lives.has(met.life) &&
            row.confirmings.has(met.confirming)) {
            rows.push_back(&row);
        }
    }
    return rows;
}

Rows<OutcomeRow> outcomeRowsOf(const Combination& met, Found found) {
    Rows<OutcomeRow> rows;
    for (const OutcomeRow& row : kOutcomeRows) {
        if (row.statuses.has(met.status) && row.found.has(found) &&
            row.heartbeatResults.has(met.heartbeatResult) && row.heartbeat.has(met.heartbeat) &&
            row.checkFlag.has(met.checkFlag)) {
            rows.push_back(&row);
        }
    }
    return rows;
}

/// The three rows that a combination meets; null where it does not meet exactly one.
struct Expected {
    const EntryRow* entry = nullptr;
    const FindingRow* finding = nullptr;
    const OutcomeRow* outcome = nullptr;
    bool complete() const { return entry != nullptr && finding != nullptr && outcome != nullptr; }
};

template <typename Row> const Row* only(const Rows<Row>& rows) {
    return rows.size() == 1 ? rows.front() : nullptr;
}

Expected expectedOf(const Combination& met) {
    Expected expected;
    expected.entry = only(entryRowsOf(met));
    expected.finding = only(findingRowsOf(met));
    if (expected.finding != nullptr) {
        expected.outcome = only(outcomeRowsOf(met, expected.finding->found));
    }
    return expected;
}

std::string describe(const Combination& met) {
    std::ostringstream text;
    text << "status " << met.status << ", grace " << met.grace << ", life " << met.life
         << ", confirming " << met.confirming << ", heartbeat result " << met.heartbeatResult
         << ", heartbeat " << met.heartbeat << ", check_flag " << met.checkFlag << ", priority "
         << met.priority << ", poll seconds " << met.pollSeconds << ", verbosity " << verbose;
    return text.str();
}

/// Calls `visit` for each combination of all dimensions but the status.
void forEach(int status, const Combinations& visit) {
    for (const int pollSeconds : kPollSeconds) {
        for (int grace = 0; grace < kGraces; ++grace) {
            for (int life = 0; life < kLives; ++life) {
                for (int confirming = 0; confirming < kConfirmings; ++confirming) {
                    for (unsigned rest = 0; rest < kHeartbeatResults * 8U; ++rest) {
                        visit({status, static_cast<Grace>(grace), static_cast<Life>(life),
                               static_cast<Confirming>(confirming), static_cast<int>(rest >> 3U),
                               (rest & 1U) != 0, (rest & 2U) != 0, (rest & 4U) != 0 ? kPriority : 0,
                               pollSeconds});
                    }
                }
            }
        }
    }
}

void forEachOfAll(const Combinations& visit) {
    for (int status = kLowestStatus; status <= kHighestStatus; ++status) {
        forEach(status, visit);
    }
}

/// The text of a line for the combination.
std::string lineText(const Line& line, const Combination& met) {
    std::string text = line.text;
    const auto fill = [&text](std::string_view name, const std::string& value) {
        const std::size_t at = text.find(name);
        if (at != std::string::npos) {
            text.replace(at, name.size(), value);
        }
    };
    fill("DATE", kStarts[met.grace].date);
    fill("STATUS", std::to_string(met.status));
    return text;
}

/// What a check left in the world, and what it shall leave.
struct Traces {
    std::vector<std::string> calls;
    std::vector<std::string> log;
    std::string console;

    void add(const Line& line, const Combination& met) {
        if (verbose <= line.loggedAbove && verbose <= line.shownAbove) {
            return;
        }
        const std::string text = lineText(line, met);
        if (verbose > line.loggedAbove) {
            log.push_back(text);
        }
        if (verbose > line.shownAbove) {
            console += text + "\n";
        }
    }
    void addLook(bool reads, bool pauses) {
        calls.emplace_back("probe 700");
        if (reads) {
            calls.emplace_back("confirm /tmp/meter_io.pid 1.2");
        }
        if (pauses) {
            calls.emplace_back("sleep 100");
        }
    }
};

void addLooks(const FindingRow& row, int polls, Traces& traces) {
    for (int look = 0; look < row.waits.of(polls); ++look) {
        traces.addLook(false, row.polls);
    }
    for (int look = 0; look < row.readings.of(polls); ++look) {
        traces.addLook(true, row.polls);
    }
    if (row.lastLook) {
        traces.addLook(false, row.polls);
    }
}

void addHeartbeatSteps(const OutcomeRow& row, const Combination& met, Traces& traces) {
    const bool greets = !row.lines.empty() && row.lines.front().text == kIsAlive.text;
    if (greets && met.priority != 0) {
        traces.calls.emplace_back("setpriority 700 5");
    }
    if (row.heartbeatSteps >= kCheck) {
        traces.calls.emplace_back("heartbeat_check 700 30");
    }
    if (row.heartbeatSteps >= kCheckAndLook) {
        traces.addLook(false, false);
    }
    if (row.heartbeatSteps == kCheckAndClean) {
        traces.calls.emplace_back("heartbeat_cleanup 700");
    }
}

Traces tracesOf(const Expected& expected, const Combination& met) {
    Traces traces;
    traces.add(kCheckLine, met);
    traces.add(expected.entry->line, met);
    if (expected.entry->pauses && verbose > expected.entry->line.shownAbove) {
        traces.calls.emplace_back("sleep 100");
    }
    addLooks(*expected.finding, kPollsPerSecond * met.pollSeconds, traces);
    addHeartbeatSteps(*expected.outcome, met, traces);
    for (const Line& line : expected.outcome->lines) {
        traces.add(line, met);
    }
    return traces;
}

std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "  " + line + "\n";
    }
    return text;
}

/// Runs checks and compares them with the table.
class LivenessTable : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().addProcess(kPid, "meter_io", "");
        world().pidFileRefusal = kRefusal;
        world().onCall = [this](const std::string& call) {
            if (call == "probe 700") {
                ++looks_;
                process_->alive = looks_ >= firstLook_ && looks_ <= lastLook_;
            }
        };
        world().onPidFileRead = [this](const char* path, const char* version) {
            world().record(std::string("confirm ") + path + " " + version);
            if (++readings_ == firstConfirming_) {
                world().pidFiles[kPidFile] = "700\n1.2\n";
            }
        };
        process_ = world().process(kPid);
    }

    void script(const Combination& met) {
        const int polls =
            met.pollSeconds != 0 ? kPollsPerSecond * met.pollSeconds : kPollsOfLifeWithoutAny;
        firstLook_ = kLifeSpans[met.life].first.of(polls);
        lastLook_ = kLifeSpans[met.life].last.of(polls);
        firstConfirming_ = kFirstConfirming[met.confirming].of(polls);
        looks_ = 0;
        readings_ = 0;
        world().forgetRecords();
        world().now = kNow;
        world().nowMs = 0;
        world().pidFiles.clear();
        world().heartbeats[kPid] = met.heartbeatResult;
        app_pidfile_minimum_start_time = met.pollSeconds;
        AppManagerTestAccess::lastHeartbeatResult(manager_) = kEarlierHeartbeat;
    }

    static appinfo entryOf(const Combination& met) {
        appinfo entry = {};
        platform::copyToField(entry.name, "meter_io");
        platform::copyToField(entry.version, kVersion);
        platform::copyToField(entry.pidfile, kPidFile);
        entry.pid = kPid;
        entry.status = met.status;
        entry.start_time = static_cast<std::int32_t>(kNow + kStarts[met.grace].sinceNowSec);
        entry.priority = met.priority;
        entry.check_flag = met.checkFlag ? 1 : 0;
        entry.heartbeat = met.heartbeat ? 1 : 0;
        return entry;
    }

    /// Runs the check of one combination; says what differs from the table.
    void compare(const Combination& met) {
        if (differences_ >= kMostDifferences) {
            return;
        }
        const Expected expected = expectedOf(met);
        if (!expected.complete()) {
            report(met, "has no row, or several", "", "");
            return;
        }
        script(met);
        applist = {entryOf(met)};
        const int result = manager_.checkAlive(applist.begin());
        compareEntry(met, *expected.outcome, result);
        compareTraces(met, tracesOf(expected, met));
    }

    void compareEntry(const Combination& met, const OutcomeRow& row, int result) {
        appinfo after = entryOf(met);
        after.status = row.status != kUnchanged ? row.status : met.status;
        if (row.checkFlagEffect != kKeeps) {
            after.check_flag = row.checkFlagEffect == kSets ? 1 : 0;
        }
        const int heartbeat =
            row.heartbeatSteps != kNoCheck ? met.heartbeatResult : kEarlierHeartbeat;
        const appinfo& entry = applist.front();
        expectSame(met, "result", row.result, result);
        expectSame(met, "status", after.status, entry.status);
        expectSame(met, "check_flag", after.check_flag, entry.check_flag);
        expectSame(met, "last_heartbeat_result", heartbeat,
                   AppManagerTestAccess::lastHeartbeatResult(manager_));
        if (std::memcmp(&after, &entry, sizeof after) != 0) {
            report(met, "changes other fields too", "", "");
        }
    }

    void compareTraces(const Combination& met, const Traces& expected) {
        if (world().calls != expected.calls) {
            report(met, "calls", joinLines(expected.calls), joinLines(world().calls));
        }
        bool sameLog = world().log.size() == expected.log.size();
        for (std::size_t line = 0; sameLog && line < expected.log.size(); ++line) {
            sameLog = world().log[line].level == levels::kLevelInfo &&
                      world().log[line].text == expected.log[line];
        }
        if (!sameLog) {
            report(met, "log, level 6", joinLines(expected.log), joinLines(world().logTexts()));
        }
        if (world().console != expected.console) {
            report(met, "console", expected.console, world().console);
        }
    }

    void expectSame(const Combination& met, const char* what, int expected, int found) {
        if (expected != found) {
            report(met, what, std::to_string(expected), std::to_string(found));
        }
    }

    void report(const Combination& met, const char* what, const std::string& expected,
                const std::string& found) {
        ++differences_;
        ADD_FAILURE() << describe(met) << "\n"
                      << what << "\nexpected:\n"
                      << expected << "\nfound:\n"
                      << found;
    }

    FixtureManager manager_;
    fakes::Process* process_ = nullptr;
    int firstLook_ = 0;
    int lastLook_ = 0;
    int firstConfirming_ = 0;
    int looks_ = 0;
    int readings_ = 0;
    int differences_ = 0;
};

std::string statusName(const testing::TestParamInfo<int>& status) {
    return status.param < 0 ? "Minus" + std::to_string(-status.param)
                            : std::to_string(status.param);
}

INSTANTIATE_TEST_SUITE_P(Status, LivenessTable, testing::Range(kLowestStatus, kHighestStatus + 1),
                         statusName);

// --- the whole table -----------------------------------------------------------------------------

TEST_P(LivenessTable, HoldsForEveryCombinationWhenAllIsShown) {
    verbose = kMostVerbose;
    forEach(GetParam(), [this](const Combination& met) { compare(met); });
}

/// Priority and the number of polls have no part in what is shown: one value of each will do.
TEST_P(LivenessTable, HoldsAtEveryVerbosity) {
    for (verbose = 0; verbose <= kMostVerbose; ++verbose) {
        forEach(GetParam(), [this](const Combination& met) {
            if (met.pollSeconds == 1 && met.priority != 0) {
                compare(met);
            }
        });
    }
}

// --- the table itself ----------------------------------------------------------------------------

TEST(LivenessTableRows, ArePreciselyOneOfEachKindForEveryCombination) {
    int withoutRow = 0;
    forEachOfAll([&withoutRow](const Combination& met) {
        if (!expectedOf(met).complete() && ++withoutRow <= kMostDifferences) {
            ADD_FAILURE() << "no row, or several: " << describe(met);
        }
    });
    EXPECT_EQ(withoutRow, 0);
}

template <typename Row>
void expectAllUsed(const std::vector<Row>& rows, const std::vector<const Row*>& used,
                   const char* kind) {
    for (const Row& row : rows) {
        EXPECT_NE(std::find(used.begin(), used.end(), &row), used.end())
            << kind << " row " << &row - rows.data() << " is met by no combination";
    }
}

TEST(LivenessTableRows, AreAllUsed) {
    Rows<EntryRow> entryRows;
    Rows<FindingRow> findingRows;
    Rows<OutcomeRow> outcomeRows;
    const auto note = [](auto& rows, const auto* row) {
        if (std::find(rows.begin(), rows.end(), row) == rows.end()) {
            rows.push_back(row);
        }
    };
    forEachOfAll([&](const Combination& met) {
        const Expected expected = expectedOf(met);
        note(entryRows, expected.entry);
        note(findingRows, expected.finding);
        note(outcomeRows, expected.outcome);
    });
    expectAllUsed(kEntryRows, entryRows, "entry");
    expectAllUsed(kFindingRows, findingRows, "finding");
    expectAllUsed(kOutcomeRows, outcomeRows, "outcome");
}

} // namespace
} // namespace livenesstable

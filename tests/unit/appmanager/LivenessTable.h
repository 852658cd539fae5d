// What a check of one application finds out, and what follows from it: the transition table of the
// supervision as data. Every combination of the dimensions below meets exactly one row of each of
// the three tables.
//
// The tables speak of the application "meter_io" with pid 700. In their texts DATE stands for its
// start time and STATUS for its status before the check.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_TABLE_H
#define OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_TABLE_H

#include <initializer_list>
#include <vector>

namespace livenesstable {

// --- dimensions ----------------------------------------------------------------------------------

inline constexpr int kLowestStatus = -1;
inline constexpr int kHighestStatus = 11;

/// Where the check lies in the grace period of 30 seconds.
enum Grace {
    kInGrace,   ///< in its last second
    kGraceOver, ///< just over
    kInFuture,  ///< the entry starts in a second
    kGraces
};

/// When the process lives, in looks at it; N is the number of polls.
enum Life {
    kNever,
    kAtOnce,
    kAfterOne,           ///< from the second look on
    kAfterAllButOne,     ///< from look N on
    kAfterAll,           ///< from look N + 1 on
    kDiesAfterOne,       ///< at the first look only
    kDiesAfterTwo,       ///< at the first two
    kDiesAfterAllButOne, ///< at the first N - 1
    kDiesAfterAll,       ///< at the first N
    kSecondOnly,         ///< at the second look only
    kLastOnly,           ///< at look N only
    kLives
};

/// When the pid file confirms the process, in readings of it.
enum Confirming {
    kConfirmsNever,
    kConfirmsAtOnce,
    kConfirmsAfterOne,       ///< from the second reading on
    kConfirmsAfterAllButOne, ///< from reading N on
    kConfirmsAfterAll,       ///< from reading N + 1 on
    kConfirmings
};

inline constexpr int kHeartbeatResults = 4; ///< 0 to 3

/// Values of app_pidfile_minimum_start_time; ten polls each.
inline constexpr int kPollSeconds[] = {0, 1, 7};

/// A set of small numbers of one dimension.
template <typename Value> class Set {
public:
    constexpr Set(std::initializer_list<Value> values) {
        for (const Value value : values) {
            bits_ |= bit(value);
        }
    }
    static constexpr Set all() {
        Set everything(std::initializer_list<Value>{});
        everything.bits_ = ~0U;
        return everything;
    }
    constexpr bool has(Value value) const { return (bits_ & bit(value)) != 0; }

private:
    static constexpr unsigned bit(Value value) {
        return 1U << (static_cast<int>(value) - kLowestStatus);
    }
    unsigned bits_ = 0;
};

/// Every value of any dimension.
struct Any {
    template <typename Value> constexpr operator Set<Value>() const { return Set<Value>::all(); }
};
inline constexpr Any kAny;

struct Combination {
    int status;
    Grace grace;
    Life life;
    Confirming confirming;
    int heartbeatResult;
    bool heartbeat;
    bool checkFlag;
    int priority;
    int pollSeconds;
};

// --- lines ---------------------------------------------------------------------------------------

inline constexpr int kAlways = -1;
inline constexpr int kNotAtAll = 99;

/// One line: logged, at level 6, and shown on the console when the verbosity is above these.
struct Line {
    int loggedAbove;
    int shownAbove;
    const char* text;
};

/// The first line of every check.
inline constexpr Line kCheckLine = {
    kNotAtAll, 5, "checkAlive() meter_io status=STATUS pid=700 at Tue Nov 14 22:13:20 2023"};

// --- first table: on entering a branch -----------------------------------------------------------

struct EntryRow {
    Set<int> statuses;
    Line line;
    bool pauses; ///< 100 ms after the line
};

inline const std::vector<EntryRow> kEntryRows = {
    {{0, 1}, {kNotAtAll, 7, "checkAlive() starting0"}, false},
    {{2}, {kNotAtAll, 7, "checkAlive() starting"}, false},
    {{3}, {kNotAtAll, 7, "checkAlive() running0"}, false},
    {{4}, {kNotAtAll, 7, "checkAlive() running"}, false},
    {{6}, {7, 7, "warning: checkAlive: meter_io[pid=700] start_time=DATE status=6, dead"}, true},
    {{8},
     {7, 7, "warning: checkAlive: meter_io[pid=700] start_time=DATE status=8, start failure"},
     true},
    {{-1, 5, 7, 9, 10, 11},
     {7, 7, "warning: checkAlive: meter_io[pid=700] start_time=DATE status=STATUS, unknown status"},
     true},
};

// --- second table: what is found out -------------------------------------------------------------

enum Found {
    kLeftAlone,
    kNotAlive,    ///< dead, and its pid file was never read
    kDied,        ///< dead after readings of its pid file
    kUnconfirmed, ///< alive, not confirmed
    kConfirmed,
    kAlive,  ///< its pid file is not asked for
    kGoing,  ///< alive at this look, but not at the next one
    kIgnored ///< alive or not
};

/// A number that depends on N.
struct Count {
    int timesN;
    int plus;
    constexpr int of(int polls) const { return timesN * polls + plus; }
};

inline constexpr Count kNone = {0, 0};
inline constexpr Count kOne = {0, 1};
inline constexpr Count kTwo = {0, 2};
inline constexpr Count kAll = {1, 0};
inline constexpr Count kAllButOne = {1, -1};
inline constexpr Count kAllButTwo = {1, -2};

/// First come `waits` looks at the process alone, then `readings` looks each with a reading of the
/// pid file, then a last look that finds it dead. A pause of 100 ms follows each when it polls.
struct FindingRow {
    Set<int> statuses;
    Set<Grace> graces;
    Set<int> pollSeconds;
    Set<Life> lives;
    Set<Confirming> confirmings;
    Found found;
    Count waits;
    Count readings;
    bool lastLook;
    bool polls;
};

inline constexpr Set<Grace> kNoGrace = {kGraceOver, kInFuture};
inline constexpr Set<int> kSomePolls = {1, 7};
inline constexpr Set<int> kUnsupervised = {-1, 5, 7, 9, 10, 11};
inline constexpr Set<Confirming> kOnlyAtOnce = {kConfirmsAtOnce};
inline constexpr Set<Confirming> kOnlyAfterOne = {kConfirmsAfterOne};
inline constexpr Set<Confirming> kOnlyAtLast = {kConfirmsAfterAllButOne};
inline constexpr Set<Confirming> kNotAtOnce = {kConfirmsNever, kConfirmsAfterOne,
                                               kConfirmsAfterAllButOne, kConfirmsAfterAll};
inline constexpr Set<Confirming> kLate = {kConfirmsNever, kConfirmsAfterAllButOne,
                                          kConfirmsAfterAll};
inline constexpr Set<Confirming> kTooLate = {kConfirmsNever, kConfirmsAfterAll};
inline constexpr Set<Life> kDeadAtFirst = {kNever,    kAfterOne,   kAfterAllButOne,
                                           kAfterAll, kSecondOnly, kLastOnly};
inline constexpr Set<Life> kAliveAtFirst = {kAtOnce, kDiesAfterOne, kDiesAfterTwo,
                                            kDiesAfterAllButOne, kDiesAfterAll};
inline constexpr Set<Life> kAliveAtFirstTwo = {kAtOnce, kDiesAfterTwo, kDiesAfterAllButOne,
                                               kDiesAfterAll};

// clang-format off
inline const std::vector<FindingRow> kFindingRows = {
    // In grace nothing is looked at; without polls nothing is found alive.
    {{0, 1, 2, 3, 4}, {kInGrace}, kAny, kAny, kAny, kLeftAlone, kNone, kNone, false, false},
    {{0, 1, 2, 3}, kNoGrace, {0}, kAny, kAny, kNotAlive, kNone, kNone, false, true},

    // 0 and 1: up to N polls until it lives, then up to N for the pid file.
    {{0, 1}, kNoGrace, kSomePolls, {kNever, kAfterAll}, kAny, kNotAlive, kAll, kNone, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAtOnce, kDiesAfterTwo, kDiesAfterAllButOne, kDiesAfterAll},
     kOnlyAtOnce, kConfirmed, kOne, kOne, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAtOnce, kDiesAfterAllButOne, kDiesAfterAll},
     kOnlyAfterOne, kConfirmed, kOne, kTwo, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAtOnce}, kOnlyAtLast, kConfirmed, kOne, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAtOnce}, kTooLate, kUnconfirmed, kOne, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterOne}, kOnlyAtOnce, kConfirmed, kTwo, kOne, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterOne}, kOnlyAfterOne, kConfirmed, kTwo, kTwo, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterOne}, kOnlyAtLast, kConfirmed, kTwo, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterOne}, kTooLate, kUnconfirmed, kTwo, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterAllButOne},
     kOnlyAtOnce, kConfirmed, kAll, kOne, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterAllButOne},
     kOnlyAfterOne, kConfirmed, kAll, kTwo, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterAllButOne},
     kOnlyAtLast, kConfirmed, kAll, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kAfterAllButOne},
     kTooLate, kUnconfirmed, kAll, kAll, false, true},
    {{0, 1}, kNoGrace, kSomePolls, {kDiesAfterOne}, kAny, kNotAlive, kOne, kNone, true, true},
    {{0, 1}, kNoGrace, kSomePolls, {kDiesAfterTwo}, kNotAtOnce, kDied, kOne, kOne, true, true},
    {{0, 1}, kNoGrace, kSomePolls, {kDiesAfterAllButOne},
     kLate, kDied, kOne, kAllButTwo, true, true},
    {{0, 1}, kNoGrace, kSomePolls, {kDiesAfterAll}, kLate, kDied, kOne, kAllButOne, true, true},
    {{0, 1}, kNoGrace, kSomePolls, {kSecondOnly}, kAny, kNotAlive, kTwo, kNone, true, true},
    {{0, 1}, kNoGrace, kSomePolls, {kLastOnly}, kAny, kNotAlive, kAll, kNone, true, true},

    // 2 and 3: up to N polls for the pid file; the first one that finds it dead ends them.
    {{2, 3}, kNoGrace, kSomePolls, kDeadAtFirst, kAny, kNotAlive, kNone, kNone, true, true},
    {{2, 3}, kNoGrace, kSomePolls, kAliveAtFirst,
     kOnlyAtOnce, kConfirmed, kNone, kOne, false, true},
    {{2, 3}, kNoGrace, kSomePolls, kAliveAtFirstTwo,
     kOnlyAfterOne, kConfirmed, kNone, kTwo, false, true},
    {{2, 3}, kNoGrace, kSomePolls, {kAtOnce, kDiesAfterAll},
     kOnlyAtLast, kConfirmed, kNone, kAll, false, true},
    {{2, 3}, kNoGrace, kSomePolls, {kAtOnce, kDiesAfterAll},
     kTooLate, kUnconfirmed, kNone, kAll, false, true},
    {{2, 3}, kNoGrace, kSomePolls, {kDiesAfterOne}, kNotAtOnce, kDied, kNone, kOne, true, true},
    {{2, 3}, kNoGrace, kSomePolls, {kDiesAfterTwo}, kLate, kDied, kNone, kTwo, true, true},
    {{2, 3}, kNoGrace, kSomePolls, {kDiesAfterAllButOne},
     kLate, kDied, kNone, kAllButOne, true, true},

    // The others look once.
    {{4}, kNoGrace, kAny, kDeadAtFirst, kAny, kNotAlive, kNone, kNone, true, false},
    {{4}, kNoGrace, kAny, kAliveAtFirstTwo, kAny, kAlive, kOne, kNone, false, false},
    {{4}, kNoGrace, kAny, {kDiesAfterOne}, kAny, kGoing, kOne, kNone, false, false},
    {{6, 8}, kAny, kAny, kDeadAtFirst, kAny, kNotAlive, kNone, kNone, true, false},
    {{6, 8}, kAny, kAny, kAliveAtFirst, kOnlyAtOnce, kConfirmed, kNone, kOne, false, false},
    {{6, 8}, kAny, kAny, kAliveAtFirst, kNotAtOnce, kUnconfirmed, kNone, kOne, false, false},
    {kUnsupervised, kAny, kAny, kDeadAtFirst, kAny, kIgnored, kNone, kNone, true, false},
    {kUnsupervised, kAny, kAny, kAliveAtFirst, kAny, kIgnored, kNone, kOne, false, false},
};
// clang-format on

// --- third table: what follows -------------------------------------------------------------------

inline constexpr int kUnchanged = -100; ///< of a status

enum FlagEffect { kKeeps, kSets, kClears };

enum HeartbeatSteps {
    kNoCheck,
    kCheck,        ///< the heartbeat is checked
    kCheckAndLook, ///< then the process is looked at once more
    kCheckAndClean ///< and its heartbeat is cleaned up
};

/// `lines` come in this order. When the first of them is the one of an application found alive, its
/// priority is set before it, unless that is 0.
struct OutcomeRow {
    Set<int> statuses;
    Set<Found> found;
    Set<int> heartbeatResults;
    Set<bool> heartbeat;
    Set<bool> checkFlag;
    int status;
    int result;
    FlagEffect checkFlagEffect;
    HeartbeatSteps heartbeatSteps;
    std::vector<Line> lines;
};

inline constexpr Set<int> kFresh = {0, 1};
inline constexpr Set<bool> kSet = {true};
inline constexpr Set<bool> kClear = {false};

inline constexpr Line kIsAlive = {kAlways, kNotAtAll,
                                  "checkAlive: meter_io[pid=700] running, is alive"};
inline constexpr Line kHeartbeatDead = {
    2, 5, "checkAlive: meter_io[pid=700] start_time=DATE running, heartbeat dead"};
inline constexpr Line kHeartbeatMissing = {
    2, 5, "checkAlive: meter_io[pid=700] start_time=DATE running, heartbeat missing"};

// clang-format off
inline const std::vector<OutcomeRow> kOutcomeRows = {
    {{0, 1}, {kLeftAlone}, kAny, kAny, kAny, kUnchanged, 1, kKeeps, kNoCheck,
     {{kNotAtAll, 6, "checkAlive() meter_io pid=700 start_time=DATE starting0 for 29 sec"}}},
    {{0, 1}, {kConfirmed}, kAny, kAny, kAny, 2, 1, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] starting0 confirmed pidfile, now starting"}}},
    {{0, 1}, {kUnconfirmed}, kAny, kAny, kAny, 3, 0, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] starting0 unconfirmed pidfile, now running"}}},
    {{0, 1}, {kNotAlive, kDied}, kAny, kAny, kAny, 8, 0, kKeeps, kNoCheck,
     {{2, 5, "checkAlive: meter_io[pid=700] start_time=DATE starting0 confirmed start failure"}}},

    {{2}, {kLeftAlone}, kAny, kAny, kAny, kUnchanged, 1, kKeeps, kNoCheck,
     {{kNotAtAll, 6, "checkAlive() meter_io pid=700 start_time=DATE starting for 29 sec"}}},
    {{2}, {kConfirmed}, kAny, kAny, kAny, 4, 1, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] starting confirmed pidfile, now running"}}},
    {{2}, {kUnconfirmed}, kAny, kAny, kAny, 3, 1, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] starting unconfirmed pidfile, now running0"}}},
    {{2}, {kNotAlive, kDied}, kAny, kAny, kAny, 8, 0, kClears, kNoCheck,
     {{2, 5, "checkAlive: meter_io[pid=700] start_time=DATE starting, confirmed dead"}}},

    {{3}, {kLeftAlone}, kAny, kAny, kAny, kUnchanged, 1, kKeeps, kNoCheck,
     {{kNotAtAll, 6, "checkAlive() meter_io pid=700 start_time=DATE running0 for 29 sec"}}},
    {{3}, {kConfirmed}, kAny, kAny, kAny, 4, 1, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] running0 confirmed pidfile, now running"}}},
    {{3}, {kUnconfirmed}, kAny, kClear, kAny, kUnchanged, 1, kKeeps, kNoCheck, {}},
    {{3}, {kUnconfirmed}, kAny, kSet, kAny, 4, 1, kKeeps, kNoCheck,
     {{3, 5, "checkAlive: meter_io[pid=700] running0 unconfirmed pidfile required, now running"}}},
    {{3}, {kNotAlive}, kAny, kAny, kAny, 6, 0, kClears, kNoCheck,
     {{2, 5, "checkAlive: meter_io[pid=700] start_time=DATE running0, confirmed dead ret=-1"}}},
    {{3}, {kDied}, kAny, kAny, kAny, 6, 0, kClears, kNoCheck,
     {{2, 5, "checkAlive: meter_io[pid=700] start_time=DATE running0, confirmed dead ret=-2"}}},

    {{4}, {kLeftAlone}, kAny, kAny, kAny, kUnchanged, 1, kKeeps, kNoCheck,
     {{kNotAtAll, 6, "checkAlive: meter_io[pid=700] start_time=DATE running for 29 sec"}}},
    {{4}, {kNotAlive}, kAny, kAny, kAny, 6, 0, kClears, kNoCheck,
     {{2, 5, "checkAlive: meter_io[pid=700] start_time=DATE running, is dead"}}},
    {{4}, {kAlive, kGoing}, kFresh, kAny, kClear, kUnchanged, 1, kSets, kCheck, {kIsAlive}},
    {{4}, {kAlive, kGoing}, kFresh, kAny, kSet, kUnchanged, 1, kKeeps, kCheck, {}},
    {{4}, {kAlive, kGoing}, {3}, kClear, kClear, kUnchanged, 1, kSets, kCheck, {kIsAlive}},
    {{4}, {kAlive, kGoing}, {3}, kClear, kSet, kUnchanged, 1, kKeeps, kCheck, {}},
    {{4}, {kAlive, kGoing}, {3}, kSet, kClear, kUnchanged, 0, kClears, kCheck,
     {kIsAlive, kHeartbeatMissing}},
    {{4}, {kAlive, kGoing}, {3}, kSet, kSet, kUnchanged, 0, kClears, kCheck, {kHeartbeatMissing}},
    {{4}, {kAlive}, {2}, kAny, kClear, 6, 0, kClears, kCheckAndLook, {kIsAlive, kHeartbeatDead}},
    {{4}, {kAlive}, {2}, kAny, kSet, 6, 0, kClears, kCheckAndLook, {kHeartbeatDead}},
    {{4}, {kGoing}, {2}, kAny, kClear, 6, 0, kClears, kCheckAndClean, {kIsAlive, kHeartbeatDead}},
    {{4}, {kGoing}, {2}, kAny, kSet, 6, 0, kClears, kCheckAndClean, {kHeartbeatDead}},

    {{6}, {kNotAlive}, kAny, kAny, kAny, kUnchanged, 0, kClears, kNoCheck, {}},
    {{6}, {kConfirmed}, kAny, kAny, kAny, 4, 1, kClears, kNoCheck,
     {{kAlways, 3,
       "checkAlive: meter_io[pid=700] dead, confirmed alive and pidfile, now running"}}},
    {{6}, {kUnconfirmed}, kAny, kAny, kAny, 3, 1, kClears, kNoCheck,
     {{kAlways, 3,
       "checkAlive: meter_io[pid=700] dead, confirmed alive and pidfile, now running0"}}},

    {{8}, {kNotAlive}, kAny, kAny, kAny, kUnchanged, 0, kClears, kNoCheck, {}},
    {{8}, {kConfirmed}, kAny, kAny, kAny, 4, 1, kClears, kNoCheck,
     {{kAlways, 3,
       "checkAlive: meter_io[pid=700] start failure, confirmed alive and pidfile, now running"}}},
    {{8}, {kUnconfirmed}, kAny, kAny, kAny, 3, 1, kClears, kNoCheck,
     {{kAlways, 3,
       "checkAlive: meter_io[pid=700] start failure, confirmed alive and pidfile, now running0"}}},

    {kUnsupervised, {kIgnored}, kAny, kAny, kAny, kUnchanged, 0, kClears, kNoCheck, {}},
};
// clang-format on

} // namespace livenesstable

#endif // OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_TABLE_H

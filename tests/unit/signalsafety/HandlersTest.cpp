// The signal handlers call nothing that a signal handler must not call.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <set>
#include <string>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"
#include "tests/unit/signalsafety/CallTrace.h"

namespace signalsafety {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::IsSupersetOf;

using Names = std::set<std::string>;

constexpr const char* kWatchdog = "/dev/watchdog";
constexpr const char* kWatchdogAside = "/dev/watchdog.aside";

/// What POSIX allows, as far as it is of use here, under the names that the C library has for it.
const Names kSafe = {
    "close",
    "fstat",
    "fstat64",
    "fsync",
    "lstat",
    "lstat64",
    "memcpy",
    "memmove",
    "memset",
    "open",
    "open64",
    "openat",
    "openat64",
    "poll",
    "rename",
    "send",
    "sigpending",
    "strlen",
    "strnlen",
    "write",
    "clock_gettime",
    "fchmod",
    "__errno_location", // the place of errno, by the thread's own pointer
    "sysinfo",          // a system call and nothing else
    "strerrordesc_np",  // reads a table; the library's manual calls it safe
    // What the compiler has numbers of 64 bits divided by on processors of 32 bits.
    "__divdi3",
    "__moddi3",
    "__udivdi3",
    "__umoddi3",
};

/// Only what feeding needs.
const Names kFeeding = {"__errno_location", "fsync", "write"};

Names with(Names names, const Names& more) {
    names.insert(more.begin(), more.end());
    return names;
}

// --- what is traced ------------------------------------------------------------------------------

siginfo_t signalWith(void* value) {
    siginfo_t info = {};
    info.si_signo = SIGUSR1;
    info.si_value.sival_ptr = value;
    return info;
}

// Made beforehand: only what the handlers call counts.
siginfo_t ownSignal = signalWith(&timerid);
siginfo_t foreignSignal = signalWith(nullptr);

void tick() {
    timerHandler(SIGUSR1, &ownSignal, nullptr);
}

void foreignTick() {
    timerHandler(SIGUSR1, &foreignSignal, nullptr);
}

void logSignal() {
    mysig_handler(SIGSEGV);
}

void useSmallestInterval() {
    initWatchDog = true;
    watchdog_timer_inteval = 1;
    watchdogDeferTime = 0;
}

template <int verbosity> void openDevice() {
    useSmallestInterval();
    g_verbose = verbosity;
    wdog_fd = ::open(kWatchdog, O_RDWR | O_CLOEXEC);
}

template <int verbosity> void openDeviceAndLatch() {
    openDevice<verbosity>();
    detect_heartbeat = 1;
}

void stallMainLoop() {
    openDeviceAndLatch<5>();
    thread_heartbeat_counter = 25;
}

void deferFor300Seconds() {
    openDevice<5>();
    watchdogDeferTime = 300;
}

template <int verbosity> void closeDevice() {
    useSmallestInterval();
    g_verbose = verbosity;
}

/// No device while it lives.
class DeviceAside {
public:
    DeviceAside() { EXPECT_EQ(std::rename(kWatchdog, kWatchdogAside), 0); }
    ~DeviceAside() { EXPECT_EQ(std::rename(kWatchdogAside, kWatchdog), 0); }
    DeviceAside(const DeviceAside&) = delete;
    DeviceAside& operator=(const DeviceAside&) = delete;
};

std::string fed() {
    char text[16] = "";
    const int device = ::open(kWatchdog, O_RDONLY | O_CLOEXEC);
    const ssize_t count = ::read(device, text, sizeof text);
    (void)::close(device);
    return {text, count > 0 ? static_cast<std::size_t>(count) : 0};
}

class Handlers : public testing::Test {
protected:
    Handlers() { EXPECT_EQ(::truncate(kWatchdog, 0), 0); }

    static CallTrace traced(void (*prepare)(), void (*code)()) {
        CallTrace trace = traceCalls(prepare, code, kSafe);
        EXPECT_EQ(trace.failure, "");
        EXPECT_GT(trace.instructions, 10);
        return trace;
    }
};

// --- the timer's handler -------------------------------------------------------------------------

TEST_F(Handlers, FeedingOfAnOpenDeviceIsWriteAndFlushOnly) {
    for (auto* const prepare :
         {openDeviceAndLatch<0>, openDeviceAndLatch<3>, openDeviceAndLatch<5>}) {
        const CallTrace trace = traced(prepare, tick);
        EXPECT_THAT(trace.calls, IsSupersetOf({"fsync", "write"}));
        EXPECT_THAT(trace.calls, IsSubsetOf(kFeeding));
    }
    EXPECT_EQ(fed(), "w") << "each feeds at the beginning of the file";
}

TEST_F(Handlers, UntilFeedingBeginsTheUptimeIsReadToo) {
    // Some compilers have a call clear the record that the system fills in.
    const Names allowed = with(kFeeding, {"memset", "sysinfo"});
    const CallTrace first = traced(openDevice<5>, tick);
    EXPECT_THAT(first.calls, Contains("sysinfo"));
    EXPECT_THAT(first.calls, IsSubsetOf(allowed));
    const CallTrace deferred = traced(deferFor300Seconds, tick);
    EXPECT_THAT(deferred.calls, Contains("sysinfo"));
    EXPECT_THAT(deferred.calls, IsSubsetOf(allowed));
}

TEST_F(Handlers, StalledLoopMeansNoCallAtAll) {
    const CallTrace trace = traced(stallMainLoop, tick);
    EXPECT_THAT(trace.calls, IsSubsetOf({"__errno_location"}));
    EXPECT_EQ(fed(), "");
}

TEST_F(Handlers, ForeignTickMeansNoCallAtAll) {
    const CallTrace trace = traced(openDeviceAndLatch<9>, foreignTick);
    EXPECT_THAT(trace.calls, IsSubsetOf({"__errno_location"}));
    EXPECT_EQ(fed(), "");
}

TEST_F(Handlers, VerboseFeedingIsSafeToo) {
    const CallTrace trace = traced(openDeviceAndLatch<9>, tick);
    EXPECT_THAT(trace.calls, Contains("write"));
    EXPECT_THAT(trace.calls, IsSubsetOf(kSafe));
    EXPECT_EQ(fed(), "w");
}

TEST_F(Handlers, OpeningTheDeviceIsSafe) {
    for (auto* const prepare : {closeDevice<5>, closeDevice<9>}) {
        const CallTrace trace = traced(prepare, tick);
        EXPECT_THAT(trace.calls, Contains(testing::StartsWith("open")));
        EXPECT_THAT(trace.calls, IsSubsetOf(kSafe));
    }
    EXPECT_EQ(fed(), "w");
}

TEST_F(Handlers, ReportOfAMissingDeviceIsSafe) {
    const DeviceAside noDevice;
    for (auto* const prepare : {closeDevice<5>, closeDevice<9>}) {
        const CallTrace trace = traced(prepare, tick);
        EXPECT_THAT(trace.calls, Contains(testing::StartsWith("open")));
        EXPECT_THAT(trace.calls, IsSubsetOf(kSafe));
    }
}

// --- the logging handler -------------------------------------------------------------------------

TEST_F(Handlers, LoggedSignalNeitherAllocatesNorLocks) {
    // Formatting one number does neither, although the function in general may.
    const CallTrace trace = traced(openDevice<5>, logSignal);
    EXPECT_THAT(trace.calls, Contains("write"));
    EXPECT_THAT(trace.calls, IsSubsetOf(with(kSafe, {"snprintf", "__snprintf_chk"})));
}

// --- the trace itself ----------------------------------------------------------------------------

std::string* volatile text = nullptr;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

void doNothing() {}

void allocate() {
    text = new std::string(100, 'x');
}

void print() {
    (void)std::fflush(stdout);
}

void lock() {
    pthread_mutex_lock(&mutex);
}

TEST_F(Handlers, TraceShowsWhatMustNotBeCalled) {
    const auto calls = [](void (*code)()) { return traceCalls(doNothing, code, kSafe).calls; };
    EXPECT_THAT(calls(doNothing), IsEmpty());
    EXPECT_THAT(calls(allocate), Contains(testing::StartsWith("_Znw"))); // then the type of a size
    EXPECT_THAT(calls(print), Contains("fflush"));
    EXPECT_THAT(calls(lock), Contains("pthread_mutex_lock"));
}

void crash() {
    (void)std::raise(SIGKILL);
}

TEST_F(Handlers, TraceSaysWhenTheCodeDidNotEnd) {
    EXPECT_EQ(traceCalls(doNothing, crash, kSafe).failure, "the code did not come to its end");
}

} // namespace
} // namespace signalsafety

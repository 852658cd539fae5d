// What the monitor costs while nothing happens: its memory, its system calls and how often it wakes
// the processor, beside a number of applications that are in order.
//
// The real program is run. The applications run before it and are adopted; once the idle monitor
// has been measured, each is launched anew, by one request through the control socket, because
// launches leave their traces in the memory.

#include <dirent.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/OvardClient.h"
#include "platform/Process.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "status/AppStatusUpdate.h"
#include "tests/bench/Limits.h"
#include "tests/bench/MemoryUse.h"
#include "tests/bench/NeededCalls.h"
#include "tests/bench/SystemCalls.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Words = std::vector<std::string>;

constexpr double kMinuteSec = 60;

/// Limits on the memory, in kilobytes of 1000 bytes.
struct MemoryLimits {
    double rss; ///< 0: none
    double pss;
};
constexpr MemoryLimits kShippedLimits = {3800, 2200};
constexpr MemoryLimits kStaticLimits = {0, 1000}; ///< linked statically

constexpr double kBytesPerKiB = 1024;
constexpr double kBytesPerKilobyte = 1000;

constexpr int kTracedTurns = 3;
constexpr double kWakeUpWindowSec = 6.5;
constexpr int kPatienceSec = 60;
constexpr auto kPoll = std::chrono::milliseconds(20);

/// The pace of the main loop: one turn takes at least the wait for a client and the pause after it,
/// and applications are checked every few seconds at most.
constexpr double kShortestTurnSec = 2.1;
constexpr double kCheckIntervalSec = 5;

/// What wakes the monitor: two waits of each turn; a pause of each check and one more for each
/// application.
constexpr int kWakeUpsPerTurn = 2;
constexpr int kWakeUpsPerCheck = 1;
constexpr int kWakeUpsPerApplication = 1;

constexpr const char* kPidFiles = "/tmp/pid/home/kelvo/root/";
constexpr const char* kPrograms = "/home/kelvo/root/";
constexpr const char* kLog = "/var/log/daemon.log";

/// A kind of call of the idle monitor: how often it is made at most, and what for.
struct AccountedCall {
    const char* name;
    const char* file;
    int perTurn;
    int perCheck;
    int perApplication; ///< and check
    const char* purpose;
};

constexpr const char* kSegments = "/dev/shm/meter_usrN_data.shared";
constexpr const char* kAddressSocket = "socket:[N]";

constexpr const char* kTakeSignals = "takes termination signals";
constexpr const char* kReachable = "is its socket still where clients look?";
constexpr const char* kOwnBeat = "its own heartbeat";
constexpr const char* kBeatIsSeen = "does that heartbeat show?";
constexpr const char* kWaits = "waits and deliberate pauses";
constexpr const char* kPending = "is it asked to end? (around waits and pauses)";
constexpr const char* kSupervises = "supervises the applications";
constexpr const char* kHealth = "health word that another program keeps in the segment";
constexpr const char* kKernelTexts = "publishes the kernel's name and release";
constexpr const char* kAddresses = "publishes four addresses";
constexpr const char* kStatistics = "publishes the kernel's statistics";
constexpr const char* kLeases = "publishes the DHCP leases";
constexpr const char* kImages = "copies the images into the segments";

constexpr AccountedCall kOwnCalls[] = {
    {"sigaction", "", 1, 0, 0, kTakeSignals},
    {"sigtimedwait", "", 1, 0, 0, kTakeSignals},
    {"stat", "/tmp/appmon_sock", 1, 0, 0, kReachable},
    {"open", bench::kHeartbeats, 1, 0, 0, kOwnBeat},
    {"fstat", bench::kHeartbeats, 1, 0, 0, kOwnBeat},
    {"pread", bench::kHeartbeats, 2, 0, 0, kOwnBeat},
    {"pwrite", bench::kHeartbeats, 2, 0, 0, kOwnBeat},
    {"close", bench::kHeartbeats, 1, 0, 0, kOwnBeat},
    {"getpid", "", 1, 0, 0, kOwnBeat},
    {"open", bench::kStatFile, 1, 0, 0, kOwnBeat},
    {"read", bench::kStatFile, 1, 0, 0, kOwnBeat},
    {"close", bench::kStatFile, 1, 0, 0, kOwnBeat},
    {"open", bench::kHeartbeats, 1, 0, 0, kBeatIsSeen},
    {"pread", bench::kHeartbeats, 1, 0, 0, kBeatIsSeen},
    {"close", bench::kHeartbeats, 1, 0, 0, kBeatIsSeen},
    {"open", bench::kStatFile, 1, 0, 0, kBeatIsSeen},
    {"read", bench::kStatFile, 1, 0, 0, kBeatIsSeen},
    {"close", bench::kStatFile, 1, 0, 0, kBeatIsSeen},
    {"ppoll", "", 2, 1, 1, kWaits},
    {"sigpending", "", 3, 3, 3, kPending},
    {"pread", kSegments, 0, 1, 0, kHealth},
    {"uname", "", 0, 1, 0, kKernelTexts},
    {"socket", "", 0, 4, 0, kAddresses},
    {"bind", kAddressSocket, 0, 4, 0, kAddresses},
    {"getsockname", kAddressSocket, 0, 4, 0, kAddresses},
    {"sendto", kAddressSocket, 0, 8, 0, kAddresses},
    {"recvmsg", kAddressSocket, 0, 20, 0, kAddresses},
    {"close", kAddressSocket, 0, 4, 0, kAddresses},
    {"open", "/proc/uptime", 0, 1, 0, kStatistics},
    {"fstat", "/proc/uptime", 0, 1, 0, kStatistics},
    {"read", "/proc/uptime", 0, 2, 0, kStatistics},
    {"close", "/proc/uptime", 0, 1, 0, kStatistics},
    {"open", "/proc/loadavg", 0, 1, 0, kStatistics},
    {"fstat", "/proc/loadavg", 0, 1, 0, kStatistics},
    {"read", "/proc/loadavg", 0, 2, 0, kStatistics},
    {"close", "/proc/loadavg", 0, 1, 0, kStatistics},
    {"open", "/proc/stat", 0, 1, 0, kStatistics},
    {"fstat", "/proc/stat", 0, 1, 0, kStatistics},
    {"read", "/proc/stat", 0, 2, 0, kStatistics},
    {"close", "/proc/stat", 0, 1, 0, kStatistics},
    {"open", "/proc/meminfo", 0, 1, 0, kStatistics},
    {"fstat", "/proc/meminfo", 0, 1, 0, kStatistics},
    {"read", "/proc/meminfo", 0, 2, 0, kStatistics},
    {"close", "/proc/meminfo", 0, 1, 0, kStatistics},
    {"open", "/proc/net/dev", 0, 1, 0, kStatistics},
    {"fstat", "/proc/N/net/dev", 0, 1, 0, kStatistics}, // where the link before it leads
    {"read", "/proc/N/net/dev", 0, 2, 0, kStatistics},
    {"close", "/proc/N/net/dev", 0, 1, 0, kStatistics},
    {"open", "/var/lib/dhcp/dhclient.ethN.leases", 0, 2, 0, kLeases},
    {"open", "/var/lib/dhcp/dhclientN.ethN.leases", 0, 2, 0, kLeases},
    {"open", kSegments, 0, 2, 0, kImages},
    {"fstat", kSegments, 0, 2, 0, kImages},
    {"pwrite", kSegments, 0, 2, 0, kImages},
    {"close", kSegments, 0, 2, 0, kImages},
};

/// Tries until `attempt` returns true. False when that takes too long.
bool eventually(const std::function<bool()>& attempt) {
    const auto deadline = Clock::now() + std::chrono::seconds(kPatienceSec);
    while (!attempt()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPoll);
    }
    return true;
}

/// Runs a program that puts itself into the background. False unless its launcher ends well.
bool launch(const std::string& program, const Words& words) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str())); // not written by posix_spawn
    }
    arguments.push_back(nullptr);
    char* noEnvironment[] = {nullptr};
    pid_t pid = 0;
    int status = 0;
    if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments.data(), noEnvironment) !=
        0) {
        return false;
    }
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// The pid in the name of the pid file of a program; 0 while there is none.
pid_t pidOf(const std::string& name) {
    const std::string begin = name + ".pid.";
    DIR* const directory = ::opendir(kPidFiles);
    pid_t pid = 0;
    while (directory != nullptr && pid == 0) {
        const dirent* const entry = ::readdir(directory);
        if (entry == nullptr) {
            break;
        }
        if (std::strncmp(entry->d_name, begin.c_str(), begin.size()) == 0) {
            pid = platform::pidFromName(entry->d_name + begin.size());
        }
    }
    if (directory != nullptr) {
        ::closedir(directory);
    }
    return pid;
}

/// Starts sample applications as an earlier monitor would have, and publishes them.
class EarlierApplications {
public:
    explicit EarlierApplications(std::string sample)
        : sample_(std::move(sample)) {}

    bool start(int count) {
        std::string folder;
        for (const char* const part : {"/home/kelvo", "/root"}) {
            folder += part;
            if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
                return false;
            }
        }
        for (int number = 0; number < count; ++number) {
            if (!startOne("application_" + std::to_string(number))) {
                return false;
            }
        }
        std::vector<appinfo> none;
        (void)publisher_.initUserShm(none, false); // Always 0, as the next.
        (void)publisher_.updateUserShm(entries_);
        publisher_.closeUserShm();
        return true;
    }

private:
    bool startOne(const std::string& name) {
        const std::string program = kPrograms + name;
        pid_t pid = 0;
        statstruct_proc facts = {};
        if (::symlink(sample_.c_str(), program.c_str()) != 0 ||
            !launch(program, {program, "--heartbeat", "10000"}) ||
            !eventually([&] { return (pid = pidOf(name)) > 0; }) ||
            get_proc_info_by_pid(pid, &facts) != 0) {
            return false;
        }
        appinfo entry = {};
        entry.pid = pid;
        platform::copyToField(entry.name, name);
        platform::copyToField(entry.version, "1.0");
        entry.status = APP_STATUS_RUNNING;
        entry.start_time = publisher_.startTimeOf(facts);
        entries_.push_back(entry);
        return true;
    }

    std::string sample_;
    AppStatusUpdate publisher_;
    std::vector<appinfo> entries_;
};

int linesWith(const char* path, const char* text) {
    std::ifstream file(path);
    int count = 0;
    for (std::string line; std::getline(file, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

/// Starts the monitor and waits until it has found every application in order. Its pid; 0 on
/// failure.
pid_t startMonitor(const std::string& program, int applications) {
    // With a grace of one second nothing remains to be confirmed after the first checks.
    pid_t pid = 0;
    if (!launch(program, {program, "-s", "1"}) ||
        !eventually([&] { return (pid = pidOf("ovard")) > 0; })) {
        return 0;
    }
    const bool inOrder =
        eventually([&] { return linesWith(kLog, "] running, is alive") == applications; });
    return inOrder ? pid : 0;
}

/// How often each thread of a process has gone to sleep.
struct Sleeps {
    long mainThread = 0;
    long otherThreads = 0;
};

Sleeps readSleeps(pid_t process) {
    Sleeps sleeps;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    DIR* const directory = ::opendir(tasks.c_str());
    const dirent* entry = nullptr;
    while (directory != nullptr && (entry = ::readdir(directory)) != nullptr) {
        const pid_t thread = platform::pidFromName(entry->d_name);
        if (thread == 0) {
            continue;
        }
        std::ifstream status(tasks + "/" + entry->d_name + "/status");
        for (std::string key; status >> key;) {
            if (key == "voluntary_ctxt_switches:") {
                long count = 0;
                status >> count;
                (thread == process ? sleeps.mainThread : sleeps.otherThreads) += count;
            }
        }
    }
    if (directory != nullptr) {
        ::closedir(directory);
    }
    return sleeps;
}

/// Prints a figure beside its limit; true when it keeps it.
bool judge(const char* what, double figure, double limit, const char* unit) {
    const bool kept = figure <= limit;
    std::printf("%-8s %-44s %8.0f%s, limit %.0f%s\n", kept ? "kept" : "EXCEEDED", what, figure,
                unit, limit, unit);
    return kept;
}

bool judgeWakeUps(pid_t monitor, int applications) {
    const Sleeps before = readSleeps(monitor);
    const auto begin = Clock::now();
    std::this_thread::sleep_for(Seconds(kWakeUpWindowSec));
    const Sleeps after = readSleeps(monitor);
    const double seconds = Seconds(Clock::now() - begin).count();
    // One more of each may fall into the time.
    const double turns = seconds / kShortestTurnSec + 1;
    const double checks = seconds / kCheckIntervalSec + 1;
    const double most = turns * kWakeUpsPerTurn +
                        checks * (kWakeUpsPerCheck + applications * kWakeUpsPerApplication);
    const auto woken = static_cast<double>(after.mainThread - before.mainThread);
    std::printf("\nWake-ups: %.0f per minute\n", woken * kMinuteSec / seconds);
    const bool kept = judge("wake-ups of the main thread in the time", woken, most, "");
    const auto others = static_cast<double>(after.otherThreads - before.otherThreads);
    return judge("wake-ups of the other threads", others, 0, "") && kept;
}

/// The calls of whole turns of the main loop.
struct Turns {
    bench::SystemCallCounts calls;
    int turns = 0;
    double seconds = 0;
};

bool traceTurns(pid_t monitor, Turns& traced) {
    const bench::SystemCall onceATurn("getpid", ""); // of its own heartbeat
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kPatienceSec);
    bool begun = false;
    Clock::time_point begin;
    const bool isTraced = bench::traceThread(monitor, [&](const bench::SystemCall& call) {
        const Clock::time_point now = Clock::now();
        if (call == onceATurn && !begun) {
            begun = true;
            begin = now;
        } else if (call == onceATurn && ++traced.turns == kTracedTurns) {
            traced.seconds = Seconds(now - begin).count();
            return false;
        }
        if (begun) {
            ++traced.calls[call];
        }
        return now < deadline;
    });
    return isTraced && traced.turns == kTracedTurns;
}

/// All kinds of calls that the idle monitor may make.
std::vector<AccountedCall> accountedCalls() {
    std::vector<AccountedCall> calls(std::begin(kOwnCalls), std::end(kOwnCalls));
    for (const bench::NeededCall& needed : bench::kNeededCalls) {
        calls.push_back({needed.name, needed.file, 0, 0, needed.count, kSupervises});
    }
    return calls;
}

/// Prints the calls per minute by their purpose. False when there is one that has none.
bool judgeCalls(pid_t monitor, int applications) {
    Turns traced;
    if (!traceTurns(monitor, traced)) {
        std::printf("the monitor cannot be traced\n");
        return false;
    }
    const int checks = traced.calls[{"uname", ""}];
    // A kind may stand in several rows: what is made of it goes to the first row that has room.
    std::map<std::string, int> byPurpose;
    for (const AccountedCall& accounted : accountedCalls()) {
        int& left = traced.calls[{accounted.name, accounted.file}];
        const int most = accounted.perTurn * traced.turns +
                         (accounted.perCheck + accounted.perApplication * applications) * checks;
        const int taken = std::min(left, most);
        byPurpose[accounted.purpose] += taken;
        left -= taken;
    }
    std::printf("\nSystem calls per minute, from %d turns with %d checks in %.1f s:\n",
                traced.turns, checks, traced.seconds);
    double total = 0;
    const auto print = [&](int count, const std::string& what) {
        const double perMinute = count * kMinuteSec / traced.seconds;
        std::printf("%8.0f  %s\n", perMinute, what.c_str());
        total += perMinute;
    };
    for (const auto& [purpose, count] : byPurpose) {
        print(count, purpose);
    }
    int unaccounted = 0;
    for (const auto& [call, count] : traced.calls) {
        if (count > 0) {
            print(count, "NOT ACCOUNTED FOR: " + call.first + ' ' + call.second);
            unaccounted += count;
        }
    }
    std::printf("%8.0f  in all\n", total);
    return judge("system calls that are not accounted for", unaccounted, 0, "");
}

bool judgeMemory(pid_t monitor, const char* when, const MemoryLimits& limits) {
    const std::map<std::string, bench::MemoryUse> parts = bench::readMemoryUse(monitor);
    const bench::MemoryUse total = bench::totalOf(parts);
    std::printf("\nMemory %s, KiB:  RSS   PSS  written\n", when);
    const auto print = [](const char* name, const bench::MemoryUse& use) {
        std::printf("  %-16s %6ld %5ld %8ld\n", name, use.rss, use.pss, use.written);
    };
    for (const auto& [name, use] : parts) {
        print(name.c_str(), use);
    }
    print("in all", total);
    const double toKilobytes = kBytesPerKiB / kBytesPerKilobyte;
    const double rss = static_cast<double>(total.rss) * toKilobytes;
    const double pss = static_cast<double>(total.pss) * toKilobytes;
    const bool rssKept = limits.rss == 0 || judge("RSS", rss, limits.rss, " kB");
    return judge("PSS", pss, limits.pss, " kB") && rssKept && total.rss > 0;
}

/// Has the monitor launch every application anew.
bool restartAll() {
    reqcmd request = {};
    request.action = APPMONCTL_Restart_All;
    response_struct reply = {};
    const ovard_client::Endpoint endpoint = {ovard_client::kDefaultSocketPath,
                                             ovard_client::kDefaultTimeoutMs};
    const ovard_client::Outcome outcome = ovard_client::sendRequest(&endpoint, &request, &reply);
    return outcome.result == ovard_client::Result::Ok && reply.code == 0;
}

int measure(const std::string& monitorProgram, const std::string& sample, int applications,
            const MemoryLimits& limits) {
    EarlierApplications earlier(sample);
    const pid_t monitor =
        earlier.start(applications) ? startMonitor(monitorProgram, applications) : 0;
    if (monitor == 0) {
        std::printf("FAILED: the monitor does not supervise %d applications\n", applications);
        return EXIT_FAILURE;
    }
    std::printf("%s beside %d applications\n", monitorProgram.c_str(), applications);
    bool kept = judgeWakeUps(monitor, applications);
    kept = judgeCalls(monitor, applications) && kept;
    kept = judgeMemory(monitor, "of the idle monitor", limits) && kept;
    if (applications > 0) {
        if (!restartAll()) {
            std::printf("FAILED: the applications could not be restarted\n");
            return EXIT_FAILURE;
        }
        kept = judgeMemory(monitor, "after launching all", limits) && kept;
    }
    if (!kept) {
        std::printf("FAILED: a limit was exceeded\n");
    }
    return kept ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s MONITOR SAMPLE_APP APPLICATIONS shipped|static\n", argv[0]);
        return EXIT_FAILURE;
    }
    if (!bench::isInSandbox()) {
        std::fprintf(stderr, "%s: run this in scripts/sandbox\n", argv[0]);
        return EXIT_FAILURE;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const bool isStatic = std::strcmp(argv[4], "static") == 0;
    const auto applications = static_cast<int>(std::strtol(argv[3], nullptr, 10));
    return measure(argv[1], argv[2], applications, isStatic ? kStaticLimits : kShippedLimits);
}

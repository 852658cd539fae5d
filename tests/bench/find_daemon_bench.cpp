// What one search of /proc for a daemon costs beyond the system calls that it cannot do without.
//
// The search reads two files of every process. A bare loop that only opens, reads and closes the
// same files is the yardstick; both run alternately, so that a change of the machine's pace
// concerns both.

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "appmanager/AppManager.h"
#include "platform/Process.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "tests/bench/Limits.h"
#include "tests/bench/SleepingProcesses.h"

namespace {

constexpr int kProcesses = 2000;
constexpr int kWarmUpRounds = 3;
constexpr int kRounds = 41;
constexpr double kMostTimesTheBareLoop = 1.3;

/// Bytes that the search asks for in its one read of each file.
constexpr std::size_t kStatBytes = 1024;
constexpr std::size_t kCmdlineBytes = 1023;

/// Why findDaemon refuses a process that differs in a word.
constexpr int kOtherWords = -6;

using Words = std::vector<std::string>;

const char* const kServer = "/home/kelvo/root/modbus_server";

/// The application searched for. No process runs with these very words, so every one is examined.
Words wantedWords() {
    return {kServer,  "--config", "/home/kelvo/conf/modbus.conf", "--port", "502",
            "--unit", "wanted"};
}

/// Every other process differs in the last word only; the rest in the number of words.
Words wordsOfProcess(int number) {
    const std::string unit = std::to_string(number);
    if (number % 2 == 0) {
        return {"/home/kelvo/root/datalogger", "--channel", unit, "--interval", "900"};
    }
    Words words = wantedWords();
    words.back() = unit;
    return words;
}

/// Seconds of processor time that this process has had.
double processorSeconds() {
    timespec used = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

template <typename Work> double processorSecondsOf(Work work) {
    const double begin = processorSeconds();
    work();
    return processorSeconds() - begin;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// The search as the manager makes it.
class Search {
public:
    Search() {
        std::string command;
        for (std::string& word : words_) {
            argv_.push_back(word.data());
            command += command.empty() ? word : ' ' + word;
        }
        argv_.push_back(nullptr);
        platform::copyToField(app_.name, "modbus_server");
        platform::copyToField(app_.cmd, command);
        launched_.pid = ::getpid();
    }

    int run() {
        return manager_.findDaemon(app_, &launched_, static_cast<int>(words_.size()), argv_.data(),
                                   false);
    }

private:
    AppManager manager_;
    Words words_ = wantedWords();
    std::vector<char*> argv_;
    appinfo app_ = {};
    statstruct_proc launched_ = {};
};

/// The same files, opened, read and closed in the same order and nothing else: even their names are
/// ready.
class BareLoop {
public:
    BareLoop() {
        platform::ProcDirectory proc;
        platform::ProcDirectory::Entry entry = {};
        while (proc.next(entry)) {
            if (entry.type == DT_DIR && platform::isAllDigits(entry.name)) {
                const std::string directory = std::string("/proc/") + entry.name;
                files_.push_back({directory + "/stat", kStatBytes});
                files_.push_back({directory + "/cmdline", kCmdlineBytes});
            }
        }
    }

    /// The number of files that could be read.
    int run() const {
        int count = 0;
        for (const File& file : files_) {
            char buffer[kStatBytes];
            const int fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                count += ::read(fd, buffer, file.bytes) > 0 ? 1 : 0;
                ::close(fd);
            }
            benchmark::DoNotOptimize(buffer);
        }
        return count;
    }

private:
    struct File {
        std::string path;
        std::size_t bytes;
    };

    std::vector<File> files_;
};

/// Processor times of one round.
struct Round {
    double scan;
    double bare;
};

/// Runs both once. False when one of them did not see every process.
bool runRound(Search& search, const BareLoop& bareLoop, bool bareFirst, Round& round) {
    int filesRead = 0;
    int result = 0;
    const auto bare = [&] { filesRead = bareLoop.run(); };
    const auto scan = [&] { result = search.run(); };
    if (bareFirst) {
        round.bare = processorSecondsOf(bare);
    }
    round.scan = processorSecondsOf(scan);
    if (!bareFirst) {
        round.bare = processorSecondsOf(bare);
    }
    // The last process in the directory is one that differs in its last word, so this result tells
    // that the search came to the end.
    return filesRead >= 2 * kProcesses && result == kOtherWords;
}

bool startProcesses(bench::SleepingProcesses& processes) {
    for (int number = 0; number < kProcesses; ++number) {
        if (!processes.start(wordsOfProcess(number))) {
            return false;
        }
    }
    return true;
}

void findDaemonAgainstBareLoop(benchmark::State& state) {
    bench::SleepingProcesses processes;
    if (!startProcesses(processes)) {
        state.SkipWithError("the processes could not be started");
        return;
    }
    Search search;
    const BareLoop bareLoop;
    Round round = {};
    for (int warmUp = 0; warmUp < kWarmUpRounds; ++warmUp) {
        (void)runRound(search, bareLoop, false, round); // its failure shows again below
    }
    std::vector<double> scans;
    std::vector<double> bares;
    for ([[maybe_unused]] auto iteration : state) {
        if (!runRound(search, bareLoop, scans.size() % 2 == 0, round)) {
            state.SkipWithError("not every process was seen");
            return;
        }
        scans.push_back(round.scan);
        bares.push_back(round.bare);
        state.SetIterationTime(round.scan);
    }
    const double scan = median(scans);
    const double bare = median(bares);
    state.counters["processes"] = static_cast<double>(processes.count());
    state.counters["scan_ms"] = scan * 1e3;
    state.counters["bare_ms"] = bare * 1e3;
    state.counters[bench::kRatio] = scan / bare;
    state.counters[bench::kLimitRatio] = kMostTimesTheBareLoop;
}
BENCHMARK(findDaemonAgainstBareLoop)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// True in scripts/sandbox, where /proc holds the processes of this program alone.
bool isInSandbox() {
    const char* const marked = std::getenv("OVARD_SANDBOX");
    char pidNamespace[64];
    const ssize_t length = ::readlink("/proc/self/ns/pid", pidNamespace, sizeof pidNamespace);
    return marked != nullptr && std::string_view(marked) == "1" && length > 0 &&
           std::string_view(pidNamespace, static_cast<std::size_t>(length)) != "pid:[4026531836]";
}

} // namespace

int main(int argc, char** argv) {
    if (!isInSandbox()) {
        std::fprintf(stderr, "find_daemon_bench: run this in scripts/sandbox\n");
        return EXIT_FAILURE;
    }
    verbose = g_verbose; // as the monitor has it unless told otherwise
    return bench::runBenchmarks(argc, argv);
}

// What one search of /proc for a daemon costs beyond the system calls that it cannot do without.
//
// The search reads two files of every process. A bare loop that only opens, reads and closes the
// same files is the yardstick; both run alternately, so that a change of the machine's pace
// concerns both.

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "appmanager/AppManager.h"
#include "platform/Process.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "tests/bench/BareFileLoop.h"
#include "tests/bench/Limits.h"
#include "tests/bench/ProcessorTime.h"
#include "tests/bench/SleepingProcesses.h"

namespace {

constexpr int kProcesses = 2000;
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

/// The same files in the same order.
bench::BareFileLoop bareLoopOverProc() {
    bench::BareFileLoop loop;
    platform::ProcDirectory proc;
    platform::ProcDirectory::Entry entry = {};
    while (proc.next(entry)) {
        if (entry.type == DT_DIR && platform::isAllDigits(entry.name)) {
            const std::string directory = std::string("/proc/") + entry.name;
            loop.add(directory + "/stat", kStatBytes);
            loop.add(directory + "/cmdline", kCmdlineBytes);
        }
    }
    return loop;
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
    const bench::BareFileLoop bareLoop = bareLoopOverProc();
    bool sawAll = true;
    bench::compareWithBareLoop(
        state,
        // The last process in the directory is one that differs in its last word, so this result
        // tells that the search came to the end.
        [&] { sawAll = search.run() == kOtherWords && sawAll; },
        [&] { sawAll = bareLoop.run() >= 2 * kProcesses && sawAll; });
    if (!sawAll) {
        state.SkipWithError("not every process was seen");
        return;
    }
    state.counters["processes"] = static_cast<double>(processes.count());
    state.counters[bench::kLimitRatio] = kMostTimesTheBareLoop;
}
BENCHMARK(findDaemonAgainstBareLoop)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    verbose = g_verbose; // as the monitor has it unless told otherwise
    return bench::runBenchmarksInSandbox(argc, argv);
}

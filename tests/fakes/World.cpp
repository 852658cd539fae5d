#include "tests/fakes/FakePlatform.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

namespace fakes {
namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// Never destroyed: exit handlers and threads may still call in when static objects are gone.
World& theWorld() {
    static World& instance = *new World;
    return instance;
}

std::atomic<pthread_t> mainThread{pthread_self()};

bool beginsWithWord(const std::string& call, std::initializer_list<std::string_view> words) {
    const std::string_view first = std::string_view(call).substr(0, call.find(' '));
    return std::find(words.begin(), words.end(), first) != words.end();
}

std::string joinOutput(const std::vector<Output>& outputs, int fd) {
    std::string all;
    for (const Output& output : outputs) {
        if (output.fd == fd) {
            all += output.data;
        }
    }
    return all;
}

} // namespace

World::World() {
    sigemptyset(&watchedSignals);
    signalErrors = {{SIGKILL, EINVAL}, {SIGSTOP, EINVAL}};
    sigactionErrors = signalErrors;
}

std::recursive_mutex& World::mutex() {
    static std::recursive_mutex& instance = *new std::recursive_mutex;
    return instance;
}

void World::record(const std::string& call) {
    const Lock lock;
    if (calls.size() < kMostCalls) {
        calls.push_back(call);
    } else if (onMainThread()) {
        throw EndlessLoop("endless loop, last call: " + call);
    }
    if (const auto hook = onCall) {
        hook(call);
    }
}

Process& World::addProcess(pid_t pid, std::string_view exeName, std::string_view cmdline,
                           std::uint64_t starttime) {
    const Lock lock;
    Process added;
    added.pid = pid;
    added.exeName = exeName;
    added.cmdline = cmdline;
    added.starttime = starttime;
    processes.push_back(added);
    return processes.back();
}

Process* World::process(pid_t pid) {
    const Lock lock;
    Process* found = nullptr;
    for (Process& candidate : processes) {
        // A pid may have been used before: the live process counts, else the last one.
        if (candidate.pid == pid && (found == nullptr || !found->alive)) {
            found = &candidate;
        }
    }
    return found;
}

bool World::isAlive(pid_t pid) {
    const Lock lock;
    const Process* const found = process(pid);
    return found != nullptr && found->alive;
}

void World::scriptLaunch(pid_t child, pid_t grandchild) {
    const Lock lock;
    const int word = grandchild;
    forkResults.push_back({child, 0});
    waitpidResults.push_back({child, 0, 0});
    reads.push_back({std::string(reinterpret_cast<const char*>(&word), sizeof word), 0});
}

std::vector<std::string> World::callsOf(std::initializer_list<std::string_view> words) {
    const Lock lock;
    std::vector<std::string> found;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(found),
                 [words](const std::string& call) { return beginsWithWord(call, words); });
    return found;
}

std::vector<std::string> World::callsWithout(std::initializer_list<std::string_view> words) {
    const Lock lock;
    std::vector<std::string> found;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(found),
                 [words](const std::string& call) { return !beginsWithWord(call, words); });
    return found;
}

std::vector<std::string> World::logTexts(int level) {
    const Lock lock;
    std::vector<std::string> texts;
    for (const LogLine& line : log) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

std::vector<std::string> World::logTexts() {
    const Lock lock;
    std::vector<std::string> texts;
    for (const LogLine& line : log) {
        texts.push_back(line.text);
    }
    return texts;
}

std::string World::consoleText() {
    const Lock lock;
    return console;
}

std::string World::errorText() {
    const Lock lock;
    return errors;
}

std::string World::sentTo(int fd) {
    const Lock lock;
    return joinOutput(sent, fd);
}

std::string World::writtenTo(int fd) {
    const Lock lock;
    return joinOutput(written, fd);
}

std::size_t World::liveBlocks() {
    const Lock lock;
    return blocks.size();
}

void World::forgetRecords() {
    const Lock lock;
    console.clear();
    errors.clear();
    log.clear();
    events.clear();
    eventTimes.clear();
    calls.clear();
    executions.clear();
    written.clear();
    sent.clear();
}

std::int64_t World::nowInMs() {
    const Lock lock;
    return std::int64_t{now} * kMillisecondsPerSecond + nowMs;
}

void World::advance(std::int64_t milliseconds) {
    const Lock lock;
    monotonicMs += milliseconds;
    const std::int64_t sinceSecond = nowMs + milliseconds;
    const std::int64_t seconds = sinceSecond / kMillisecondsPerSecond;
    now += static_cast<std::time_t>(seconds);
    nowMs = static_cast<int>(sinceSecond % kMillisecondsPerSecond);
    if (uptimeSec >= 0) {
        uptimeSec += seconds;
    }
}

World& world() {
    return theWorld();
}

void resetWorld() {
    const Lock lock;
    mainThread = pthread_self();
    theWorld() = World();
}

bool onMainThread() {
    return pthread_equal(pthread_self(), mainThread) != 0;
}

std::int64_t takeResult(std::deque<Result>& script, std::int64_t unscripted) {
    if (script.empty()) {
        return unscripted;
    }
    const Result result = script.front();
    script.pop_front();
    if (result.error != 0) {
        errno = result.error;
    }
    return result.value;
}

int takeError(std::deque<int>& script) {
    if (script.empty()) {
        return 0;
    }
    const int error = script.front();
    script.pop_front();
    if (error == 0) {
        return 0;
    }
    errno = error;
    return -1;
}

ssize_t takeInput(std::deque<Input>& script, void* buffer, std::size_t size) {
    if (script.empty()) {
        return 0;
    }
    Input& input = script.front();
    if (input.error != 0) {
        errno = input.error;
        script.pop_front();
        return -1;
    }
    const std::size_t count = std::min(size, input.data.size());
    std::memcpy(buffer, input.data.data(), count);
    input.data.erase(0, count);
    if (input.data.empty()) {
        script.pop_front();
    }
    return static_cast<ssize_t>(count);
}

} // namespace fakes

#include "tests/system/SoakWatch.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/system/Client.h"
#include "tests/system/Processes.h"
#include "tests/system/PublishingSupport.h"

namespace systemtest {
namespace {

/// Logged when a pass begins.
constexpr const char* kPassLine = " checkStatus for heartbeats";

constexpr int kIntervalMs = 5000;

/// A turn of the main loop: it waits 2 s for a client, and rests for 1 s when one came.
constexpr int kTurnMs = 2000 + 1000;

/// For a machine that does other things too.
constexpr int kMarginMs = 1500;

/// What a line of the log stands for. A poll takes a tenth of a second and a bit; with option -p 1
/// there are ten at most for the process and ten for its pid file.
struct Reason {
    const char* line;
    int costMs;
};
constexpr Reason kReasons[] = {
    {"warning: checkAlive: ", 120}, // a tenth of a second at verbosity 8
    {" unconfirmed pidfile", 2200}, {" confirmed start failure", 2200},
    {", confirmed dead", 1100},     {" confirmed pidfile", 300},
    {"] is stopped", 100},         // 50 ms, and a look through /proc
    {"start_process: name=", 500}, // some looks through /proc, 100 ms after each
};

/// An application without its pid file is polled for once more in the pass that follows.
constexpr Reason kReasonBefore = {" unconfirmed pidfile", 1100};

/// The log is written by another process, which may be slow.
constexpr int kLateLineMs = 500;

/// Until the log is there and found again.
constexpr int kHiddenMs = kSoakAbsenceMs + 100;

int costOf(const std::string& log, const Reason& reason) {
    return static_cast<int>(countOf(log, reason.line)) * reason.costMs;
}

std::set<std::string> controlSockets() {
    std::set<std::string> inodes;
    for (const std::string& line : linesOf(readFile("/proc/net/unix"))) {
        std::istringstream fields(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(fields), {}};
        if (words.size() == 8 && words[7] == kSocketPath) {
            inodes.insert("socket:[" + words[6] + "]");
        }
    }
    return inodes;
}

/// As publishedHours, but of a segment of any size: the monitor leaves one that is too long.
float hoursInSegment() {
    return numberAt<float>(readFile(kSystemSegmentPath), 256 + 16);
}

std::int64_t kilobytes(pid_t pid, const std::string& key) {
    return std::strtol(statusValue(pid, key).c_str(), nullptr, 10);
}

/// Pages of the main thread's stack; 0 where the kernel does not tell.
std::int64_t stackKilobytes(pid_t pid) {
    const std::string key = "\nAnonymous:";
    const std::string maps = readFile("/proc/" + std::to_string(pid) + "/smaps");
    const std::size_t figure = maps.find(key, std::min(maps.find("[stack]"), maps.size()));
    return figure == std::string::npos
               ? 0
               : std::strtol(maps.c_str() + figure + key.size(), nullptr, 10);
}

} // namespace

// --- passes --------------------------------------------------------------------------------------

SoakPasses::SoakPasses()
    : logRead_(readFile(kDaemonLogPath).size())
    , published_(hoursInSegment())
    , end_(monotonicMs())
    , begin_(end_) {}

void SoakPasses::look(const SoakDisturbances& soFar) {
    readLog();
    noteBeginning(soFar);
    const float hours = hoursInSegment();
    if (hours != published_ && hours > 0) { // else there is no segment, or rubbish
        judge(soFar);
        published_ = hours;
        ++count_;
        beginGap(soFar);
    }
}

void SoakPasses::readLog() {
    std::ifstream file(kDaemonLogPath);
    file.seekg(static_cast<std::streamoff>(logRead_));
    const std::string news{std::istreambuf_iterator<char>(file), {}};
    logRead_ += news.size();
    log_ += news;
}

void SoakPasses::noteBeginning(const SoakDisturbances& soFar) {
    const std::size_t line = log_.find(kPassLine);
    if (nextBegin_ != 0 || line == std::string::npos) {
        return;
    }
    const std::int64_t now = monotonicMs();
    const bool isOfTheLastPass = lineIsOwed_ && now - end_ < kLateLineMs;
    lineIsOwed_ = false;
    if (isOfTheLastPass) {
        log_.erase(line, std::strlen(kPassLine));
        return;
    }
    nextBegin_ = now;
    expect("began", nextBegin_ - end_, allowedRestMs(soFar));
}

void SoakPasses::judge(const SoakDisturbances& soFar) {
    const std::int64_t now = monotonicMs();
    longestGapMs_ = std::max(longestGapMs_, now - end_);
    // What the pass did while the log was away does not show.
    const std::int64_t hiddenMs = std::int64_t{kHiddenMs} * (soFar.logFaults - atEnd_.logFaults);
    if (nextBegin_ != 0) {
        longestPassMs_ = std::max(longestPassMs_, now - nextBegin_);
        expect("lasted", now - nextBegin_, allowedPassMs() + hiddenMs);
        return;
    }
    // The line of its beginning came while the log was away, or is late.
    expect("came", now - end_, allowedRestMs(soFar) + allowedPassMs() + hiddenMs);
}

/// From the end of a pass to the beginning of the next one.
std::int64_t SoakPasses::allowedRestMs(const SoakDisturbances& soFar) const {
    const std::int64_t leftMs = std::max<std::int64_t>(begin_ + kIntervalMs - end_, 0);
    // Only the turn counts in which the interval is over. Its client may be there since before.
    const int silenceMs = soFar.silences > atEndBefore_.silences ? kSoakSilenceMs : 0;
    return leftMs + kTurnMs + silenceMs + kMarginMs;
}

std::int64_t SoakPasses::allowedPassMs() const {
    int sum = kMarginMs + costOf(logBefore_, kReasonBefore);
    for (const Reason& reason : kReasons) {
        sum += costOf(log_, reason);
    }
    return sum;
}

void SoakPasses::expect(const std::string& what, std::int64_t tookMs, std::int64_t allowedMs) {
    if (tookMs > allowedMs) {
        late_.push_back("pass " + std::to_string(count_ + 1) + " " + what + " " +
                        std::to_string(tookMs) + " ms, longer than " + std::to_string(allowedMs) +
                        "\n" + log_);
    }
}

void SoakPasses::beginGap(const SoakDisturbances& soFar) {
    end_ = monotonicMs();
    begin_ = nextBegin_ != 0 ? nextBegin_ : end_;
    lineIsOwed_ = nextBegin_ == 0;
    nextBegin_ = 0;
    logBefore_ = std::move(log_);
    log_.clear();
    atEndBefore_ = atEnd_;
    atEnd_ = soFar;
}

// --- samples -------------------------------------------------------------------------------------

SoakSample sampleOf(pid_t pid) {
    SoakSample sample;
    const std::set<std::string> control = controlSockets();
    for (const auto& descriptor : descriptorsOf(pid)) {
        ++(control.count(descriptor.second) == 1 ? sample.connections : sample.descriptors);
    }
    sample.threads = threadsOf(pid).size();
    for (const pid_t other : allProcesses()) {
        const ProcessFacts facts = processFacts(other);
        if (facts.parent == pid) {
            ++sample.children;
            if (facts.state == 'Z') {
                sample.zombies.insert(other);
            }
        }
    }
    sample.residentKb = kilobytes(pid, "VmRSS");
    sample.stackKb = stackKilobytes(pid);
    sample.anonymousKb = kilobytes(pid, "RssAnon") - sample.stackKb;
    sample.dataKb = kilobytes(pid, "VmData");
    return sample;
}

SoakSample sampleWithoutMoments(pid_t pid) {
    constexpr int kMomentMs = 50;
    SoakSample sample = sampleOf(pid);
    std::array<std::size_t, 5> looks = {};
    for (std::size_t& descriptors : looks) {
        sleepMs(kMomentMs);
        descriptors = sampleOf(pid).descriptors;
    }
    std::sort(looks.begin(), looks.end());
    sample.descriptors = looks[looks.size() / 2];
    return sample;
}

std::string textOf(const SoakSample& sample) {
    std::ostringstream text;
    text << sample.descriptors << " descriptors + " << sample.connections << " connections, "
         << sample.threads << " threads, " << sample.children << " children, "
         << sample.zombies.size() << " zombies, resident " << sample.residentKb << " kB, anonymous "
         << sample.anonymousKb << " kB and " << sample.stackKb << " kB of stack, data "
         << sample.dataKb << " kB";
    return text.str();
}

std::int64_t medianOfTenth(const std::vector<SoakSample>& samples, std::int64_t SoakSample::*figure,
                           std::size_t tenth) {
    if (samples.empty()) {
        return 0;
    }
    const std::size_t begin = samples.size() * tenth / 10;
    const std::size_t end = samples.size() * (tenth + 1) / 10;
    std::vector<std::int64_t> values;
    for (std::size_t index = begin; index < std::max(end, begin + 1); ++index) {
        values.push_back(samples.at(index).*figure);
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace systemtest

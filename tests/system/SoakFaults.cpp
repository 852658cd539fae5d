#include "tests/system/SoakFaults.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>

#include "tests/system/Processes.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

/// A process of that age has been found by who has launched it. One that dies earlier makes the
/// launch last for half a minute, as is required.
constexpr double kSettledSec = 3;

/// Longer than a heartbeat may be late in the soak.
constexpr int kLostHeartbeatMs = 15000;

/// Until one is found that can be brought about: most always can.
constexpr int kMostTries = 100;

constexpr int kReplyMs = 30000;
constexpr int kFlood = 8;
constexpr int kSignals = 200;
constexpr int kUnknownActions[] = {-1, INT_MIN, INT_MAX, 9, 10, 11};

double ageSec(pid_t pid) {
    const auto ticks = static_cast<double>(processFacts(pid).startTicks);
    return uptimeSec() - ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

reqcmd withAction(reqcmd request, int action) {
    request.action = action;
    return request;
}

} // namespace

const std::vector<SoakFaults::Kind> SoakFaults::kKinds = {
    {"application killed", 10, &SoakFaults::kill},
    {"application crashed", 6, &SoakFaults::crash},
    {"application stood still", 6, &SoakFaults::standStill},
    {"heartbeat lost", 4, &SoakFaults::loseHeartbeat},
    {"start of the dead", 3, &SoakFaults::startOfTheDead},
    {"restart by name", 3, &SoakFaults::restart},
    {"start of a running name", 3, &SoakFaults::startAnew},
    {"stop and start", 3, &SoakFaults::stopAndStart},
    {"restart of those on ports", 1, &SoakFaults::restartPortApplications},
    {"pid file removed", 4, &SoakFaults::removePidFile},
    {"pid file emptied", 4, &SoakFaults::emptyPidFile},
    {"pid file replaced", 6, &SoakFaults::replacePidFile},
    {"client without a request", 5, &SoakFaults::comeAndGo},
    {"silent client", 4, &SoakFaults::keepSilent},
    {"part of a request", 4, &SoakFaults::sendAPart},
    {"client gone before the reply", 4, &SoakFaults::vanishBeforeTheReply},
    {"hostile request", 6, &SoakFaults::sendNonsense},
    {"flood of requests", 1, &SoakFaults::flood},
    {"segment damaged", 6, &SoakFaults::damageSegment},
    {"segment replaced", 3, &SoakFaults::replaceSegment},
    {"/tmp full", 3, &SoakFaults::fillTmp},
    {"/dev/shm full", 3, &SoakFaults::fillShm},
    {"log collector gone", 3, &SoakFaults::removeLog},
    {"log collector that reads nothing", 2, &SoakFaults::blockLog},
    {"event log removed", 2, &SoakFaults::removeEventLog},
    {"event log replaced", 2, &SoakFaults::replaceEventLog},
    {"watchdog gone", 3, &SoakFaults::removeWatchdog},
    {"semaphore damaged", 2, &SoakFaults::damageSemaphore},
    {"signals", 4, &SoakFaults::sendSignals},
};

SoakFaults::SoakFaults(std::uint64_t seed, pid_t monitor, std::vector<reqcmd> applications,
                       std::function<void()> beforeChange)
    : seed_(seed)
    , monitor_(monitor)
    , applications_(std::move(applications))
    , beforeChange_(std::move(beforeChange)) {
    for (const Kind& kind : kKinds) {
        round_.insert(round_.end(), static_cast<std::size_t>(kind.weight), &kind);
        counts_[kind.name] = 0;
    }
}

void SoakFaults::inject() {
    const std::size_t turn = tried_ % round_.size();
    std::seed_seq sequence{static_cast<std::uint32_t>(seed_ >> 32),
                           static_cast<std::uint32_t>(seed_), ++tried_};
    random_.seed(sequence);
    if (turn == 0) {
        std::shuffle(round_.begin(), round_.end(), random_);
    }
    const Kind* kind = round_[turn];
    for (int tries = 0; tries < kMostTries; ++tries) {
        if ((this->*kind->inject)()) {
            ++counts_[kind->name];
            return;
        }
        kind = pickFrom(round_);
    }
}

void SoakFaults::goOn() {
    takeReplies();
    std::list<Ahead> due;
    for (auto next = ahead_.begin(); next != ahead_.end();) {
        const auto current = next++;
        if (current->atMs <= monotonicMs()) {
            due.splice(due.end(), ahead_, current);
        }
    }
    for (const Ahead& entry : due) {
        entry.action();
    }
}

void SoakFaults::endAll() {
    for (Ahead& entry : ahead_) {
        entry.atMs = 0;
    }
    goOn();
}

void SoakFaults::startTheDead() {
    (void)ask(makeRequest(APPMONCTL_Stop, "nobody")); // a request may wait until another one comes
    for (const reqcmd& application : dead()) {
        (void)ask(application); // a monitor that is gone shows elsewhere
    }
}

/// Applications that do not run and that nobody starts.
std::vector<reqcmd> SoakFaults::dead() const {
    std::vector<reqcmd> found;
    for (const reqcmd& application : applications_) {
        if (application.restart_type != RESTART_TYPE_SELF && processesOf(application).empty()) {
            found.push_back(application);
        }
    }
    return found;
}

std::vector<pid_t> SoakFaults::processesOf(const reqcmd& application) {
    return processesWithCommandLine(application.cmd);
}

int SoakFaults::total() const {
    int sum = 0;
    for (const auto& count : counts_) {
        sum += count.second;
    }
    return sum;
}

void SoakFaults::later(int milliseconds, std::function<void()> action) {
    ahead_.push_back({monotonicMs() + milliseconds, std::move(action)});
}

// --- applications --------------------------------------------------------------------------------

/// A process of a random application that has run for a while; 0 when none was found.
pid_t SoakFaults::settledProcess(const std::function<bool(const reqcmd&)>& condition) {
    for (std::size_t attempt = 0; attempt < applications_.size(); ++attempt) {
        const reqcmd& application = pickFrom(applications_);
        const std::vector<pid_t> found = processesOf(application);
        if (condition(application) && found.size() == 1 && ageSec(found[0]) > kSettledSec) {
            return found[0];
        }
    }
    return 0;
}

bool SoakFaults::kill() {
    return sendSignal(settledProcess([](const reqcmd&) { return true; }), SIGKILL);
}

/// By the one such signal that a sanitizer does not take for a finding of its own.
bool SoakFaults::crash() {
    return sendSignal(settledProcess([](const reqcmd&) { return true; }), SIGABRT);
}

bool SoakFaults::pause(pid_t pid, int milliseconds) {
    const bool stops = sendSignal(pid, SIGSTOP);
    if (stops) {
        later(milliseconds, [pid] { (void)sendSignal(pid, SIGCONT); }); // it may be gone
    }
    return stops;
}

bool SoakFaults::standStill() {
    return pause(settledProcess([](const reqcmd&) { return true; }), pick(100, 3000));
}

bool SoakFaults::loseHeartbeat() {
    return pause(
        settledProcess([](const reqcmd& application) { return application.heartbeat != 0; }),
        kLostHeartbeatMs);
}

bool SoakFaults::startOfTheDead() {
    const bool isNeeded = !dead().empty();
    if (isNeeded) {
        startTheDead();
    }
    return isNeeded;
}

bool SoakFaults::restart() {
    return ask(withAction(pickFrom(applications_), APPMONCTL_Restart));
}

bool SoakFaults::startAnew() {
    return ask(pickFrom(applications_));
}

bool SoakFaults::stopAndStart() {
    const reqcmd& application = pickFrom(applications_);
    return ask(withAction(application, APPMONCTL_Stop)) && ask(application);
}

bool SoakFaults::restartPortApplications() {
    return ask(makeRequest(APPMONCTL_Restart_PortApps));
}

// --- clients -------------------------------------------------------------------------------------

std::unique_ptr<Client> SoakFaults::connected() {
    auto client = std::make_unique<Client>();
    connections_ += client->connect() ? 1 : 0;
    return client;
}

bool SoakFaults::askWith(const std::string& bytes) {
    std::unique_ptr<Client> client = connected();
    const bool isSent = client->send(bytes);
    asked_.push_back({std::move(client), monotonicMs() + kReplyMs});
    return isSent;
}

void SoakFaults::takeReplies() {
    for (auto entry = asked_.begin(); entry != asked_.end();) {
        const Received received = entry->client->receive(0, sizeof(response_struct));
        const bool isClosed = received.ended || received.bytes.size() == sizeof(response_struct);
        closed_ += isClosed ? 1 : 0;
        const bool isDone = isClosed || entry->untilMs < monotonicMs();
        entry = isDone ? asked_.erase(entry) : std::next(entry);
    }
}

bool SoakFaults::comeAndGo() {
    return connected()->isOpen();
}

bool SoakFaults::keepSilent() {
    ++disturbances_.silences;
    const std::shared_ptr<Client> client = connected();
    later(kSoakSilenceMs, [client] { client->close(); });
    return client->isOpen();
}

/// The rest is what the record before has there: a stop of a name that nobody has.
bool SoakFaults::sendAPart() {
    const reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    const auto size = static_cast<std::size_t>(pick(1, sizeof request - 1));
    if (!ask(request) || !askWith(bytesOf(request).substr(0, size))) {
        return false;
    }
    asked_.back().client->endSending(); // else the monitor waits for the rest
    return true;
}

bool SoakFaults::vanishBeforeTheReply() {
    return connected()->send(makeRequest(APPMONCTL_Stop, "nobody"));
}

bool SoakFaults::sendNonsense() {
    reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    const int nonsense = pick(0, 4);
    if (nonsense <= 1) { // no text has an end
        std::memset(request.name, 'n', sizeof request.name);
        std::memset(request.cmd, pick(1, 255), sizeof request.cmd);
        std::memset(request.pidfile, '/', sizeof request.pidfile);
        std::memset(request.version, 0xff, sizeof request.version);
    }
    if (nonsense == 1) {
        request.action = pickFrom(kUnknownActions);
    } else if (nonsense == 2) {
        request.action = APPMONCTL_Start; // without a command
    } else if (nonsense == 3) {           // flags that are no flags
        std::memset(&request.keepalive, 0xfe, sizeof request.keepalive);
        std::memset(&request.heartbeat, 0x80, sizeof request.heartbeat);
    }
    const std::string surplus(nonsense == 4 ? 5000 : 0, 'x');
    return askWith(bytesOf(request) + surplus);
}

bool SoakFaults::flood() {
    reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    request.nowait = 1;
    bool isSent = true;
    for (int count = 0; count < kFlood; ++count) {
        isSent = connected()->send(request) && isSent;
    }
    return isSent;
}

// --- signals -------------------------------------------------------------------------------------

bool SoakFaults::sendSignals() {
    constexpr int kHarmless[] = {SIGUSR1, SIGCHLD, SIGPIPE, SIGCONT, SIGWINCH, SIGURG};
    const int signal = pickFrom(kHarmless);
    bool isSent = true;
    for (int count = 0; count < kSignals; ++count) {
        isSent = sendSignal(monitor_, signal) && isSent;
    }
    return isSent;
}

} // namespace systemtest

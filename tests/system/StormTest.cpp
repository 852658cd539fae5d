// SIGTERM at random moments of random activity. Each suite does fifty rounds; the seed is printed,
// and OVARD_STORM_SEED and OVARD_STORM_ROUNDS change seed and rounds.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <random>

#include "tests/system/Harness.h"

namespace systemtest {
namespace {

constexpr int kLongestEndMs = 5000;
constexpr std::uint64_t kDefaultRounds = 50;

/// Fewer than the monitor lets wait, so that a connection never has to.
constexpr std::size_t kMostClients = 40;

const std::vector<std::string> kNames = {"app0", "app1", "app2", "app3"};

/// Applications of every temper.
const std::vector<std::string> kTempers = {
    "",
    " --heartbeat 50",
    " --ignore-term",
    " --daemonize-after 150",
    " --foreground",
    " --foreground --exit-after 100",
    " --exit-after 200",
    " --no-pidfile --ignore-term --fork-stray 3",
};

/// Spared by every action that names it nowhere, but for the stop of all: it has no port, the name
/// of the security server, and the restart policy that is left out.
constexpr const char* kWitness = "security_server";

/// One monitor, what is done to it, and its end.
class Round {
public:
    Round(std::uint64_t seed, std::uint64_t number)
        : random_(static_cast<std::mt19937::result_type>(seed * 1000 + number))
        , label_("seed " + std::to_string(seed) + ", round " + std::to_string(number)) {}

    void run() {
        installApplications();
        ASSERT_TRUE(daemon_.startInForeground(arguments())) << label_;
        if (oneIn(2)) {
            ASSERT_NO_FATAL_FAILURE(startWitness());
        }
        std::int64_t momentMs = pick(0, 1200);
        if (oneIn(7)) {
            momentMs += 1500;
        }
        const std::int64_t end = monotonicMs() + momentMs;
        while (monotonicMs() < end) {
            act();
            pauseAtMost(end);
        }
        if (oneIn(2)) {
            engage();
        }
        finish(momentMs);
    }

private:
    int pick(int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(random_);
    }

    bool oneIn(int count) { return pick(1, count) == 1; }

    const std::string& pick(const std::vector<std::string>& texts) {
        return texts[static_cast<std::size_t>(pick(0, static_cast<int>(texts.size()) - 1))];
    }

    static std::string program(const std::string& name) {
        return std::string(kApplicationFolder) + "/" + name;
    }

    void installApplications() {
        for (const std::string& name : kNames) {
            ASSERT_TRUE(copyProgram(sampleProgram(), program(name)));
        }
        ASSERT_TRUE(copyProgram(sampleProgram(), program(kWitness)));
    }

    std::vector<std::string> arguments() {
        std::vector<std::string> words = {"-v", std::to_string(pick(0, 9))};
        if (oneIn(3)) {
            std::string requests;
            for (int count = pick(1, 4); count > 0; --count) {
                requests += bytesOf(startRequest());
            }
            EXPECT_TRUE(writeFile("/tmp/replayed", requests));
            words.insert(words.end(), {"-x", "/tmp/replayed"});
        }
        if (oneIn(4)) {
            words.insert(words.end(), {"-f", "/tmp/recorded"});
        }
        if (oneIn(4)) {
            words.insert(words.end(), {"-w", "0", "-I", "1"});
        }
        if (oneIn(3)) {
            words.insert(words.end(), {"-i", "0"});
        }
        return words;
    }

    reqcmd startRequest() {
        const std::string& name = pick(kNames);
        reqcmd request = makeRequest(APPMONCTL_Start, name, program(name) + pick(kTempers));
        request.porttype = pick(PORT_TYPE_NONE, PORT_TYPE_ETH);
        request.nowait = oneIn(4) ? 1 : 0;
        return request;
    }

    reqcmd anyRequest() {
        if (oneIn(2)) {
            return startRequest();
        }
        const int action = pick(APPMONCTL_Stop, 11);
        if (action == APPMONCTL_Stop_All) {
            witness_ = 0; // it is not spared now
        }
        reqcmd request = makeRequest(action, pick(kNames));
        request.nowait = oneIn(4) ? 1 : 0;
        return request;
    }

    void startWitness() {
        const std::string command = program(kWitness) + " --heartbeat 100";
        reqcmd request = makeRequest(APPMONCTL_Start, kWitness, command);
        request.restart_type = RESTART_TYPE_ALL;
        ASSERT_TRUE(ask(request)) << label_;
        const std::vector<pid_t> found = processesWithCommandLine(command);
        ASSERT_EQ(found.size(), 1U) << label_;
        witness_ = found[0];
    }

    /// One thing that a client does; none of it waits for the monitor.
    void act() {
        if (clients_.size() >= kMostClients) {
            return;
        }
        auto client = std::make_unique<Client>();
        if (!client->connect()) {
            return;
        }
        const std::string bytes = bytesOf(anyRequest());
        switch (pick(0, 6)) {
        case 0: // silent for a while
            break;
        case 1: // comes and goes
            client->close();
            break;
        case 2: // stops in the middle
            (void)client->send(bytes.substr(0, static_cast<std::size_t>(pick(1, 1215))));
            break;
        case 3: // vanishes before the reply
            (void)client->send(bytes);
            client->close();
            break;
        default: // the monitor may be gone in every case
            (void)client->send(bytes);
        }
        clients_.push_back(std::move(client));
        if (oneIn(2)) { // whoever holds the receiving side must not do so for the whole round
            clients_[static_cast<std::size_t>(pick(0, static_cast<int>(clients_.size()) - 1))]
                ->close();
        }
    }

    /// Waits until the monitor has just taken a request in, if it does so soon, and a bit longer:
    /// most of its time it only waits.
    void engage() {
        constexpr int kLongestMs = 400;
        constexpr int kLongestBitUs = 1500;
        for (const auto& client : clients_) {
            client->close(); // whoever holds the receiving side
        }
        clients_.push_back(std::make_unique<Client>());
        if (sendRequest(*clients_.back(), startRequest())) {
            (void)clients_.back()->waitUntilRead(kLongestMs); // any moment is good
            ::usleep(static_cast<useconds_t>(pick(0, kLongestBitUs)));
        }
    }

    void pauseAtMost(std::int64_t end) {
        const std::int64_t left = end - monotonicMs();
        sleepMs(
            static_cast<int>(std::max<std::int64_t>(std::min<std::int64_t>(left, pick(1, 60)), 0)));
    }

    void finish(std::int64_t momentMs) {
        const std::string label = label_ + ", after " + std::to_string(momentMs) + " ms";
        ASSERT_TRUE(daemon_.signal(SIGTERM)) << label;
        const std::int64_t begin = monotonicMs();
        Ending ending = daemon_.waitForEnd(0);
        while (!ending.ended && monotonicMs() - begin < kLongestEndMs) {
            act(); // clients know nothing of the shutdown
            ending = daemon_.waitForEnd(pick(1, 20));
        }
        EXPECT_EQ(ending.text(), "status 0") << label;
        EXPECT_LT(monotonicMs() - begin, kLongestEndMs) << label;
        EXPECT_FALSE(fileExists(kSocketPath)) << label;
        EXPECT_FALSE(fileExists(daemon_.pidFile())) << label;
        EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U) << label;
        EXPECT_EQ(countOf(daemon_.console(), "ovard ovardAtExit()\n"), 1U) << label;
        EXPECT_EQ(daemon_.errors(), "") << label;
        if (witness_ != 0) {
            EXPECT_TRUE(isRunning(witness_)) << label;
        }
    }

    std::mt19937 random_;
    std::string label_;
    Daemon daemon_;
    std::vector<std::unique_ptr<Client>> clients_;
    pid_t witness_ = 0;
};

/// Requests that the command thread began to execute.
std::uint64_t executedRequests() {
    const std::vector<std::string> texts = daemonLogTexts(7);
    return static_cast<std::uint64_t>(
        std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
            return text.compare(0, 12, "processCmd()") == 0;
        }));
}

/// Running processes whose program lies in a folder.
std::uint64_t processesBelow(const std::string& folder) {
    const std::vector<pid_t> pids = allProcesses();
    return static_cast<std::uint64_t>(std::count_if(pids.begin(), pids.end(), [&](pid_t pid) {
        return isRunning(pid) && commandLineOf(pid).compare(0, folder.size(), folder) == 0;
    }));
}

class StormTest : public SystemTest {
protected:
    void rage(std::uint64_t defaultSeed) {
        const std::uint64_t seed = numberFromEnvironment("OVARD_STORM_SEED", defaultSeed);
        const std::uint64_t rounds = numberFromEnvironment("OVARD_STORM_ROUNDS", kDefaultRounds);
        std::cout << "seed " << seed << ", " << rounds << " rounds\n";
        for (std::uint64_t number = 0; number < rounds && !HasFailure(); ++number) {
            Round(seed, number).run();
            executed_ += executedRequests();
            applications_ += processesBelow(kApplicationFolder);
            if (!HasFailure()) { // else the evidence is wanted
                ASSERT_TRUE(endStrangers());
                cleanMachine();
            }
        }
        std::cout << executed_ << " requests executed, " << applications_
                  << " application processes outlived their monitors\n";
        if (!HasFailure()) { // otherwise it was cut short
            EXPECT_GT(executed_, rounds / 2);
            EXPECT_GT(applications_, rounds / 4);
        }
    }

private:
    std::uint64_t executed_ = 0;
    std::uint64_t applications_ = 0;
};

using Storm = StormTest;
using Storm2 = StormTest;
using Storm3 = StormTest;
using Storm4 = StormTest;

TEST_F(Storm, EveryEndIsAnOrderlyOne) {
    rage(1);
}

TEST_F(Storm2, EveryEndIsAnOrderlyOne) {
    rage(2);
}

TEST_F(Storm3, EveryEndIsAnOrderlyOne) {
    rage(3);
}

TEST_F(Storm4, EveryEndIsAnOrderlyOne) {
    rage(4);
}

} // namespace
} // namespace systemtest

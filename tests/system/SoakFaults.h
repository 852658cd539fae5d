// The faults of the soak: one at a time, chosen at random, each over after a few seconds at most.

#ifndef OVARD_TESTS_SYSTEM_SOAK_FAULTS_H
#define OVARD_TESTS_SYSTEM_SOAK_FAULTS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/system/Client.h"
#include "tests/system/SoakWatch.h"

namespace systemtest {

/// Random faults for a monitor and its applications, and their ends.
class SoakFaults {
public:
    /// `applications` are the requests that have started them. `beforeChange` is called right
    /// before something that the monitor has published is destroyed.
    SoakFaults(std::uint64_t seed, pid_t monitor, std::vector<reqcmd> applications,
               std::function<void()> beforeChange);

    /// Brings about one fault. Does not wait for the monitor.
    void inject();

    /// Ends the faults whose time is over, and takes in the replies that have come.
    void goOn();

    /// Ends all faults.
    void endAll();

    /// Asks for the start of those applications that do not run and whose policy is to stay so.
    void startTheDead();

    /// Processes of an application, those that are stopped by a signal too.
    static std::vector<pid_t> processesOf(const reqcmd& application);

    /// Faults so far, by kind.
    const std::map<std::string, int>& counts() const { return counts_; }
    int total() const;

    const SoakDisturbances& disturbances() const { return disturbances_; }

    /// Connections that the monitor may have left open by now, since a requirement says so: no
    /// reply was seen on them.
    int unanswered() const { return connections_ - answered_; }

private:
    struct Kind {
        const char* name;
        int weight;
        void (SoakFaults::*inject)();
    };
    static const std::vector<Kind> kKinds;

    struct Ahead {
        std::int64_t atMs;
        std::function<void()> action;
    };
    struct Asked {
        std::unique_ptr<Client> client;
        std::int64_t untilMs;
    };

    // Applications.
    void kill();
    void crash();
    void standStill();
    void loseHeartbeat();
    void restart();
    void startAnew();
    void stopAndStart();
    void restartPortApplications();

    // Pid files.
    void removePidFile();
    void emptyPidFile();
    void replacePidFile();

    // Clients.
    void comeAndGo();
    void keepSilent();
    void sendAPart();
    void vanishBeforeTheReply();
    void sendNonsense();
    void flood();

    // The machine.
    void damageSegment();
    void replaceSegment();
    void fillTmp();
    void fillShm();
    void removeLog();
    void blockLog();
    void removeEventLog();
    void replaceEventLog();
    void removeWatchdog();
    void damageSemaphore();
    void sendSignals();

    pid_t settledProcess(const std::function<bool(const reqcmd&)>& condition);
    void pause(pid_t pid, int milliseconds);
    std::string pidFileOfAny();
    void restoreLater(const std::string& path, const std::string& content);
    std::unique_ptr<Client> connected();
    void ask(const reqcmd& request);
    void later(int milliseconds, std::function<void()> action);
    void takeReplies();
    int pick(int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(random_);
    }
    template <typename Things> const auto& pickFrom(const Things& things) {
        return things[static_cast<std::size_t>(pick(0, static_cast<int>(std::size(things)) - 1))];
    }

    std::mt19937_64 random_;
    std::discrete_distribution<std::size_t> choice_;
    pid_t monitor_;
    std::vector<reqcmd> applications_;
    std::function<void()> beforeChange_;
    std::list<Ahead> ahead_;
    std::list<Asked> asked_;
    std::map<std::string, int> counts_;
    SoakDisturbances disturbances_;
    int connections_ = 0;
    int answered_ = 0;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SOAK_FAULTS_H

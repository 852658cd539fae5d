// The faults of the soak, in a random order. Each is over after three seconds at most, a lost
// heartbeat after fifteen; of those that take something away, pid files and the event log apart,
// there is one at a time.

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

    /// Brings about one fault. Does not wait for the monitor. Each kind has its turns within a
    /// round, whose order hangs on the seed, as what is tried for the n-th fault hangs on the seed
    /// and on n alone; what cannot be brought about now, for example because no pid file is there,
    /// is passed over for another one.
    void inject();

    /// Ends the faults whose time is over, and takes in the replies that have come.
    void goOn();

    /// Ends all faults.
    void endAll();

    /// Asks for the start of those applications that do not run and whose policy is to stay so.
    void startTheDead();

    /// Processes of an application, those that are stopped by a signal too.
    static std::vector<pid_t> processesOf(const reqcmd& application);

    /// Faults that were brought about so far, by kind.
    const std::map<std::string, int>& counts() const { return counts_; }

    /// Every kind has had its turns twice: one that could never be brought about has no excuse.
    bool hadTwoRounds() const { return tried_ >= 2 * round_.size(); }
    int total() const;

    const SoakDisturbances& disturbances() const { return disturbances_; }

    /// Connections that the monitor may have left open by now, since a requirement says so: none of
    /// them was seen to be closed.
    int unclosed() const { return connections_ - closed_; }

private:
    struct Kind {
        const char* name;
        int weight; ///< turns in a round
        bool (SoakFaults::*inject)();
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

    // Each is true when it could be brought about.

    // Applications.
    bool kill();
    bool crash();
    bool standStill();
    bool loseHeartbeat();
    bool startOfTheDead();
    bool restart();
    bool startAnew();
    bool stopAndStart();
    bool restartPortApplications();

    // Pid files.
    bool removePidFile();
    bool emptyPidFile();
    bool replacePidFile();

    // Clients.
    bool comeAndGo();
    bool keepSilent();
    bool sendAPart();
    bool vanishBeforeTheReply();
    bool sendNonsense();
    bool flood();

    // The machine.
    bool damageSegment();
    bool replaceSegment();
    bool fillTmp();
    bool fillShm();
    bool removeLog();
    bool blockLog();
    bool removeEventLog();
    bool replaceEventLog();
    bool removeWatchdog();
    bool damageSemaphore();
    bool sendSignals();

    pid_t settledProcess(const std::function<bool(const reqcmd&)>& condition);
    std::vector<reqcmd> dead() const;
    bool pause(pid_t pid, int milliseconds);
    bool fillFolder(const char* folder);
    std::string pidFileOfAny();
    void restoreLater(const std::string& path, const std::string& content);
    std::unique_ptr<Client> connected();
    bool ask(const reqcmd& request) { return askWith(bytesOf(request)); }
    bool askWith(const std::string& bytes);
    void later(int milliseconds, std::function<void()> action);
    void takeReplies();
    int pick(int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(random_);
    }
    template <typename Things> const auto& pickFrom(const Things& things) {
        return things[static_cast<std::size_t>(pick(0, static_cast<int>(std::size(things)) - 1))];
    }

    std::uint64_t seed_;
    std::uint32_t tried_ = 0; ///< calls of inject
    std::mt19937_64 random_;
    std::vector<const Kind*> round_; ///< the turns of a round, in their order
    pid_t monitor_;
    std::vector<reqcmd> applications_;
    std::function<void()> beforeChange_;
    std::list<Ahead> ahead_;
    std::list<Asked> asked_;
    std::map<std::string, int> counts_;
    SoakDisturbances disturbances_;
    int connections_ = 0;
    int closed_ = 0;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SOAK_FAULTS_H

// What another user may have put in /tmp in place of the files that the monitor opens there, on a
// system that lets users give the files of others a second name.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/Applications.h"

namespace systemtest {
namespace {

constexpr const char* kVictim = "/tmp/victim";
constexpr const char* kNamed = "/tmp/named";
constexpr const char* kLink = "/tmp/link";

/// Something in the place of a file that the operator names, and the error that it is.
struct Planted {
    const char* what;
    bool (*plant)(); ///< false when that fails
    int error;
};

constexpr Planted kPlanted[] = {
    {"second name of another file", [] { return ::link(kVictim, kNamed) == 0; }, EACCES},
    {"second name of a link",
     [] { return ::symlink(kVictim, kLink) == 0 && ::link(kLink, kNamed) == 0; }, ELOOP},
    {"fifo", [] { return ::mkfifo(kNamed, 0600) == 0; }, EACCES},
};

reqcmd stopOf(const std::string& name) {
    return makeRequest(APPMONCTL_Stop, name);
}

class PlantedFiles : public ApplicationTest {
protected:
    /// Puts it there, beside the victim, which holds a request. False when that fails.
    static bool plant(const Planted& planted) {
        for (const char* path : {kVictim, kNamed, kLink}) {
            (void)::unlink(path); // it need not be there
        }
        return writeFile(kVictim, bytesOf(stopOf("victim"))) && planted.plant();
    }

    /// Both ends of what stands there now, so that a fifo has somebody at the other one.
    static platform::UniqueFd openBothEnds() {
        return platform::UniqueFd(::open(kNamed, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }

    /// The monitor has handed requests for that name to its queue.
    bool hasQueued(const std::string& name) const {
        const std::string beginning = "processRequest: action=1 name=" + name + ",";
        for (const LogLine& line : daemonLog()) {
            if (line.pid == monitor_.pid() && line.text.find(beginning) == 0) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(PlantedFiles, TakeNoRecordOfARequest) {
    for (const Planted& planted : kPlanted) {
        ASSERT_TRUE(plant(planted)) << planted.what;
        const platform::UniqueFd both = openBothEnds();
        Daemon monitor;
        ASSERT_TRUE(monitor.startInForeground({"-v", "0", "-f", kNamed}));
        EXPECT_TRUE(askFor(stopOf("nobody")).came) << planted.what;
        EXPECT_EQ(countOf(monitor.console(), "Error " + std::to_string(planted.error) +
                                                 " opening /tmp/named for appending REQUEST_CMD="),
                  1U)
            << planted.what << monitor.console();
        EXPECT_EQ(readFile(kVictim), bytesOf(stopOf("victim"))) << planted.what;
        EXPECT_EQ(monitor.terminate().text(), "status 0") << planted.what;
    }
}

TEST_F(PlantedFiles, GiveNoRequestToReplay) {
    for (const Planted& planted : kPlanted) {
        ASSERT_TRUE(plant(planted)) << planted.what;
        const platform::UniqueFd both = openBothEnds();
        const std::string request = bytesOf(stopOf("fifo"));
        if (planted.what == std::string("fifo")) {
            ASSERT_GT(::write(both.get(), request.data(), request.size()), 0);
        }
        ASSERT_TRUE(startMonitorInForeground({"-x", kNamed}));
        const std::string failure =
            "Error " + std::to_string(planted.error) + " opening /tmp/named for reading\n";
        EXPECT_TRUE(eventually([&] { return countOf(monitor_.console(), failure) == 1; }))
            << planted.what << monitor_.console();
        sleepMs(2500); // By then the first request would be handed over.
        EXPECT_FALSE(hasQueued("victim") || hasQueued("fifo")) << planted.what;
        EXPECT_EQ(monitor_.terminate().text(), "status 0") << planted.what;
    }
}

/// In a folder of the operator's, the same is what he means.
TEST_F(PlantedFiles, FifoInAFolderThatIsNotEverybodysIsRead) {
    constexpr const char* kFifo = "/home/operator/fifo";
    ASSERT_TRUE(makeDirectories("/home/operator"));
    ASSERT_EQ(::mkfifo(kFifo, 0600), 0);
    const platform::UniqueFd both(::open(kFifo, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string request = bytesOf(stopOf("fifo"));
    ASSERT_EQ(::write(both.get(), request.data(), request.size()),
              static_cast<ssize_t>(request.size()));
    ASSERT_TRUE(startMonitorInForeground({"-x", kFifo}));
    EXPECT_TRUE(eventually([this] { return hasQueued("fifo"); }));
}

TEST_F(PlantedFiles, SecondNameOfALinkLeadsNoRequestElsewhere) {
    ASSERT_TRUE(makeDirectories("/tmp/elsewhere"));
    ASSERT_EQ(::symlink("elsewhere", kLink), 0);
    ASSERT_EQ(::link(kLink, kNamed), 0);
    Daemon monitor;
    ASSERT_TRUE(monitor.startInForeground({"-v", "0", "-f", "/tmp/named/requests"}));
    EXPECT_TRUE(askFor(stopOf("nobody")).came);
    const std::string failure = "Error " + std::to_string(ELOOP) +
                                " opening /tmp/named/requests for appending REQUEST_CMD=";
    EXPECT_EQ(countOf(monitor.console(), failure), 1U) << monitor.console();
    EXPECT_EQ(entriesOf("/tmp/elsewhere"), std::vector<std::string>{});
    EXPECT_EQ(monitor.terminate().text(), "status 0");
}

TEST_F(PlantedFiles, SecondNameOfALinkLeadsThePidFileNowhere) {
    ASSERT_TRUE(makeDirectories("/tmp/elsewhere"));
    ASSERT_EQ(::symlink("elsewhere", kLink), 0);
    ASSERT_EQ(::link(kLink, "/tmp/pid"), 0);
    Daemon monitor;
    ASSERT_TRUE(monitor.spawn({"-d"}));
    ASSERT_TRUE(eventually([&] { return socketListens() && monitor.workersWait(); }));
    EXPECT_TRUE(askFor(stopOf("nobody")).came);
    EXPECT_EQ(entriesOf("/tmp/elsewhere"), std::vector<std::string>{});
    EXPECT_EQ(monitor.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest

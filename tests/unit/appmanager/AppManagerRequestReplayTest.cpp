// The replay of a request file at start-up.

#include <cstddef>
#include <string>
#include <vector>

#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestFileFixture.h"

namespace requestfiles {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;
using Access = AppManagerTestAccess;

class ReplayTest : public RequestFileTest {
protected:
    void replay() {
        (void)manager(); // before the thread, as at start-up
        pszExecuteAppConfigurationFile = path_.c_str();
        EXPECT_EQ(startupAppConfigurationProcess(nullptr), nullptr);
    }

    void writeRequests(const std::vector<std::string>& names) {
        std::string content;
        for (const std::string& name : names) {
            content += imageOf(makeRequest(APPMONCTL_Stop, name));
        }
        writeFile(content);
    }

    static std::vector<std::string> handedOver() {
        std::vector<std::string> names;
        for (const reqcmd& request : Access::queued(manager())) {
            names.emplace_back(platform::fieldText(request.name));
        }
        return names;
    }

    /// Sets the shutdown flag during the given sleep, counted from 1.
    static void shutDownDuringSleep(int which) {
        world().onSleep = [which](int) {
            if (world().count("sleep") == static_cast<std::size_t>(which)) {
                g_bDaemonShutdown = -1;
            }
        };
    }
};

TEST_F(ReplayTest, WithoutAConfiguredFileEndsAfterTwoSeconds) {
    (void)manager();
    EXPECT_EQ(startupAppConfigurationProcess(nullptr), nullptr);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000"));
    EXPECT_THAT(handedOver(), IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReplayTest, MissingFileIsReportedAndEndsAfterTwoSeconds) {
    replay();
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000"));
    EXPECT_EQ(world().consoleText(), "Error 2 opening " + path_ + " for reading\n");
    EXPECT_THAT(handedOver(), IsEmpty());
}

TEST_F(ReplayTest, HandsTheRequestsOverInOrderOneEveryTwoSeconds) {
    writeRequests({"one", "two", "three"});
    std::vector<std::size_t> counts;
    world().onSleep = [&](int) { counts.push_back(Access::queue(manager()).size()); };
    replay();
    EXPECT_THAT(handedOver(), ElementsAre("one", "two", "three"));
    EXPECT_THAT(counts, ElementsAre(0U, 0U, 1U, 1U, 2U, 2U, 3U, 3U));
    EXPECT_THAT(world().callsOf("sleep"), testing::Each("sleep 1000"));
    EXPECT_THAT(file_request_list, IsEmpty());
}

TEST_F(ReplayTest, HandsOverARequestWithoutNulAsItIs) {
    writeFile(std::string(sizeof(reqcmd), '\xEE'));
    replay();
    ASSERT_THAT(Access::queue(manager()), SizeIs(1));
    EXPECT_EQ(imageOf(Access::queue(manager()).front()), std::string(sizeof(reqcmd), '\xEE'));
}

TEST_F(ReplayTest, ShowsEachRequestWithTheTimeOfTheEpochAboveVerbositySix) {
    writeRequests({"one", "two"});
    g_verbose = 7;
    replay();
    const std::string console = world().consoleText();
    EXPECT_THAT(console, StartsWith("Thu Jan  1 00:00:00 1970 1) file_request_list Command:\n"
                                    "Request Command:\n\tname = one\n"));
    EXPECT_THAT(console,
                testing::HasSubstr("Thu Jan  1 00:00:00 1970 2) file_request_list Command:\n"
                                   "Request Command:\n\tname = two\n"));
}

TEST_F(ReplayTest, IsSilentAtVerbositySix) {
    writeRequests({"one"});
    g_verbose = 6;
    replay();
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ReplayTest, ShutdownInTheFirstSecondSkipsTheSecondAndHandsOneMoreOver) {
    writeRequests({"one", "two"});
    shutDownDuringSleep(1);
    replay();
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_THAT(handedOver(), ElementsAre("one"));
}

TEST_F(ReplayTest, ShutdownInTheFirstSecondAfterARequestHandsOneMoreOver) {
    writeRequests({"one", "two", "three"});
    shutDownDuringSleep(3);
    replay();
    EXPECT_EQ(world().count("sleep"), 3U);
    EXPECT_THAT(handedOver(), ElementsAre("one", "two"));
}

TEST_F(ReplayTest, ShutdownInTheSecondSecondAfterARequestHandsOneMoreOver) {
    writeRequests({"one", "two", "three"});
    shutDownDuringSleep(4);
    replay();
    EXPECT_EQ(world().count("sleep"), 4U);
    EXPECT_THAT(handedOver(), ElementsAre("one", "two"));
}

TEST_F(ReplayTest, ShutdownBeforeTheReplayHandsOneRequestOverWithoutASleep) {
    writeRequests({"one", "two"});
    g_bDaemonShutdown = -1;
    replay();
    EXPECT_EQ(world().count("sleep"), 0U);
    EXPECT_THAT(handedOver(), ElementsAre("one"));
}

TEST_F(ReplayTest, RecordsNothingIntoTheAppendFile) {
    const std::string appended = folder_ + "/appended";
    pszAppendToAppConfigurationFile = appended.c_str();
    writeRequests({"one"});
    replay();
    EXPECT_NE(::access(appended.c_str(), F_OK), 0);
}

} // namespace
} // namespace requestfiles

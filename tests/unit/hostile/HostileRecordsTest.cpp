// Records that break every rule of the format, one at a time.

#include <climits>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::makeRequest;
using requests::replies;
using testing::EndsWith;
using testing::SizeIs;
using testing::StartsWith;
using Access = AppManagerTestAccess;

/// A record whose texts repeat one word from the first byte of the record to the last; the figures
/// come from the same bytes, except where a test sets them.
reqcmd recordOf(std::string_view word) {
    reqcmd request;
    auto* const bytes = reinterpret_cast<char*>(&request);
    for (std::size_t index = 0; index < sizeof request; ++index) {
        bytes[index] = word[index % word.size()];
    }
    return request;
}

struct Word {
    const char* label;
    std::string_view text;
};

void PrintTo(const Word& word, std::ostream* out) {
    *out << word.label;
}

const Word kWords[] = {
    {"letters", "A"},          {"ones", "\xFF"},
    {"conversions", "%s%n%d"}, {"blanks", " \t\v\f"},
    {"slashes", "/"},          {"control", "\r\n\x1B\x07"},
    {"digits", "12345678"},    {"directory", "/home/kelvo/root/app -d "},
};

class HostileRecordTest : public testing::TestWithParam<std::tuple<Word, int>> {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    reqcmd request(bool nowait) const {
        reqcmd made = recordOf(std::get<0>(GetParam()).text);
        made.action = std::get<1>(GetParam());
        made.nowait = nowait ? made.nowait : std::uint8_t{0};
        return made;
    }

    void execute(const reqcmd& hostileRequest) {
        EXPECT_EQ(manager_.processRequest(hostileRequest), 0);
        EXPECT_TRUE(Access::drainQueue(manager_));
    }

    static void expectWellFormedReplies() {
        for (const response_struct& reply : replies()) {
            EXPECT_EQ(reply.completed, 1);
            EXPECT_NE(std::memchr(reply.message, '\0', sizeof reply.message), nullptr);
        }
    }

    static void expectWellFormedRegistry() {
        for (const appinfo& app : applist) {
            EXPECT_EQ(app.name[sizeof app.name - 1], '\0');
            EXPECT_EQ(app.version[sizeof app.version - 1], '\0');
            EXPECT_EQ(app.cmd[sizeof app.cmd - 1], '\0');
            EXPECT_EQ(app.pidfile[sizeof app.pidfile - 1], '\0');
        }
    }

    FixtureManager manager_;
};

TEST_P(HostileRecordTest, IsExecutedWithoutRunningOutOfItsFields) {
    verbose = 9;
    execute(request(false));
    execute(request(true));
    expectWellFormedReplies();
    expectWellFormedRegistry();
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

TEST_P(HostileRecordTest, IsExecutedOnARegistryThatItFilledItself) {
    reqcmd start = request(false);
    start.action = APPMONCTL_Start;
    for (int count = 0; count < 3; ++count) {
        execute(start);
    }
    execute(request(false));
    expectWellFormedReplies();
    expectWellFormedRegistry();
}

TEST_P(HostileRecordTest, DoesNotDisturbTheNextRequest) {
    execute(request(false));
    world().forgetRecords();
    applist.clear();
    execute(makeRequest(APPMONCTL_Stop, "app"));
    ASSERT_THAT(replies(), SizeIs(1));
    EXPECT_EQ(replies()[0].code, -20);
    EXPECT_STREQ(replies()[0].message, "app is not found\n");
}

INSTANTIATE_TEST_SUITE_P(Words, HostileRecordTest,
                         testing::Combine(testing::ValuesIn(kWords),
                                          testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, -1,
                                                          INT_MIN, INT_MAX)));

class UnterminatedRecordTest : public HostileRecordTest {};

TEST_P(UnterminatedRecordTest, IsAnsweredWithTheNameCutToItsField) {
    execute(request(false));
    const std::string name(63, 'A');
    ASSERT_THAT(replies(), SizeIs(1));
    const std::string message = replies()[0].message;
    EXPECT_THAT(message, StartsWith(name + " "));
    EXPECT_EQ(message.find(name + "A"), std::string::npos);
    EXPECT_THAT(message, EndsWith("\n"));
}

INSTANTIATE_TEST_SUITE_P(NamedActions, UnterminatedRecordTest,
                         testing::Combine(testing::Values(Word{"letters", "A"}),
                                          testing::Values(0, 1, 5)));

TEST(HostileRecordLogTest, LinesEndWithTheirFields) {
    AppManager manager;
    manager.initCommunication();
    world().forgetRecords();
    reqcmd request = recordOf("A");
    request.action = APPMONCTL_Stop;
    manager.processRequest(request);
    EXPECT_TRUE(Access::drainQueue(manager));
    const std::string name(64, 'A');
    const std::vector<std::string> lines = world().logTexts(7);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0],
              "processRequest: action=1 name=" + name + ", cmd=" + std::string(1024, 'A'));
    EXPECT_EQ(lines[1], "processCmd() request.action=APPMONCTL_Stop " + name);
}

} // namespace

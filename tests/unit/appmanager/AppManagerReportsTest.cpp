// The console dumps and the one-line summaries.

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/ReportSupport.h"

namespace {

using fakes::world;
using reports::kStartTime;
using reports::makeRecord;
using testing::IsEmpty;

// --- the dumps -----------------------------------------------------------------------------------

constexpr const char* kDump = "App Info:\n"
                              "\tname = data_server\n"
                              "\tversion = 1.02\n"
                              "\tcmd = \"/home/kelvo/root/data_server -p \"x\"\"\n"
                              "\tpidfile = \"/tmp/pid/data_server.pid.700\"\n"
                              "\tpid = 700\n"
                              "\tstatus = 4\n"
                              "\tport_type = 1\n"
                              "\tport_num = 3\n"
                              "\tstart_time = 2023-11-14 22:13:20\n"
                              "\tuptime = 42\n"
                              "\tpriority = -5\n"
                              "\trestart_type = 1\n"
                              "\tlast_runtime_life_limit = 600\n";

class DumpTest : public testing::Test {
protected:
    FixtureManager manager_;
};

TEST_F(DumpTest, ShowsOneRecordAtEveryVerbosity) {
    verbose = 0;
    manager_.displayAppInfo(makeRecord());
    EXPECT_EQ(world().consoleText(), kDump);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(DumpTest, ShowsAnEmptyRecord) {
    manager_.displayAppInfo({});
    EXPECT_EQ(world().consoleText(), "App Info:\n"
                                     "\tname = \n"
                                     "\tversion = \n"
                                     "\tcmd = \"\"\n"
                                     "\tpidfile = \"\"\n"
                                     "\tpid = 0\n"
                                     "\tstatus = 0\n"
                                     "\tport_type = 0\n"
                                     "\tport_num = 0\n"
                                     "\tstart_time = 1970-01-01 00:00:00\n"
                                     "\tuptime = 0\n"
                                     "\tpriority = 0\n"
                                     "\trestart_type = 0\n"
                                     "\tlast_runtime_life_limit = 0\n");
}

TEST_F(DumpTest, ShowsTheLongestTextsWhole) {
    appinfo app = makeRecord();
    platform::copyToField(app.name, std::string(63, 'n'));
    platform::copyToField(app.version, std::string(31, 'v'));
    platform::copyToField(app.cmd, std::string(1023, '%'));
    platform::copyToField(app.pidfile, std::string(63, 'p'));
    manager_.displayAppInfo(app);
    const std::string shown = world().consoleText();
    EXPECT_EQ(shown.substr(0, shown.find("\tpid =")),
              "App Info:\n\tname = " + std::string(63, 'n') +
                  "\n\tversion = " + std::string(31, 'v') + "\n\tcmd = \"" +
                  std::string(1023, '%') + "\"\n\tpidfile = \"" + std::string(63, 'p') + "\"\n");
    EXPECT_THAT(shown, testing::EndsWith("\tlast_runtime_life_limit = 600\n"));
}

TEST_F(DumpTest, ShowsAListFromTheFirstToTheLast) {
    const std::vector<appinfo> list = {makeRecord("one"), makeRecord("two")};
    applist = {makeRecord("registered")};
    manager_.displayAppList(list);
    const std::string shown = world().consoleText();
    world().forgetRecords();
    manager_.displayAppInfo(list[0]);
    manager_.displayAppInfo(list[1]);
    EXPECT_EQ(shown, world().consoleText());
    EXPECT_THAT(shown, testing::HasSubstr("\tname = one\n"));
}

TEST_F(DumpTest, ShowsNothingOfAnEmptyList) {
    applist = {makeRecord("registered")};
    manager_.displayAppList({});
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(DumpTest, LeavesTheBufferOfWriteAppInfoUntouched) {
    std::vector<char> buffer(1024, 'b');
    manager_.writeAppInfo(buffer.data(), makeRecord());
    EXPECT_EQ(world().consoleText(), kDump);
    EXPECT_THAT(buffer, testing::Each('b'));
    world().forgetRecords();
    manager_.writeAppInfo(nullptr, makeRecord());
    EXPECT_EQ(world().consoleText(), kDump);
}

TEST_F(DumpTest, ShowsNothingAsHtml) {
    verbose = 10;
    applist = {makeRecord()};
    world().forgetRecords();
    manager_.displayAppListHtml();
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- the one-line summaries ----------------------------------------------------------------------

constexpr std::size_t kSummarySize = 1024;

class SummaryTest : public testing::Test {
protected:
    /// The summary of `app`; what lies behind its end must not have changed.
    std::string summaryOf(const appinfo& app) {
        buffer_.assign(2 * kSummarySize, 'b');
        manager_.displayAppItem(app, buffer_.data());
        EXPECT_THAT(std::vector<char>(buffer_.begin() + kSummarySize, buffer_.end()),
                    testing::Each('b'));
        buffer_.back() = '\0';
        return buffer_.data();
    }

    std::string summaryOf(int portType) {
        appinfo app = makeRecord();
        app.port_type = portType;
        return summaryOf(app);
    }

    FixtureManager manager_;
    std::vector<char> buffer_;
};

TEST_F(SummaryTest, OfAnApplicationWithoutPortHasNoLineEnd) {
    EXPECT_EQ(summaryOf(PORT_TYPE_NONE),
              "name=data_server pid = 700 status = 4 uptime= 42 since = 2023-11-14 22:13:20");
}

TEST_F(SummaryTest, OfAnApplicationOnASerialPort) {
    EXPECT_EQ(summaryOf(PORT_TYPE_COM),
              "name=data_server pid = 700 status = 4 uptime= 42 since = 2023-11-14 22:13:20 "
              "using COM port 3\n");
}

TEST_F(SummaryTest, OfAnApplicationOnAnIpPort) {
    EXPECT_EQ(summaryOf(PORT_TYPE_ETH),
              "name=data_server pid = 700 status = 4 uptime= 42 since = 2023-11-14 22:13:20 "
              "using IP port 3\n");
}

TEST_F(SummaryTest, OfAnotherPortTypeIsNotWritten) {
    for (const int portType : {3, 5, -1}) {
        EXPECT_EQ(summaryOf(portType), std::string(2 * kSummarySize - 1, 'b')) << portType;
    }
}

TEST_F(SummaryTest, ShowsStoredFiguresOnly) {
    appinfo app = makeRecord("x", APP_STATUS_DEAD);
    app.pid = -1;
    app.uptime = -7;
    app.port_num = -2;
    app.start_time = 0;
    world().now = kStartTime;
    EXPECT_EQ(summaryOf(app), "name=x pid = -1 status = 6 uptime= -7 since = 1970-01-01 00:00:00 "
                              "using COM port -2\n");
    EXPECT_EQ(world().consoleText(), "");
}

/// A name without its NUL runs on into the texts behind it.
TEST_F(SummaryTest, NeverPassesItsBuffer) {
    for (const int portType : {PORT_TYPE_NONE, PORT_TYPE_COM, PORT_TYPE_ETH}) {
        appinfo app = makeRecord();
        std::memset(reinterpret_cast<char*>(&app) + offsetof(appinfo, name), 'n',
                    offsetof(appinfo, pidfile) - offsetof(appinfo, name));
        app.port_type = portType;
        EXPECT_LE(summaryOf(app).size(), kSummarySize - 1);
    }
}

TEST_F(SummaryTest, OfTheMonitorTellsItsStartAndUptime) {
    ovard_start_time = kStartTime;
    world().now = kStartTime + 3661;
    std::vector<char> buffer(kSummarySize, 'b');
    EXPECT_EQ(manager_.displayMonitorInfo(buffer.data()), 0);
    EXPECT_STREQ(buffer.data(),
                 "The monitor start @ 2023-11-14 22:13:20 with uptime = 3661 seconds");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(SummaryTest, OfTheMonitorFollowsTheClockBackwards) {
    ovard_start_time = kStartTime;
    world().now = kStartTime - 5;
    std::vector<char> buffer(kSummarySize, 'b');
    EXPECT_EQ(manager_.displayMonitorInfo(buffer.data()), 0);
    EXPECT_STREQ(buffer.data(), "The monitor start @ 2023-11-14 22:13:20 with uptime = -5 seconds");
}

TEST_F(SummaryTest, OfTheMonitorNeedsABuffer) {
    EXPECT_EQ(manager_.displayMonitorInfo(nullptr), -1);
}

} // namespace

#include "client/ovardctl/StatusView.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/Views.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using ovard_client::MonitorState;
using ovard_client::SegmentResult;
using platform::copyToField;

struct Application {
    const char* name;
    std::int32_t pid;
    const char* status;
    std::uint32_t uptime;
    const char* portType;
    std::int32_t portNumber;
    std::int32_t restartType;
    const char* version;
};

/// Appends a record as the monitor publishes it.
void add(application_segment& segment, const Application& application) {
    application_record& record = segment.applications[segment.header.count++];
    copyToField(record.name, application.name);
    record.pid = application.pid;
    copyToField(record.status, application.status);
    record.uptime = application.uptime;
    copyToField(record.port_type, application.portType);
    record.port_num = application.portNumber;
    record.restart_type = application.restartType;
    copyToField(record.version, application.version);
}

application_segment emptySegment() {
    application_segment segment = {};
    segment.header.maximum = 127;
    copyToField(segment.header.file_version, "5.1.0");
    copyToField(segment.header.file_date, "2023-11-14");
    return segment;
}

application_segment sampleSegment() {
    application_segment segment = emptySegment();
    add(segment, {"modbus_server", 812, "started", 93784, "Eth", 502, 0, "2.4.1"});
    add(segment, {"meter", 9, "starting", 5, "COM", 2, 1, ""});
    add(segment, {"logger", 0, "stopped", 0, "None", 0, 7, "1.0"});
    return segment;
}

TEST(StatusView, ShowsTheApplicationsInATable) {
    const Report report = makeStatusReport(runningPublication(), sampleSegment(), "", kPlain);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.output, "Monitor:  running\n"
                             "Version:  5.1.0 (2023-11-14)\n"
                             "Data:     3 applications, 1.5s old\n"
                             "\n"
                             "NAME           PID  STATUS    UPTIME  PORT     POLICY  VERSION\n"
                             "modbus_server  812  started   1d 02h  eth:502  self    2.4.1\n"
                             "meter            9  starting      5s  com:2    all     -\n"
                             "logger           0  stopped       0s  -        7       1.0\n");
}

TEST(StatusView, ShowsOneApplicationAlone) {
    const Report report = makeStatusReport(runningPublication(), sampleSegment(), "meter", kPlain);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.output, "Monitor:  running\n"
                             "Version:  5.1.0 (2023-11-14)\n"
                             "Data:     3 applications, 1.5s old\n"
                             "\n"
                             "NAME   PID  STATUS    UPTIME  PORT   POLICY  VERSION\n"
                             "meter    9  starting      5s  com:2  all     -\n");
}

TEST(StatusView, EndsWith1WhenTheApplicationIsNotPublished) {
    const Report report = makeStatusReport(runningPublication(), sampleSegment(), "mete", kPlain);
    EXPECT_EQ(report.exitStatus, 1);
    EXPECT_EQ(report.error, "ovardctl: no application mete is published; \"ovardctl status\" "
                            "lists those that are\n");
    EXPECT_EQ(report.output, "Monitor:  running\n"
                             "Version:  5.1.0 (2023-11-14)\n"
                             "Data:     3 applications, 1.5s old\n");
}

TEST(StatusView, ComparesNamesAsFarAsTheyArePublished) {
    application_segment segment = emptySegment();
    const std::string longName(63, 'n');
    add(segment, {longName.c_str(), 1, "started", 1, "None", 0, 0, ""});
    EXPECT_EQ(makeStatusReport(runningPublication(), segment, longName, kPlain).exitStatus, 0);
    EXPECT_EQ(
        makeStatusReport(runningPublication(), segment, std::string(31, 'n'), kPlain).exitStatus,
        0);
    EXPECT_EQ(
        makeStatusReport(runningPublication(), segment, std::string(30, 'n'), kPlain).exitStatus,
        1);
}

TEST(StatusView, ColoursTheStatusOnATerminal) {
    application_segment segment = emptySegment();
    for (const char* status : {"started", "starting", "stopped", "dead", ""}) {
        add(segment, {"a", 1, status, 1, "None", 0, 0, "1"});
    }
    const std::string output =
        makeStatusReport(runningPublication(), segment, "", kColoured).output;
    EXPECT_EQ(output, "Monitor:  \x1b[32mrunning\x1b[0m\n"
                      "Version:  5.1.0 (2023-11-14)\n"
                      "Data:     5 applications, 1.5s old\n"
                      "\n"
                      "\x1b[1mNAME\x1b[0m  \x1b[1mPID\x1b[0m  \x1b[1mSTATUS\x1b[0m    "
                      "\x1b[1mUPTIME\x1b[0m  \x1b[1mPORT\x1b[0m  \x1b[1mPOLICY\x1b[0m  "
                      "\x1b[1mVERSION\x1b[0m\n"
                      "a       1  \x1b[32mstarted\x1b[0m       1s  -     self    1\n"
                      "a       1  \x1b[33mstarting\x1b[0m      1s  -     self    1\n"
                      "a       1  \x1b[33mstopped\x1b[0m       1s  -     self    1\n"
                      "a       1  \x1b[31mdead\x1b[0m          1s  -     self    1\n"
                      "a       1  -             1s  -     self    1\n");
}

TEST(StatusView, SaysThatTheDataAreStale) {
    const Report report = makeStatusReport(stalePublication(), sampleSegment(), "meter", kColoured);
    EXPECT_EQ(report.exitStatus, 3);
    EXPECT_NE(report.error.find("no monitor listens on /tmp/sock"), std::string::npos);
    // What was going well then may not be so now.
    EXPECT_EQ(report.output.find("\x1b[33m"), std::string::npos);
    const std::string plain =
        makeStatusReport(stalePublication(), sampleSegment(), "meter", kPlain).output;
    EXPECT_EQ(plain, "Monitor:  not running\n"
                     "Version:  5.1.0 (2023-11-14)\n"
                     "Data:     3 applications, stale, 5m 06s old\n"
                     "\n"
                     "NAME   PID  STATUS    UPTIME  PORT   POLICY  VERSION\n"
                     "meter    9  starting      5s  com:2  all     -\n");
}

TEST(StatusView, SaysThatARunningMonitorNoLongerPublishes) {
    Publication publication = runningPublication();
    publication.nowMs = publication.segment.modifiedMs + 306000;
    const Report report = makeStatusReport(publication, sampleSegment(), "meter", kPlain);
    EXPECT_EQ(report.exitStatus, 4);
    EXPECT_EQ(report.error,
              "ovardctl: the monitor runs, but has not written segment /segment for more than 60 "
              "seconds; it may be held up, see its lines in the system log (Ovard)\n"
              "ovardctl: of more than 127 applications the monitor publishes none; \"ovardctl "
              "system\" shows current data then\n");
    EXPECT_EQ(report.output, "Monitor:  running\n"
                             "Version:  5.1.0 (2023-11-14)\n"
                             "Data:     3 applications, stale, 5m 06s old\n"
                             "\n"
                             "NAME   PID  STATUS    UPTIME  PORT   POLICY  VERSION\n"
                             "meter    9  starting      5s  com:2  all     -\n");
    EXPECT_EQ(makeStatusReport(publication, sampleSegment(), "", kJsonLine)
                  .output.rfind("{\"monitor\":\"running\",\"data\":\"ok\",\"stale\":true,", 0),
              0u);
    // The hint is for running monitors.
    EXPECT_EQ(makeStatusReport(stalePublication(), sampleSegment(), "", kPlain).error.find("127"),
              std::string::npos);
}

TEST(StatusView, StaysStaleWhenTheApplicationIsNotPublishedEither) {
    const Report report = makeStatusReport(stalePublication(), sampleSegment(), "x", kPlain);
    EXPECT_EQ(report.exitStatus, 3);
    EXPECT_NE(report.error.find("no monitor listens"), std::string::npos);
    EXPECT_NE(report.error.find("no application x"), std::string::npos);
}

TEST(StatusView, ShowsARegistryWithoutApplications) {
    const Report report = makeStatusReport(runningPublication(), emptySegment(), "", kPlain);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.output, "Monitor:  running\n"
                             "Version:  5.1.0 (2023-11-14)\n"
                             "Data:     0 applications, 1.5s old\n");
}

TEST(StatusView, ShowsNoRecordsBeyondTheCount) {
    application_segment segment = sampleSegment();
    segment.header.count = 1; // the records of applications that were removed stay
    const Report report = makeStatusReport(runningPublication(), segment, "", kPlain);
    EXPECT_NE(report.output.find("1 application, "), std::string::npos);
    EXPECT_EQ(report.output.find("meter"), std::string::npos);
    EXPECT_EQ(makeStatusReport(runningPublication(), segment, "meter", kPlain).exitStatus, 1);
}

TEST(StatusView, ShowsNothingOfASegmentThatAMonitorHasOnlyCleared) {
    const application_segment segment = {};
    const Report report = makeStatusReport(runningPublication(), segment, "x", kPlain);
    EXPECT_EQ(report.exitStatus, 4);
    EXPECT_EQ(report.output, "Monitor:  running\nData:     none\n");
    EXPECT_EQ(report.error, "ovardctl: segment /segment holds no published data yet; the monitor "
                            "publishes every few seconds, try again\n");
}

TEST(StatusView, ShowsNothingOfASegmentThatCouldNotBeRead) {
    const Publication publication =
        lackingPublication(MonitorState::Running, SegmentResult::KeptChanging);
    const Report report = makeStatusReport(publication, sampleSegment(), "", kPlain);
    EXPECT_EQ(report.exitStatus, 4);
    EXPECT_EQ(report.output, "Monitor:  running\nData:     none\n");
    EXPECT_EQ(makeStatusReport(publication, sampleSegment(), "", kJsonLine).output,
              "{\"monitor\":\"running\",\"data\":\"kept changing\",\"stale\":true}\n");
}

TEST(StatusView, GivesScriptsEverything) {
    application_segment segment = emptySegment();
    segment.header.iec61850_health = 0x11000;
    segment.header.sys_health = 0x4000;
    add(segment, {"modbus_server", 812, "started", 93784, "Eth", 502, 1, "2.4.1"});
    application_record& record = segment.applications[0];
    const std::uint8_t startTime[8] = {0, 0, 1, 0x8b, 0xcf, 0xe5, 0x68, 0x00};
    std::memcpy(record.start_time, startTime, sizeof startTime);
    record.nice = -5;
    record.last_runtime_life_limit = 600;
    const Report report = makeStatusReport(runningPublication(), segment, "", kJson);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.output, "{\n"
                             "  \"monitor\": \"running\",\n"
                             "  \"data\": \"ok\",\n"
                             "  \"stale\": false,\n"
                             "  \"published_ms\": 1700000000000,\n"
                             "  \"age_ms\": 1500,\n"
                             "  \"version\": \"5.1.0\",\n"
                             "  \"date\": \"2023-11-14\",\n"
                             "  \"iec61850_health\": 69632,\n"
                             "  \"system_health\": 16384,\n"
                             "  \"count\": 1,\n"
                             "  \"applications\": [\n"
                             "    {\n"
                             "      \"name\": \"modbus_server\",\n"
                             "      \"pid\": 812,\n"
                             "      \"status\": \"started\",\n"
                             "      \"uptime_s\": 93784,\n"
                             "      \"start_time_ms\": 1700000000000,\n"
                             "      \"port_type\": \"Eth\",\n"
                             "      \"port_number\": 502,\n"
                             "      \"policy\": \"all\",\n"
                             "      \"life_limit_s\": 600,\n"
                             "      \"priority\": -5,\n"
                             "      \"version\": \"2.4.1\"\n"
                             "    }\n"
                             "  ]\n"
                             "}\n");
}

TEST(StatusView, GivesScriptsOneLineWhenItIsRepeated) {
    EXPECT_EQ(makeStatusReport(stalePublication(), emptySegment(), "", kJsonLine).output,
              "{\"monitor\":\"not running\",\"data\":\"ok\",\"stale\":true,"
              "\"published_ms\":1700000000000,\"age_ms\":306000,\"version\":\"5.1.0\","
              "\"date\":\"2023-11-14\",\"iec61850_health\":0,\"system_health\":0,\"count\":0,"
              "\"applications\":[]}\n");
}

TEST(StatusView, GivesScriptsNoAgeOfDataFromTheFuture) {
    Publication publication = runningPublication();
    publication.nowMs = publication.segment.modifiedMs - 5000;
    const std::string output = makeStatusReport(publication, emptySegment(), "", kJsonLine).output;
    EXPECT_NE(output.find("\"age_ms\":null,"), std::string::npos);
}

/// Every byte of it is something that the monitor never writes.
application_segment hostileSegment(int fill, std::int32_t count) {
    application_segment segment;
    std::memset(static_cast<void*>(&segment), fill, sizeof segment);
    segment.header.count = count;
    return segment;
}

TEST(StatusView, BoundsWhatOtherProgramsHaveWritten) {
    for (const int fill : {0x1b, 0x7f, 0xff, 0x80, 0x77}) {
        for (const std::int32_t count : {128, std::numeric_limits<std::int32_t>::max()}) {
            const application_segment segment = hostileSegment(fill, count);
            const Report report = makeStatusReport(stalePublication(), segment, "", kPlain);
            expectFitsATerminal(report.output);
            EXPECT_EQ(report.exitStatus, 3);
            EXPECT_NE(report.output.find(std::to_string(count) + " applications (127 published), "),
                      std::string::npos);
            // Before the records: monitor, version, data, an empty one, and the titles.
            EXPECT_EQ(std::count(report.output.begin(), report.output.end(), '\n'), 5 + 127);
            const std::string json =
                makeStatusReport(stalePublication(), segment, "", kJson).output;
            for (const char character : json) {
                EXPECT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7f));
            }
        }
    }
}

TEST(StatusView, RefusesANegativeCount) {
    for (const std::int32_t count : {-5, std::numeric_limits<std::int32_t>::min()}) {
        const application_segment segment = hostileSegment('w', count);
        const Report report = makeStatusReport(runningPublication(), segment, "x", kPlain);
        EXPECT_EQ(report.exitStatus, 5);
        EXPECT_NE(report.error.find("a count of " + std::to_string(count)), std::string::npos);
        EXPECT_EQ(report.output.find("NAME"), std::string::npos);
        expectFitsATerminal(report.output);
    }
}

TEST(StatusView, ReadsTextsWithoutNulToTheEndsOfTheirFields) {
    application_segment segment = emptySegment();
    add(segment, {"", 1, "", 1, "", 0, 0, ""});
    application_record& record = segment.applications[0];
    std::memset(record.name, 'n', sizeof record.name);
    std::memset(record.status, 's', sizeof record.status);
    std::memset(record.port_type, 'p', sizeof record.port_type);
    const std::string json = makeStatusReport(runningPublication(), segment, "", kJson).output;
    EXPECT_NE(json.find('"' + std::string(32, 'n') + '"'), std::string::npos);
    EXPECT_NE(json.find('"' + std::string(16, 's') + '"'), std::string::npos);
    EXPECT_NE(json.find('"' + std::string(16, 'p') + '"'), std::string::npos);
}

TEST(StatusView, KeepsEscapeSequencesAwayFromTheTerminal) {
    application_segment segment = emptySegment();
    add(segment, {"\x1b]0;x\a", 1, "\x1b[2J", 1, "\x1b", 0, 0, "\r"});
    copyToField(segment.header.file_version, "\x1b[H");
    const std::string output = makeStatusReport(runningPublication(), segment, "", kPlain).output;
    EXPECT_EQ(output, "Monitor:  running\n"
                      "Version:  \\x1b[H (2023-11-14)\n"
                      "Data:     1 application, 1.5s old\n"
                      "\n"
                      "NAME          PID  STATUS   UPTIME  PORT    POLICY  VERSION\n"
                      "\\x1b]0;x\\x07    1  \\x1b[2J      1s  \\x1b:0  self    \\x0d\n");
}

} // namespace

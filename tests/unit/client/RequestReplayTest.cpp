#include "client/ovardctl/RequestReplay.h"

#include <cstring>
#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::copyToField;

class RequestReplay : public testing::Test {
protected:
    /// Follows a record as the next one of the file.
    void replay(const reqcmd& record) {
        records_.push_back(record);
        started_.stopFor(records_.back());
        if (record.action == APPMONCTL_Start) {
            started_.start(records_.back(), records_.size());
        }
    }

    void replayStart(const std::string& name, std::int32_t portType = PORT_TYPE_NONE) {
        reqcmd record = writingStartOf(name);
        record.porttype = portType;
        replay(record);
    }

    /// A start of a program that writes exactly the pid file that is named.
    static reqcmd writingStartOf(const std::string& name) {
        reqcmd record = startOf(name);
        copyToField(record.pidfile, "/tmp/" + name + ".pid");
        return record;
    }

    std::deque<reqcmd> records_; ///< stay where they are
    StartedApplications started_;
};

TEST_F(RequestReplay, StartIsFoundByNamePidFileAndCommand) {
    EXPECT_EQ(started_.withName("one"), 0u);
    replayStart("one");
    replayStart("two");
    EXPECT_EQ(started_.withName("two"), 2u);
    EXPECT_EQ(started_.withPidFileOf(writingStartOf("two")), 2u);
    EXPECT_EQ(started_.withCommandOf(startOf("two")), 2u);
    EXPECT_EQ(started_.withName("three"), 0u);
    EXPECT_EQ(started_.withPidFileOf(writingStartOf("three")), 0u);
    EXPECT_EQ(started_.withCommandOf(startOf("three")), 0u);
}

TEST_F(RequestReplay, FirstOfSeveralUsersIsTold) {
    replayStart("one");
    reqcmd other = writingStartOf("one");
    copyToField(other.name, "other");
    replay(other);
    EXPECT_EQ(started_.withPidFileOf(other), 1u);
    EXPECT_EQ(started_.withCommandOf(other), 1u);
    replay(requestOf(APPMONCTL_Stop, "one"));
    EXPECT_EQ(started_.withPidFileOf(other), 2u);
    EXPECT_EQ(started_.withCommandOf(other), 2u);
}

TEST_F(RequestReplay, ConventionalPidFileHasNoUser) {
    replay(startOf("one"));
    EXPECT_EQ(started_.withPidFileOf(startOf("one")), 0u);
    reqcmd other = startOf("other");
    copyToField(other.pidfile, startOf("one").pidfile);
    replay(other);
    EXPECT_EQ(started_.withPidFileOf(startOf("one")), 2u);
}

TEST_F(RequestReplay, ProcessesAreFoundByFifteenCharactersOfTheFileName) {
    replay(requestOf(APPMONCTL_Start, "gateway", "/home/kelvo/modbus/modbus_gateway_server -a"));
    EXPECT_EQ(started_.withProcessOf("modbus_gateway_client"), 1u);
    EXPECT_EQ(started_.withProcessOf("modbus_gateway"), 0u);
    EXPECT_EQ(started_.withProcessOf("gateway"), 0u);
    const auto ofProgram = [](const std::string& program) {
        return requestOf(APPMONCTL_Start, "x", program);
    };
    EXPECT_EQ(started_.withNameOfProcess(ofProgram("/home/kelvo/root/gateway")), 1u);
    EXPECT_EQ(started_.withNameOfProcess(ofProgram("/home/kelvo/root/gateways")), 0u);
    EXPECT_EQ(started_.withNameOfProcess(ofProgram("/bin/gateway")), 0u);
    replay(requestOf(APPMONCTL_Stop, "gateway"));
    EXPECT_EQ(started_.withProcessOf("modbus_gateway_client"), 0u);
    EXPECT_EQ(started_.withNameOfProcess(ofProgram("/home/kelvo/root/gateway")), 0u);
}

TEST_F(RequestReplay, ProcessesOutsideTheFoldersOfDaemonsAreNotFound) {
    replay(requestOf(APPMONCTL_Start, "x", "/bin/one"));
    replay(requestOf(APPMONCTL_Start, "y", "/home/kelvo/root/appmon/one"));
    replay(requestOf(APPMONCTL_Start, "z", "/home/kelvo/root/"));
    EXPECT_EQ(started_.withProcessOf("one"), 0u);
    EXPECT_EQ(started_.withProcessOf(""), 0u);
}

TEST_F(RequestReplay, LaterStartOfANameTakesThePlaceOfTheFirst) {
    replayStart("one");
    replay(requestOf(APPMONCTL_Start, "one", "/home/kelvo/root/new", "/tmp/new.pid"));
    EXPECT_EQ(started_.withName("one"), 2u);
    EXPECT_EQ(started_.withPidFileOf(writingStartOf("one")), 0u);
    EXPECT_EQ(started_.withCommandOf(startOf("one")), 0u);
}

TEST_F(RequestReplay, StopForgetsAllOfTheApplication) {
    replayStart("one", PORT_TYPE_ETH);
    replayStart("two");
    replay(requestOf(APPMONCTL_Stop, "one"));
    EXPECT_EQ(started_.withName("one"), 0u);
    EXPECT_EQ(started_.withPidFileOf(writingStartOf("one")), 0u);
    EXPECT_EQ(started_.withCommandOf(startOf("one")), 0u);
    EXPECT_EQ(started_.withName("two"), 2u);
    replayStart("one");
    replay(requestOf(APPMONCTL_Stop_PortApps, ""));
    EXPECT_EQ(started_.withName("one"), 4u) << "it serves no port any more";
}

TEST_F(RequestReplay, StopsOfTheWholeListForgetThoseThatTheyConcern) {
    const auto startAll = [this] {
        replayStart("plain");
        replayStart("security_server");
        replayStart("com", PORT_TYPE_COM);
        replayStart("odd", 7);
    };
    const auto left = [this] {
        std::string names;
        for (const char* name : {"plain", "security_server", "com", "odd"}) {
            names += started_.withName(name) != 0 ? std::string(name) + ' ' : "";
        }
        return names;
    };
    startAll();
    EXPECT_EQ(left(), "plain security_server com odd ");
    replay(requestOf(APPMONCTL_Stop_PortApps, ""));
    EXPECT_EQ(left(), "plain security_server ");
    startAll();
    replay(requestOf(APPMONCTL_Stop_All_But, ""));
    EXPECT_EQ(left(), "security_server ");
    startAll();
    replay(requestOf(APPMONCTL_Stop_All, ""));
    EXPECT_EQ(left(), "");
    EXPECT_EQ(started_.withPidFileOf(writingStartOf("plain")), 0u);
}

TEST_F(RequestReplay, OtherActionsStopNothing) {
    replayStart("one", PORT_TYPE_ETH);
    for (const std::int32_t action : {-1, 5, 6, 7, 8, 9, 10, 11}) {
        replay(requestOf(action, "one"));
        EXPECT_EQ(started_.withName("one"), 1u) << action;
    }
}

TEST_F(RequestReplay, EmptyTextsHaveNoUser) {
    replay(requestOf(APPMONCTL_Start, "one", "/a"));
    EXPECT_EQ(started_.withPidFileOf(requestOf(APPMONCTL_Start, "two", "/b")), 0u);
    replay(requestOf(APPMONCTL_Start, "fails"));
    EXPECT_EQ(started_.withName("fails"), 0u);
}

TEST_F(RequestReplay, TextsWithoutANulAreCut) {
    reqcmd longText = startOf("one");
    std::memset(longText.pidfile, 'p', sizeof longText.pidfile);
    replay(longText);
    EXPECT_EQ(
        started_.withPidFileOf(requestOf(APPMONCTL_Start, "two", "/two", std::string(63, 'p'))),
        1u);
}

} // namespace

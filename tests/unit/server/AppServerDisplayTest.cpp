#include "server/AppServer.h"

#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

using AppServerDisplayTest = ListeningServerTest;

reqcmd requestToShow() {
    reqcmd request = {};
    std::strcpy(request.name, "meter_app");
    std::strcpy(request.version, "1.2.3");
    std::strcpy(request.cmd, "/home/kelvo/root/meter_app -d");
    std::strcpy(request.pidfile, "/tmp/pid/meter_app.pid");
    request.porttype = 2;
    request.portnum = 502;
    request.action = -7;
    request.priority = 99;
    request.delay = 11;
    request.keepalive = 1;
    request.nowait = 0;
    request.heartbeat = 1;
    request.restart_type = 1;
    request.last_runtime_life_limit = 3600;
    return request;
}

TEST_F(AppServerDisplayTest, RequestIsShownFieldByField) {
    server_->displayRequestCmd(requestToShow());
    EXPECT_EQ(world().consoleText(), "Request Command:\n"
                                     "\tname = meter_app\n"
                                     "\tversion = 1.2.3\n"
                                     "\taction = -7\n"
                                     "\tcmd = \"/home/kelvo/root/meter_app -d\"\n"
                                     "\tpidfile = \"/tmp/pid/meter_app.pid\"\n"
                                     "\tporttype = 2\n"
                                     "\tportnum = 502\n"
                                     "\tdelay = 11\n"
                                     "\tkeepalive = 1\n"
                                     "\tnowait = 0\n"
                                     "\trequest.heartbeat = 1\n"
                                     "\trequest.restart_type = 1\n"
                                     "\trequest.last_runtime_life_limit = 3600\n");
}

TEST_F(AppServerDisplayTest, EmptyRequestIsShownWithEmptyTextsAndZeros) {
    server_->displayRequestCmd(reqcmd{});
    EXPECT_EQ(world().consoleText(), "Request Command:\n"
                                     "\tname = \n"
                                     "\tversion = \n"
                                     "\taction = 0\n"
                                     "\tcmd = \"\"\n"
                                     "\tpidfile = \"\"\n"
                                     "\tporttype = 0\n"
                                     "\tportnum = 0\n"
                                     "\tdelay = 0\n"
                                     "\tkeepalive = 0\n"
                                     "\tnowait = 0\n"
                                     "\trequest.heartbeat = 0\n"
                                     "\trequest.restart_type = 0\n"
                                     "\trequest.last_runtime_life_limit = 0\n");
}

TEST_F(AppServerDisplayTest, TextsWithoutNulEndWithTheirFields) {
    reqcmd request = requestToShow();
    std::memset(request.name, 'n', sizeof request.name);
    std::memset(request.version, 'v', sizeof request.version);
    std::memset(request.cmd, 'c', sizeof request.cmd);
    std::memset(request.pidfile, 'p', sizeof request.pidfile);
    request.action = 3;
    server_->displayRequestCmd(request);
    EXPECT_THAT(world().consoleText(),
                testing::StartsWith("Request Command:\n\tname = " + std::string(64, 'n') +
                                    "\n\tversion = " + std::string(32, 'v') +
                                    "\n\taction = 3\n\tcmd = \"" + std::string(1024, 'c') +
                                    "\"\n\tpidfile = \"" + std::string(64, 'p') + "\"\n"));
}

TEST_F(AppServerDisplayTest, AnyNonZeroBooleanByteIsShownAsOne) {
    reqcmd request = {};
    request.keepalive = 2;
    request.nowait = 255;
    request.heartbeat = 128;
    server_->displayRequestCmd(request);
    EXPECT_THAT(world().consoleText(),
                testing::HasSubstr("\tkeepalive = 1\n\tnowait = 1\n\trequest.heartbeat = 1\n"));
}

TEST_F(AppServerDisplayTest, ReplyOfSuccessIsShownAsItsMessage) {
    server_->displayResponseCmd(replyWith(0, "all well"));
    EXPECT_EQ(world().consoleText(), "all well\n");
}

TEST_F(AppServerDisplayTest, ReplyOfFailureIsShownWithItsCode) {
    server_->displayResponseCmd(replyWith(7, "no"));
    EXPECT_EQ(world().consoleText(), " Error is detected with code =7\nno\n");
}

TEST_F(AppServerDisplayTest, ReplyWithoutMessageIsShownAsALineEnd) {
    server_->displayResponseCmd(replyWith(0, ""));
    EXPECT_EQ(world().consoleText(), "\n");
}

TEST_F(AppServerDisplayTest, MessageWithoutNulEndsWithItsField) {
    response_struct reply = {};
    std::memset(reply.message, 'm', sizeof reply.message);
    server_->displayResponseCmd(reply);
    EXPECT_EQ(world().consoleText(), std::string(1024, 'm') + "\n");
}

TEST_F(AppServerDisplayTest, LogLineIsCutToItsBuffer) {
    server_->writeLog(kLevelInfo, "%s", std::string(3000, 'l').c_str());
    EXPECT_THAT(onlyLogsOf(kLevelInfo), ElementsAre(std::string(2047, 'l')));
}

} // namespace
} // namespace serving

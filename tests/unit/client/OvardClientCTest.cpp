#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "client/ovard_client.h"
#include "records/codes.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;

ovard_request makeRequest(ovard_action action, const char* name = "meter_app") {
    ovard_request request;
    ovard_request_init(&request, action);
    EXPECT_EQ(ovard_request_set_name(&request, name), OVARD_OK);
    EXPECT_EQ(ovard_request_set_command(&request, "/home/kelvo/root/meter_app -x"), OVARD_OK);
    return request;
}

ovard_reply untouchedCReply() {
    ovard_reply reply;
    std::memset(&reply, 0x5a, sizeof reply);
    return reply;
}

void expectEmpty(const ovard_reply& reply, std::int32_t requestSent) {
    EXPECT_EQ(reply.code, 0);
    EXPECT_EQ(reply.request_sent, requestSent);
    EXPECT_STREQ(reply.message, "");
}

/// A call that must be refused before anything is sent.
ovard_result refusedSend(const ovard_request& request) {
    ovard_reply reply = untouchedCReply();
    const TemporaryFolder folder;
    const ovard_result result = ovard_send(folder.file("none").c_str(), kAmpleMs, &request, &reply);
    expectEmpty(reply, 0);
    return result;
}

TEST(OvardClientC, EveryResultHasATextOfItsOwn) {
    std::set<std::string> texts;
    for (int result = OVARD_OK; result <= OVARD_KEPT_CHANGING; ++result) {
        const std::string text = ovard_result_text(static_cast<ovard_result>(result));
        EXPECT_FALSE(text.empty()) << result;
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 9U);
    EXPECT_STREQ(ovard_result_text(static_cast<ovard_result>(OVARD_KEPT_CHANGING + 1)),
                 "unknown result");
}

TEST(OvardClientC, AnInitialisedRequestIsZeroButForItsAction) {
    ovard_request request;
    std::memset(&request, 0x5a, sizeof request);
    ovard_request_init(&request, OVARD_RESTART_PORT_APPS);
    EXPECT_EQ(request.action, 8);
    request.action = 0;
    const ovard_request zero = {};
    EXPECT_EQ(std::memcmp(&request, &zero, sizeof zero), 0);
    ovard_request_init(nullptr, OVARD_START); // must not crash
}

struct Setter {
    const char* name;
    ovard_result (*set)(ovard_request*, const char*);
    char* (*field)(ovard_request&);
    std::size_t size;
};

const Setter kSetters[] = {
    {"name", ovard_request_set_name, [](ovard_request& r) -> char* { return r.name; }, 64},
    {"version", ovard_request_set_version, [](ovard_request& r) -> char* { return r.version; }, 32},
    {"command", ovard_request_set_command, [](ovard_request& r) -> char* { return r.command; },
     1024},
    {"pidfile", ovard_request_set_pidfile, [](ovard_request& r) -> char* { return r.pidfile; }, 64},
};

TEST(OvardClientC, SettersTakeWhatFitsWithItsNul) {
    for (const Setter& setter : kSetters) {
        ovard_request request;
        ovard_request_init(&request, OVARD_START);
        const std::string longest(setter.size - 1, 'l');
        EXPECT_EQ(setter.set(&request, longest.c_str()), OVARD_OK) << setter.name;
        EXPECT_EQ(setter.field(request), longest);
        EXPECT_EQ(setter.set(&request, "short"), OVARD_OK);
        const std::string whole(setter.field(request), setter.size);
        EXPECT_EQ(whole, "short" + std::string(setter.size - 5, '\0')) << "nothing is left over";
        EXPECT_EQ(setter.set(&request, ""), OVARD_OK);
        EXPECT_STREQ(setter.field(request), "");
    }
}

TEST(OvardClientC, SettersRefuseWhatIsTooLong) {
    for (const Setter& setter : kSetters) {
        ovard_request request;
        ovard_request_init(&request, OVARD_START);
        ASSERT_EQ(setter.set(&request, "before"), OVARD_OK);
        const ovard_request before = request;
        EXPECT_EQ(setter.set(&request, std::string(setter.size, 'l').c_str()), OVARD_TOO_LONG)
            << setter.name;
        EXPECT_EQ(setter.set(&request, std::string(4000, 'l').c_str()), OVARD_TOO_LONG);
        EXPECT_EQ(setter.set(&request, nullptr), OVARD_INVALID_ARGUMENT);
        EXPECT_EQ(setter.set(nullptr, "text"), OVARD_INVALID_ARGUMENT);
        EXPECT_EQ(std::memcmp(&request, &before, sizeof request), 0);
    }
}

TEST(OvardClientC, SendsEveryFieldAsTheRecordHoldsIt) {
    ovard_request request = makeRequest(OVARD_START);
    ASSERT_EQ(ovard_request_set_version(&request, "1.2"), OVARD_OK);
    ASSERT_EQ(ovard_request_set_pidfile(&request, "/tmp/meter.pid"), OVARD_OK);
    request.port_type = OVARD_PORT_ETH;
    request.port_number = 502;
    request.priority = -3;
    request.delay = 4;
    request.keepalive = 1;
    request.heartbeat = 2;
    request.restart_type = OVARD_RESTART_TYPE_ALL;
    request.life_limit_sec = 600;
    reqcmd received{};
    {
        TestServer server([&](int fd) { received = receiveRequest(fd); });
        ovard_reply reply = untouchedCReply();
        EXPECT_EQ(ovard_send(server.path().c_str(), kAmpleMs, &request, &reply),
                  OVARD_CONNECTION_CLOSED);
        expectEmpty(reply, 1);
    }
    EXPECT_STREQ(received.name, "meter_app");
    EXPECT_STREQ(received.version, "1.2");
    EXPECT_STREQ(received.cmd, "/home/kelvo/root/meter_app -x");
    EXPECT_STREQ(received.pidfile, "/tmp/meter.pid");
    EXPECT_EQ(received.porttype, PORT_TYPE_ETH);
    EXPECT_EQ(received.portnum, 502);
    EXPECT_EQ(received.action, APPMONCTL_Start);
    EXPECT_EQ(received.priority, -3);
    EXPECT_EQ(received.delay, 4);
    EXPECT_EQ(received.keepalive, 1);
    EXPECT_EQ(received.nowait, 0);
    EXPECT_EQ(received.heartbeat, 2);
    EXPECT_EQ(received.restart_type, RESTART_TYPE_ALL);
    EXPECT_EQ(received.last_runtime_life_limit, 600);
}

TEST(OvardClientC, ReturnsCodeAndMessageOfTheReply) {
    const response_struct sent = makeReply(-20, "meter_app is not found\n");
    TestServer server([&](int fd) {
        receiveRequest(fd);
        sendBytes(fd, &sent, sizeof sent);
    });
    const ovard_request request = makeRequest(OVARD_STOP);
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send(server.path().c_str(), kAmpleMs, &request, &reply), OVARD_OK);
    EXPECT_EQ(reply.code, -20);
    EXPECT_EQ(reply.request_sent, 1);
    EXPECT_STREQ(reply.message, "meter_app is not found\n");
}

TEST(OvardClientC, AMessageThatFillsItsFieldEndsWithANulNevertheless) {
    const std::string whole(1024, 'm');
    const response_struct sent = makeReply(0, whole);
    TestServer server([&](int fd) {
        receiveRequest(fd);
        sendBytes(fd, &sent, sizeof sent);
    });
    const ovard_request request = makeRequest(OVARD_STOP);
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send(server.path().c_str(), kAmpleMs, &request, &reply), OVARD_OK);
    ASSERT_EQ(reply.message[1024], '\0');
    EXPECT_EQ(reply.message, whole);
}

TEST(OvardClientC, AwaitsNothingWhenNoWaitIsSet) {
    TestServer server([](int fd) { receiveRequest(fd); });
    ovard_request request = makeRequest(OVARD_RESTART);
    request.no_wait = 1;
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send(server.path().c_str(), kAmpleMs, &request, &reply), OVARD_OK);
    expectEmpty(reply, 1);
    EXPECT_EQ(ovard_send(server.path().c_str(), kAmpleMs, &request, nullptr), OVARD_OK);
}

TEST(OvardClientC, TimesOutAndTellsThatTheRequestIsOut) {
    TestServer server([](int fd) {
        receiveRequest(fd);
        waitForClose(fd);
    });
    const ovard_request request = makeRequest(OVARD_STOP_ALL);
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send(server.path().c_str(), 100, &request, &reply), OVARD_TIMED_OUT);
    expectEmpty(reply, 1);
}

TEST(OvardClientC, ReportsThatNobodyListens) {
    const TemporaryFolder folder;
    const ovard_request request = makeRequest(OVARD_STOP_ALL);
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send(folder.file("none").c_str(), kAmpleMs, &request, &reply),
              OVARD_NO_MONITOR);
    expectEmpty(reply, 0);
}

TEST(OvardClientC, AnyOtherFailureLeavesItsCauseInErrno) {
    const TemporaryFolder folder;
    const platform::UniqueFd other = bindSocket(folder.file("sock"), SOCK_DGRAM, -1);
    const ovard_request request = makeRequest(OVARD_STOP_ALL);
    ovard_reply reply = untouchedCReply();
    errno = 0;
    EXPECT_EQ(ovard_send(folder.file("sock").c_str(), kAmpleMs, &request, &reply),
              OVARD_SYSTEM_ERROR);
    EXPECT_EQ(errno, EPROTOTYPE);
    expectEmpty(reply, 0);
}

TEST(OvardClientC, RefusesWrongArguments) {
    const ovard_request request = makeRequest(OVARD_STOP_ALL);
    ovard_reply reply = untouchedCReply();
    EXPECT_EQ(ovard_send("/nonexistent", kAmpleMs, nullptr, &reply), OVARD_INVALID_ARGUMENT);
    expectEmpty(reply, 0);
    EXPECT_EQ(ovard_send("/nonexistent", kAmpleMs, &request, nullptr), OVARD_INVALID_ARGUMENT);
    EXPECT_EQ(ovard_send("", kAmpleMs, &request, &reply), OVARD_INVALID_ARGUMENT);
    EXPECT_EQ(ovard_send("/nonexistent", 0, &request, &reply), OVARD_INVALID_ARGUMENT);
    EXPECT_EQ(ovard_send("/nonexistent", -1, &request, &reply), OVARD_INVALID_ARGUMENT);
    EXPECT_EQ(ovard_send(std::string(108, 'p').c_str(), kAmpleMs, &request, &reply),
              OVARD_TOO_LONG);
    EXPECT_EQ(ovard_send(std::string(107, 'p').c_str(), kAmpleMs, &request, &reply),
              OVARD_NO_MONITOR);
}

TEST(OvardClientC, RefusesTextsWithoutNul) {
    for (const Setter& setter : kSetters) {
        ovard_request request = makeRequest(OVARD_START);
        std::memset(setter.field(request), 'x', setter.size);
        EXPECT_EQ(refusedSend(request), OVARD_TOO_LONG) << setter.name;
    }
}

TEST(OvardClientC, RefusesWhatTheMonitorWouldNotAnswer) {
    for (const int action : {OVARD_START, OVARD_STOP, OVARD_RESTART}) {
        EXPECT_EQ(refusedSend(makeRequest(static_cast<ovard_action>(action), "")),
                  OVARD_INVALID_ARGUMENT)
            << action;
    }
    ovard_request noCommand = makeRequest(OVARD_START);
    noCommand.command[0] = '\0';
    EXPECT_EQ(refusedSend(noCommand), OVARD_INVALID_ARGUMENT);
    for (const std::int32_t action : {-1, 9, 10, 11}) {
        ovard_request request = makeRequest(OVARD_STOP);
        request.action = action;
        EXPECT_EQ(refusedSend(request), OVARD_INVALID_ARGUMENT) << action;
    }
}

TEST(OvardClientC, ActionsOnSeveralNeedNoName) {
    for (const int action :
         {OVARD_STOP_ALL, OVARD_STOP_ALL_BUT_SECURITY, OVARD_STOP_PORT_APPS, OVARD_RESTART_ALL,
          OVARD_RESTART_SELF_RESTARTING, OVARD_RESTART_PORT_APPS}) {
        ovard_request request;
        ovard_request_init(&request, static_cast<ovard_action>(action));
        EXPECT_EQ(refusedSend(request), OVARD_NO_MONITOR) << action << " is not refused";
    }
}

TEST(OvardClientC, TellsWhetherSomebodyListens) {
    const TemporaryFolder folder;
    EXPECT_EQ(ovard_find_monitor(folder.file("sock").c_str()), OVARD_MONITOR_NOT_RUNNING);
    const platform::UniqueFd listener = bindSocket(folder.file("sock"), SOCK_STREAM, 8);
    EXPECT_EQ(ovard_find_monitor(folder.file("sock").c_str()), OVARD_MONITOR_RUNNING);
}

TEST(OvardClientC, ReadingRefusesPlacesThatAreNone) {
    EXPECT_EQ(ovard_read_machine(nullptr), OVARD_INVALID_ARGUMENT);
    EXPECT_EQ(ovard_read_applications(nullptr, 1, nullptr), OVARD_INVALID_ARGUMENT);
}

} // namespace

#include "server/AppServer.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

using AppServerCopyTest = ListeningServerTest;

TEST_F(AppServerCopyTest, ConnectionThatCannotBeCopiedIsGivenUp) {
    world().duplicateResults = {{-1, EMFILE}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(bytesOf(request_), bytesOf(requestFilledWith('p')));
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));
    EXPECT_THAT(onlyLogsOf(kLevelDebug),
                ElementsAre("recvCommand(): accept error=" + std::to_string(EMFILE)));
}

TEST_F(AppServerCopyTest, NextClientIsServedAfterOneThatWasGivenUp) {
    world().duplicateResults = {{-1, EMFILE}};
    world().scriptReceive(requestFilledWith('n'));
    ASSERT_EQ(receive(), -1);
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), bytesOf(requestFilledWith('n')));
}

} // namespace
} // namespace serving

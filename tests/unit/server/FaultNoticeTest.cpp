#include "server/FaultNotice.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

class FaultNoticeTest : public ListeningServerTest {
protected:
    void update(int error) { notice_.update(*server_, error); }

    FaultNotice notice_{"/some/file"};
};

const std::string kFault = "/some/file cannot be written: No space left on device";
const std::string kEnd = "/some/file is written again";

TEST_F(FaultNoticeTest, SaysNothingWhileAllIsWell) {
    update(0);
    update(0);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(FaultNoticeTest, TellsOfTheBeginningOnce) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        update(ENOSPC);
    }
    EXPECT_THAT(onlyLogsOf(kLevelError),
                ElementsAre("/some/file cannot be written: No space left on device"));
}

TEST_F(FaultNoticeTest, TellsOfTheEndOnce) {
    update(EIO);
    world().forgetRecords();
    for (int attempt = 0; attempt < 100; ++attempt) {
        update(0);
    }
    EXPECT_THAT(onlyLogsOf(kLevelInfo), ElementsAre("/some/file is written again"));
}

TEST_F(FaultNoticeTest, AnotherErrorIsTheSameFault) {
    update(ENOSPC);
    update(EROFS);
    EXPECT_THAT(onlyLogsOf(kLevelError),
                ElementsAre("/some/file cannot be written: No space left on device"));
}

TEST_F(FaultNoticeTest, NextFaultIsToldAnew) {
    update(ENOSPC);
    update(0);
    world().advance(60000);
    world().forgetRecords();
    update(EROFS);
    EXPECT_THAT(onlyLogsOf(kLevelError),
                ElementsAre("/some/file cannot be written: Read-only file system"));
}

TEST_F(FaultNoticeTest, FaultThatComesAndGoesIsToldOnceAMinute) {
    for (int second = 0; second < 60; ++second) {
        update(ENOSPC);
        update(0);
        world().advance(1000);
    }
    EXPECT_THAT(world().logTexts(), ElementsAre(kFault, kEnd));
    update(ENOSPC);
    update(0);
    EXPECT_THAT(world().logTexts(), ElementsAre(kFault, kEnd, kFault, kEnd));
}

TEST_F(FaultNoticeTest, UntoldFaultThatLastsIsToldAfterTheMinute) {
    update(ENOSPC);
    update(0);
    world().advance(59999);
    update(EROFS);
    EXPECT_THAT(world().logTexts(), ElementsAre(kFault, kEnd));
    world().advance(1);
    update(ENOSPC);
    EXPECT_THAT(world().logTexts(), ElementsAre(kFault, kEnd, kFault)) << "as it is now";
}

TEST_F(FaultNoticeTest, EndOfAToldFaultIsToldAtOnce) {
    update(ENOSPC);
    update(0);
    world().advance(60000);
    update(ENOSPC);
    update(0);
    EXPECT_THAT(world().logTexts(), ElementsAre(kFault, kEnd, kFault, kEnd));
}

TEST_F(FaultNoticeTest, UnknownErrorIsToldByItsNumber) {
    update(4095);
    EXPECT_THAT(onlyLogsOf(kLevelError),
                ElementsAre("/some/file cannot be written: Unknown error 4095"));
}

} // namespace
} // namespace serving

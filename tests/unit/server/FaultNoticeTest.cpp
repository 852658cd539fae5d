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

TEST_F(FaultNoticeTest, UnknownErrorIsToldByItsNumber) {
    update(4095);
    EXPECT_THAT(onlyLogsOf(kLevelError),
                ElementsAre("/some/file cannot be written: Unknown error 4095"));
}

} // namespace
} // namespace serving

// The JSON status file.

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/ReportSupport.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using reports::kStartTime;
using reports::makeRecord;
using Access = AppManagerTestAccess;

constexpr const char* kHead = "{\n"
                              "\"version\":\"0.01.00\",\n"
                              "\"apps\":{\n"
                              "\t\"name\":\"Meter Applications:\",\n"
                              "  \t\"width\":800,\n"
                              "\t\"header\":[\"ID\",\"Name\",\"Process ID\",\"Status\",\"Up Time\","
                              "\"Start Time (UTC)\"],\n"
                              "\t\"rows\":[\n";
constexpr const char* kTail = "\t\t]\n\t}\n}\n";

class JsonFileTest : public testing::Test {
protected:
    JsonFileTest() {
        char folder[] = "/tmp/ovard_reports.XXXXXX";
        folder_ = ::mkdtemp(folder);
        path_ = folder_ + "/status.json";
    }
    ~JsonFileTest() override {
        std::remove(path_.c_str());
        ::rmdir(folder_.c_str());
    }

    void update() { manager_.updateJsonFile(path_.c_str()); }

    std::string content() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    /// What stands between the head and the tail.
    std::string rows() {
        update();
        const std::string text = content();
        const std::size_t head = std::strlen(kHead);
        const std::size_t tail = std::strlen(kTail);
        if (text.size() < head + tail || text.substr(0, head) != kHead ||
            text.substr(text.size() - tail) != kTail) {
            ADD_FAILURE() << "head or tail are wrong:\n" << text;
            return {};
        }
        return text.substr(head, text.size() - head - tail);
    }

    bool registryIsFree() { return locks::isFree(Access::appLock(manager_)); }

    FixtureManager manager_;
    std::string folder_;
    std::string path_;
};

TEST_F(JsonFileTest, EmptyRegistryHasNoRows) {
    update();
    EXPECT_EQ(content(), std::string(kHead) + kTail);
}

TEST_F(JsonFileTest, OneRecordIsOneRowWithoutLineFeed) {
    applist.push_back(makeRecord());
    EXPECT_EQ(rows(), "\t\t [\"1\",\"data_server\",\"700\",\"running \",\"42\",\"\"]");
}

TEST_F(JsonFileTest, RowsAreNumberedAndSeparated) {
    applist = {makeRecord("one"), makeRecord("two"), makeRecord("three")};
    applist[1].pid = -1;
    applist[1].uptime = -7;
    applist[2].start_time = 0;
    EXPECT_EQ(rows(), "\t\t [\"1\",\"one\",\"700\",\"running \",\"42\",\"\"],\n"
                      "\t\t [\"2\",\"two\",\"-1\",\"running \",\"-7\",\"2023-11-14 22:13:20\"],\n"
                      "\t\t [\"3\",\"three\",\"700\",\"running \",\"42\",\"1970-01-01 00:00:00\"]");
}

TEST_F(JsonFileTest, UptimeIsTheStoredOne) {
    world().now = kStartTime + 1000;
    applist.push_back(makeRecord());
    EXPECT_THAT(rows(), testing::HasSubstr("\"42\""));
    EXPECT_EQ(applist[0].uptime, 42);
}

struct StatusWord {
    int status;
    const char* cell;
};

class StatusWordTest : public JsonFileTest, public testing::WithParamInterface<StatusWord> {
protected:
    static std::string row(int number, const std::string& cell) {
        return "\t\t [\"" + std::to_string(number) + "\",\"a\",\"700\",\"" + cell + "\",\"42\",\"" +
               (number == 1 ? "" : "2023-11-14 22:13:20") + "\"]";
    }
};

TEST_P(StatusWordTest, IsFollowedByABlank) {
    applist = {makeRecord("a", GetParam().status)};
    EXPECT_EQ(rows(), row(1, std::string(GetParam().cell) + " "));
}

TEST_P(StatusWordTest, ReplacesTheOneBefore) {
    applist = {makeRecord("a", APP_STATUS_STOPPED), makeRecord("a", GetParam().status)};
    const std::string word = *GetParam().cell != '\0' ? GetParam().cell : "stopped";
    EXPECT_EQ(rows(), row(1, "stopped ") + ",\n" + row(2, word + " "));
}

INSTANTIATE_TEST_SUITE_P(Statuses, StatusWordTest,
                         testing::Values(StatusWord{0, ""}, StatusWord{1, "starting"},
                                         StatusWord{2, "starting"}, StatusWord{3, "started"},
                                         StatusWord{4, "running"}, StatusWord{5, "stopped"},
                                         StatusWord{6, ""}, StatusWord{7, ""}, StatusWord{8, ""},
                                         StatusWord{9, ""}, StatusWord{10, ""}, StatusWord{11, ""},
                                         StatusWord{-1, ""}));

TEST_F(JsonFileTest, StatusWithoutWordRepeatsTheOneBefore) {
    applist = {makeRecord("a", APP_STATUS_RUNNING), makeRecord("b", APP_STATUS_DEAD),
               makeRecord("c", APP_STATUS_STOPPED)};
    EXPECT_EQ(rows(), "\t\t [\"1\",\"a\",\"700\",\"running \",\"42\",\"\"],\n"
                      "\t\t [\"2\",\"b\",\"700\",\"running \",\"42\",\"2023-11-14 22:13:20\"],\n"
                      "\t\t [\"3\",\"c\",\"700\",\"stopped \",\"42\",\"2023-11-14 22:13:20\"]");
}

TEST_F(JsonFileTest, WordIsRepeatedOverManyRows) {
    applist = {makeRecord("a", APP_STATUS_RUNNING0), makeRecord("b", APP_STATUS_DEAD),
               makeRecord("c", APP_STATUS_START_FAILURE)};
    EXPECT_THAT(rows(), testing::EndsWith(",\"started \",\"42\",\"2023-11-14 22:13:20\"]"));
}

TEST_F(JsonFileTest, WordIsNotRepeatedInTheNextFile) {
    applist = {makeRecord("a", APP_STATUS_RUNNING)};
    update();
    applist[0].status = APP_STATUS_INITIALIZING;
    EXPECT_EQ(rows(), "\t\t [\"1\",\"a\",\"700\",\" \",\"42\",\"\"]");
}

TEST_F(JsonFileTest, TextsAreWrittenAsTheyStand) {
    applist = {makeRecord("a\"b\\c%s\td\ne")};
    EXPECT_EQ(rows(), "\t\t [\"1\",\"a\"b\\c%s\td\ne\",\"700\",\"running \",\"42\",\"\"]");
}

TEST_F(JsonFileTest, LongestNameIsWrittenWhole) {
    const std::string name(63, 'n');
    applist = {makeRecord(name)};
    EXPECT_EQ(rows(), "\t\t [\"1\",\"" + name + "\",\"700\",\"running \",\"42\",\"\"]");
}

TEST_F(JsonFileTest, ManyRecordsAreWrittenWhole) {
    std::string expected;
    for (int number = 1; number <= 2000; ++number) {
        applist.push_back(makeRecord("app" + std::to_string(number), APP_STATUS_RUNNING));
        expected += (number == 1 ? "" : ",\n") + ("\t\t [\"" + std::to_string(number)) +
                    "\",\"app" + std::to_string(number) + "\",\"700\",\"running \",\"42\",\"" +
                    (number == 1 ? "" : "2023-11-14 22:13:20") + "\"]";
    }
    EXPECT_EQ(rows(), expected);
}

TEST_F(JsonFileTest, LongerOldFileIsTruncated) {
    std::ofstream(path_) << std::string(100000, 'x');
    update();
    EXPECT_EQ(content(), std::string(kHead) + kTail);
}

/// In a folder that everybody may write to, somebody could have given another file its name.
TEST_F(JsonFileTest, SecondNameOfAnotherFileIsNotWritten) {
    const std::string other = folder_ + "/other";
    std::ofstream(other) << "old";
    ASSERT_EQ(::link(other.c_str(), path_.c_str()), 0);
    ASSERT_EQ(::chmod(folder_.c_str(), 01777), 0);
    update();
    EXPECT_EQ(content(), "old");
    std::remove(other.c_str());
    update();
    EXPECT_EQ(content(), std::string(kHead) + kTail);
}

TEST_F(JsonFileTest, IsWrittenInPlace) {
    std::ofstream(path_) << "old";
    struct stat before = {};
    ASSERT_EQ(::stat(path_.c_str(), &before), 0);
    update();
    struct stat after = {};
    ASSERT_EQ(::stat(path_.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(JsonFileTest, PathThatCannotBeOpenedIsSkipped) {
    applist.push_back(makeRecord());
    const int next = ::dup(0);
    ::close(next);
    manager_.updateJsonFile((folder_ + "/missing/status.json").c_str());
    manager_.updateJsonFile(folder_.c_str());
    manager_.updateJsonFile("");
    const int nextNow = ::dup(0);
    ::close(nextNow);
    EXPECT_EQ(nextNow, next) << "a descriptor stayed open";
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), "");
    EXPECT_TRUE(registryIsFree());
}

TEST_F(JsonFileTest, LeavesNoDescriptorOpen) {
    const int next = ::dup(0);
    ::close(next);
    update();
    const int nextNow = ::dup(0);
    ::close(nextNow);
    EXPECT_EQ(nextNow, next);
}

TEST_F(JsonFileTest, IsTracedAboveVerbositySeven) {
    verbose = 8;
    update();
    EXPECT_EQ(world().consoleText(), "updateJsonFile() jsonfile=" + path_ + "\n");
}

TEST_F(JsonFileTest, IsTracedBeforeTheFileIsOpened) {
    verbose = 8;
    bool existed = true;
    world().onConsole = [&](const std::string&) { existed = ::access(path_.c_str(), F_OK) == 0; };
    update();
    world().onConsole = nullptr;
    EXPECT_FALSE(existed);
    manager_.updateJsonFile("/missing/x");
    EXPECT_THAT(world().consoleText(), testing::EndsWith("updateJsonFile() jsonfile=/missing/x\n"));
}

TEST_F(JsonFileTest, IsSilentAtVerbositySeven) {
    verbose = 7;
    update();
    EXPECT_EQ(world().consoleText(), "");
}

/// The rows are made once the registry is free.
TEST_F(JsonFileTest, WaitsForTheRegistry) {
    EXPECT_EQ(Access::appLock(manager_).lock(), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        update();
        done = true;
    });
    // The file is opened before the registry is waited for.
    EXPECT_TRUE(fakes::waitUntil([&] { return ::access(path_.c_str(), F_OK) == 0; }));
    ::usleep(20000);
    EXPECT_FALSE(done);
    applist.push_back(makeRecord("late"));
    EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    writer.join();
    EXPECT_THAT(content(), testing::HasSubstr("\"late\""));
    EXPECT_TRUE(registryIsFree());
}

TEST_F(JsonFileTest, MayBeAskedForWithTheRegistryHeld) {
    applist.push_back(makeRecord());
    EXPECT_EQ(Access::appLock(manager_).lock(), 0);
    EXPECT_NE(rows(), "");
    EXPECT_FALSE(registryIsFree());
    EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    EXPECT_TRUE(registryIsFree());
}

} // namespace

#include "platform/linux/Files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

using namespace testsupport;
using platform::openPlainFile;
using platform::readFileOnce;

TEST(Files, OpensAPlainFileCloseOnExecWithItsFacts) {
    const TemporaryDirectory directory;
    writeText(directory.file("plain"), "four");
    struct stat facts = {};
    const platform::UniqueFd file =
        openPlainFile(directory.file("plain").c_str(), O_RDONLY, 0, facts);
    ASSERT_TRUE(file.valid());
    EXPECT_EQ(facts.st_size, 4);
    EXPECT_EQ(::fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST(Files, CreatesAPlainFile) {
    const TemporaryDirectory directory;
    const UmaskGuard mask(0);
    struct stat facts = {};
    EXPECT_TRUE(
        openPlainFile(directory.file("new").c_str(), O_WRONLY | O_CREAT, 0640, facts).valid());
    EXPECT_EQ(modeOf(directory.file("new")), 0640U);
    EXPECT_EQ(facts.st_mode & 07777, 0640U);
}

TEST(Files, RefusesEverythingElseWithoutWaiting) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo(directory.file("fifo").c_str(), 0600), 0);
    struct stat facts = {};
    for (const std::string& path :
         {directory.file("fifo"), directory.path(), std::string("/dev/null"),
          directory.file("missing"), directory.file("missing/deeper")}) {
        EXPECT_FALSE(openPlainFile(path.c_str(), O_RDONLY, 0, facts).valid()) << path;
        EXPECT_FALSE(openPlainFile(path.c_str(), O_WRONLY, 0, facts).valid()) << path;
    }
}

TEST(Files, RefusesAFifoThatHasAReader) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo(directory.file("fifo").c_str(), 0600), 0);
    const platform::UniqueFd reader(
        ::open(directory.file("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat facts = {};
    EXPECT_FALSE(openPlainFile(directory.file("fifo").c_str(), O_WRONLY, 0, facts).valid());
}

TEST(Files, FollowsALinkOnlyWhereTheFlagsLetIt) {
    const TemporaryDirectory directory;
    writeText(directory.file("plain"), "x");
    ASSERT_EQ(::symlink("plain", directory.file("link").c_str()), 0);
    struct stat facts = {};
    EXPECT_TRUE(openPlainFile(directory.file("link").c_str(), O_RDONLY, 0, facts).valid());
    EXPECT_FALSE(
        openPlainFile(directory.file("link").c_str(), O_RDONLY | O_NOFOLLOW, 0, facts).valid());
}

TEST(Files, ReadsAtMostTheBuffer) {
    const TemporaryDirectory directory;
    writeText(directory.file("plain"), "abcdef");
    char buffer[8] = "-------";
    EXPECT_EQ(readFileOnce(directory.file("plain").c_str(), buffer, 4), 4);
    EXPECT_STREQ(buffer, "abcd---");
    EXPECT_EQ(readFileOnce(directory.file("plain").c_str(), buffer, sizeof buffer), 6);
    EXPECT_EQ(std::string(buffer, 6), "abcdef");
}

TEST(Files, ReadsAnEmptyFileAsNothing) {
    const TemporaryDirectory directory;
    writeText(directory.file("empty"), "");
    char buffer[4];
    EXPECT_EQ(readFileOnce(directory.file("empty").c_str(), buffer, sizeof buffer), 0);
}

TEST(Files, ReportsWhyNothingCouldBeRead) {
    const TemporaryDirectory directory;
    char buffer[4];
    EXPECT_EQ(readFileOnce(directory.file("missing").c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(readFileOnce(directory.path().c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EISDIR);
}

} // namespace

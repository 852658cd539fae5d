// What another user may have planted in place of a file that the operator names, or on the way to
// it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "PlantedFiles.h"
#include "TestSupport.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;
using platform::openFile;
using platform::openNamedFile;

class NamedFile : public Planted {};

/// Flags with which the monitor opens what its operator names.
constexpr int kNamedFlags[] = {O_RDONLY, O_WRONLY | O_CREAT | O_APPEND,
                               O_WRONLY | O_CREAT | O_TRUNC};

TEST_F(NamedFile, PlainFileThatIsNamedIsOpened) {
    writeText(at("named"), "text");
    EXPECT_TRUE(openNamedFile(at("named").c_str(), O_RDONLY).valid());
    EXPECT_TRUE(openNamedFile(at("named").c_str(), kNamedFlags[1], 0640).valid());
    EXPECT_EQ(readText(at("named")), "text");
    EXPECT_TRUE(openNamedFile(at("named").c_str(), kNamedFlags[2], 0640).valid());
    EXPECT_EQ(readText(at("named")), "");
    EXPECT_TRUE(openNamedFile(at("new").c_str(), kNamedFlags[2], 0640).valid());
    EXPECT_EQ(modeOf(at("new")), 0640U);
    EXPECT_FALSE(openNamedFile(at("missing").c_str(), O_RDONLY).valid());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(NamedFile, SecondNameOfAnotherFileIsNotWhatWasNamed) {
    ASSERT_EQ(::link(victim_.c_str(), at("named").c_str()), 0);
    for (const mode_t mode : {0777U, 01777U}) {
        ASSERT_EQ(::chmod(directory_.path().c_str(), mode), 0);
        for (const int flags : kNamedFlags) {
            errno = 0;
            EXPECT_FALSE(openNamedFile(at("named").c_str(), flags, 0600).valid()) << flags;
            EXPECT_EQ(errno, EACCES) << flags;
        }
    }
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    EXPECT_TRUE(openNamedFile(at("named").c_str(), O_RDONLY).valid());
}

TEST_F(NamedFile, FifoIsNotWhatWasNamed) {
    ASSERT_EQ(::mkfifo(at("named").c_str(), 0600), 0);
    const platform::UniqueFd both(::open(at("named").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    for (const int flags : kNamedFlags) {
        errno = 0;
        EXPECT_FALSE(openNamedFile(at("named").c_str(), flags, 0600).valid()) << flags;
        EXPECT_EQ(errno, EACCES) << flags;
    }
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    for (const int flags : kNamedFlags) {
        EXPECT_TRUE(openNamedFile(at("named").c_str(), flags, 0600).valid()) << flags;
    }
}

TEST_F(NamedFile, DeviceIsNotWhatWasNamed) {
    if (!plantDevice("named")) {
        GTEST_SKIP() << "takes root";
    }
    for (const int flags : kNamedFlags) {
        EXPECT_FALSE(openNamedFile(at("named").c_str(), flags, 0600).valid()) << flags;
    }
    EXPECT_TRUE(openNamedFile("/dev/zero", O_RDONLY).valid());
}

TEST_F(NamedFile, LinkIsNotWhatWasNamed) {
    if (!plantLink("victim", "named")) {
        GTEST_SKIP() << "takes root";
    }
    for (const int flags : kNamedFlags) {
        errno = 0;
        EXPECT_FALSE(openNamedFile(at("named").c_str(), flags, 0600).valid()) << flags;
        EXPECT_EQ(errno, ELOOP) << flags;
    }
}

TEST_F(NamedFile, LinkOfOnesOwnLeadsToAPlainFileOnly) {
    writeText(at("target"), "text");
    ASSERT_EQ(::symlink("target", at("named").c_str()), 0);
    EXPECT_TRUE(openNamedFile(at("named").c_str(), O_RDONLY).valid());
    ASSERT_EQ(::link(victim_.c_str(), at("other").c_str()), 0);
    ASSERT_EQ(::symlink("other", at("link").c_str()), 0);
    EXPECT_FALSE(openNamedFile(at("link").c_str(), kNamedFlags[2], 0600).valid());
}

// The operator has put the link where nobody else could.
TEST_F(NamedFile, LinkFromAPrivateFolderIsWhatWasNamed) {
    const TemporaryDirectory own;
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(at("fifo").c_str(), own.file("named").c_str()), 0);
    EXPECT_TRUE(openNamedFile(own.file("named").c_str(), O_RDONLY).valid());
    EXPECT_FALSE(openNamedFile(at("fifo").c_str(), O_RDONLY).valid());
}

TEST_F(NamedFile, PlainFileOfAnotherUserIsWhatWasNamed) {
    writeText(at("named"), "text");
    if (::chown(at("named").c_str(), kAnotherUser, kAnotherUser) != 0) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_TRUE(openNamedFile(at("named").c_str(), O_RDONLY).valid());
}

// --- the way to what the operator names
// -----------------------------------------------------------

/// A folder to which links may lead, with a file that is there and one that is not.
class NamedOnTheWay : public Planted {
protected:
    NamedOnTheWay() {
        ::mkdir(elsewhere_.c_str(), 0755);
        writeText(elsewhere_ + "/named", "text");
    }

    /// Neither of the two is reached through the folder `way`, in no way to open it.
    void expectClosed(const std::string& way, int error) const {
        for (const char* name : {"/named", "/new", "/./named", "//new"}) {
            for (const int flags : kNamedFlags) {
                errno = 0;
                EXPECT_FALSE(openNamedFile(at(way + name).c_str(), flags, 0600).valid())
                    << way << name << flags;
                EXPECT_EQ(errno, error) << way << name << flags;
            }
        }
        EXPECT_EQ(readText(elsewhere_ + "/named"), "text");
        EXPECT_FALSE(exists(elsewhere_ + "/new"));
    }

    /// Both are reached through the folder `way`.
    void expectOpen(const std::string& way) const {
        EXPECT_TRUE(openNamedFile(at(way + "/named").c_str(), O_RDONLY).valid()) << way;
        errno = 0;
        EXPECT_FALSE(openNamedFile(at(way + "/new").c_str(), O_RDONLY).valid()) << way;
        EXPECT_EQ(errno, ENOENT) << way;
        EXPECT_TRUE(openNamedFile(at(way + "/new").c_str(), kNamedFlags[1], 0600).valid()) << way;
        EXPECT_EQ(::unlink((elsewhere_ + "/new").c_str()), 0) << way;
    }

    const std::string elsewhere_ = at("elsewhere");
};

TEST_F(NamedOnTheWay, LinkOfAnotherUserIsNotFollowed) {
    if (!plantLink("elsewhere", "way")) {
        GTEST_SKIP() << "takes root";
    }
    ASSERT_EQ(::mkdir((elsewhere_ + "/inner").c_str(), 0755), 0);
    expectClosed("way", ELOOP);
    expectClosed("way/inner/..", ELOOP);
    expectClosed("elsewhere/../way", ELOOP);
}

TEST_F(NamedOnTheWay, LinkWithASecondNameIsNotFollowed) {
    ASSERT_EQ(::symlink("elsewhere", at("link").c_str()), 0);
    ASSERT_EQ(::link(at("link").c_str(), at("way").c_str()), 0);
    expectClosed("way", ELOOP);
}

TEST_F(NamedOnTheWay, LinkOfOnesOwnIsFollowed) {
    ASSERT_EQ(::symlink("elsewhere", at("way").c_str()), 0);
    expectOpen("way");
    expectOpen("elsewhere/../way");
}

TEST_F(NamedOnTheWay, LinkInAFolderThatIsNotEverybodysIsFollowed) {
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    ASSERT_EQ(::symlink("elsewhere", at("link").c_str()), 0);
    ASSERT_EQ(::link(at("link").c_str(), at("way").c_str()), 0);
    expectOpen("way");
    if (!plantLink("elsewhere", "theirs")) {
        GTEST_SKIP() << "takes root";
    }
    expectOpen("theirs");
}

/// What another user has put into a folder of his own is as little to be trusted as the folder.
TEST_F(NamedOnTheWay, FolderOfAnotherUserHoldsPlainFilesOnly) {
    ASSERT_EQ(::mkdir(at("way").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(at("way/inner").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("../elsewhere", at("way/link").c_str()), 0);
    ASSERT_EQ(::symlink("../../elsewhere", at("way/inner/link").c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere/named", at("way/named").c_str()), 0);
    ASSERT_EQ(::link(victim_.c_str(), at("way/second").c_str()), 0);
    writeText(at("way/plain"), "text");
    if (::chown(at("way").c_str(), kAnotherUser, kAnotherUser) != 0) {
        GTEST_SKIP() << "takes root";
    }
    expectClosed("way/link", ENOTDIR);
    expectClosed("way/inner/link", ENOTDIR);
    for (const int flags : kNamedFlags) {
        EXPECT_FALSE(openNamedFile(at("way/named").c_str(), flags, 0600).valid()) << flags;
        EXPECT_FALSE(openNamedFile(at("way/second").c_str(), flags, 0600).valid()) << flags;
    }
    EXPECT_TRUE(openNamedFile(at("way/plain").c_str(), O_RDONLY).valid());
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    expectOpen("way/link");
    EXPECT_TRUE(openNamedFile(at("way/second").c_str(), O_RDONLY).valid());
}

/// Opened or refused, and with which error, as open does it.
void expectAsTheSystem(const std::string& path, int flags) {
    const platform::UniqueFd expected(::open(path.c_str(), flags | O_CLOEXEC));
    const int expectedError = expected.valid() ? 0 : errno;
    const platform::UniqueFd opened = openNamedFile(path.c_str(), flags);
    const int error = opened.valid() ? 0 : errno;
    EXPECT_EQ(error, expectedError) << path << flags << ": " << std::strerror(error);
}

TEST_F(NamedOnTheWay, EveryOtherPathIsWhatTheSystemTakesItFor) {
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(::symlink("elsewhere", at("link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", at("dangling").c_str()), 0);
    const std::string longName(300, 'n');
    const std::string paths[] = {"",
                                 "/",
                                 "//",
                                 "..",
                                 ".",
                                 "elsewhere",
                                 "elsewhere/",
                                 "elsewhere/named",
                                 "./elsewhere//named",
                                 "elsewhere/../elsewhere/named",
                                 "link/named",
                                 "link/",
                                 "link/../elsewhere/named",
                                 "elsewhere/named/",
                                 "elsewhere/named/below",
                                 "elsewhere/missing",
                                 "missing/named",
                                 "dangling/named",
                                 longName,
                                 longName + "/named",
                                 at("elsewhere/named"),
                                 "/" + at("link/named"),
                                 "/proc/self/exe",
                                 "/dev/fd/nothing"};
    const platform::UniqueFd before = openFile(".", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(::chdir(directory_.path().c_str()), 0);
    for (const std::string& path : paths) {
        expectAsTheSystem(path, O_RDONLY);
        expectAsTheSystem(path, O_WRONLY | O_APPEND);
    }
    ASSERT_EQ(::fchdir(before.get()), 0);
}

} // namespace

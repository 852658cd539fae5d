#include "client/ovardctl/PlainFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;

constexpr std::size_t kLimit = 1000;

class PlainFile : public testing::Test {
protected:
    std::string read(std::size_t limit = kLimit) const {
        std::string content = "before";
        const std::string problem = readPlainFile(path_, limit, content);
        return problem.empty() ? "read: " + content : problem;
    }

    mode_t modeOf(const std::string& path) const {
        struct stat facts = {};
        EXPECT_EQ(::lstat(path.c_str(), &facts), 0) << path;
        return facts.st_mode & 07777;
    }

    bool exists(const std::string& path) const { return ::access(path.c_str(), F_OK) == 0; }

    /// Replaces the content; returns what went wrong.
    std::string replace(const std::string& content) const {
        FileReplacement replacement(path_);
        const std::string problem = replacement.begin();
        return problem.empty() ? replacement.commit(content) : problem;
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_.file("file");
    const std::string newPath_ = path_ + ".new";
};

TEST_F(PlainFile, IsReadWhole) {
    writeContent(path_, "");
    EXPECT_EQ(read(), "read: ");
    const std::string content(150000, 'x');
    writeContent(path_, content);
    EXPECT_EQ(read(150000), "read: " + content);
}

TEST_F(PlainFile, LongOneIsNotRead) {
    writeContent(path_, std::string(kLimit, 'x'));
    EXPECT_EQ(read(), "read: " + std::string(kLimit, 'x'));
    writeContent(path_, std::string(kLimit + 1, 'x'));
    EXPECT_EQ(read(), path_ + " has more than 1000 bytes and is not read");
}

TEST_F(PlainFile, WhatIsNoneIsNotRead) {
    EXPECT_EQ(read(), "cannot open " + path_ + ": No such file or directory");
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(read(), path_ + " is no plain file") << "and it does not block";
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
    EXPECT_EQ(read(), path_ + " is no plain file");
    ASSERT_EQ(::rmdir(path_.c_str()), 0);
    ASSERT_EQ(::symlink("/dev/zero", path_.c_str()), 0);
    EXPECT_EQ(read(), path_ + " is no plain file");
    ASSERT_EQ(::unlink(path_.c_str()), 0);
}

TEST_F(PlainFile, MissingOneIsCreatedWhateverTheUmask) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(replace("content"), "");
    ::umask(before);
    EXPECT_EQ(contentOf(path_), "content");
    EXPECT_EQ(modeOf(path_), 0644u);
    EXPECT_FALSE(exists(newPath_));
}

TEST_F(PlainFile, ReplacedOneKeepsItsPermissions) {
    for (const mode_t mode : {0600u, 0666u, 0640u, 04755u}) {
        writeContent(path_, "old");
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        EXPECT_EQ(replace("new content"), "");
        EXPECT_EQ(contentOf(path_), "new content");
        EXPECT_EQ(modeOf(path_), mode);
        ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
    }
}

TEST_F(PlainFile, ReplacedOneKeepsItsOwner) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    writeContent(path_, "old");
    ASSERT_EQ(::chown(path_.c_str(), 12, 34), 0);
    ASSERT_EQ(::chmod(path_.c_str(), 04750), 0);
    EXPECT_EQ(replace("new"), "");
    struct stat facts = {};
    ASSERT_EQ(::stat(path_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_uid, 12u);
    EXPECT_EQ(facts.st_gid, 34u);
    EXPECT_EQ(modeOf(path_), 04750u);
}

TEST_F(PlainFile, ReadersOfTheOldOneKeepIt) {
    writeContent(path_, "old");
    const platform::UniqueFd reader = platform::openFile(path_.c_str(), O_RDONLY);
    EXPECT_EQ(replace("new"), "");
    char text[8] = {};
    EXPECT_EQ(::read(reader.get(), text, sizeof text), 3);
    EXPECT_STREQ(text, "old");
}

TEST_F(PlainFile, NothingIsLeftOfAReplacementThatIsGivenUp) {
    writeContent(path_, "old");
    {
        FileReplacement replacement(path_);
        EXPECT_EQ(replacement.begin(), "");
        EXPECT_TRUE(replacement.hasOriginal());
        EXPECT_TRUE(exists(newPath_));
        EXPECT_EQ(modeOf(newPath_), 0600u);
    }
    EXPECT_FALSE(exists(newPath_));
    EXPECT_EQ(contentOf(path_), "old");
}

TEST_F(PlainFile, SecondReplacementIsKeptAway) {
    writeContent(path_, "old");
    FileReplacement first(path_);
    ASSERT_EQ(first.begin(), "");
    EXPECT_EQ(replace("second"), newPath_ + " exists: another program is changing " + path_ +
                                     " at this moment, or was interrupted; remove " + newPath_ +
                                     " in that case");
    EXPECT_TRUE(exists(newPath_)) << "it belongs to the first one";
    EXPECT_EQ(first.commit("first"), "");
    EXPECT_EQ(contentOf(path_), "first");
}

TEST_F(PlainFile, LinkInTheNewOnesPlaceIsNotFollowed) {
    const std::string other = folder_.file("other");
    ASSERT_EQ(::symlink(other.c_str(), newPath_.c_str()), 0);
    EXPECT_NE(replace("content").find("exists"), std::string::npos);
    EXPECT_FALSE(exists(other));
    EXPECT_FALSE(exists(path_));
    ASSERT_EQ(::unlink(newPath_.c_str()), 0);
}

TEST_F(PlainFile, PlantedLinkOnTheWayIsNotFollowed) {
    writeContent(path_, "old");
    const std::string link = folder_.plantLink();
    ASSERT_NE(link, "");
    std::string content;
    EXPECT_EQ(readPlainFile(link + "/file", kLimit, content),
              "cannot open " + link + "/file: Too many levels of symbolic links");
    FileReplacement replacement(link + "/file");
    EXPECT_EQ(replacement.begin(),
              "cannot create " + link + "/file.new: Too many levels of symbolic links");
    EXPECT_FALSE(exists(newPath_));
    EXPECT_EQ(contentOf(path_), "old");
}

TEST_F(PlainFile, FolderThatIsExchangedMeanwhileIsNotLookedForAgain) {
    const std::string folder = folder_.file("inner");
    const std::string moved = folder_.file("moved");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    writeContent(folder + "/file", "old");
    FileReplacement replacement(folder + "/file");
    ASSERT_EQ(replacement.begin(), "");
    ASSERT_EQ(std::rename(folder.c_str(), moved.c_str()), 0);
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    writeContent(folder + "/file", "another");
    std::string content;
    EXPECT_EQ(replacement.readOriginal(kLimit, content), "");
    EXPECT_EQ(content, "old");
    EXPECT_EQ(replacement.commit("new"), "");
    EXPECT_EQ(contentOf(moved + "/file"), "new");
    EXPECT_EQ(contentOf(folder + "/file"), "another");
    EXPECT_FALSE(exists(moved + "/file.new"));
}

TEST_F(PlainFile, PathOfAFolderIsRefused) {
    for (const std::string& path : {std::string(), folder_.file("")}) {
        FileReplacement replacement(path);
        EXPECT_EQ(replacement.begin(), path + " is no plain file");
    }
    EXPECT_FALSE(exists(folder_.file(".new")));
}

TEST_F(PlainFile, OnlyPlainFilesAreReplaced) {
    const std::string target = folder_.file("target");
    writeContent(target, "old");
    ASSERT_EQ(::symlink(target.c_str(), path_.c_str()), 0);
    EXPECT_NE(replace("new").find("is a symbolic link"), std::string::npos);
    EXPECT_EQ(contentOf(target), "old");
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(replace("new"), path_ + " is no plain file");
    EXPECT_FALSE(exists(newPath_));
}

TEST_F(PlainFile, ChangesOfOtherProgramsAreNotLost) {
    const std::string refusal =
        "another program has just changed " + path_ + "; nothing was changed, try again";
    writeContent(path_, "old");
    {
        FileReplacement replacement(path_);
        ASSERT_EQ(replacement.begin(), "");
        writeContent(path_, "appended");
        EXPECT_EQ(replacement.commit("new"), refusal);
    }
    EXPECT_EQ(contentOf(path_), "appended");
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    {
        FileReplacement replacement(path_);
        ASSERT_EQ(replacement.begin(), "");
        EXPECT_FALSE(replacement.hasOriginal());
        writeContent(path_, "made by another");
        EXPECT_EQ(replacement.commit("new"), refusal);
    }
    EXPECT_EQ(contentOf(path_), "made by another");
}

TEST_F(PlainFile, MissingFolderIsTold) {
    const std::string path = folder_.file("none") + "/file";
    FileReplacement replacement(path);
    EXPECT_EQ(replacement.begin(), "cannot create " + path + ".new: No such file or directory");
}

TEST_F(PlainFile, FileInTheWorkingDirectoryNeedsNoFolder) {
    char before[4096];
    ASSERT_NE(::getcwd(before, sizeof before), nullptr);
    ASSERT_EQ(::chdir(path_.substr(0, path_.rfind('/')).c_str()), 0);
    FileReplacement replacement("file");
    EXPECT_EQ(replacement.begin(), "");
    EXPECT_EQ(replacement.commit("content"), "");
    ASSERT_EQ(::chdir(before), 0);
    EXPECT_EQ(contentOf(path_), "content");
}

TEST_F(PlainFile, FullDiskLeavesTheOldOne) {
    // The limit on the size of files stands for the disk.
    writeContent(path_, "old");
    struct rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    struct rlimit small = before;
    small.rlim_cur = 10;
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string problem = replace(std::string(100, 'n'));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    ::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(problem, "cannot write " + newPath_ + ": File too large");
    EXPECT_EQ(contentOf(path_), "old");
    EXPECT_FALSE(exists(newPath_));
}

} // namespace

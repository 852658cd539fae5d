#include "client/ovardctl/EventFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using ovardctl::EventFile;

class EventFileTest : public testing::Test {
protected:
    void write(const std::string& content) const {
        std::ofstream(path_, std::ios::trunc) << content;
    }
    void append(const std::string& content) const {
        std::ofstream(path_, std::ios::app) << content;
    }

    static std::string rest(EventFile& file, std::size_t step = 7) {
        std::string text;
        char block[4096];
        ssize_t count = 0;
        while ((count = file.read(block, step)) > 0) {
            text.append(block, static_cast<std::size_t>(count));
        }
        EXPECT_EQ(count, 0);
        return text;
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_.file("log");
};

TEST_F(EventFileTest, PlantedLinkOnTheWayIsNotFollowed) {
    write("one\n");
    const std::string link = folder_.plantLink();
    ASSERT_NE(link, "");
    EXPECT_EQ(EventFile(link + "/log").error(), ELOOP);
}

TEST_F(EventFileTest, GoesToTheLastLines) {
    write("one\ntwo\n\nfour\n");
    EventFile file(path_);
    ASSERT_TRUE(file.isOpen());
    EXPECT_EQ(file.error(), 0);
    EXPECT_EQ(file.goToLastLines(1), 1u);
    EXPECT_EQ(rest(file), "four\n");
    EXPECT_EQ(file.goToLastLines(2), 2u);
    EXPECT_EQ(rest(file), "\nfour\n");
    EXPECT_EQ(file.goToLastLines(4), 4u);
    EXPECT_EQ(rest(file), "one\ntwo\n\nfour\n");
    EXPECT_EQ(file.goToLastLines(5), 4u);
    EXPECT_EQ(rest(file), "one\ntwo\n\nfour\n");
    EXPECT_EQ(file.goToLastLines(0), 0u);
    EXPECT_EQ(rest(file), "");
}

TEST_F(EventFileTest, CountsALineThatIsNotFinished) {
    write("one\ntwo");
    EventFile file(path_);
    EXPECT_EQ(file.goToLastLines(1), 1u);
    EXPECT_EQ(rest(file), "two");
    EXPECT_EQ(file.goToLastLines(3), 2u);
    EXPECT_EQ(rest(file), "one\ntwo");
}

TEST_F(EventFileTest, HasNoLinesInAnEmptyFile) {
    write("");
    EventFile file(path_);
    EXPECT_EQ(file.goToLastLines(3), 0u);
    write("\n");
    EXPECT_EQ(file.goToLastLines(3), 1u);
    EXPECT_EQ(rest(file), "\n");
}

TEST_F(EventFileTest, FindsLinesAcrossTheBlocksThatAreRead) {
    // Lines of many lengths, so that their ends fall on every place of a block of 16384 bytes.
    std::vector<std::string> lines;
    for (std::size_t length = 0; length < 700; ++length) {
        lines.push_back(std::string(length, 'x') + '\n');
    }
    std::string all;
    for (const std::string& line : lines) {
        all += line;
    }
    write(all);
    EventFile file(path_);
    std::size_t begin = all.size();
    for (std::size_t count = 1; count <= lines.size(); ++count) {
        begin -= lines[lines.size() - count].size();
        ASSERT_EQ(file.goToLastLines(count), count);
        ASSERT_EQ(rest(file, 4096).size(), all.size() - begin) << count;
    }
}

TEST_F(EventFileTest, ReadsOnWhatIsAppended) {
    write("one\n");
    EventFile file(path_);
    EXPECT_EQ(rest(file), "one\n");
    append("two\n");
    EXPECT_FALSE(file.goBackIfShortened());
    EXPECT_EQ(rest(file), "two\n");
    EXPECT_EQ(rest(file), "");
}

TEST_F(EventFileTest, GoesBackInAFileThatWasCut) {
    write("one\ntwo\n");
    EventFile file(path_);
    (void)rest(file);
    ASSERT_EQ(::truncate(path_.c_str(), 0), 0);
    append("new\n");
    EXPECT_TRUE(file.goBackIfShortened());
    EXPECT_EQ(rest(file), "new\n");
}

TEST_F(EventFileTest, KnowsAFileByMoreThanItsName) {
    write("one\n");
    const EventFile before(path_);
    EXPECT_TRUE(before.isSameAs(EventFile(path_)));
    const std::string renamed = path_ + ".1";
    ASSERT_EQ(std::rename(path_.c_str(), renamed.c_str()), 0);
    EXPECT_TRUE(before.isSameAs(EventFile(renamed)));
    write("one\n");
    EXPECT_FALSE(before.isSameAs(EventFile(path_)));
    EXPECT_FALSE(before.isSameAs(EventFile()));
    EXPECT_FALSE(EventFile().isSameAs(EventFile()));
}

TEST_F(EventFileTest, TellsWhyItIsNotOpen) {
    EXPECT_FALSE(EventFile(path_).isOpen());
    EXPECT_EQ(EventFile(path_).error(), ENOENT);
    EXPECT_EQ(EventFile("/tmp").error(), EINVAL);
    // Nobody writes into it: opening it must not wait.
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(EventFile(path_).error(), EINVAL);
    EXPECT_FALSE(EventFile(path_).isOpen());
}

TEST_F(EventFileTest, IsClosedOnExec) {
    write("one\n");
    const EventFile file(path_);
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error; // of the folder's own descriptor, which is closed by now
        if (std::filesystem::read_symlink(entry, error) == path_) {
            ++found;
            EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1u);
}

} // namespace

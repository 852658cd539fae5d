#include "client/ovardctl/ProgramSearch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;

/// The image of a file system, with /bin/app in it.
class ProgramSearch : public testing::Test {
protected:
    void SetUp() override {
        makeFolder("");
        makeFolder("/bin");
        makeProgram("/bin/app");
    }

    void TearDown() override { std::filesystem::remove_all(root_); }

    std::string below(const std::string& path) const { return root_ + path; }

    void makeFolder(const std::string& path) const {
        ASSERT_EQ(::mkdir(below(path).c_str(), 0700), 0) << path;
    }

    void makeProgram(const std::string& path, mode_t mode = 0755) const {
        writeContent(below(path), "program");
        ASSERT_EQ(::chmod(below(path).c_str(), mode), 0) << path;
    }

    void makeLink(const std::string& target, const std::string& path) const {
        ASSERT_EQ(::symlink(target.c_str(), below(path).c_str()), 0) << path;
    }

    ProgramState examine(const std::string& program) const {
        return examineProgram(root_, program);
    }

    const TemporaryFolder folder_;
    const std::string root_ = folder_.file("image");
};

TEST_F(ProgramSearch, TellsWhatThereIs) {
    makeProgram("/bin/data", 0644);
    makeProgram("/bin/for_others", 0001);
    for (const std::string& root : {std::string(), root_}) {
        const std::string prefix = root.empty() ? root_ : "";
        EXPECT_EQ(examineProgram(root, prefix + "/bin/app"), ProgramState::Executable);
        EXPECT_EQ(examineProgram(root, prefix + "/bin/for_others"), ProgramState::Executable);
        EXPECT_EQ(examineProgram(root, prefix + "/bin/data"), ProgramState::NotExecutable);
        EXPECT_EQ(examineProgram(root, prefix + "/bin"), ProgramState::NotPlain);
        EXPECT_EQ(examineProgram(root, prefix + "/bin/none"), ProgramState::Missing);
        EXPECT_EQ(examineProgram(root, prefix + "/bin/app/none"), ProgramState::Missing);
    }
}

TEST_F(ProgramSearch, RootMayEndWithASlash) {
    EXPECT_EQ(examineProgram(root_ + "/", "//bin/./app"), ProgramState::Executable);
}

TEST_F(ProgramSearch, LinksLeadBelowTheRoot) {
    makeLink("/bin", "/absolute");
    makeLink("bin/../bin/app", "/relative");
    makeFolder("/folder");
    makeLink("../absolute/app", "/folder/up");
    makeLink("/bin/app", "/folder/to_root");
    EXPECT_EQ(examine("/absolute/app"), ProgramState::Executable);
    EXPECT_EQ(examine("/relative"), ProgramState::Executable);
    EXPECT_EQ(examine("/folder/up"), ProgramState::Executable);
    EXPECT_EQ(examine("/folder/to_root"), ProgramState::Executable);
    EXPECT_EQ(examine("/../../bin/app"), ProgramState::Executable) << "nothing is above the root";
}

TEST_F(ProgramSearch, ProgramsOutsideTheRootAreNotFound) {
    ASSERT_EQ(examineProgram("", "/bin/sh"), ProgramState::Executable);
    makeLink("/bin/sh", "/bin/link");
    makeLink("../../../../../../../../bin/sh", "/bin/up");
    EXPECT_EQ(examine("/bin/sh"), ProgramState::Missing);
    EXPECT_EQ(examine("/bin/link"), ProgramState::Missing);
    EXPECT_EQ(examine("/bin/up"), ProgramState::Missing);
}

TEST_F(ProgramSearch, LinksInACircleAreGivenUp) {
    makeLink("b", "/a");
    makeLink("a", "/b");
    EXPECT_EQ(examine("/a"), ProgramState::Unknown);
    EXPECT_EQ(examineProgram("", below("/a")), ProgramState::Unknown);
}

} // namespace

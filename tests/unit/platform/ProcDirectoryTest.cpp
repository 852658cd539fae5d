#include <dirent.h>
#include <unistd.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "platform/Process.h"

namespace {

TEST(ProcDirectory, YieldsThisProcessAsADirectory) {
    platform::ProcDirectory directory;
    ASSERT_TRUE(directory.isOpen());
    std::map<std::string, unsigned char> found;
    platform::ProcDirectory::Entry entry = {};
    while (directory.next(entry)) {
        found[entry.name] = entry.type;
    }
    ASSERT_EQ(found.count(std::to_string(::getpid())), 1U);
    EXPECT_EQ(found[std::to_string(::getpid())], DT_DIR);
    ASSERT_EQ(found.count("uptime"), 1U);
    EXPECT_EQ(found["uptime"], DT_REG);
    EXPECT_EQ(found["self"], DT_LNK);
    EXPECT_FALSE(directory.next(entry)) << "the end is the end";
}

TEST(ProcDirectory, ConvertsNamesToPids) {
    EXPECT_EQ(platform::pidFromName("1"), 1);
    EXPECT_EQ(platform::pidFromName("4194304"), 4194304);
    EXPECT_EQ(platform::pidFromName("2147483647"), 2147483647);
    EXPECT_EQ(platform::pidFromName("007"), 7);
}

TEST(ProcDirectory, GivesNoPidForOtherNames) {
    for (const char* name : {"", "0", "-1", "2147483648", "99999999999999999999", "self", "1a",
                             "a1", "1 ", " 1", "+1", "."}) {
        EXPECT_EQ(platform::pidFromName(name), 0) << '"' << name << '"';
    }
}

} // namespace

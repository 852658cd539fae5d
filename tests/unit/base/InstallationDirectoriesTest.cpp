#include "platform/InstallationDirectories.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using platform::isInExcludedDirectory;
using platform::isInIncludedDirectory;

class InclusionTest : public testing::TestWithParam<const char*> {};

TEST_P(InclusionTest, ProgramBelowThePrefixIsIncluded) {
    EXPECT_TRUE(isInIncludedDirectory(std::string(GetParam()) + "data_server -x"));
}

TEST_P(InclusionTest, ThePrefixAloneIsEnough) {
    EXPECT_TRUE(isInIncludedDirectory(GetParam()));
}

TEST_P(InclusionTest, OneCharacterLessIsNotEnough) {
    const std::string prefix = GetParam();
    EXPECT_FALSE(isInIncludedDirectory(prefix.substr(0, prefix.size() - 1)));
}

TEST_P(InclusionTest, LongerFolderNameIsNotIncluded) {
    const std::string prefix = GetParam();
    EXPECT_FALSE(isInIncludedDirectory(prefix.substr(0, prefix.size() - 1) + "2/data_server"));
}

TEST_P(InclusionTest, PrefixElsewhereInTheTextDoesNotCount) {
    EXPECT_FALSE(isInIncludedDirectory("/bin/sh " + std::string(GetParam()) + "data_server"));
}

TEST_P(InclusionTest, IsNotExcluded) {
    EXPECT_FALSE(isInExcludedDirectory(std::string(GetParam()) + "data_server"));
}

INSTANTIATE_TEST_SUITE_P(Prefixes, InclusionTest,
                         testing::Values("/mnt/runfw/home/kelvo/root/",
                                         "/mnt/runfw/home/kelvo/modbus/",
                                         "/mnt/runfw/home/kelvo/test/", "/home/kelvo/root/",
                                         "/home/kelvo/modbus/", "/home/kelvo/test/"));

class ExclusionTest : public testing::TestWithParam<const char*> {};

TEST_P(ExclusionTest, ThePrefixAloneIsEnough) {
    EXPECT_TRUE(isInExcludedDirectory(GetParam()));
}

TEST_P(ExclusionTest, FurtherTextIsExcludedToo) {
    EXPECT_TRUE(isInExcludedDirectory(std::string(GetParam()) + "ivity -v"));
}

TEST_P(ExclusionTest, OneCharacterLessIsNotExcluded) {
    const std::string prefix = GetParam();
    EXPECT_FALSE(isInExcludedDirectory(prefix.substr(0, prefix.size() - 1)));
}

TEST_P(ExclusionTest, PrefixElsewhereInTheTextDoesNotCount) {
    EXPECT_FALSE(isInExcludedDirectory("/home/kelvo/test/tool " + std::string(GetParam())));
}

/// Every exclusion lies within an inclusion: it takes something away from it.
TEST_P(ExclusionTest, LiesWithinAnInclusion) {
    EXPECT_TRUE(isInIncludedDirectory(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Prefixes, ExclusionTest,
                         testing::Values("/mnt/runfw/home/kelvo/root/appmon/",
                                         "/mnt/runfw/home/kelvo/root/python_scripts/",
                                         "/mnt/runfw/home/kelvo/root/actl",
                                         "/home/kelvo/root/appmon/",
                                         "/home/kelvo/root/python_scripts/",
                                         "/home/kelvo/root/actl"));

TEST(InstallationDirectoriesTest, EmptyTextIsInNeither) {
    EXPECT_FALSE(isInIncludedDirectory(""));
    EXPECT_FALSE(isInExcludedDirectory(""));
}

TEST(InstallationDirectoriesTest, ExclusionsCoverTheRootFoldersOnly) {
    EXPECT_FALSE(isInExcludedDirectory("/home/kelvo/modbus/appmon/x"));
    EXPECT_FALSE(isInExcludedDirectory("/home/kelvo/test/actl"));
    EXPECT_FALSE(isInExcludedDirectory("/mnt/runfw/home/kelvo/test/python_scripts/x"));
}

TEST(InstallationDirectoriesTest, ComparesUpperAndLowerCase) {
    EXPECT_FALSE(isInIncludedDirectory("/home/Kelvo/root/x"));
    EXPECT_FALSE(isInExcludedDirectory("/home/kelvo/root/Actl"));
}

} // namespace

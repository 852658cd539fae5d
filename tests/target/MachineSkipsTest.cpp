#include "tests/target/MachineSkips.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace target {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<std::string> kTests = {"Lease.Address", "Lease.Router", "LeaseText.IsCut",
                                         "Publishing.Application"};

/// What is said of the list against these tests; empty when nothing is.
std::string complaintAbout(const std::string& list, const std::vector<std::string>& tests) {
    try {
        requireTests(parseSkips(list), tests);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "";
}

TEST(MachineSkips, HaveAKindANameAndAReason) {
    const std::vector<Skip> skips = parseSkips("# KIND NAME REASON\n"
                                               "left-out Lease.* needs a server\n"
                                               "skips-itself Publishing.Application has no IPv6\n");
    ASSERT_EQ(skips.size(), 2U);
    EXPECT_EQ(skips[0].kind, Skip::Kind::LeftOut);
    EXPECT_EQ(skips[0].name, "Lease.*");
    EXPECT_EQ(skips[0].reason, "needs a server");
    EXPECT_EQ(skips[1].kind, Skip::Kind::SkipsItself);
    EXPECT_EQ(skips[1].name, "Publishing.Application");
    EXPECT_EQ(skips[1].reason, "has no IPv6");
    EXPECT_THAT(namesOf(skips, Skip::Kind::LeftOut), ElementsAre("Lease.*"));
    EXPECT_THAT(namesOf(skips, Skip::Kind::SkipsItself), ElementsAre("Publishing.Application"));
}

TEST(MachineSkips, MayBeNone) {
    EXPECT_TRUE(parseSkips("").empty());
    EXPECT_EQ(complaintAbout("# none\n", kTests), "");
}

TEST(MachineSkips, HaveNoLinesThatMeanNothing) {
    for (const char* line :
         {"left-out Lease.Address", "needs-shell Lease.Address", "left-out Lease.Address ",
          "left-out", "left_out Lease.* why", "Lease.* left-out why", " ", "",
          "skips-itself Lease.* of a whole suite nobody knows"}) {
        EXPECT_EQ(complaintAbout(std::string("# list\n") + line + "\n", kTests),
                  std::string("a skip that means nothing: ") + line);
    }
}

TEST(MachineSkips, NameTestsThatThereAre) {
    EXPECT_EQ(complaintAbout("left-out Lease.* why\nleft-out Lease.Router why\n"
                             "skips-itself Publishing.Application why\n",
                             kTests),
              "");
    for (const char* name : {"Lease", "Lease.", "Lease.Addres", "Lease.Address1", "Leas.*",
                             "LeaseText.*.*", ".*", "Address", "publishing.Application"}) {
        EXPECT_EQ(complaintAbout(std::string("left-out ") + name + " why\n", kTests),
                  std::string("a skip that names no test: ") + name);
    }
    EXPECT_EQ(complaintAbout("left-out Lease.* why\nskips-itself Lease.Gone why\n", kTests),
              "a skip that names no test: Lease.Gone");
    EXPECT_EQ(complaintAbout("needs-shell LeaseText.Gone why\n", kTests),
              "a skip that names no test: LeaseText.Gone");
}

TEST(MachineSkips, LeaveOutWhatNeedsAShellOnlyWhereThereIsNone) {
    const std::vector<Skip> skips = parseSkips("left-out Lease.* needs a server\n"
                                               "needs-shell LeaseText.IsCut starts scripts\n"
                                               "skips-itself Publishing.Application no IPv6\n");
    for (const bool hasShell : {false, true}) {
        const std::vector<Skip> applied = applySkips(skips, hasShell);
        EXPECT_THAT(namesOf(applied, Skip::Kind::LeftOut),
                    hasShell ? std::vector<std::string>({"Lease.*"})
                             : std::vector<std::string>({"Lease.*", "LeaseText.IsCut"}));
        EXPECT_THAT(namesOf(applied, Skip::Kind::SkipsItself),
                    ElementsAre("Publishing.Application"));
        EXPECT_THAT(namesOf(applied, Skip::Kind::NeedsShell), IsEmpty());
    }
    const std::vector<Skip> applied = applySkips(skips, false);
    ASSERT_EQ(applied.size(), 3U);
    EXPECT_EQ(describe(applied[0]), "left out (needs a server): Lease.*");
    EXPECT_EQ(describe(applied[1]),
              "left out (there is no shell; it starts scripts): LeaseText.IsCut");
    EXPECT_EQ(describe(applied[2]), "expected to skip itself: Publishing.Application: no IPv6");
}

TEST(MachineSkips, DoWhatNeedsRoot) {
    for (const bool hasShell : {false, true}) {
        EXPECT_THAT(applySkips(parseSkips("needs-root Lease.* gives files away\n"), hasShell),
                    IsEmpty());
    }
    EXPECT_EQ(complaintAbout("needs-root Lease.* gives files away\n", kTests), "");
    EXPECT_EQ(complaintAbout("needs-root Lease.Gone why\n", kTests),
              "a skip that names no test: Lease.Gone");
}

TEST(MachineSkips, SayWhatIsNoSuiteAndLeaveTheSuitesAlone) {
    const std::string list = "no-suite packaging.* installs packages\n";
    for (const bool hasShell : {false, true}) {
        const std::vector<Skip> applied = applySkips(parseSkips(list), hasShell);
        ASSERT_EQ(applied.size(), 1U);
        EXPECT_EQ(describe(applied[0]), "left out (installs packages): packaging.*");
        EXPECT_THAT(namesOf(applied, Skip::Kind::LeftOut), IsEmpty());
        EXPECT_EQ(filterFor("*", applied), "--gtest_filter=*");
    }
    EXPECT_EQ(complaintAbout(list, kTests), "");
}

TEST(MachineSkips, MakeAFilter) {
    EXPECT_EQ(filterFor("Lease.*", {}), "--gtest_filter=Lease.*");
    EXPECT_EQ(filterFor("*", parseSkips("left-out Lease.Router why\n"
                                        "needs-shell LeaseText.IsCut why\n"
                                        "skips-itself Publishing.Application why\n"
                                        "left-out Fault.* why\n")),
              "--gtest_filter=*-Lease.Router:Fault.*");
}

TEST(MachineSkips, AreNotJudgedWithoutTests) {
    EXPECT_EQ(complaintAbout("", {}), "there are no tests");
}

TEST(TestList, HasEachTestWithItsSuite) {
    EXPECT_THAT(
        parseTestList("Running main() from gtest_main.cc\n"
                      "Lease.\n"
                      "  Address\n"
                      "  Router\n"
                      "Masks/Umask.\n"
                      "  IsKept/0  # GetParam() = 18\n"
                      "Typed/0.  # TypeParam = int\n"
                      "  Works\n"),
        ElementsAre("Lease.Address", "Lease.Router", "Masks/Umask.IsKept/0", "Typed/0.Works"));
    EXPECT_TRUE(parseTestList("").empty());
}

} // namespace
} // namespace target

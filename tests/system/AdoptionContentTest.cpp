// Segments of any content, as an earlier monitor or somebody else may have left them.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/system/AdoptionSupport.h"

namespace systemtest {
namespace {

using AdoptionContent = AdoptionTest;

TEST_F(AdoptionContent, NumberOfApplicationsThatIsNone) {
    constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
    const PublishedApp first = recordOf("first", runApplication(programPath("first")));
    const PublishedApp last = recordOf("last", runApplication(programPath("last")));
    std::vector<PublishedApp> records(kMostPublished);
    records.front() = first;
    records.back() = last;
    struct Case {
        std::int32_t count;
        std::vector<std::string> names;
    };
    const Case cases[] = {{-5, {}},
                          {std::numeric_limits<std::int32_t>::min(), {}},
                          {0, {}},
                          {1, {"first"}},
                          {126, {"first"}},
                          {127, {"first", "last"}},
                          {200, {"first", "last"}},
                          {kMost, {"first", "last"}}};
    for (const Case& each : cases) {
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, segmentOf(records, each.count)));
        ASSERT_TRUE(startPublisher(kLongGrace)) << each.count;
        EXPECT_EQ(publishedNames(), each.names) << each.count;
        EXPECT_EQ(publishedCount(), static_cast<std::int32_t>(each.names.size())) << each.count;
        monitor_.kill();
    }
    EXPECT_TRUE(isRunning(first.pid) && isRunning(last.pid));
}

TEST_F(AdoptionContent, SegmentOfRandomBytes) {
    const pid_t bystander = runApplication(programPath("bystander"));
    for (unsigned seed = 1; seed <= 8; ++seed) {
        std::mt19937 generator(seed);
        std::string bytes(kApplicationSegmentSize, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
        if (seed % 2 == 0) {
            putNumber<std::int32_t>(bytes, 0, kMostPublished);
        }
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes));
        ASSERT_TRUE(startPublisher(kShortGrace)) << seed;
        EXPECT_EQ(publishedCount(), 0) << seed;
        EXPECT_TRUE(isRunning(bystander)) << seed;
        monitor_.kill();
    }
}

TEST_F(AdoptionContent, RecordsThatFitNoProcess) {
    const pid_t pid = runApplication(programPath("bystander"));
    const PublishedApp good = recordOf("bystander", pid);
    std::vector<PublishedApp> records(7, recordOf("nobody", pid));
    records[0].pid = 0;
    records[1].pid = -1;
    records[2].pid = -2;
    records[3].pid = std::numeric_limits<std::int32_t>::min();
    records[4].pid = std::numeric_limits<std::int32_t>::max();
    records[5].startMs = std::numeric_limits<std::int64_t>::max();
    records.push_back(good);
    records.back().pid = -1; // deliberately not searched for
    records.push_back(good);
    records.back().name = std::string(32, 'n'); // no NUL
    records.back().version = std::string(32, 'v');
    records.back().status = std::string(16, 's');
    records.back().portType = std::string(16, 'p');
    ASSERT_NO_FATAL_FAILURE(leaveSegment(records));
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(pid));
    monitor_.kill();
}

TEST_F(AdoptionContent, TextsThatNobodyKnows) {
    const pid_t pid = runApplication(programPath("strange"));
    PublishedApp app = recordOf("strange", pid);
    app.status = "something else";
    app.portType = "Something";
    ASSERT_NO_FATAL_FAILURE(leaveSegment({app}));
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedApp("strange").pid, pid);
    EXPECT_EQ(publishedApp("strange").portType, "None");
    const std::string trace = "checkAlive() strange status=0 pid=" + std::to_string(pid) + " at ";
    EXPECT_GE(countOf(monitor_.console(), trace), 1U);
}

TEST_F(AdoptionContent, SegmentOfAnotherSize) {
    const pid_t bystander = runApplication(programPath("bystander"));
    std::string bytes = segmentOf({recordOf("bystander", bystander)}, 1);
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{100}}) {
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes.substr(0, size)));
        ASSERT_TRUE(startPublisher(kShortGrace)) << size;
        EXPECT_EQ(publishedNames(), std::vector<std::string>{}) << size;
        monitor_.kill();
    }
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes + std::string(50000, 'x')));
    ASSERT_TRUE(startPublisher(kShortGrace));
    const std::string longer = readFile(kApplicationSegmentPath);
    EXPECT_EQ(numberAt<std::int32_t>(longer, 0), 1);
    EXPECT_EQ(recordIn(longer, 1).pid, bystander);
}

} // namespace
} // namespace systemtest

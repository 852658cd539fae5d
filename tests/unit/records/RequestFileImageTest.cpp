// A request file on the disk, byte for byte, as the monitor records and replays it.

#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/appmanager/RequestFileFixture.h"
#include "tests/unit/records/GoldenImage.h"
#include "tests/unit/records/RecordedRequests.h"
#include "tests/unit/records/golden/RequestFileImage.h"

namespace requestfiles {
namespace {

using recordstest::firstDifference;
using recordstest::goldenImage;
using recordstest::recordedRequests;

using RequestFileImageTest = RequestFileTest;

TEST_F(RequestFileImageTest, IsWhatTheMonitorRecords) {
    for (const reqcmd& request : recordedRequests()) {
        EXPECT_EQ(append(request), 0);
    }
    const std::string expected = goldenImage(golden::kRequestFile);
    EXPECT_EQ(fileContent().size(), expected.size());
    EXPECT_EQ(firstDifference(fileContent(), expected), expected.size())
        << "the images differ at this offset";
}

TEST_F(RequestFileImageTest, IsReplayed) {
    writeFile(goldenImage(golden::kRequestFile));
    EXPECT_EQ(readAppConfigurationFileList(path_.c_str(), 0, queue_), 0);
    const std::vector<reqcmd> expected = recordedRequests();
    ASSERT_EQ(queue_.size(), expected.size());
    for (std::size_t index = 0; index < expected.size(); ++index) {
        EXPECT_EQ(imageOf(queue_[index]), imageOf(expected[index])) << index;
    }
}

} // namespace
} // namespace requestfiles

// Segments of any content.

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/status/DiscoveryFixture.h"

namespace discovery {
namespace {

class RandomSegmentTest : public DiscoveryTest {
protected:
    RandomSegmentTest() {
        verbose = 8;
        runServer(kOwnPid);
        runServer(kPid);
        world().addProcess(kOtherPid, "gateway", "/home/kelvo/modbus/gateway", 98765);
        world().addProcess(5, "kthread", "", 0);
        world().addProcess(6, "data_server", "/home/kelvo/root/appmon/data_server", 4);
    }

    std::uint32_t below(std::uint32_t bound) {
        return static_cast<std::uint32_t>(random_() % bound);
    }

    std::string randomBytes(std::size_t size) {
        std::string text(size, '\0');
        std::generate(text.begin(), text.end(), [this] { return static_cast<char>(below(256)); });
        return text;
    }

    template <typename Value> Value oneOf(const std::vector<Value>& values) {
        return values[below(static_cast<std::uint32_t>(values.size()))];
    }

    /// A record that is almost good.
    Published randomRecord() {
        Published published;
        published.name = oneOf<std::string>(
            {"data_server", "gateway", "", "kthread", std::string(32, 'n'), randomBytes(32)});
        published.pid = oneOf<std::int32_t>(
            {kOwnPid, kPid, kOtherPid, 5, 6, 0, -1, -2, static_cast<std::int32_t>(random_())});
        published.startMs =
            oneOf<std::int64_t>({kStartSec * 1000, (kBootSec + 987) * 1000, kBootSec * 1000,
                                 static_cast<std::int64_t>(random_())});
        published.status = oneOf<std::string>({"started", "dead", "", randomBytes(16)});
        published.portType = oneOf<std::string>({"COM", "Eth", "", randomBytes(16)});
        return published;
    }

    /// Whatever the segment held: what was adopted are real processes, and never the monitor.
    static void expectSound(const std::vector<appinfo>& list) {
        EXPECT_LE(list.size(), 127U);
        for (const appinfo& app : list) {
            EXPECT_NE(app.pid, kOwnPid);
            fakes::Process* const process = world().process(app.pid);
            ASSERT_NE(process, nullptr) << app.pid;
            EXPECT_EQ(platform::fieldText(app.name).substr(0, 15), process->exeName);
            EXPECT_EQ(app.name[31], '\0');
            EXPECT_EQ(app.version[31], '\0');
            EXPECT_TRUE(app.status >= 0 && app.status <= 10) << app.status;
            EXPECT_TRUE(app.port_type >= 0 && app.port_type <= 2) << app.port_type;
            EXPECT_EQ(std::string(app.cmd), process->cmdline);
        }
    }

    std::minstd_rand random_;
};

TEST_F(RandomSegmentTest, OfRandomBytesDoesNoHarm) {
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        bytesOf(kApplications) = randomBytes(kApplicationsSize);
        if (seed % 2 == 0) {
            publishCount(127);
        }
        expectSound(discover());
    }
}

TEST_F(RandomSegmentTest, OfAlmostGoodRecordsAdoptsOnlyWhatRuns) {
    std::size_t adopted = 0;
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        bytesOf(kApplications) = randomBytes(kApplicationsSize);
        publishCount(oneOf<std::int32_t>({3, 127, 200}));
        for (std::size_t number = 1; number <= 127; ++number) {
            putText(kApplications, recordOffset(number), std::string(64, '\0'));
            publish(number, randomRecord());
        }
        const std::vector<appinfo> list = discover();
        expectSound(list);
        adopted += list.size();
    }
    EXPECT_GT(adopted, 0U);
}

} // namespace
} // namespace discovery

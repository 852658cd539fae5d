#include "client/ovardctl/RequestFile.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using namespace std::string_literals;

reqcmd fullRecord() {
    reqcmd record = startOf("meter");
    std::strcpy(record.version, "1.2");
    record.porttype = PORT_TYPE_ETH;
    record.portnum = 502;
    record.priority = -20;
    record.delay = 7;
    record.keepalive = 1;
    record.nowait = 2;
    record.heartbeat = 3;
    record.reserved = 4;
    record.restart_type = RESTART_TYPE_ALL;
    record.last_runtime_life_limit = 600;
    return record;
}

TEST(RequestFile, RecordsStandOneBehindTheOther) {
    const std::vector<reqcmd> records = {fullRecord(), startOf("two")};
    EXPECT_EQ(encodeRequests(records, nativeByteOrder()), imageOf(records));
    EXPECT_EQ(encodeRequests({}, nativeByteOrder()), "");
}

TEST(RequestFile, IntegersAloneHaveAByteOrder) {
    const std::string big = encodeRequests({fullRecord()}, ByteOrder::Big);
    const std::string little = encodeRequests({fullRecord()}, ByteOrder::Little);
    ASSERT_EQ(big.size(), 1216u);
    // From the port type on: seven integers, and four single bytes before the last two of them.
    EXPECT_EQ(big.substr(1184), "\0\0\0\x02\0\0\x01\xf6\0\0\0\0\xff\xff\xff\xec\0\0\0\x07"
                                "\x01\x02\x03\x04\0\0\0\x01\0\0\x02\x58"s);
    EXPECT_EQ(little.substr(1184), "\x02\0\0\0\xf6\x01\0\0\0\0\0\0\xec\xff\xff\xff\x07\0\0\0"
                                   "\x01\x02\x03\x04\x01\0\0\0\x58\x02\0\0"s);
    EXPECT_EQ(big.substr(0, 1184), little.substr(0, 1184));
}

TEST(RequestFile, BothByteOrdersAreReadAndToldApart) {
    const std::vector<reqcmd> records = {fullRecord(), startOf("two")};
    for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
        const RequestFile file = decodeRequests(encodeRequests(records, order));
        EXPECT_EQ(file.byteOrder, order);
        EXPECT_TRUE(file.isOrderKnown);
        EXPECT_EQ(file.tailSize, 0u);
        EXPECT_EQ(imageOf(file.records), imageOf(records));
    }
}

TEST(RequestFile, IntegersWithSmallValuesTellTheByteOrder) {
    std::vector<reqcmd> records(4);
    records[0].porttype = PORT_TYPE_COM;
    records[1].action = APPMONCTL_Restart;
    records[2].priority = -5;
    records[3].restart_type = RESTART_TYPE_ALL;
    for (const reqcmd& record : records) {
        for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
            const RequestFile file = decodeRequests(encodeRequests({record}, order));
            EXPECT_EQ(file.byteOrder, order) << &record - records.data();
            EXPECT_TRUE(file.isOrderKnown) << &record - records.data();
            EXPECT_EQ(imageOf(file.records), imageOf({record})) << &record - records.data();
        }
    }
}

TEST(RequestFile, AllRecordsTogetherTellTheByteOrder) {
    reqcmd misleading{};
    misleading.action = 0x01000000;
    const std::vector<reqcmd> records = {misleading, fullRecord()};
    EXPECT_EQ(decodeRequests(imageOf(records)).byteOrder, nativeByteOrder());
    EXPECT_EQ(decodeRequests(encodeRequests(records, kOther)).byteOrder, kOther);
}

TEST(RequestFile, IntegersWithAnyValueTellNothing) {
    for (const std::int32_t value : {600, 0x02000000, 100000000, 0x7fffffff, -1000}) {
        reqcmd record = startOf("one");
        record.portnum = value;
        record.delay = value;
        record.last_runtime_life_limit = value;
        EXPECT_FALSE(decodeRequests(imageOf({record})).isOrderKnown) << value;
        EXPECT_EQ(imageOf(decodeRequests(imageOf({record})).records), imageOf({record})) << value;
        record.restart_type = RESTART_TYPE_ALL;
        record.porttype = PORT_TYPE_COM;
        for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
            const RequestFile file = decodeRequests(encodeRequests({record}, order));
            EXPECT_EQ(file.byteOrder, order) << value;
            EXPECT_EQ(imageOf(file.records), imageOf({record})) << value;
        }
    }
}

TEST(RequestFile, ByteOrderNeedsAClearMajority) {
    reqcmd odd{};
    odd.action = 0x01000000;
    reqcmd usual{};
    usual.action = APPMONCTL_Stop;
    EXPECT_TRUE(decodeRequests(imageOf({usual, odd, usual, usual})).isOrderKnown);
    const RequestFile file = decodeRequests(imageOf({odd, usual, odd}));
    EXPECT_FALSE(file.isOrderKnown);
    EXPECT_EQ(file.byteOrder, nativeByteOrder());
    EXPECT_EQ(decodeRequests(imageOf({odd, usual, odd, odd})).byteOrder, kOther);
}

TEST(RequestFile, WithoutATellingIntegerItIsThePresumedOne) {
    reqcmd record = startOf("plain");
    record.last_runtime_life_limit = 255; // negative when swapped
    const RequestFile file = decodeRequests(encodeRequests({record}, kOther), kOther);
    EXPECT_FALSE(file.isOrderKnown);
    EXPECT_EQ(file.byteOrder, kOther);
    EXPECT_EQ(imageOf(file.records), imageOf({record}));
    record.action = APPMONCTL_Stop;
    EXPECT_EQ(decodeRequests(imageOf({record}), kOther).byteOrder, nativeByteOrder());
}

TEST(RequestFile, WithoutATellingIntegerItIsThisMachines) {
    reqcmd record = startOf("plain");
    record.priority = -1; // the same in both byte orders
    const RequestFile file = decodeRequests(imageOf({record}));
    EXPECT_EQ(file.byteOrder, nativeByteOrder());
    EXPECT_FALSE(file.isOrderKnown);
    EXPECT_FALSE(decodeRequests("").isOrderKnown);
}

TEST(RequestFile, FragmentAtTheEndIsCounted) {
    const RequestFile file = decodeRequests(imageOf({startOf("one")}) + std::string(1215, 'x'));
    EXPECT_EQ(file.records.size(), 1u);
    EXPECT_EQ(file.tailSize, 1215u);
    EXPECT_EQ(decodeRequests("x").tailSize, 1u);
}

TEST(RequestFile, NameIsCutAsTheMonitorCutsIt) {
    reqcmd record{};
    std::memset(record.name, 'n', sizeof record.name);
    EXPECT_EQ(nameOf(record), std::string(63, 'n'));
    record.name[3] = '\0';
    EXPECT_EQ(nameOf(record), "nnn");
}

TEST(RequestFile, ByteOrdersHaveWords) {
    ByteOrder order = ByteOrder::Little;
    EXPECT_EQ(readByteOrder("big", order), "");
    EXPECT_EQ(order, ByteOrder::Big);
    EXPECT_EQ(readByteOrder("little", order), "");
    EXPECT_EQ(order, ByteOrder::Little);
    EXPECT_EQ(readByteOrder("native", order), "");
    EXPECT_EQ(order, nativeByteOrder());
    EXPECT_EQ(readByteOrder("middle", order), "\"middle\" is none of little, big and native");
    EXPECT_STREQ(byteOrderWord(ByteOrder::Big), "big");
    EXPECT_STREQ(byteOrderWord(ByteOrder::Little), "little");
}

} // namespace

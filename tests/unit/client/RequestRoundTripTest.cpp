// The text form loses nothing: shown and compiled again, every request file is what it was.

#include "client/ovardctl/RequestText.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/hostile/RandomRequests.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using hostile::Random;

/// What `compile` makes of what `show` prints of a file.
std::string roundTrip(const std::string& image, const char* meterRoot = nullptr) {
    const RequestFile file = decodeRequests(image);
    const std::string text = formatRequests(file.records, file.byteOrder);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char character) {
        return character == '\n' || (character >= ' ' && character <= '~');
    }));
    const RequestText read = parseRequestText(text, meterRoot);
    if (!read.problems.empty()) {
        return "line " + std::to_string(read.problems[0].line) + ": " + read.problems[0].text;
    }
    return encodeRequests(read.records, read.byteOrder.value());
}

/// Expects that an image comes back; tells the record that does not.
void expectLossless(const std::string& image, const char* meterRoot = nullptr) {
    if (roundTrip(image, meterRoot) == image) {
        return;
    }
    for (std::size_t offset = 0; offset < image.size(); offset += sizeof(reqcmd)) {
        const std::string record = image.substr(offset, sizeof(reqcmd));
        const RequestFile file = decodeRequests(record);
        ASSERT_EQ(roundTrip(record, meterRoot), record)
            << formatRequests(file.records, file.byteOrder);
    }
    FAIL() << "the records come back one by one, but not together";
}

/// Action, name, command and pid file of each record.
std::vector<std::string> summariesOf(const std::vector<reqcmd>& records) {
    std::vector<std::string> summaries;
    summaries.reserve(records.size());
    for (const reqcmd& record : records) {
        summaries.push_back(std::to_string(record.action) + ' ' + record.name + ' ' + record.cmd +
                            ' ' + record.pidfile);
    }
    return summaries;
}

TEST(RequestRoundTrip, NoiseComesBack) {
    Random random(1);
    for (int count = 0; count < 300; ++count) {
        std::string image(random.below(4) * sizeof(reqcmd), '\0');
        random.fill(image.data(), image.size());
        expectLossless(image);
    }
}

TEST(RequestRoundTrip, NearlyValidRecordsComeBack) {
    Random random(2);
    for (int count = 0; count < 400; ++count) {
        std::vector<reqcmd> records;
        for (std::size_t size = random.below(5); size > 0; --size) {
            records.push_back(hostile::randomRequest(random, hostile::Trend::Mix));
        }
        for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
            expectLossless(encodeRequests(records, order), random.onceIn(2) ? "/root" : nullptr);
        }
    }
}

TEST(RequestRoundTrip, ValidRecordsWithAByteChangedComeBack) {
    Random random(3);
    for (int count = 0; count < 1500; ++count) {
        std::string image = imageOf({startOf("meter"), requestOf(APPMONCTL_Stop_All, "")});
        for (std::size_t changes = random.below(3); changes > 0; --changes) {
            image[random.below(image.size())] = "\0\1 \t\n\\[]=#;\x7f\x80\xff"[random.below(14)];
        }
        expectLossless(image);
    }
}

TEST(RequestRoundTrip, EveryByteOfARecordCounts) {
    const std::string image = imageOf({startOf("meter")});
    for (std::size_t index = 0; index < image.size(); ++index) {
        for (const char byte : {'\1', '\x80', ' '}) {
            std::string changed = image;
            changed[index] = byte;
            expectLossless(changed);
        }
    }
}

TEST(RequestRoundTrip, AnyTextIsReadWithoutHarm) {
    const std::vector<std::string> pieces = {
        "[",     "]",          "=",          "\n",          "\r\n",    "\\x",
        "\\x00", "\\\\",       "cmd",        "raw.name",    "name",    "action",
        "stop",  " ",          "#",          ";",           "\xff",    "pidfile",
        "port",  "eth:502",    "com:",       "/a/b c",      "yes",     "[a]\ncmd=/a\n",
        "-1",    "byte-order", "life-limit", "99999999999", "raw.cmd", "restart",
        "\n[",   "\t"};
    Random random(4);
    for (int count = 0; count < 10000; ++count) {
        std::string text;
        for (std::size_t size = random.below(40); size > 0; --size) {
            text += pieces[random.below(pieces.size())];
        }
        const RequestText read = parseRequestText(text, nullptr);
        EXPECT_LE(read.problems.size(), kMostTextProblems);
        if (read.problems.empty()) {
            expectLossless(imageOf(read.records));
        }
    }
}

TEST(RequestRoundTrip, ExampleIsUnderstood) {
    const RequestText example =
        parseRequestText(contentOf(OVARD_EXAMPLES "/requests.ini"), nullptr);
    for (const TextProblem& problem : example.problems) {
        ADD_FAILURE() << problem.line << ": " << problem.text;
    }
    const std::vector<reqcmd> expected = {
        requestOf(APPMONCTL_Start, "security_server", "/home/kelvo/root/security_server",
                  "/tmp/pid/home/kelvo/root/security_server.pid"),
        requestOf(APPMONCTL_Start, "data_server", "/home/kelvo/root/data_server --rate 50",
                  "/tmp/pid/home/kelvo/root/data_server.pid"),
        requestOf(APPMONCTL_Start, "modbus_tcp", "/home/kelvo/modbus/modbus_tcp --clients 8",
                  "/tmp/pid/home/kelvo/modbus/modbus_tcp.pid"),
        requestOf(APPMONCTL_Start, "modbus_serial", "/home/kelvo/modbus/modbus_serial --baud 19200",
                  "/tmp/pid/home/kelvo/modbus/modbus_serial.pid"),
        requestOf(APPMONCTL_Restart_PortApps, "")};
    EXPECT_EQ(summariesOf(example.records), summariesOf(expected));
    expectLossless(imageOf(example.records));
}

} // namespace

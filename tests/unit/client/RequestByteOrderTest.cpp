// A request file that was written by hand for machines of both byte orders.

#include <string>

#include <gtest/gtest.h>

#include "client/ovardctl/RequestFile.h"
#include "client/ovardctl/RequestsTool.h"
#include "tests/unit/client/RequestCheckSupport.h"
#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/client/TestServer.h"
#include "tests/unit/records/GoldenImage.h"
#include "tests/unit/records/RecordedRequests.h"
#include "tests/unit/records/golden/RequestFileImage.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using recordstest::recordedRequests;

constexpr ByteOrder kOrders[] = {ByteOrder::Little, ByteOrder::Big};

std::string goldenFile(ByteOrder order) {
    return recordstest::goldenImage(golden::kRequestFile, order == ByteOrder::Little
                                                              ? recordstest::ByteOrder::Little
                                                              : recordstest::ByteOrder::Big);
}

class RequestByteOrder : public testing::Test {
protected:
    /// What "ovardctl requests check" says of a file of `order` for a machine of `target`.
    Report check(ByteOrder order, ByteOrder target) const {
        RequestsCommand command;
        command.verb = RequestsVerb::Check;
        command.path = folder_.file("requests");
        command.byteOrder = target;
        writeContent(command.path, goldenFile(order));
        return runRequests(command, nullptr);
    }

    const TemporaryFolder folder_;
};

TEST_F(RequestByteOrder, OfAFileIsRecognised) {
    for (const ByteOrder order : kOrders) {
        const RequestFile file = decodeRequests(goldenFile(order));
        EXPECT_TRUE(file.isOrderKnown);
        EXPECT_EQ(file.byteOrder, order);
        EXPECT_EQ(imageOf(file.records), imageOf(recordedRequests())) << byteOrderWord(order);
    }
}

TEST_F(RequestByteOrder, OfTheTargetIsWrittenByteForByte) {
    for (const ByteOrder order : kOrders) {
        EXPECT_EQ(encodeRequests(recordedRequests(), order), goldenFile(order))
            << byteOrderWord(order);
    }
}

TEST_F(RequestByteOrder, OfTheTargetIsNoProblem) {
    for (const ByteOrder order : kOrders) {
        EXPECT_EQ(problemsOf(decodeRequests(goldenFile(order)), everythingIsThere, order),
                  kNothing);
        EXPECT_EQ(check(order, order).output.find("byte order"), std::string::npos);
    }
}

TEST_F(RequestByteOrder, OfAnotherMachineIsAnErrorOfTheFile) {
    for (const ByteOrder order : kOrders) {
        const ByteOrder other = order == ByteOrder::Little ? ByteOrder::Big : ByteOrder::Little;
        const Report report = check(order, other);
        const std::string begin =
            std::string("error: the integers have the byte order of another machine (") +
            byteOrderWord(order) + "-endian)";
        EXPECT_EQ(report.exitStatus, kExitFailed);
        EXPECT_EQ(report.output.substr(0, begin.size()), begin);
    }
}

} // namespace

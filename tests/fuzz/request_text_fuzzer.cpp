// The text form of request files: the input as a text that somebody wrote, and as the image of a
// request file that is shown as a text and read again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "client/ovardctl/RequestFile.h"
#include "client/ovardctl/RequestText.h"
#include "tests/fuzz/Require.h"

using fuzz::isPrintable;
using fuzz::require;
using ovardctl::ByteOrder;
using ovardctl::RequestText;

namespace {

constexpr const char* kMeterRoot = "/opt/meter";

bool areSame(const std::vector<reqcmd>& left, const std::vector<reqcmd>& right) {
    return left.size() == right.size() &&
           (left.empty() ||
            std::memcmp(left.data(), right.data(), left.size() * sizeof left[0]) == 0);
}

/// Records shown as a text, and read again, are the same.
void showAndRead(const std::vector<reqcmd>& records, ByteOrder order) {
    const std::string shown = ovardctl::formatRequests(records, order);
    require(isPrintable(shown), "a text is printable");
    const RequestText read = ovardctl::parseRequestText(shown, kMeterRoot);
    require(read.problems.empty(), "what is shown can be read");
    require(read.byteOrder == order, "the byte order is read again");
    require(areSame(read.records, records), "the records are read again, byte for byte");
}

void readAnyText(std::string_view text) {
    const RequestText read = ovardctl::parseRequestText(text, nullptr);
    require(read.problems.size() <= ovardctl::kMostTextProblems, "problems are bounded");
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const ovardctl::TextProblem& problem : read.problems) {
        require(problem.line >= 1 && problem.line <= lines, "a problem is in a line of the text");
        require(!problem.text.empty() && isPrintable(problem.text) &&
                    problem.text.find('\n') == std::string::npos,
                "a problem is told in one printable line");
    }
    if (read.problems.empty()) {
        showAndRead(read.records, read.byteOrder.value_or(ovardctl::nativeByteOrder()));
    }
}

void showAnyImage(std::string_view image) {
    const ovardctl::RequestFile file = ovardctl::decodeRequests(image);
    require(file.tailSize == image.size() % sizeof(reqcmd), "the tail is what is no whole record");
    require(ovardctl::encodeRequests(file.records, file.byteOrder) ==
                image.substr(0, image.size() - file.tailSize),
            "whole records are encoded as they were");
    showAndRead(file.records, file.byteOrder);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    readAnyText(text);
    showAnyImage(text);
    return 0;
}

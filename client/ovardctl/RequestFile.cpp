#include "client/ovardctl/RequestFile.h"

#include <array>
#include <cstring>
#include <optional>

#include "client/ovardctl/RequestValues.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::size_t kRecordSize = sizeof(reqcmd);

using Integer = std::int32_t reqcmd::*;

constexpr std::array<Integer, 7> kIntegers = {
    &reqcmd::porttype,
    &reqcmd::portnum,
    &reqcmd::action,
    &reqcmd::priority,
    &reqcmd::delay,
    &reqcmd::restart_type,
    &reqcmd::last_runtime_life_limit,
};

/// An integer whose values are small. With its bytes swapped none of them is another of them.
struct TellingInteger {
    Integer member;
    std::int32_t low;
    std::int32_t high;
};

/// Room for policies of other systems.
constexpr std::int32_t kMostPolicy = 255;

/// Port number, delay and life limit tell nothing: they may have any value, also one that is a
/// small number when its bytes are swapped.
constexpr std::array<TellingInteger, 4> kTellingIntegers = {{
    {&reqcmd::porttype, PORT_TYPE_NONE, PORT_TYPE_ETH},
    {&reqcmd::action, APPMONCTL_Start, APPMONCTL_Reserved10},
    {&reqcmd::priority, kMinPriority, kMaxPriority},
    {&reqcmd::restart_type, RESTART_TYPE_SELF, kMostPolicy},
}};

/// Integers of all records that make sense in one byte order only.
struct Evidence {
    std::size_t native = 0;
    std::size_t other = 0;
};

std::int32_t swapped(std::int32_t value) {
    return static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(value)));
}

void swapIntegers(reqcmd& record) {
    for (const Integer integer : kIntegers) {
        record.*integer = swapped(record.*integer);
    }
}

Evidence evidenceOf(const std::vector<reqcmd>& records) {
    Evidence evidence;
    for (const reqcmd& record : records) {
        for (const TellingInteger& integer : kTellingIntegers) {
            const auto makesSense = [&integer](std::int32_t value) {
                return value >= integer.low && value <= integer.high;
            };
            const bool asItIs = makesSense(record.*integer.member);
            const bool whenSwapped = makesSense(swapped(record.*integer.member));
            evidence.native += asItIs && !whenSwapped ? 1 : 0;
            evidence.other += whenSwapped && !asItIs ? 1 : 0;
        }
    }
    return evidence;
}

/// A record or two with odd values do not outvote the others.
constexpr bool isClearMajority(std::size_t votes, std::size_t against) {
    return votes > 2 * against;
}

constexpr ByteOrder otherThan(ByteOrder order) {
    return order == ByteOrder::Little ? ByteOrder::Big : ByteOrder::Little;
}

/// The byte order that records show as they lie in the file.
std::optional<ByteOrder> toldByteOrder(const std::vector<reqcmd>& records) {
    const Evidence evidence = evidenceOf(records);
    if (isClearMajority(evidence.native, evidence.other)) {
        return nativeByteOrder();
    }
    if (isClearMajority(evidence.other, evidence.native)) {
        return otherThan(nativeByteOrder());
    }
    return std::nullopt;
}

} // namespace

const char* byteOrderWord(ByteOrder order) {
    return order == ByteOrder::Little ? "little" : "big";
}

std::string readByteOrder(std::string_view text, ByteOrder& order) {
    if (text == "little") {
        order = ByteOrder::Little;
    } else if (text == "big") {
        order = ByteOrder::Big;
    } else if (text == "native") {
        order = nativeByteOrder();
    } else {
        return "\"" + std::string(text) + "\" is none of little, big and native";
    }
    return {};
}

RequestFile decodeRequests(std::string_view image, ByteOrder presumed) {
    RequestFile file;
    file.records.resize(image.size() / kRecordSize);
    file.tailSize = image.size() % kRecordSize;
    if (!file.records.empty()) {
        std::memcpy(file.records.data(), image.data(), file.records.size() * kRecordSize);
    }
    const std::optional<ByteOrder> told = toldByteOrder(file.records);
    file.isOrderKnown = told.has_value();
    file.byteOrder = told.value_or(presumed);
    if (file.byteOrder != nativeByteOrder()) {
        for (reqcmd& record : file.records) {
            swapIntegers(record);
        }
    }
    return file;
}

std::string encodeRequests(const std::vector<reqcmd>& records, ByteOrder order) {
    std::string image;
    image.reserve(records.size() * kRecordSize);
    for (reqcmd record : records) {
        if (order != nativeByteOrder()) {
            swapIntegers(record);
        }
        image.append(reinterpret_cast<const char*>(&record), kRecordSize);
    }
    return image;
}

std::string_view nameOf(const reqcmd& record) {
    return platform::fieldText(record.name).substr(0, sizeof record.name - 1);
}

} // namespace ovardctl

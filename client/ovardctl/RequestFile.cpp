#include "client/ovardctl/RequestFile.h"

#include <array>
#include <cstring>

#include "client/ovardctl/RequestValues.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::size_t kRecordSize = sizeof(reqcmd);

/// An integer of the record, and the values that it has in practice.
struct Integer {
    std::int32_t reqcmd::*member;
    std::int32_t low;
    std::int32_t high;
};

constexpr std::int32_t kMostPort = 65535;

/// More seconds or other units than anybody waits. Smaller numbers are above it when swapped.
constexpr std::int32_t kLongTime = 0x00ffffff;

constexpr std::array<Integer, 7> kIntegers = {{
    {&reqcmd::porttype, PORT_TYPE_NONE, PORT_TYPE_ETH},
    {&reqcmd::portnum, 0, kMostPort},
    {&reqcmd::action, APPMONCTL_Start, APPMONCTL_Reserved10},
    {&reqcmd::priority, kMinPriority, kMaxPriority},
    {&reqcmd::delay, 0, kLongTime},
    {&reqcmd::restart_type, 0, kLongTime},
    {&reqcmd::last_runtime_life_limit, 0, kLongTime},
}};

std::int32_t swapped(std::int32_t value) {
    return static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(value)));
}

void swapIntegers(reqcmd& record) {
    for (const Integer& integer : kIntegers) {
        record.*integer.member = swapped(record.*integer.member);
    }
}

/// Integers that make sense in this machine's byte order only, less those that do in the other one
/// only.
long evidenceOf(const std::vector<reqcmd>& records) {
    long evidence = 0;
    for (const reqcmd& record : records) {
        for (const Integer& integer : kIntegers) {
            const auto makesSense = [&integer](std::int32_t value) {
                return value >= integer.low && value <= integer.high;
            };
            const std::int32_t value = record.*integer.member;
            evidence +=
                static_cast<int>(makesSense(value)) - static_cast<int>(makesSense(swapped(value)));
        }
    }
    return evidence;
}

constexpr ByteOrder otherThan(ByteOrder order) {
    return order == ByteOrder::Little ? ByteOrder::Big : ByteOrder::Little;
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

RequestFile decodeRequests(std::string_view image) {
    RequestFile file;
    file.records.resize(image.size() / kRecordSize);
    file.tailSize = image.size() % kRecordSize;
    if (!file.records.empty()) {
        std::memcpy(file.records.data(), image.data(), file.records.size() * kRecordSize);
    }
    const long evidence = evidenceOf(file.records);
    file.isOrderKnown = evidence != 0;
    if (evidence < 0) {
        file.byteOrder = otherThan(nativeByteOrder());
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

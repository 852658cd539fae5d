// The published segments as other programs see them: bytes at offsets.

#ifndef OVARD_TESTS_UNIT_STATUS_SEGMENT_SUPPORT_H
#define OVARD_TESTS_UNIT_STATUS_SEGMENT_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/appinfo.h"
#include "tests/fakes/FakePlatform.h"

namespace segments {

inline constexpr const char* kSystem = "/meter_usr7_data.shared";
inline constexpr const char* kApplications = "/meter_usr16_data.shared";

inline constexpr std::size_t kSystemSize = 4096;
inline constexpr std::size_t kApplicationsSize = 16384;

/// Offset of application record `number`, counted from 1.
constexpr std::size_t recordOffset(std::size_t number) {
    return 128 * number;
}

inline std::string& bytesOf(const char* segment) {
    return fakes::world().segments[segment];
}

inline std::string bytesAt(const char* segment, std::size_t offset, std::size_t size) {
    const std::string& bytes = bytesOf(segment);
    if (offset + size > bytes.size()) {
        ADD_FAILURE() << segment << " ends before byte " << offset + size;
        return {};
    }
    return bytes.substr(offset, size);
}

/// The number at `offset`, in the byte order of the machine.
template <typename Number> Number numberAt(const char* segment, std::size_t offset) {
    Number number = {};
    const std::string bytes = bytesAt(segment, offset, sizeof number);
    std::memcpy(&number, bytes.data(), bytes.size());
    return number;
}

/// The text in the field of `size` bytes at `offset`, which must end inside of it.
inline std::string textAt(const char* segment, std::size_t offset, std::size_t size) {
    const std::string field = bytesAt(segment, offset, size);
    const std::size_t end = field.find('\0');
    EXPECT_NE(end, std::string::npos) << "no NUL in the field at " << offset;
    return field.substr(0, end);
}

template <typename Number>
void putNumber(const char* segment, std::size_t offset, const Number& number) {
    bytesOf(segment).replace(offset, sizeof number, reinterpret_cast<const char*>(&number),
                             sizeof number);
}

/// Writes the bytes of `text`, and nothing behind them.
inline void putText(const char* segment, std::size_t offset, const std::string& text) {
    bytesOf(segment).replace(offset, text.size(), text);
}

/// `value` as 8 bytes, the most significant one first.
inline std::string bigEndian(std::int64_t value) {
    std::string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> shift & 0xFF);
    }
    return bytes;
}

/// An application of the registry; every field has a value of its own.
inline appinfo makeApplication(const std::string& name) {
    appinfo app = {};
    app.pid = 612;
    platform::copyToField(app.name, name);
    platform::copyToField(app.version, "2.5");
    platform::copyToField(app.cmd, "/home/kelvo/root/" + name + " -p 5");
    platform::copyToField(app.pidfile, "/tmp/pid/" + name + ".pid.612");
    app.status = 4;
    app.start_time = 1699999000;
    app.uptime = 1000;
    app.port_type = 2;
    app.port_num = 502;
    app.priority = -7;
    app.restart_type = 1;
    app.last_runtime_life_limit = 86400;
    return app;
}

} // namespace segments

#endif // OVARD_TESTS_UNIT_STATUS_SEGMENT_SUPPORT_H

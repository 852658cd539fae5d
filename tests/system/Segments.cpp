#include "tests/system/Segments.h"

#include <algorithm>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

constexpr std::size_t kRecordSize = 128;
constexpr std::int32_t kNoSegment = -1;

std::string wholeSegment(const char* path, std::size_t size) {
    const std::string bytes = readFile(path);
    return bytes.size() == size ? bytes : "";
}

void putText(std::string& bytes, std::size_t offset, std::size_t size, const std::string& text) {
    std::string field = text;
    field.resize(size); // A text of full length then has no NUL.
    bytes.replace(offset, size, field);
}

void putTime(std::string& bytes, std::size_t offset, std::int64_t milliseconds) {
    for (std::size_t index = 0; index < sizeof milliseconds; ++index) {
        const auto shift = 8 * (sizeof milliseconds - 1 - index);
        bytes[offset + index] =
            static_cast<char>(static_cast<std::uint64_t>(milliseconds) >> shift & 0xFF);
    }
}

} // namespace

std::string textAt(const std::string& bytes, std::size_t offset, std::size_t size) {
    if (offset + size > bytes.size()) {
        return "";
    }
    const std::string field = bytes.substr(offset, size);
    const std::size_t end = field.find('\0');
    return end != std::string::npos ? field.substr(0, end) : field + "<no end>";
}

std::int64_t timeAt(const std::string& bytes, std::size_t offset) {
    std::uint64_t milliseconds = 0;
    for (std::size_t index = 0; index < sizeof milliseconds; ++index) {
        milliseconds = milliseconds << 8 | numberAt<std::uint8_t>(bytes, offset + index);
    }
    return static_cast<std::int64_t>(milliseconds);
}

bool operator==(const PublishedApp& left, const PublishedApp& right) {
    return left.name == right.name && left.version == right.version &&
           left.startMs == right.startMs && left.pid == right.pid && left.status == right.status &&
           left.nice == right.nice && left.restartType == right.restartType &&
           left.lifeLimit == right.lifeLimit && left.portType == right.portType &&
           left.portNumber == right.portNumber;
}

std::ostream& operator<<(std::ostream& stream, const PublishedApp& app) {
    return stream << "\"" << app.name << "\" version=\"" << app.version
                  << "\" startMs=" << app.startMs << " pid=" << app.pid << " status=\""
                  << app.status << "\" nice=" << app.nice << " restart=" << app.restartType
                  << " limit=" << app.lifeLimit << " port=\"" << app.portType << "\" "
                  << app.portNumber << " uptime=" << app.uptimeSec;
}

std::string systemSegment() {
    return wholeSegment(kSystemSegmentPath, kSystemSegmentSize);
}

std::string applicationSegment() {
    return wholeSegment(kApplicationSegmentPath, kApplicationSegmentSize);
}

PublishedApp recordIn(const std::string& bytes, std::size_t number) {
    const std::size_t at = kRecordSize * number;
    PublishedApp app;
    app.name = textAt(bytes, at, 32);
    app.version = textAt(bytes, at + 32, 32);
    app.startMs = timeAt(bytes, at + 64);
    app.pid = numberAt<std::int32_t>(bytes, at + 72);
    app.status = textAt(bytes, at + 76, 16);
    app.nice = numberAt<std::int32_t>(bytes, at + 92);
    app.restartType = numberAt<std::int32_t>(bytes, at + 96);
    app.lifeLimit = numberAt<std::int32_t>(bytes, at + 100);
    app.portType = textAt(bytes, at + 104, 16);
    app.portNumber = numberAt<std::int32_t>(bytes, at + 120);
    app.uptimeSec = numberAt<std::uint32_t>(bytes, at + 124);
    return app;
}

void putRecord(std::string& bytes, std::size_t number, const PublishedApp& app) {
    const std::size_t at = kRecordSize * number;
    putText(bytes, at, 32, app.name);
    putText(bytes, at + 32, 32, app.version);
    putTime(bytes, at + 64, app.startMs);
    putNumber(bytes, at + 72, app.pid);
    putText(bytes, at + 76, 16, app.status);
    putNumber(bytes, at + 92, app.nice);
    putNumber(bytes, at + 96, app.restartType);
    putNumber(bytes, at + 100, app.lifeLimit);
    putText(bytes, at + 104, 16, app.portType);
    putNumber(bytes, at + 120, app.portNumber);
    putNumber(bytes, at + 124, app.uptimeSec);
}

std::int32_t publishedCount() {
    const std::string bytes = applicationSegment();
    return bytes.empty() ? kNoSegment : numberAt<std::int32_t>(bytes, 0);
}

std::vector<PublishedApp> publishedApps() {
    const std::string bytes = applicationSegment();
    const auto count =
        std::clamp<std::int32_t>(numberAt<std::int32_t>(bytes, 0), 0, std::int32_t{kMostPublished});
    std::vector<PublishedApp> apps;
    for (std::size_t number = 1; number <= static_cast<std::size_t>(count); ++number) {
        apps.push_back(recordIn(bytes, number));
    }
    return apps;
}

PublishedApp publishedApp(const std::string& name) {
    for (const PublishedApp& app : publishedApps()) {
        if (app.name == name) {
            return app;
        }
    }
    return {};
}

std::string segmentOf(const std::vector<PublishedApp>& apps, std::int32_t count) {
    std::string bytes(kApplicationSegmentSize, '\0');
    putNumber(bytes, 0, count);
    putNumber<std::int32_t>(bytes, 4, kMostPublished);
    for (std::size_t index = 0; index < apps.size(); ++index) {
        putRecord(bytes, index + 1, apps[index]);
    }
    return bytes;
}

} // namespace systemtest

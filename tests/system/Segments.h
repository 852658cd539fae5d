// The published segments as other programs find them. Read and written by offsets alone, so that no
// mistake in a record's layout goes unnoticed.

#ifndef OVARD_TESTS_SYSTEM_SEGMENTS_H
#define OVARD_TESTS_SYSTEM_SEGMENTS_H

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace systemtest {

inline constexpr const char* kSystemSegmentPath = "/dev/shm/meter_usr7_data.shared";
inline constexpr const char* kApplicationSegmentPath = "/dev/shm/meter_usr16_data.shared";

inline constexpr std::size_t kSystemSegmentSize = 4096;
inline constexpr std::size_t kApplicationSegmentSize = 16384;

/// Most applications that are published.
inline constexpr std::size_t kMostPublished = 127;

/// Offset of the word in the application segment that belongs to another program.
inline constexpr std::size_t kIecHealthAt = 112;

/// A number in the byte order of the machine; 0 beyond the end of the bytes.
template <typename Number> Number numberAt(const std::string& bytes, std::size_t offset) {
    Number number = 0;
    if (offset + sizeof number <= bytes.size()) {
        std::memcpy(&number, bytes.data() + offset, sizeof number);
    }
    return number;
}

/// Replaces a number.
template <typename Number> void putNumber(std::string& bytes, std::size_t offset, Number number) {
    bytes.replace(offset, sizeof number, reinterpret_cast<const char*>(&number), sizeof number);
}

/// The text of a field, without what follows its NUL; one without a NUL ends in "<no end>".
std::string textAt(const std::string& bytes, std::size_t offset, std::size_t size);

/// An instrument time in milliseconds since the epoch.
std::int64_t timeAt(const std::string& bytes, std::size_t offset);

/// One record of the application segment.
struct PublishedApp {
    std::string name;
    std::string version;
    std::int64_t startMs = 0;
    std::int32_t pid = 0;
    std::string status;
    std::int32_t nice = 0;
    std::int32_t restartType = 0;
    std::int32_t lifeLimit = 0;
    std::string portType;
    std::int32_t portNumber = 0;
    std::uint32_t uptimeSec = 0;
};

/// Equal in everything but the uptime, which differs from cycle to cycle.
bool operator==(const PublishedApp& left, const PublishedApp& right);
std::ostream& operator<<(std::ostream& stream, const PublishedApp& app);

/// The whole bytes of a segment; empty when it is not there or has another size.
std::string systemSegment();
std::string applicationSegment();

/// The record of that number, from 1, in the bytes of an application segment.
PublishedApp recordIn(const std::string& bytes, std::size_t number);

/// Writes a record into the bytes of an application segment.
void putRecord(std::string& bytes, std::size_t number, const PublishedApp& app);

/// What is published now: the number of applications (-1 while the segment is not there), and as
/// many records as the segment may hold of them.
std::int32_t publishedCount();
std::vector<PublishedApp> publishedApps();

/// The published application of that name; all empty when there is none.
PublishedApp publishedApp(const std::string& name);

/// The bytes of an application segment with these records and that number of applications.
std::string segmentOf(const std::vector<PublishedApp>& apps, std::int32_t count);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SEGMENTS_H

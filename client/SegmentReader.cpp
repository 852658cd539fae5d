#include "client/SegmentReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "platform/UniqueFd.h"

namespace ovard_client {
namespace {

constexpr std::chrono::milliseconds kPause{5};
constexpr std::int64_t kMillisecondsPerSecond = 1000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1000000;

/// The owner of a segment can give it any time. Within these bounds the milliseconds of two times
/// can be subtracted.
constexpr std::int64_t kMostSeconds = INT64_MAX / kMillisecondsPerSecond / 2;

constexpr SegmentOutcome kTooShort{SegmentResult::TooShort, 0, 0};

SegmentOutcome failure(int error) {
    const bool isMissing = error == ENOENT;
    return {isMissing ? SegmentResult::NoSegment : SegmentResult::SystemError, error, 0};
}

std::int64_t modificationTimeMs(const struct stat& facts) {
    const std::int64_t seconds =
        std::clamp<std::int64_t>(facts.st_mtim.tv_sec, -kMostSeconds, kMostSeconds);
    return seconds * kMillisecondsPerSecond + facts.st_mtim.tv_nsec / kNanosecondsPerMillisecond;
}

/// Its end is looked for by reading: a size asked for before may be another one by then.
SegmentOutcome readBytes(int fd, char* destination, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count =
            ::pread(fd, destination + done, size - done, static_cast<off_t>(done));
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0) {
            return kTooShort;
        } else if (errno != EINTR) {
            return {SegmentResult::SystemError, errno, 0};
        }
    }
    return {SegmentResult::Ok, 0, 0};
}

/// One copy, as the segment is at this moment: possibly half old and half new.
SegmentOutcome takeCopy(int fd, char* destination, std::size_t size) {
    struct stat facts = {};
    if (::fstat(fd, &facts) != 0) {
        return {SegmentResult::SystemError, errno, 0};
    }
    if (!S_ISREG(facts.st_mode)) {
        return {SegmentResult::SystemError, EINVAL, 0};
    }
    SegmentOutcome outcome = readBytes(fd, destination, size);
    if (outcome.result == SegmentResult::Ok) {
        outcome.modifiedMs = modificationTimeMs(facts);
    }
    return outcome;
}

/// Takes copies into `copy` until one agrees with that before it, which is in `destination`.
SegmentOutcome settle(int fd, char* destination, char* copy, std::size_t size,
                      const std::function<void()>& pause) {
    SegmentOutcome outcome = takeCopy(fd, destination, size);
    for (int copies = 1; copies < kMostCopies && outcome.result == SegmentResult::Ok; ++copies) {
        pause();
        outcome = takeCopy(fd, copy, size);
        if (outcome.result == SegmentResult::Ok && std::memcmp(destination, copy, size) == 0) {
            return outcome;
        }
        std::memcpy(destination, copy, size);
    }
    return outcome.result == SegmentResult::Ok ? SegmentOutcome{SegmentResult::KeptChanging, 0, 0}
                                               : outcome;
}

} // namespace

void pauseBetweenCopies() noexcept {
    std::this_thread::sleep_for(kPause);
}

SegmentOutcome readSegment(const char* name, void* destination, std::size_t size,
                           const std::function<void()>& pause) noexcept {
    if (name == nullptr || destination == nullptr) {
        return {SegmentResult::SystemError, EINVAL, 0};
    }
    // Not to be held up by what is no segment. It sets close-on-exec itself.
    const platform::UniqueFd segment(::shm_open(name, O_RDONLY | O_NONBLOCK, 0));
    if (!segment.valid()) {
        return failure(errno);
    }
    const std::unique_ptr<char[]> copies(new (std::nothrow) char[2 * size]());
    if (copies == nullptr) {
        return {SegmentResult::SystemError, ENOMEM, 0};
    }
    const SegmentOutcome outcome =
        settle(segment.get(), copies.get(), copies.get() + size, size, pause);
    if (outcome.result == SegmentResult::Ok) {
        std::memcpy(destination, copies.get(), size);
    }
    return outcome;
}

SegmentOutcome readSystemSegment(system_segment* system) noexcept {
    return readSegment(kSystemSegmentName, system, sizeof *system);
}

SegmentOutcome readApplicationSegment(application_segment* applications) noexcept {
    return readSegment(kApplicationSegmentName, applications, sizeof *applications);
}

} // namespace ovard_client

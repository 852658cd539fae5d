// A shared-memory segment that the monitor publishes.

#ifndef OVARD_PLATFORM_SHM_UPDATE_H
#define OVARD_PLATFORM_SHM_UPDATE_H

#include <cstddef>
#include <memory>

/// Handle of one POSIX shared-memory segment.
///
/// All calls return 0, or a negative value on failure. On a handle that was never opened each is a
/// harmless no-op with a negative result. A segment that other programs shorten, remove or replace
/// is repaired by the next `remapShm`; until then calls may fail or reach what nobody else sees,
/// but never harm the process. One thread at a time.
class ShmUpdate {
public:
    ShmUpdate();
    ~ShmUpdate();
    ShmUpdate(const ShmUpdate&) = delete;
    ShmUpdate& operator=(const ShmUpdate&) = delete;

    /// Opens the segment `name`, creates it where `flags` (open's) ask for that, gives it at least
    /// `size` bytes and, where it is its creator or may, the `mode`, whatever the umask. A failure
    /// is made up for by a later `remapShm`.
    int openShm(const char* name, int flags, int mode, std::size_t size);

    /// Fills the segment, over the size that it was opened with, with zero bytes.
    int clearData();

    /// Makes sure that the handle refers to what bears the segment's name now, in its full size.
    int remapShm();

    /// Copies `size` bytes to the start of the segment.
    int writeData(const void* source, std::size_t size);

    /// Copies `length` bytes to `offset`, within the first `segmentSize` bytes.
    int writeOffsetData(const void* source, std::size_t length, std::size_t segmentSize,
                        std::size_t offset);

    /// Copies `size` bytes from the start of the segment. On failure `destination` stays as it was.
    int loadData(void* destination, std::size_t size);

    /// Copies `length` bytes from `offset`, within the first `segmentSize` bytes. On failure
    /// `destination` stays as it was.
    int loadOffsetData(void* destination, std::size_t length, std::size_t segmentSize,
                       std::size_t offset);

    /// Closes the handle; the segment stays.
    int closeShm();

private:
    struct Segment;
    std::unique_ptr<Segment> segment_; // null while not open
};

#endif // OVARD_PLATFORM_SHM_UPDATE_H

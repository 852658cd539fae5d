#include "platform/linux/HeartbeatRegistry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/BusError.h"
#include "platform/Heartbeat.h"
#include "platform/Process.h"
#include "platform/UniqueFd.h"
#include "platform/linux/Clock.h"

namespace platform {
namespace {

constexpr mode_t kSegmentMode = 0666;

/// Maps the table for as long as it lives, unless the segment is too short. Another program may
/// shorten it at any moment, and touching what lies beyond the end is a bus error: only what needs
/// a compare-and-swap is done in the mapped table.
class MappedTable {
public:
    explicit MappedTable(const UniqueFd& segment) {
        struct stat facts = {};
        if (!segment.valid() || ::fstat(segment.get(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
            facts.st_size < static_cast<off_t>(sizeof(HeartbeatTable))) {
            return;
        }
        void* address = ::mmap(nullptr, sizeof(HeartbeatTable), PROT_READ | PROT_WRITE, MAP_SHARED,
                               segment.get(), 0);
        if (address != MAP_FAILED) {
            table_ = static_cast<HeartbeatTable*>(address);
        }
    }
    ~MappedTable() {
        if (table_ != nullptr) {
            ::munmap(table_, sizeof(HeartbeatTable));
        }
    }
    MappedTable(const MappedTable&) = delete;
    MappedTable& operator=(const MappedTable&) = delete;

    bool isMapped() const { return table_ != nullptr; }

    /// Exchanges the pid of a slot of a mapped table if it still is `expected`. False when it is
    /// not, or when nothing lies behind the mapping any more.
    bool exchangePid(std::size_t index, std::int32_t expected, std::int32_t desired) const {
        bool done = false;
        const bool survived = survivesBusError(
            [&] { done = table_->slots[index].pid.compare_exchange_strong(expected, desired); });
        return survived && done;
    }

private:
    HeartbeatTable* table_ = nullptr;
};

UniqueFd openSegment(const char* name, int flags) {
    return UniqueFd(::shm_open(name, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kSegmentMode));
}

/// Creates the segment only where there is none: some systems refuse to open another user's file
/// with leave to create it.
UniqueFd openOrCreateSegment(const char* name) {
    UniqueFd segment = openSegment(name, O_RDWR);
    return segment.valid() ? std::move(segment) : openSegment(name, O_RDWR | O_CREAT);
}

/// Gives the segment its size and, whatever the umask was, its mode. Both are left alone where they
/// are right, and where another user's segment cannot be changed.
void settleSegment(const UniqueFd& segment) {
    struct stat facts = {};
    if (!segment.valid() || ::fstat(segment.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
        return;
    }
    constexpr auto kSize = static_cast<off_t>(sizeof(HeartbeatTable));
    if (facts.st_size < kSize) {
        (void)!::ftruncate(segment.get(), kSize); // MappedTable looks at the size again
    }
    // A file with two names may be another program's, put here so that it is opened to everybody.
    if ((facts.st_mode & 07777) != kSegmentMode && facts.st_nlink == 1) {
        (void)::fchmod(segment.get(), kSegmentMode);
    }
}

/// Copies the segment into `table`. False when it is not there or too short.
bool copyTable(const UniqueFd& segment, HeartbeatTable& table) {
    return segment.valid() && ::pread(segment.get(), static_cast<void*>(&table), sizeof table, 0) ==
                                  static_cast<ssize_t>(sizeof table);
}

bool hasHeader(const HeartbeatTable& table) {
    return table.magic.load() == kHeartbeatMagic && table.slotCount.load() == kHeartbeatSlots;
}

bool writeAt(const UniqueFd& segment, std::size_t offset, const void* data, std::size_t size) {
    return ::pwrite(segment.get(), data, size, static_cast<off_t>(offset)) ==
           static_cast<ssize_t>(size);
}

bool writeWord(const UniqueFd& segment, std::size_t offset, std::uint32_t word) {
    return writeAt(segment, offset, &word, sizeof word);
}

/// Writes the header where it is missing. A new segment is all zero, so any number of processes may
/// do this at once; a damaged one is emptied, and each process is back with its next beat.
void settleHeader(const UniqueFd& segment) {
    HeartbeatTable table = {};
    if (!copyTable(segment, table) || hasHeader(table)) {
        return;
    }
    if (table.magic.load() != 0) {
        const char noSlots[sizeof table.slots] = {};
        (void)writeAt(segment, offsetof(HeartbeatTable, slots), noSlots, sizeof noSlots);
    }
    (void)writeWord(segment, offsetof(HeartbeatTable, slotCount), kHeartbeatSlots);
    (void)writeWord(segment, offsetof(HeartbeatTable, magic), kHeartbeatMagic);
}

/// Low 32 bits of the start time of `pid`; 0 when it cannot be had.
std::uint32_t startTimeOf(pid_t pid) {
    statstruct_proc info = {};
    return get_proc_info_by_pid(pid, &info) == 0 ? static_cast<std::uint32_t>(info.starttime) : 0;
}

bool isSameStart(std::uint32_t one, std::uint32_t other) {
    return one == 0 || other == 0 || one == other;
}

std::uint32_t beatClock() {
    return static_cast<std::uint32_t>(monotonicNanoseconds() / kNanosecondsPerMillisecond);
}

const HeartbeatSlot* findSlot(const HeartbeatTable& table, pid_t pid) {
    for (const HeartbeatSlot& slot : table.slots) {
        if (slot.pid.load() == pid) {
            return &slot;
        }
    }
    return nullptr;
}

std::size_t offsetOf(std::size_t index) {
    return offsetof(HeartbeatTable, slots) + index * sizeof(HeartbeatSlot);
}

/// Writes a beat of now into a slot, in this order: a check never sees a valid start time beside an
/// older time.
bool writeBeat(const UniqueFd& segment, std::size_t index, std::uint32_t startTime) {
    const std::size_t offset = offsetOf(index);
    return writeWord(segment, offset + offsetof(HeartbeatSlot, lastBeat), beatClock()) &&
           writeWord(segment, offset + offsetof(HeartbeatSlot, startTime), startTime);
}

/// Refreshes the slot that `self` holds already; false when it holds none.
bool refreshSlot(const UniqueFd& segment, pid_t self) {
    HeartbeatTable table = {};
    const HeartbeatSlot* const slot =
        copyTable(segment, table) && hasHeader(table) ? findSlot(table, self) : nullptr;
    return slot != nullptr &&
           writeBeat(segment, static_cast<std::size_t>(slot - table.slots), startTimeOf(self));
}

/// The pid word of a slot that `pid` is claiming; and back. Defined for every value that a damaged
/// segment may hold.
std::int32_t claimMark(std::int32_t pid) {
    return static_cast<std::int32_t>(0U - static_cast<std::uint32_t>(pid));
}

/// True when the process that has or claims a slot is gone, or its pid belongs to another by now.
bool isAbandoned(const HeartbeatSlot& slot, pid_t holder) {
    const pid_t pid = holder > 0 ? holder : claimMark(holder);
    // Zero and below would ask for whole groups of processes.
    if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) {
        return true;
    }
    return holder > 0 && !isSameStart(slot.startTime.load(), startTimeOf(pid));
}

/// Gives memory to the slot by writing its word that nobody uses: a full file system gives none
/// when the table is touched.
bool backSlot(const UniqueFd& segment, std::size_t index) {
    return writeWord(segment, offsetOf(index) + offsetof(HeartbeatSlot, reserved), 0);
}

/// Index of no slot.
constexpr std::size_t kNoSlot = kHeartbeatSlots;

/// Takes the first slot for which `isWanted(slot, holder)` holds in `copy`, and which is still so
/// in `table`, for the claimant `pid`; kNoSlot when there is none. The slot is then being claimed.
template <typename Wanted>
std::size_t claimSlotIf(const UniqueFd& segment, const HeartbeatTable& copy,
                        const MappedTable& table, pid_t pid, Wanted isWanted) {
    for (std::size_t index = 0; index < kHeartbeatSlots; ++index) {
        const std::int32_t holder = copy.slots[index].pid.load();
        if (isWanted(copy.slots[index], holder) && backSlot(segment, index) &&
            table.exchangePid(index, holder, claimMark(pid))) {
            return index;
        }
    }
    return kNoSlot;
}

std::size_t claimSlot(const UniqueFd& segment, const HeartbeatTable& copy, const MappedTable& table,
                      pid_t pid) {
    const std::size_t free =
        claimSlotIf(segment, copy, table, pid,
                    [](const HeartbeatSlot&, std::int32_t holder) { return holder == 0; });
    return free != kNoSlot ? free : claimSlotIf(segment, copy, table, pid, isAbandoned);
}

/// Gives `self` a slot with a first beat; where none is to be had errno tells why, EUSERS for want
/// of a free one.
void takeSlot(const UniqueFd& segment, pid_t self) {
    HeartbeatTable copy = {};
    if (!copyTable(segment, copy) || !hasHeader(copy)) {
        return;
    }
    const std::uint32_t startTime = startTimeOf(self); // Beforehand, so that a claim is short.
    const MappedTable table(segment);
    if (!table.isMapped()) {
        return;
    }
    errno = EUSERS; // A place that cannot be written has a reason of its own.
    const std::size_t index = claimSlot(segment, copy, table, self);
    if (index != kNoSlot) {
        const bool hasBeat = writeBeat(segment, index, startTime);
        (void)table.exchangePid(index, claimMark(self), hasBeat ? self : 0); // The next beat may.
    }
}

} // namespace

void HeartbeatRegistry::notify() const {
    const UniqueFd segment = openOrCreateSegment(name_);
    settleSegment(segment);
    settleHeader(segment);
    const pid_t self = ::getpid();
    if (!refreshSlot(segment, self)) {
        takeSlot(segment, self);
    }
}

int HeartbeatRegistry::check(pid_t pid, int expireSeconds) const {
    HeartbeatTable table = {};
    if (pid <= 0 || !copyTable(openSegment(name_, O_RDONLY), table) || !hasHeader(table)) {
        return kHeartbeatNone;
    }
    const std::uint32_t now = beatClock();
    const HeartbeatSlot* const slot = findSlot(table, pid);
    if (slot == nullptr || !isSameStart(slot->startTime.load(), startTimeOf(pid))) {
        return kHeartbeatNone;
    }
    const std::uint32_t ageMs = now - slot->lastBeat.load();
    return ageMs > expireSeconds * std::int64_t{1000} ? kHeartbeatExpired : kHeartbeatFresh;
}

void HeartbeatRegistry::cleanup(pid_t pid) const {
    const pid_t holder = pid == -1 ? ::getpid() : pid;
    const UniqueFd segment = openSegment(name_, O_RDWR);
    HeartbeatTable copy = {};
    if (holder <= 0 || !copyTable(segment, copy) || !hasHeader(copy) ||
        findSlot(copy, holder) == nullptr) {
        return;
    }
    const MappedTable table(segment);
    for (std::size_t index = 0; index < kHeartbeatSlots && table.isMapped(); ++index) {
        if (copy.slots[index].pid.load() == holder) {
            (void)table.exchangePid(index, holder, 0); // Else it belongs to another by now.
        }
    }
}

} // namespace platform

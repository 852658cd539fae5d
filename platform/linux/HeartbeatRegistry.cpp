#include "platform/linux/HeartbeatRegistry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/Process.h"
#include "platform/UniqueFd.h"
#include "platform/linux/Clock.h"

namespace platform {
namespace {

constexpr mode_t kSegmentMode = 0666;

/// Maps the table for as long as it lives. A segment that is too short is never mapped: touching
/// what lies beyond its end would kill the process. That another program shortens it in just that
/// moment cannot be ruled out, so only what needs a compare-and-swap is done in the mapped table,
/// and only where memory has been given to the segment before: a full file system gives none later.
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

    HeartbeatTable* get() const { return table_; }

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

/// Refreshes the slot that `self` holds already; false when it holds none.
bool refreshSlot(const UniqueFd& segment, pid_t self) {
    HeartbeatTable table = {};
    const HeartbeatSlot* const slot =
        copyTable(segment, table) && hasHeader(table) ? findSlot(table, self) : nullptr;
    if (slot == nullptr) {
        return false;
    }
    const auto index = static_cast<std::size_t>(slot - table.slots);
    const std::size_t offset = offsetof(HeartbeatTable, slots) + index * sizeof *slot;
    // In this order a check never sees a valid start time beside an older time.
    return writeWord(segment, offset + offsetof(HeartbeatSlot, lastBeat), beatClock()) &&
           writeWord(segment, offset + offsetof(HeartbeatSlot, startTime), startTimeOf(self));
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

/// Gives memory to the slot, see MappedTable, by writing its word that nobody uses.
bool backSlot(const UniqueFd& segment, std::size_t index) {
    const std::size_t offset = offsetof(HeartbeatTable, slots) + index * sizeof(HeartbeatSlot);
    return writeWord(segment, offset + offsetof(HeartbeatSlot, reserved), 0);
}

/// Takes the first slot for which `isWanted(slot, holder)` holds in `copy`, and which is still so
/// in `table`, for the claimant `pid`; null when there is none. The slot is then being claimed.
template <typename Wanted>
HeartbeatSlot* claimSlotIf(const UniqueFd& segment, const HeartbeatTable& copy,
                           HeartbeatTable& table, pid_t pid, Wanted isWanted) {
    for (std::size_t index = 0; index < kHeartbeatSlots; ++index) {
        std::int32_t holder = copy.slots[index].pid.load();
        if (isWanted(copy.slots[index], holder) && backSlot(segment, index) &&
            table.slots[index].pid.compare_exchange_strong(holder, claimMark(pid))) {
            return &table.slots[index];
        }
    }
    return nullptr;
}

HeartbeatSlot* claimSlot(const UniqueFd& segment, const HeartbeatTable& copy, HeartbeatTable& table,
                         pid_t pid) {
    HeartbeatSlot* const free =
        claimSlotIf(segment, copy, table, pid,
                    [](const HeartbeatSlot&, std::int32_t holder) { return holder == 0; });
    return free != nullptr ? free : claimSlotIf(segment, copy, table, pid, isAbandoned);
}

} // namespace

void HeartbeatRegistry::notify() const {
    const UniqueFd segment = openOrCreateSegment(name_);
    settleSegment(segment);
    settleHeader(segment);
    const pid_t self = ::getpid();
    if (refreshSlot(segment, self)) {
        return;
    }
    HeartbeatTable copy = {};
    if (!copyTable(segment, copy) || !hasHeader(copy)) {
        return;
    }
    const MappedTable mapping(segment);
    if (mapping.get() == nullptr) {
        return;
    }
    HeartbeatSlot* const slot = claimSlot(segment, copy, *mapping.get(), self);
    if (slot == nullptr) {
        return;
    }
    // In this order a check never sees a valid pid and start time beside an older time.
    slot->lastBeat.store(beatClock());
    slot->startTime.store(startTimeOf(self));
    slot->pid.store(self);
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
    const MappedTable mapping(segment);
    if (mapping.get() == nullptr) {
        return;
    }
    for (std::size_t index = 0; index < kHeartbeatSlots; ++index) {
        if (copy.slots[index].pid.load() == holder) {
            std::int32_t expected = holder;
            mapping.get()->slots[index].pid.compare_exchange_strong(expected, 0);
        }
    }
}

} // namespace platform

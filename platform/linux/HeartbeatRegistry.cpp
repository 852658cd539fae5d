#include "platform/linux/HeartbeatRegistry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Process.h"
#include "platform/System.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"

namespace platform {
namespace {

constexpr mode_t kSegmentMode = 0666;

/// Maps the table for as long as it lives. A segment that is too short is never mapped: touching
/// what lies beyond its end would kill the process.
class MappedTable {
public:
    MappedTable(const UniqueFd& segment, int protection) {
        struct stat facts = {};
        if (!segment.valid() || ::fstat(segment.get(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
            facts.st_size < static_cast<off_t>(sizeof(HeartbeatTable))) {
            return;
        }
        void* address =
            ::mmap(nullptr, sizeof(HeartbeatTable), protection, MAP_SHARED, segment.get(), 0);
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
    if ((facts.st_mode & 07777) != kSegmentMode) {
        (void)::fchmod(segment.get(), kSegmentMode);
    }
}

bool hasHeader(const HeartbeatTable& table) {
    return table.magic.load() == kHeartbeatMagic && table.slotCount.load() == kHeartbeatSlots;
}

/// Writes the header where it is missing. A new segment is all zero, so any number of processes may
/// do this at once; a damaged one is emptied, and each process is back with its next beat.
void settleHeader(HeartbeatTable& table) {
    if (hasHeader(table)) {
        return;
    }
    if (table.magic.load() != 0) {
        for (HeartbeatSlot& slot : table.slots) {
            slot.pid.store(0);
        }
    }
    table.slotCount.store(kHeartbeatSlots);
    table.magic.store(kHeartbeatMagic);
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
    return static_cast<std::uint32_t>(monotonicMilliseconds());
}

HeartbeatSlot* findSlot(HeartbeatTable& table, pid_t pid) {
    for (HeartbeatSlot& slot : table.slots) {
        if (slot.pid.load() == pid) {
            return &slot;
        }
    }
    return nullptr;
}

/// The pid word of a slot that `pid` is claiming; and back. Defined for every value that a damaged
/// segment may hold.
std::int32_t claimMark(std::int32_t pid) {
    return static_cast<std::int32_t>(0U - static_cast<std::uint32_t>(pid));
}

/// True when the process that has or claims a slot is gone, or its pid belongs to another by now.
bool isAbandoned(const HeartbeatSlot& slot, pid_t holder) {
    const pid_t pid = holder > 0 ? holder : claimMark(holder);
    if (sendSignal(pid, 0) != 0 && errno != EPERM) {
        return true;
    }
    return holder > 0 && !isSameStart(slot.startTime.load(), startTimeOf(pid));
}

/// Takes the first slot for which `isWanted(slot, holder)` holds, for the claimant `pid`; null when
/// there is none. The slot is then being claimed.
template <typename Wanted>
HeartbeatSlot* claimSlotIf(HeartbeatTable& table, pid_t pid, Wanted isWanted) {
    for (HeartbeatSlot& slot : table.slots) {
        std::int32_t holder = slot.pid.load();
        if (isWanted(slot, holder) && slot.pid.compare_exchange_strong(holder, claimMark(pid))) {
            return &slot;
        }
    }
    return nullptr;
}

HeartbeatSlot* claimSlot(HeartbeatTable& table, pid_t pid) {
    HeartbeatSlot* const free = claimSlotIf(
        table, pid, [](const HeartbeatSlot&, std::int32_t holder) { return holder == 0; });
    return free != nullptr ? free : claimSlotIf(table, pid, isAbandoned);
}

} // namespace

void HeartbeatRegistry::notify() const {
    const UniqueFd segment = openSegment(name_, O_RDWR | O_CREAT);
    settleSegment(segment);
    const MappedTable mapping(segment, PROT_READ | PROT_WRITE);
    HeartbeatTable* const table = mapping.get();
    if (table == nullptr) {
        return;
    }
    settleHeader(*table);
    const pid_t self = currentProcessId();
    HeartbeatSlot* slot = findSlot(*table, self);
    if (slot == nullptr) {
        slot = claimSlot(*table, self);
    }
    if (slot == nullptr) {
        return;
    }
    // In this order a check never sees a valid pid and start time beside an older time.
    slot->lastBeat.store(beatClock());
    slot->startTime.store(startTimeOf(self));
    slot->pid.store(self);
}

int HeartbeatRegistry::check(pid_t pid, int expireSeconds) const {
    const MappedTable mapping(openSegment(name_, O_RDONLY), PROT_READ);
    HeartbeatTable* const table = mapping.get();
    if (pid <= 0 || table == nullptr || !hasHeader(*table)) {
        return kHeartbeatNone;
    }
    const HeartbeatSlot* const slot = findSlot(*table, pid);
    if (slot == nullptr || !isSameStart(slot->startTime.load(), startTimeOf(pid))) {
        return kHeartbeatNone;
    }
    // The clock is read after the beat, so that the age cannot be negative.
    const std::uint32_t lastBeat = slot->lastBeat.load();
    const std::uint32_t ageMs = beatClock() - lastBeat;
    return ageMs > expireSeconds * std::int64_t{1000} ? kHeartbeatExpired : kHeartbeatFresh;
}

void HeartbeatRegistry::cleanup(pid_t pid) const {
    const pid_t holder = pid == -1 ? currentProcessId() : pid;
    const UniqueFd segment = openSegment(name_, O_RDWR);
    const MappedTable mapping(segment, PROT_READ | PROT_WRITE);
    HeartbeatTable* const table = mapping.get();
    if (holder <= 0 || table == nullptr || !hasHeader(*table)) {
        return;
    }
    for (HeartbeatSlot& slot : table->slots) {
        std::int32_t expected = holder;
        slot.pid.compare_exchange_strong(expected, 0);
    }
}

} // namespace platform

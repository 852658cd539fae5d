// The heartbeat registry: a table in POSIX shared memory in which every process keeps the time of
// its last beat.

#ifndef OVARD_PLATFORM_LINUX_HEARTBEAT_REGISTRY_H
#define OVARD_PLATFORM_LINUX_HEARTBEAT_REGISTRY_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace platform {

inline constexpr std::uint32_t kHeartbeatMagic = 0x4D484254;
inline constexpr std::uint32_t kHeartbeatSlots = 256;

/// One process in the table. A slot is free (pid 0), being claimed (the negative pid of the
/// claimant, whose times are not valid yet) or taken (pid).
struct HeartbeatSlot {
    std::atomic<std::int32_t> pid;
    std::atomic<std::uint32_t> startTime; ///< clock ticks since boot, low 32 bits; 0 unknown
    std::atomic<std::uint32_t> lastBeat;  ///< milliseconds of CLOCK_MONOTONIC modulo 2^32
    std::uint32_t reserved;
};

/// The whole segment, in the byte order of the machine. Only 32-bit words, because 64-bit atomics
/// are not free of locks on every target.
struct HeartbeatTable {
    std::atomic<std::uint32_t> magic;
    std::atomic<std::uint32_t> slotCount;
    std::uint32_t reserved[2];
    HeartbeatSlot slots[kHeartbeatSlots];
};

static_assert(std::atomic<std::int32_t>::is_always_lock_free &&
              sizeof(std::atomic<std::int32_t>) == 4);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free &&
              sizeof(std::atomic<std::uint32_t>) == 4);
static_assert(std::is_standard_layout_v<HeartbeatTable>);
static_assert(sizeof(HeartbeatSlot) == 16 && sizeof(HeartbeatTable) == 4112);
static_assert(offsetof(HeartbeatSlot, startTime) == 4 && offsetof(HeartbeatSlot, lastBeat) == 8);
static_assert(offsetof(HeartbeatTable, slotCount) == 4 && offsetof(HeartbeatTable, slots) == 16);

/// Access to the registry in the segment `name`. The segment is opened anew for every call, so that
/// one which was removed or shortened meanwhile is noticed. Nothing blocks; any thread.
class HeartbeatRegistry {
public:
    /// `name` must outlive the object.
    explicit HeartbeatRegistry(const char* name)
        : name_(name) {}

    /// Refreshes the caller's slot; creates the segment, or repairs a damaged one, where needed.
    void notify() const;

    /// kHeartbeatFresh, kHeartbeatExpired (older than `expireSeconds`) or kHeartbeatNone.
    int check(pid_t pid, int expireSeconds) const;

    /// Frees the slot of `pid`; -1 means the caller.
    void cleanup(pid_t pid) const;

private:
    const char* name_;
};

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_HEARTBEAT_REGISTRY_H

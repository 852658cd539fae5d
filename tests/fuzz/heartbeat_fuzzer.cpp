// The heartbeat registry, in a segment of its own that holds whatever another program has left
// there: beat, check and clean-up.
//
// The input is the size of the segment (see `readSize`), its header, and then its slots, a letter
// with its values each: see `readSlot`. What it leaves out is like the last slot.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "platform/Heartbeat.h"
#include "platform/Process.h"
#include "platform/UniqueFd.h"
#include "platform/linux/HeartbeatRegistry.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/Require.h"

using fuzz::Input;
using fuzz::require;
using platform::HeartbeatRegistry;

namespace {

/// One slot as it lies in the segment, and the whole of it.
struct Slot {
    std::int32_t pid;
    std::uint32_t startTime;
    std::uint32_t lastBeat;
    std::uint32_t reserved;
};

struct Table {
    std::uint32_t magic;
    std::uint32_t slotCount;
    std::uint32_t reserved[2];
    Slot slots[256];
};

static_assert(sizeof(Table) == sizeof(platform::HeartbeatTable));

constexpr std::uint32_t kMagic = 0x4D484254;
constexpr std::uint32_t kSlotCount = 256;
constexpr int kExpireSec = 30;

/// A process that lives as long as this one and is another one.
constexpr std::int32_t kOtherPid = 1;

const std::string& segmentName() {
    static const std::string name = "/ovard-fuzz-heartbeat-" + std::to_string(::getpid());
    return name;
}

std::uint32_t ownStartTime() {
    statstruct_proc info = {};
    require(get_proc_info_by_pid(::getpid(), &info) == 0, "a process knows itself");
    return static_cast<std::uint32_t>(info.starttime);
}

/// That of the table, or, behind a '-', any up to twice as much, in two bytes.
std::size_t readSize(Input& input) {
    return input.letter() == '-' ? input.wideAmount(2 * sizeof(Table)) : sizeof(Table);
}

Slot readSlot(Input& input) {
    const std::int32_t self = ::getpid();
    static const std::uint32_t start = ownStartTime();
    switch (input.letter()) {
    case 's': // this process
        return {self, start, static_cast<std::uint32_t>(input.figure()), 0};
    case 'e': // an earlier process with the same pid
        return {self, start + 1, 0, 0};
    case 'c': // this process, in the middle of a claim
        return {-self, 0, 0, 0};
    case 'l': // another live process
        return {kOtherPid, 0, 0, 0};
    case 'x': // any numbers
        return {input.figure(), static_cast<std::uint32_t>(input.figure()),
                static_cast<std::uint32_t>(input.figure()),
                static_cast<std::uint32_t>(input.figure())};
    default: // free
        return {0, 0, 0, 0};
    }
}

Table readTable(Input& input) {
    Table table = {};
    const unsigned damage = input.bits();
    table.magic = (damage & 1) != 0 ? static_cast<std::uint32_t>(input.figure()) : kMagic;
    table.slotCount = (damage & 2) != 0 ? static_cast<std::uint32_t>(input.figure()) : kSlotCount;
    Slot slot = {};
    for (Slot& each : table.slots) {
        slot = input.atEnd() ? slot : readSlot(input);
        each = slot;
    }
    return table;
}

/// The segment under the private name, with `size` bytes of `table` and zeros behind them.
class Segment {
public:
    Segment(const Table& table, std::size_t size)
        : file_(::shm_open(segmentName().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600)) {
        const std::size_t filled = std::min(size, sizeof table);
        require(::write(file_.get(), &table, filled) == static_cast<ssize_t>(filled) &&
                    ::ftruncate(file_.get(), static_cast<off_t>(size)) == 0,
                "the private segment can be written");
    }
    ~Segment() { ::shm_unlink(segmentName().c_str()); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    Table content() const {
        Table table = {};
        require(::pread(file_.get(), &table, sizeof table, 0) == sizeof table,
                "a beat gives the segment its size");
        return table;
    }

private:
    platform::UniqueFd file_;
};

bool hasHeader(const Table& table) {
    return table.magic == kMagic && table.slotCount == kSlotCount;
}

bool isOther(const Slot& slot) {
    return slot.pid == kOtherPid && slot.startTime == 0;
}

/// No process has, or claims under, such a pid.
bool isAbandoned(const Slot& slot) {
    constexpr std::int32_t kMostPids = 1 << 22;
    return slot.pid > kMostPids || slot.pid < -kMostPids;
}

/// A beat finds a slot wherever one is free, abandoned, or the caller's own.
bool offersSlot(const Table& table) {
    const std::int32_t self = ::getpid();
    return std::any_of(std::begin(table.slots), std::end(table.slots), [self](const Slot& slot) {
        return slot.pid == self || slot.pid == 0 || isAbandoned(slot);
    });
}

/// The slots of another live process are left alone.
void examineOthers(const Table& before, const Table& after) {
    for (std::size_t index = 0; index < kSlotCount; ++index) {
        require(!isOther(before.slots[index]) ||
                    std::memcmp(&before.slots[index], &after.slots[index], sizeof(Slot)) == 0,
                "a beat takes no slot from a live process");
    }
}

void examineBeat(const HeartbeatRegistry& registry, const Segment& segment, const Table& before) {
    registry.notify();
    const Table after = segment.content();
    require(hasHeader(after), "a beat repairs the header");
    if (before.magic == 0 || hasHeader(before)) {
        examineOthers(before, after);
    }
    const bool isEmptied = !hasHeader(before) && before.magic != 0;
    require(!(isEmptied || offersSlot(before)) ||
                registry.check(::getpid(), kExpireSec) == platform::kHeartbeatFresh,
            "a process that beats is fresh");
}

void examineCheck(const HeartbeatRegistry& registry, int pid, int expireSec) {
    const int result = registry.check(pid, expireSec);
    require(result >= platform::kHeartbeatFresh && result <= platform::kHeartbeatNone,
            "a check has one of three results");
    require(pid > 0 || result == platform::kHeartbeatNone, "what is no process has no heartbeat");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t segmentSize = readSize(input);
    const int checkedPid = input.figure();
    const int expireSec = input.figure();
    const Table table = readTable(input);
    const Segment segment(table, segmentSize);
    const HeartbeatRegistry registry(segmentName().c_str());

    examineCheck(registry, checkedPid, expireSec);
    examineCheck(registry, ::getpid(), expireSec);
    Table whole = {};
    std::memcpy(&whole, &table, std::min(segmentSize, sizeof table));
    examineBeat(registry, segment, whole);
    registry.cleanup(-1);
    require(registry.check(::getpid(), kExpireSec) == platform::kHeartbeatNone,
            "nothing is left after the clean-up");
    registry.cleanup(checkedPid);
    require(hasHeader(segment.content()), "the clean-up leaves the registry in order");
    return 0;
}

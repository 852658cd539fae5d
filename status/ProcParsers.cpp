#include "status/ProcParsers.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "platform/Console.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "status/InstrumentTime.h"
#include "status/TextScanner.h"

namespace status {
namespace {

/// What is returned when figures are missing, but for /proc/stat.
constexpr int kIncomplete = -2;

constexpr double kSecondsPerHour = 3600.0;
constexpr std::int64_t kMillisecondsPerSecond = 1000;

constexpr std::uint32_t kInterruptsBit = 1U << 28;
constexpr std::uint32_t kContextSwitchesBit = 1U << 29;
constexpr std::uint32_t kBootTimeBit = 1U << 30;

/// Period that data rates are taken over, in seconds, and bytes in a kilobyte.
constexpr double kRatePeriodSec = 5.0;
constexpr double kBytesPerKilobyte = 1024.0;

/// Figures of a line of /proc/net/dev: those needed, and those looked at.
constexpr std::size_t kLeastNetworkFigures = 13;
constexpr std::size_t kMostNetworkFigures = 16;

void traceWord(const char* label, std::string_view word) {
    platform::trace(verbose >= 6, "%s%.*s\n", label, static_cast<int>(word.size()), word.data());
}

// --- /proc/stat ----------------------------------------------------------------------------------

void publish(const CpuShares& shares, systeminfo_struct& info) {
    info.cpuload_user = shares.user;
    info.cpuload_sys = shares.sys;
    info.cpuload_nice = shares.nice;
    info.cpuload_idle = shares.idle;
    info.cpuload_iowait = shares.iowait;
    info.cpuload_irq = shares.irq;
    info.cpuload_softirq = shares.softirq;
}

/// Takes one line of /proc/stat; the bits of what was found in it.
std::uint32_t takeStatLine(std::string_view line, CpuTicks& ticks, systeminfo_struct& info) {
    Words words(line);
    std::string_view key;
    std::string_view figure;
    (void)words.next(key); // No line is empty.
    if (isCpuLine(key)) {
        return takeCpuFigures(line, ticks);
    }
    if (!words.next(figure)) {
        return 0;
    }
    if (startsWith(key, "intr")) {
        traceWord(" ? intr  : ", figure);
        info.interrupts = toInt64(figure);
        return kInterruptsBit;
    }
    if (startsWith(key, "ctxt")) {
        traceWord(" ? ctxt  : ", figure);
        info.context_switches = toInt64(figure);
        return kContextSwitchesBit;
    }
    if (startsWith(key, "btime")) {
        traceWord(" ? btime  : ", figure);
        storeTimeStamp(info.boot_time, toInt32(figure) * kMillisecondsPerSecond);
        return kBootTimeBit;
    }
    return 0;
}

// --- /proc/meminfo -------------------------------------------------------------------------------

struct MemoryKey {
    std::string_view key;
    std::int32_t systeminfo_struct::*field;
};

constexpr std::array<MemoryKey, 7> kMemoryKeys = {{
    {"MemTotal:", &systeminfo_struct::memload_total},
    {"MemFree:", &systeminfo_struct::memload_free},
    {"Buffers", &systeminfo_struct::memload_buffers},
    {"Cached:", &systeminfo_struct::memload_cached},
    {"Active:", &systeminfo_struct::memload_active},
    {"Inactive:", &systeminfo_struct::memload_inactive},
    {"Shmem:", &systeminfo_struct::memload_shared},
}};

/// Takes one line of /proc/meminfo; the bit of the key in it, 0 when it is none of ours.
std::uint32_t takeMemoryLine(std::string_view line, systeminfo_struct& info) {
    for (std::size_t index = 0; index < kMemoryKeys.size(); ++index) {
        const MemoryKey& wanted = kMemoryKeys[index];
        if (!startsWith(line, wanted.key)) {
            continue;
        }
        std::string_view figure = line.substr(wanted.key.size());
        if (startsWith(figure, ":")) {
            figure.remove_prefix(1);
        }
        const std::int32_t value = toInt32(figure);
        info.*wanted.field = value;
        if (wanted.field == &systeminfo_struct::memload_free) {
            info.memload_used =
                static_cast<std::int32_t>(std::int64_t{info.memload_total} - info.memload_free);
        }
        platform::trace(verbose >= 6, " ? %.*s %d\n", static_cast<int>(wanted.key.size()),
                        wanted.key.data(), value);
        return 1U << index;
    }
    return 0;
}

// --- /proc/net/dev -------------------------------------------------------------------------------

/// The figures of one line of /proc/net/dev, by their column, counted from 0.
struct NetworkFigures {
    std::array<std::string_view, kMostNetworkFigures> words;
    std::size_t count = 0;
};

NetworkFigures networkFigures(std::string_view line, const char* interface) {
    NetworkFigures figures;
    Words words(line);
    std::string_view word;
    while (figures.count < figures.words.size() && words.next(word)) {
        platform::trace(verbose >= 6, " ? %s[%zu]: %.*s\n", interface, figures.count,
                        static_cast<int>(word.size()), word.data());
        figures.words[figures.count++] = word;
    }
    return figures;
}

void takeNetworkFigures(const NetworkFigures& figures, netstatus_struct& status) {
    const auto& words = figures.words;
    status.rx_byte = toInt64(words[0]);
    status.rx_packet = toInt64(words[1]);
    status.rx_totalerror = toInt32(words[2]);
    status.rx_droperror = toInt32(words[3]);
    status.rx_fifoerror = toInt32(words[4]);
    status.rx_frameerror = toInt32(words[5]);
    status.tx_byte = toInt64(words[8]);
    status.tx_packet = toInt64(words[9]);
    status.tx_totalerror = toInt32(words[10]);
    status.tx_droperror = toInt32(words[11]);
    status.tx_fifoerror = toInt32(words[12]);
    if (figures.count > kLeastNetworkFigures) {
        status.tx_collision = toInt32(words[13]);
    }
}

/// Kilobytes per second from the growth of a counter.
float dataRate(std::int64_t now, std::int64_t before) {
    // Modulo 2^64, so that no text can overflow it.
    const auto growth = static_cast<std::int64_t>(static_cast<std::uint64_t>(now) -
                                                  static_cast<std::uint64_t>(before));
    return static_cast<float>(static_cast<double>(growth) / kRatePeriodSec / kBytesPerKilobyte);
}

/// Takes the line of one interface, without its label; false when it holds too little.
bool takeNetworkLine(std::string_view line, const char* interface, const ByteCounters& previous,
                     ByteCounters& current, netstatus_struct& status) {
    const NetworkFigures figures = networkFigures(line, interface);
    if (figures.count < kLeastNetworkFigures) {
        return false;
    }
    takeNetworkFigures(figures, status);
    current = {status.rx_byte, status.tx_byte};
    status.rx_datarate = dataRate(current.rx, previous.rx);
    status.tx_datarate = dataRate(current.tx, previous.tx);
    return true;
}

/// The figures of one interface as the trace shows them, a line each.
class NetworkTrace {
public:
    explicit NetworkTrace(const char* interface)
        : interface_(interface) {}

    void addCount(const char* field, std::int64_t value) {
        char figure[32];
        (void)std::snprintf(figure, sizeof figure, "%lld", static_cast<long long>(value));
        addLine(field, figure);
    }

    void addRate(const char* field, float value) {
        char figure[32];
        (void)std::snprintf(figure, sizeof figure, "%g", static_cast<double>(value));
        addLine(field, figure);
    }

    std::string_view text() const { return {text_, length_}; }

private:
    void addLine(const char* field, const char* figure) {
        const int count =
            std::snprintf(text_ + length_, sizeof text_ - length_,
                          "sys.sysinfo.netstatus.%s.%-14s= %s\n", interface_, field, figure);
        length_ = std::min(length_ + static_cast<std::size_t>(count), sizeof text_ - 1);
    }

    const char* interface_;
    char text_[2048];
    std::size_t length_ = 0;
};

void traceNetwork(const char* interface, const netstatus_struct& status) {
    if (verbose < 5) {
        return;
    }
    NetworkTrace trace(interface);
    trace.addCount("rx.byte", status.rx_byte);
    trace.addCount("rx.packet", status.rx_packet);
    trace.addCount("rx.totalerror", status.rx_totalerror);
    trace.addCount("rx.droperror", status.rx_droperror);
    trace.addCount("rx.fifoerror", status.rx_fifoerror);
    trace.addCount("rx.frameerror", status.rx_frameerror);
    trace.addRate("rx.datarate", status.rx_datarate);
    trace.addCount("tx.byte", status.tx_byte);
    trace.addCount("tx.packet", status.tx_packet);
    trace.addCount("tx.totalerror", status.tx_totalerror);
    trace.addCount("tx.droperror", status.tx_droperror);
    trace.addCount("tx.fifoerror", status.tx_fifoerror);
    trace.addCount("tx.collision", status.tx_collision);
    trace.addRate("tx.datarate", status.tx_datarate);
    platform::printConsole(trace.text());
}

} // namespace

int readUptime(std::string_view text, systeminfo_struct& info) {
    std::string_view line;
    std::string_view uptime;
    std::string_view idle;
    (void)Lines(text).next(line); // An empty text has no words either.
    Words words(line);
    if (!words.next(uptime) || !words.next(idle)) {
        return kIncomplete;
    }
    const double uptimeSec = toDouble(uptime);
    info.runtime_uptime = static_cast<float>(uptimeSec / kSecondsPerHour);
    info.runtime_idletime = static_cast<float>(toDouble(idle) * 100.0 / uptimeSec);
    platform::trace(verbose >= 5,
                    "sys.sysinfo.runtime.uptime   = %g\n"
                    "sys.sysinfo.runtime.idletime = %g\n",
                    static_cast<double>(info.runtime_uptime),
                    static_cast<double>(info.runtime_idletime));
    return 0;
}

int readLoadAverages(std::string_view text, systeminfo_struct& info) {
    std::string_view line;
    std::array<std::string_view, 3> figures;
    (void)Lines(text).next(line); // An empty text has no words either.
    Words words(line);
    for (std::string_view& figure : figures) {
        if (!words.next(figure)) {
            return kIncomplete;
        }
    }
    info.loadavg_1min = static_cast<float>(toDouble(figures[0]));
    info.loadavg_5min = static_cast<float>(toDouble(figures[1]));
    info.loadavg_15min = static_cast<float>(toDouble(figures[2]));
    platform::trace(verbose >= 5,
                    "sys.sysinfo.runtime.loadavg_1min  = %g\n"
                    "sys.sysinfo.runtime.loadavg_5min  = %g\n"
                    "sys.sysinfo.runtime.loadavg_15min = %g\n",
                    static_cast<double>(info.loadavg_1min), static_cast<double>(info.loadavg_5min),
                    static_cast<double>(info.loadavg_15min));
    return 0;
}

int readStat(std::string_view text, CpuSamples& samples, systeminfo_struct& info) {
    constexpr std::uint32_t kExpected =
        kAllCpuFigures | kInterruptsBit | kContextSwitchesBit | kBootTimeBit;
    std::uint32_t found = 0;
    Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        found |= takeStatLine(line, samples.current, info);
    }
    if ((found & kAllCpuFigures) == kAllCpuFigures) {
        publish(cpuShares(samples), info);
    }
    return (found & kExpected) == kExpected ? 0 : static_cast<int>(~found);
}

int readMemory(std::string_view text, systeminfo_struct& info) {
    std::uint32_t found = 0;
    Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        found |= takeMemoryLine(line, info);
    }
    platform::trace(verbose >= 5,
                    "sys.sysinfo.memload.total    = %d\n"
                    "sys.sysinfo.memload.free     = %d\n"
                    "sys.sysinfo.memload.used     = %d\n"
                    "sys.sysinfo.memload.buffers  = %d\n"
                    "sys.sysinfo.memload.cached   = %d\n"
                    "sys.sysinfo.memload.active   = %d\n"
                    "sys.sysinfo.memload.inactive = %d\n"
                    "sys.sysinfo.memload.shared   = %d\n",
                    info.memload_total, info.memload_free, info.memload_used, info.memload_buffers,
                    info.memload_cached, info.memload_active, info.memload_inactive,
                    info.memload_shared);
    return found == (1U << kMemoryKeys.size()) - 1 ? 0 : kIncomplete;
}

int readNetwork(std::string_view text, NetworkSamples& samples, systeminfo_struct& info) {
    constexpr std::string_view kEth0 = "eth0:";
    constexpr std::string_view kEth1 = "eth1:";
    bool hasEth0 = false;
    bool hasEth1 = false;
    Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        // The first figure may follow the label without a blank.
        if (startsWith(line, kEth0)) {
            hasEth0 |= takeNetworkLine(line.substr(kEth0.size()), "eth0", samples.eth0Previous,
                                       samples.eth0, info.netstatus_eth0);
        } else if (startsWith(line, kEth1)) {
            hasEth1 |= takeNetworkLine(line.substr(kEth1.size()), "eth1", samples.eth1Previous,
                                       samples.eth1, info.netstatus_eth1);
        }
    }
    // Deliberate: also for an interface whose line was missing, which keeps its older value.
    samples.eth0Previous = samples.eth0;
    samples.eth1Previous = samples.eth1;
    traceNetwork("eth0", info.netstatus_eth0);
    traceNetwork("eth1", info.netstatus_eth1);
    return hasEth0 && hasEth1 ? 0 : kIncomplete;
}

} // namespace status

// The segments and the publishing cycle.

#include "status/AppStatusUpdate.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "platform/ErrorOf.h"
#include "platform/MutexGuard.h"
#include "platform/Network.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "records/codes.h"
#include "status/InstrumentTime.h"

namespace {

constexpr int kSegmentFlags = O_RDWR | O_CREAT;
constexpr int kSegmentMode = 0666;

/// Bits of the health words that are set before the first cycle.
constexpr std::uint32_t kInitialIecHealth = 0x11000;
constexpr std::uint16_t kInitialSystemHealth = 0x4000;

constexpr std::size_t kIecHealthOffset = offsetof(application_segment, header.iec61850_health);
constexpr std::size_t kSystemHealthOffset = offsetof(application_segment, header.sys_health);

constexpr std::int64_t kMillisecondsPerSecond = 1000;

constexpr const char* kStartTimeFormat = "%Y-%m-%d %H:%M:%S";

/// Pause after each application, so that a large registry does not hold the processor.
constexpr int kApplicationPauseMs = 1;

template <std::size_t Size>
void takeAddress(const char* interface, int family, char (&field)[Size]) {
    // Without an address the text becomes empty.
    (void)getIpAddress(interface, family, field, static_cast<int>(Size), 0, 0);
    platform::terminateField(field);
}

/// Copies the whole image into the segment. 0 or errno.
int publish(ShmUpdate& segment, const void* image, std::size_t size) {
    const int repairError = platform::errorOf([&] { return segment.remapShm() == 0; });
    const int error = platform::errorOf([&] { return segment.writeData(image, size) == 0; });
    return error == 0 || repairError == 0 ? error : repairError;
}

const char* portTypeName(std::int32_t type) {
    return PORT_TYPE_STR[type >= PORT_TYPE_NONE && type <= PORT_TYPE_ETH ? type : PORT_TYPE_NONE];
}

void traceRecord(const appinfo& app, const application_record& record) {
    if (verbose > 7) {
        platform::trace(true,
                        "getAppInfo: '%s'\n"
                        "\tversion    = %s\n"
                        "\tpid        = %d\n"
                        "\tnice       = %d\n"
                        "\tstatus     = %s\n"
                        "\tuptime     = %u\n"
                        "\tstart_time = %s\n",
                        record.name, record.version, record.pid, record.nice, record.status,
                        record.uptime,
                        platform::localTimeText(app.start_time, kStartTimeFormat).c_str());
    }
}

} // namespace

AppStatusUpdate::AppStatusUpdate() {
    applicationImage_.header.count = 1;
    (void)initBootTimeVars(); // Tried again by whoever finds the figures missing.

    // Deliberate: the segment is not open yet, so the bits stay in the image and reach the segment
    // with the first cycle.
    application_header& header = applicationImage_.header;
    (void)appShm.loadOffsetData(&header.iec61850_health, sizeof header.iec61850_health,
                                sizeof applicationImage_, kIecHealthOffset);
    header.iec61850_health |= kInitialIecHealth;
    (void)appShm.writeOffsetData(&header.iec61850_health, sizeof header.iec61850_health,
                                 sizeof applicationImage_, kIecHealthOffset);
    (void)appShm.loadOffsetData(&header.sys_health, sizeof header.sys_health,
                                sizeof applicationImage_, kSystemHealthOffset);
    header.sys_health = static_cast<std::uint16_t>(header.sys_health | kInitialSystemHealth);
    (void)appShm.writeOffsetData(&header.sys_health, sizeof header.sys_health,
                                 sizeof applicationImage_, kSystemHealthOffset);
}

AppStatusUpdate::~AppStatusUpdate() {
    closeUserShm();
}

int AppStatusUpdate::initUserShm(std::vector<appinfo>& applist, bool discover) {
    // Failures are made up for by the cycles.
    (void)sysShm.openShm(kSystemSegmentName, kSegmentFlags, kSegmentMode, sizeof systemImage_);
    (void)appShm.openShm(kApplicationSegmentName, kSegmentFlags, kSegmentMode,
                         sizeof applicationImage_);
    (void)sysShm.clearData();
    if (discover) {
        (void)initAppInfoWithoutPidFile(applist); // Always 0.
    }
    if (!platform::terminationPending()) { // Else the next monitor could adopt nothing.
        (void)appShm.clearData();
    }
    return 0;
}

void AppStatusUpdate::closeUserShm() {
    (void)sysShm.closeShm();
    (void)appShm.closeShm();
}

int AppStatusUpdate::updateUserShm(std::vector<appinfo>& applist) {
    (void)getMeterInfo();
    (void)getSysInfo(); // What could not be read keeps its last value.
    (void)getAppInfo(applist);
    if (applist.size() <= std::size_t{kMostPublishedApplications}) {
        (void)updateAppInfo();
    }
    (void)updateSysInfo();
    return 0;
}

int AppStatusUpdate::getMeterInfo() {
    meterinfo_struct& meter = systemImage_.meter;
    utsname identity = {};
    if (platform::identifyKernel(identity) == 0) {
        platform::copyToField(meter.kernel_release, platform::fieldText(identity.release));
        platform::copyToField(meter.kernel_version, platform::fieldText(identity.version));
    }
    takeAddress("eth0", AF_INET, meter.ipv4_eth0);
    takeAddress("eth1", AF_INET, meter.ipv4_eth1);
    takeAddress("eth0", AF_INET6, meter.ipv6_eth0);
    takeAddress("eth1", AF_INET6, meter.ipv6_eth1);
    try {
        traceMeterInfo();
    } catch (...) {
        // Publication goes on without the trace.
    }
    return 0;
}

void AppStatusUpdate::traceMeterInfo() const {
    const meterinfo_struct& meter = systemImage_.meter;
    platform::trace(verbose >= 5,
                    "sys.kernel.name    = %s\n"
                    "sys.kernel.version = %s\n"
                    "sys.ipaddr.v4.eth0 = %s\n"
                    "sys.ipaddr.v4.eth1 = %s\n"
                    "sys.ipaddr.v6.eth0 = %s\n"
                    "sys.ipaddr.v6.eth1 = %s\n",
                    meter.kernel_release, meter.kernel_version, meter.ipv4_eth0, meter.ipv4_eth1,
                    meter.ipv6_eth0, meter.ipv6_eth1);
}

int AppStatusUpdate::getAppInfo(std::vector<appinfo>& applist) {
    fillHeader(applist.size());
    std::size_t index = 0;
    for (const appinfo& entry : applist) {
        if (index == std::size_t{kMostPublishedApplications}) {
            break;
        }
        const appinfo app = entry;
        fillRecord(app, applicationImage_.applications[index]);
        traceRecord(app, applicationImage_.applications[index]);
        platform::sleepMilliseconds(kApplicationPauseMs);
        ++index;
    }
    return 0;
}

void AppStatusUpdate::fillHeader(std::size_t count) {
    applicationImage_.header.count = static_cast<std::int32_t>(count);
    fillVersionTexts();
}

void AppStatusUpdate::fillVersionTexts() {
    application_header& header = applicationImage_.header;
    header.maximum = kMostPublishedApplications;
    platform::copyToField(header.file_version, g_fileVersion);
    platform::copyToField(header.file_date, g_fileDate);
}

void AppStatusUpdate::fillRecord(const appinfo& app, application_record& record) {
    platform::copyToField(record.name, platform::fieldText(app.name));
    platform::copyToField(record.version, platform::fieldText(app.version));
    platform::trace(verbose > 3, "getAppInfo: '%s' pid=%d, pidfile=\"%s\", cmd=\"%s\"\n",
                    record.name, app.pid, app.pidfile, app.cmd);
    status::storeTimeStamp(record.start_time, app.start_time * kMillisecondsPerSecond);
    record.pid = app.pid;
    if (app.status >= APP_STATUS_STARTING0 && app.status <= APP_STATUS_STOPPED) {
        platform::copyToField(record.status, OVARD_APP_STATUS_STR[app.status]);
    } // Deliberate: else the field keeps what it held.
    record.nice = app.priority;
    record.restart_type = app.restart_type;
    record.last_runtime_life_limit = app.last_runtime_life_limit;
    platform::copyToField(record.port_type, portTypeName(app.port_type));
    record.port_num = app.port_num;
    record.uptime = static_cast<std::uint32_t>(app.uptime);
}

int AppStatusUpdate::updateSysInfo() {
    const platform::MutexGuard lock(statisticsLock_);
    systemSegmentError_ = publish(sysShm, &systemImage_, sizeof systemImage_);
    return 0;
}

int AppStatusUpdate::updateAppInfo() {
    applicationSegmentError_ = publish(appShm, &applicationImage_, sizeof applicationImage_);
    return 0;
}

int AppStatusUpdate::updateMeterInfo() {
    const auto write = [this](const auto& text, std::size_t offset) {
        // The next cycle writes it again.
        (void)sysShm.writeOffsetData(text, sizeof text, sizeof systemImage_, offset);
    };
    const meterinfo_struct& meter = systemImage_.meter;
    write(meter.kernel_release, offsetof(meterinfo_struct, kernel_release));
    write(meter.kernel_version, offsetof(meterinfo_struct, kernel_version));
    write(meter.ipv4_eth0, offsetof(meterinfo_struct, ipv4_eth0));
    write(meter.ipv4_eth1, offsetof(meterinfo_struct, ipv4_eth1));
    write(meter.ipv6_eth0, offsetof(meterinfo_struct, ipv6_eth0));
    write(meter.ipv6_eth1, offsetof(meterinfo_struct, ipv6_eth1));
    return 0;
}

void AppStatusUpdate::set_sys_health(short /*value*/) {
    applicationImage_.header.sys_health = 0;
}

int AppStatusUpdate::update_IEC61850_health(short* /*value*/) {
    std::uint32_t& health = applicationImage_.header.iec61850_health;
    const int result =
        appShm.loadOffsetData(&health, sizeof health, sizeof applicationImage_, kIecHealthOffset);
    applicationImage_.header.sys_health = 0;
    return result;
}

int AppStatusUpdate::initBootTimeVars() {
    const platform::MutexGuard lock(statisticsLock_);
    (void)parseProcStat(systemImage_.sysinfo); // Also takes the first sample of the processor.
    const long uptimeSec = platform::uptimeSeconds();
    if (uptimeSec >= 0) {
        const std::int64_t bootTime = std::int64_t{platform::currentTime()} - uptimeSec;
        bootTime_ = static_cast<std::uint32_t>(bootTime);
        zortime8b time;
        getZortime8BFromTimeT(&time, static_cast<std::time_t>(bootTime));
        std::memcpy(systemImage_.sysinfo.boot_time, time.bytes, sizeof time.bytes);
    } else {
        platform::trace(true, "Error %d obtaining boot time\n", errno);
    }
    clockTicks_ = static_cast<std::int32_t>(platform::clockTicksPerSecond());
    return clockTicks_;
}

std::int32_t AppStatusUpdate::startTimeOf(const statstruct_proc& info) const {
    const auto ticks = static_cast<std::uint64_t>(clockTicks_.load());
    return static_cast<std::int32_t>(bootTime_ + info.starttime / ticks);
}

std::uint64_t AppStatusUpdate::clockTicksAt(std::time_t time) const {
    const std::int64_t sinceBootSec = platform::secondsSince(bootTime_, time);
    return sinceBootSec > 0 ? static_cast<std::uint64_t>(sinceBootSec * clockTicks_) : 0;
}

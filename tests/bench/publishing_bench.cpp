// What one publishing cycle costs beyond the system calls that it cannot do without.
//
// A bare loop that makes the very same calls - reads the same files, asks for the same addresses,
// writes as much into as many segments - is the yardstick. The cycle's deliberate pauses are left
// out.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <ifaddrs.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "records/segments.h"
#include "status/AppStatusUpdate.h"
#include "tests/bench/Limits.h"
#include "tests/bench/ProcessorTime.h"
#include "tests/bench/SystemCalls.h"

namespace {

constexpr int kApplications = 127;
constexpr int kRounds = 1001;
constexpr int kRepetitions = 3;
constexpr double kMostTimesTheBareLoop = 1.5;

/// The addresses that are published: IPv4 and IPv6 of two interfaces.
constexpr int kAddresses = 4;

constexpr const char* kFiles[] = {
    "/proc/uptime",
    "/proc/loadavg",
    "/proc/stat",
    "/proc/meminfo",
    "/proc/net/dev",
    "/var/lib/dhcp/dhclient.eth0.leases",
    "/var/lib/dhcp/dhclient.eth1.leases",
    "/var/lib/dhcp/dhclient6.eth0.leases",
    "/var/lib/dhcp/dhclient6.eth1.leases",
};

/// What a DHCP client has written after its second renewal.
constexpr const char* kLease = R"(lease {
  interface "eth0";
  fixed-address 192.0.2.40;
  option subnet-mask 255.255.255.0;
  option routers 192.0.2.254;
  option dhcp-lease-time 86400;
  option dhcp-message-type 5;
  option domain-name-servers 192.0.2.53,192.0.2.54;
  option dhcp-server-identifier 192.0.2.1;
  option ntp-servers 192.0.2.123;
  option smtp-server 192.0.2.25;
  option domain-name "example.net";
  renew 2 2026/01/06 10:12:13;
  rebind 2 2026/01/06 20:12:13;
  expire 2 2026/01/06 23:12:13;
}
)";
constexpr const char* kLease6 = R"(lease6 {
  interface "eth0";
  ia-na 12:34:56:78 {
    starts 1767600000;
    renew 43200;
    rebind 69120;
    iaaddr 2001:db8::40 {
      starts 1767600000;
      preferred-life 86400;
      max-life 86400;
    }
  }
  option dhcp6.client-id 0:1:0:1:12:34:56:78:0:11:22:33:44:55;
  option dhcp6.name-servers 2001:db8::53;
}
)";

constexpr int kLeasesInFile = 2;

/// False when the files could not be written.
bool writeLeases() {
    for (const char* const path : kFiles) {
        const std::string name = path;
        if (name.find("dhclient") == std::string::npos) {
            continue;
        }
        std::ofstream file(name);
        for (int lease = 0; lease < kLeasesInFile; ++lease) {
            file << (name.find("dhclient6") != std::string::npos ? kLease6 : kLease);
        }
        if (!file.flush()) {
            return false;
        }
    }
    return true;
}

std::vector<appinfo> makeApplications() {
    std::vector<appinfo> result;
    for (int number = 0; number < kApplications; ++number) {
        appinfo app = {};
        app.pid = 1000 + number;
        platform::copyToField(app.name, "application_" + std::to_string(number));
        platform::copyToField(app.version, "1.0.7");
        platform::copyToField(app.cmd, "/home/kelvo/root/application_" + std::to_string(number) +
                                           " --config /home/kelvo/conf/application.conf");
        app.status = APP_STATUS_RUNNING;
        app.start_time = 1767600000 + number;
        app.uptime = 3600;
        app.port_type = PORT_TYPE_ETH;
        app.port_num = 502 + number;
        result.push_back(app);
    }
    return result;
}

/// The cycle as the publisher makes it.
class Cycle {
public:
    Cycle() {
        std::vector<appinfo> none;
        (void)publisher_.initUserShm(none, false); // Always 0.
    }

    void run() { (void)publisher_.updateUserShm(applications_); } // Always 0.

private:
    AppStatusUpdate publisher_;
    std::vector<appinfo> applications_ = makeApplications();
};

/// The same calls and nothing else: nothing is parsed, the images are ready.
class BareLoop {
public:
    void run() {
        utsname identity = {};
        ::uname(&identity);
        for (int address = 0; address < kAddresses; ++address) {
            readAddresses();
        }
        for (const char* const file : kFiles) {
            readWhole(file);
        }
        write(kApplicationSegmentName, &applications_, sizeof applications_);
        write(kSystemSegmentName, &system_, sizeof system_);
    }

private:
    static void readAddresses() {
        ifaddrs* first = nullptr;
        if (::getifaddrs(&first) == 0) {
            ::freeifaddrs(first);
        }
    }

    void readWhole(const char* path) {
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        struct stat facts = {};
        if (fd < 0 || ::fstat(fd, &facts) != 0) {
            return;
        }
        std::size_t used = 0;
        ssize_t count = 0;
        while ((count = ::read(fd, text_ + used, sizeof text_ - used)) > 0) {
            used += static_cast<std::size_t>(count);
        }
        benchmark::DoNotOptimize(text_);
        ::close(fd);
    }

    static void write(const char* segment, const void* image, std::size_t size) {
        const int fd = ::shm_open(segment, O_RDWR | O_CREAT | O_NONBLOCK, 0666);
        struct stat facts = {};
        if (fd < 0 || ::fstat(fd, &facts) != 0) {
            return;
        }
        benchmark::DoNotOptimize(::pwrite(fd, image, size, 0));
        ::close(fd);
    }

    char text_[65536];
    system_segment system_ = {};
    application_segment applications_ = {};
};

void cycleAgainstBareLoop(benchmark::State& state) {
    Cycle cycle;
    BareLoop bareLoop;
    const auto work = [&] { cycle.run(); };
    const auto bare = [&] { bareLoop.run(); };
    int calls = 0;
    if (!writeLeases() || !bench::makeTheSameCalls(work, bare, calls)) {
        state.SkipWithError("cycle and bare loop cannot be compared");
        return;
    }
    bench::compareWithBareLoop(state, work, bare);
    state.counters[bench::kCalls] = calls;
    state.counters[bench::kLimitRatio] = kMostTimesTheBareLoop;
}
BENCHMARK(cycleAgainstBareLoop)
    ->Iterations(kRounds)
    ->Repetitions(kRepetitions)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    verbose = g_verbose; // as the monitor has it unless told otherwise
    return bench::runBenchmarksInSandbox(argc, argv);
}

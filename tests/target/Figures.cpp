#include "tests/target/Figures.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/UniqueFd.h"
#include "tests/system/Support.h"

namespace target {
namespace {

/// The numbers at the beginning of a text.
std::vector<std::int64_t> numbersIn(const std::string& text) {
    std::vector<std::int64_t> numbers;
    const char* at = text.c_str();
    for (char* end = nullptr;; at = end) {
        const std::int64_t number = std::strtoll(at, &end, 10);
        if (end == at) {
            return numbers;
        }
        numbers.push_back(number);
    }
}

/// The numbers of each line, by its first word.
std::map<std::string, std::vector<std::int64_t>> tableIn(const std::string& path) {
    std::map<std::string, std::vector<std::int64_t>> table;
    for (const std::string& line : systemtest::linesOf(systemtest::readFile(path))) {
        const std::size_t begin = line.find_first_not_of(' ');
        const std::size_t end = line.find(' ', begin);
        if (end != std::string::npos) {
            table[line.substr(begin, end - begin)] = numbersIn(line.substr(end));
        }
    }
    return table;
}

/// An IPv6 address as text, from its 32 digits.
std::string address6In(const std::string& digits) {
    in6_addr address{};
    for (std::size_t index = 0; index < sizeof address.s6_addr; ++index) {
        const std::string byte = digits.substr(2 * index, 2);
        address.s6_addr[index] = static_cast<std::uint8_t>(std::strtoul(byte.c_str(), nullptr, 16));
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    (void)::inet_ntop(AF_INET6, &address, text.data(), text.size()); // cannot fail for this family
    return text.data();
}

void takeUptime(Figures& figures) {
    std::istringstream(systemtest::readFile("/proc/uptime")) >> figures.uptimeSec >>
        figures.idleSec;
}

void takeLoadAverages(Figures& figures) {
    std::istringstream text(systemtest::readFile("/proc/loadavg"));
    for (double& average : figures.loadAverages) {
        text >> average;
    }
}

void takeStat(Figures& figures) {
    auto stat = tableIn("/proc/stat");
    const auto first = [&](const char* key) { return stat[key].empty() ? -1 : stat[key].front(); };
    figures.cpuTicks = stat["cpu"];
    figures.bootTimeSec = first("btime");
    figures.contextSwitches = first("ctxt");
    figures.interrupts = first("intr");
}

void takeMemory(Figures& figures) {
    for (const auto& [key, numbers] : tableIn("/proc/meminfo")) {
        figures.memoryKb[key.substr(0, key.find(':'))] = numbers.empty() ? -1 : numbers.front();
    }
}

void takeNetwork(Figures& figures) {
    auto network = tableIn("/proc/net/dev");
    figures.eth0 = network["eth0:"];
    figures.eth1 = network["eth1:"];
}

} // namespace

std::string addressOf(const std::string& interface) {
    const platform::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    (void)std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface.c_str());
    if (::ioctl(socket.get(), SIOCGIFADDR, &request) == -1) {
        return "";
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    std::array<char, INET_ADDRSTRLEN> text{};
    const void* const bytes = &address.sin_addr;
    return ::inet_ntop(AF_INET, bytes, text.data(), text.size()) != nullptr ? text.data() : "";
}

std::string address6Of(const std::string& interface) {
    constexpr const char* kOfTheLink = "20";
    std::istringstream table(systemtest::readFile("/proc/net/if_inet6"));
    std::string ofTheLink;
    std::string digits;
    std::string number;
    std::string prefix;
    std::string scope;
    std::string flags;
    std::string name;
    while (table >> digits >> number >> prefix >> scope >> flags >> name) {
        if (name != interface) {
            continue;
        }
        if (scope != kOfTheLink) {
            return address6In(digits);
        }
        ofTheLink = address6In(digits);
    }
    return ofTheLink;
}

Figures figuresNow() {
    Figures figures;
    takeUptime(figures);
    takeLoadAverages(figures);
    takeStat(figures);
    takeMemory(figures);
    takeNetwork(figures);
    return figures;
}

} // namespace target

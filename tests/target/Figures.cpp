#include "tests/target/Figures.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/UniqueFd.h"
#include "tests/system/Support.h"

namespace target {
namespace {

std::vector<std::int64_t> interfaceCounters(const std::string& interface) {
    std::vector<std::int64_t> counters;
    for (const std::string& word : wordsBehind("/proc/net/dev", interface + ":")) {
        counters.push_back(std::strtoll(word.c_str(), nullptr, 10));
    }
    return counters;
}

} // namespace

std::vector<std::string> wordsBehind(const std::string& path, const std::string& key) {
    for (const std::string& line : systemtest::linesOf(systemtest::readFile(path))) {
        std::istringstream stream(line);
        std::string word;
        if (stream >> word && word == key) {
            std::vector<std::string> words;
            while (stream >> word) {
                words.push_back(word);
            }
            return words;
        }
    }
    return {};
}

std::int64_t numberBehind(const std::string& path, const std::string& key, std::size_t index) {
    const std::vector<std::string> words = wordsBehind(path, key);
    return index < words.size() ? std::strtoll(words[index].c_str(), nullptr, 10) : -1;
}

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

Counters countersNow() {
    Counters counters;
    counters.uptimeSec = std::strtod(systemtest::readFile("/proc/uptime").c_str(), nullptr);
    counters.contextSwitches = numberBehind("/proc/stat", "ctxt");
    counters.interrupts = numberBehind("/proc/stat", "intr");
    counters.eth0 = interfaceCounters("eth0");
    counters.eth1 = interfaceCounters("eth1");
    return counters;
}

} // namespace target

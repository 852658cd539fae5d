#include "tests/bench/MemoryUse.h"

#include <unistd.h>

#include <climits>
#include <fstream>
#include <sstream>

namespace bench {
namespace {

std::string programOf(const std::string& directory) {
    char path[PATH_MAX];
    const ssize_t length = ::readlink((directory + "/exe").c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

bool beginsWith(const std::string& text, const char* begin) {
    return text.rfind(begin, 0) == 0;
}

std::string partOf(const std::string& mapped, const std::string& program) {
    if (mapped == "[heap]") {
        return "heap";
    }
    if (mapped == "[stack]") {
        return "stack";
    }
    if (mapped == program) {
        return "program";
    }
    if (beginsWith(mapped, "/dev/shm/")) {
        return "segments";
    }
    return beginsWith(mapped, "/") ? "libraries" : "other";
}

/// The address range, for example "7f6e3281d000-7f6e3281e000", begins the heading of a mapping.
bool isHeading(const std::string& word) {
    return word.find('-') != std::string::npos && word.back() != ':';
}

} // namespace

std::map<std::string, MemoryUse> readMemoryUse(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process);
    const std::string program = programOf(directory);
    std::ifstream mappings(directory + "/smaps");
    std::map<std::string, MemoryUse> parts;
    std::string part;
    for (std::string line; std::getline(mappings, line);) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (isHeading(word)) {
            std::string skipped;
            std::string mapped;
            words >> skipped >> skipped >> skipped >> skipped >> mapped;
            part = partOf(mapped, program);
            continue;
        }
        long kilobytes = 0;
        words >> kilobytes;
        if (word == "Rss:") {
            parts[part].rss += kilobytes;
        } else if (word == "Pss:") {
            parts[part].pss += kilobytes;
        } else if (word == "Private_Dirty:") {
            parts[part].written += kilobytes;
        }
    }
    return parts;
}

MemoryUse totalOf(const std::map<std::string, MemoryUse>& parts) {
    MemoryUse total;
    for (const auto& entry : parts) {
        total.rss += entry.second.rss;
        total.pss += entry.second.pss;
        total.written += entry.second.written;
    }
    return total;
}

} // namespace bench

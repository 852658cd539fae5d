#include "platform/InstallationDirectories.h"

#include <algorithm>
#include <array>

namespace platform {
namespace {

constexpr std::array<std::string_view, 6> kDaemonInclusionList = {
    "/mnt/runfw/home/kelvo/root/", "/mnt/runfw/home/kelvo/modbus/", "/mnt/runfw/home/kelvo/test/",
    "/home/kelvo/root/",           "/home/kelvo/modbus/",           "/home/kelvo/test/",
};

constexpr std::array<std::string_view, 6> kDaemonExclusionList = {
    "/mnt/runfw/home/kelvo/root/appmon/", "/mnt/runfw/home/kelvo/root/python_scripts/",
    "/mnt/runfw/home/kelvo/root/actl",    "/home/kelvo/root/appmon/",
    "/home/kelvo/root/python_scripts/",   "/home/kelvo/root/actl",
};

template <std::size_t Count>
bool beginsWithAny(std::string_view text, const std::array<std::string_view, Count>& prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(), [text](std::string_view prefix) {
        return text.compare(0, prefix.size(), prefix) == 0;
    });
}

} // namespace

bool isInIncludedDirectory(std::string_view commandLine) {
    return beginsWithAny(commandLine, kDaemonInclusionList);
}

bool isInExcludedDirectory(std::string_view commandLine) {
    return beginsWithAny(commandLine, kDaemonExclusionList);
}

} // namespace platform

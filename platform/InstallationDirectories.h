// Where the instrument's applications are installed: the folders in which the monitor looks for
// running daemons, and those that it leaves alone.

#ifndef OVARD_PLATFORM_INSTALLATION_DIRECTORIES_H
#define OVARD_PLATFORM_INSTALLATION_DIRECTORIES_H

#include <string_view>

namespace platform {

/// True when `commandLine` begins with one of the folders whose programs the monitor supervises.
bool isInIncludedDirectory(std::string_view commandLine);

/// True when `commandLine` begins with one of the prefixes that are never taken for an application.
/// Deliberate: the "actl" prefixes have no trailing slash, so they cover every longer name too.
bool isInExcludedDirectory(std::string_view commandLine);

} // namespace platform

#endif // OVARD_PLATFORM_INSTALLATION_DIRECTORIES_H

// The command line.

#ifndef OVARD_RUNTIME_OPTIONS_H
#define OVARD_RUNTIME_OPTIONS_H

#include <cstdint>

/// What the command line asks for beside the process-wide settings, which `parseOptions` stores
/// where they live.
struct Options {
    enum class Purpose {
        Monitor,        ///< run
        ShowVersion,    ///< -?, or an option that is not known or lacks its argument
        DiagnosePort22, ///< -t
    };
    Purpose purpose = Purpose::Monitor;
    bool daemonize = true;              ///< false with -d
    bool discover = true;               ///< false with -a, -f or -x
    std::int32_t statusIntervalSec = 5; ///< -i; not clamped
};

/// Reads the command line from the left; -? and -t end it at once. Numbers that are none read as 0.
/// File names are not copied: `argv` must outlive their use.
Options parseOptions(int argc, char** argv);

#endif // OVARD_RUNTIME_OPTIONS_H

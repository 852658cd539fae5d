// The arguments of the sample application.

#ifndef OVARD_EXAMPLES_SAMPLE_OPTIONS_H
#define OVARD_EXAMPLES_SAMPLE_OPTIONS_H

#include <string>

namespace sample {

/// No point in time was asked for.
inline constexpr int kNever = -1;

/// How the application behaves. Times are in milliseconds; those of what happens later count from
/// the moment at which it has gone into the background (or stayed in the foreground).
struct Options {
    bool help = false;
    bool foreground = false;
    int daemonizeAfterMs = 0;
    bool writePidFile = true;
    std::string pidFile; ///< without the ".PID" that is appended to it
    std::string version = "1.0";
    std::string exactPidFile; ///< not empty: the whole path, instead of `pidFile`
    int pidFileAfterMs = 0;
    bool ignoreTerm = false;
    bool dieOfTerm = false; ///< SIGTERM keeps its default action, unless it is ignored
    int heartbeatMs = kNever;
    int hangAfterMs = kNever;
    int hangForMs = kNever; ///< counts from the moment at which it hangs
    int crashAfterMs = kNever;
    int comeBackAfterMs = kNever; ///< counts from the crash
    int exitAfterMs = kNever;
    int exitStatus = 0;
    int strays = 0;
    std::string report; ///< empty: none is written

    /// SIGTERM is a request for an orderly end.
    bool obeysTerm() const { return !ignoreTerm && !dieOfTerm; }
};

/// The usage text, several lines.
extern const char kUsage[];

/// Reads the arguments. Words that are no option are ignored, so that tests can make command lines
/// of any shape. False when a value is missing or malformed; `error` then says which.
bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error);

/// The pid-file name that a program has by convention: "/tmp/pid", METER_ROOT where it is set, the
/// program path, ".pid".
std::string conventionalPidFile(const char* program);

} // namespace sample

#endif // OVARD_EXAMPLES_SAMPLE_OPTIONS_H

// What the sanitizers find in the monitor and in the programs around it.

#ifndef OVARD_TESTS_SYSTEM_SANITIZER_REPORTS_H
#define OVARD_TESTS_SYSTEM_SANITIZER_REPORTS_H

#include <cstddef>
#include <string>
#include <vector>

namespace systemtest {

#if defined(__SANITIZE_THREAD__)
#define OVARD_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OVARD_THREAD_SANITIZER
#endif
#endif

#ifdef OVARD_THREAD_SANITIZER
inline constexpr bool kThreadsAreSanitized = true;
#else
inline constexpr bool kThreadsAreSanitized = false;
#endif

/// Threads that a sanitizer adds to a monitor.
inline constexpr std::size_t kSanitizerThreads = kThreadsAreSanitized ? 1 : 0;

/// Variables of the environment, "NAME=VALUE", with which a program writes what its sanitizer finds
/// into files whose paths begin with `prefix`. They keep what else the environment asks of the
/// sanitizers. None in builds without them.
std::vector<std::string> sanitizersReportingTo(const std::string& prefix);

/// Has every program that is started from now on write what its sanitizer finds into a file: the
/// console of a monitor in the background leads nowhere, and nobody sees its exit status. Keeps
/// what else the environment asks of the sanitizers. Nothing in builds without them.
void collectSanitizerReports();

/// Removes the reports that there are and returns their texts; empty when nothing was found.
std::string takeSanitizerReports();

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SANITIZER_REPORTS_H

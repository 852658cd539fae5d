// The levels of the log's lines, as they reach syslog.

#ifndef OVARD_TESTS_UNIT_LOG_LEVELS_H
#define OVARD_TESTS_UNIT_LOG_LEVELS_H

namespace levels {

inline constexpr int kLevelError = 3;
inline constexpr int kLevelInfo = 6;
inline constexpr int kLevelDebug = 7;

} // namespace levels

#endif // OVARD_TESTS_UNIT_LOG_LEVELS_H

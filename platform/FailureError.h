// The error number of a failed operation of the instrument, whoever provides that.

#ifndef OVARD_PLATFORM_FAILURE_ERROR_H
#define OVARD_PLATFORM_FAILURE_ERROR_H

#include <cerrno>

namespace platform {

/// The errno of an operation that has just failed, EIO where it has left none. errno has to be 0
/// before the operation. Async-signal-safe.
inline int failureError() {
    return errno != 0 ? errno : EIO;
}

} // namespace platform

#endif // OVARD_PLATFORM_FAILURE_ERROR_H

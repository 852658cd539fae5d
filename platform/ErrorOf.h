// Why an operation of the instrument has failed, whoever provides that.

#ifndef OVARD_PLATFORM_ERROR_OF_H
#define OVARD_PLATFORM_ERROR_OF_H

#include <cerrno>

namespace platform {

/// Runs `operation`, which tells whether it worked. 0 when it did; otherwise the errno that it has
/// left, EIO where it has left none. Changes errno. Async-signal-safe where the operation is.
template <typename Operation> int errorOf(const Operation& operation) {
    errno = 0;
    if (operation()) {
        return 0;
    }
    return errno != 0 ? errno : EIO;
}

} // namespace platform

#endif // OVARD_PLATFORM_ERROR_OF_H

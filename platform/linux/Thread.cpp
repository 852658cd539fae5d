#include "platform/Thread.h"

#include <csignal>

#include "platform/System.h"

namespace platform {

int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument) {
    sigset_t savedMask;
    blockAllSignals(&savedMask); // inherited by the new thread from its first instruction on
    const int error = ::pthread_create(thread, nullptr, body, argument);
    restoreSignalMask(&savedMask);
    return error;
}

} // namespace platform

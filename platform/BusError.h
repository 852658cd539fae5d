// Touching mapped memory that another program may take away.

#ifndef OVARD_PLATFORM_BUS_ERROR_H
#define OVARD_PLATFORM_BUS_ERROR_H

namespace platform {

/// Calls `touch(argument)` so that the process outlives a bus error in it (SIGBUS): the file behind
/// a mapping was shortened, or has no memory. False when that happened; `touch` then ended at that
/// instruction, so it must own nothing that has to be given back, and neither wait nor throw. It
/// runs with all other signals blocked and cannot be cancelled.
///
/// One thread of the process touches at a time: the others, and those that fork, wait for a lock of
/// the whole process until it is done.
///
/// The process's action for SIGBUS is another one meanwhile, which hands all that did not happen in
/// `touch` on to it. What is sent to a thread that has SIGBUS blocked waits as it would otherwise.
/// Any thread; not from a signal handler.
bool survivesBusError(void (*touch)(void*), void* argument);

/// The same for a function object.
template <typename Touch> bool survivesBusError(Touch touch) {
    return survivesBusError([](void* object) { (*static_cast<Touch*>(object))(); }, &touch);
}

} // namespace platform

#endif // OVARD_PLATFORM_BUS_ERROR_H

// Linked with --wrap for platform::sleepMilliseconds, in a program whose deliberate pauses are to
// cost nothing.

namespace bench {

/// Takes the place of platform::sleepMilliseconds, by the name that the linker gives it.
void pauseForNothing(int milliseconds) asm("__wrap__ZN8platform17sleepMillisecondsEi");

void pauseForNothing(int /*milliseconds*/) {}

} // namespace bench

// What the thread sanitizer is not to report, as a part of every program that is built with it: a
// file could not be read by programs of other users, or where a test hides the folders.

// Weak, since a program may be linked with it twice.
extern "C" [[gnu::weak]] const char* __tsan_default_suppressions() {
    // No race: the C library guards its time zone with a lock of its own, which the sanitizer does
    // not see.
    return "race:tzset_internal\n";
}

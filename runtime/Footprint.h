// Keeping the monitor small.

#ifndef OVARD_RUNTIME_FOOTPRINT_H
#define OVARD_RUNTIME_FOOTPRINT_H

/// Has all threads share one heap: each that has its own holds on to what it once used there, and
/// the monitor's hardly ever run at the same time. Called before there is a second thread.
void shareOneHeap();

/// Gives back the memory that only the start has needed: freed parts of the heap and pages of the
/// program's code, which come back from its file when they are needed again. Any thread. A debugger
/// has to set its breakpoints anew.
void releaseStartupMemory();

#endif // OVARD_RUNTIME_FOOTPRINT_H

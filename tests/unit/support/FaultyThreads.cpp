#include "tests/unit/support/FaultyThreads.h"

#include "tests/fakes/FakePlatform.h"

namespace {

/// Failures of one kind of call that are still to come.
struct Failures {
    int left = 0;
    int error = 0;
};

/// Guarded by the world's lock.
struct Script {
    bool active = false;
    Failures signals;
    Failures waits;
    Failures cancels;
    std::vector<pthread_t> cancelled;
    std::vector<pthread_t> joined;
    std::vector<pthread_t> detached;
};

/// Never destroyed: threads may still call in when static objects are gone.
Script& script() {
    static Script& instance = *new Script;
    return instance;
}

void set(Failures& failures, int times, int error) {
    const fakes::Lock lock;
    failures = {times, error};
}

/// The error of the next failure, 0 when there is none left.
int take(Failures& failures) {
    if (failures.left == 0) {
        return 0;
    }
    --failures.left;
    return failures.error;
}

void record(const char* call) {
    if (script().active) {
        fakes::world().record(call);
    }
}

void note(std::vector<pthread_t>& threads, pthread_t thread) {
    if (script().active) {
        threads.push_back(thread);
    }
}

int beginSignal() {
    const fakes::Lock lock;
    record("condSignal");
    return take(script().signals);
}

int beginWait() {
    const fakes::Lock lock;
    record("condWait");
    return take(script().waits);
}

int beginCancel(pthread_t thread) {
    const fakes::Lock lock;
    record("cancelThread");
    note(script().cancelled, thread);
    return take(script().cancels);
}

void beginJoin(pthread_t thread) {
    const fakes::Lock lock;
    record("joinThread");
    note(script().joined, thread);
}

void beginDetach(pthread_t thread) {
    const fakes::Lock lock;
    record("detachThread");
    note(script().detached, thread);
}

} // namespace

namespace faults {

FaultyThreads::FaultyThreads() {
    const fakes::Lock lock;
    script() = {};
    script().active = true;
}

FaultyThreads::~FaultyThreads() {
    const fakes::Lock lock;
    script() = {};
}

void FaultyThreads::failSignals(int times, int error) {
    set(script().signals, times, error);
}

void FaultyThreads::failWaits(int times, int error) {
    set(script().waits, times, error);
}

void FaultyThreads::failCancels(int times, int error) {
    set(script().cancels, times, error);
}

std::vector<pthread_t> FaultyThreads::cancelled() const {
    const fakes::Lock lock;
    return script().cancelled;
}

std::vector<pthread_t> FaultyThreads::joined() const {
    const fakes::Lock lock;
    return script().joined;
}

std::vector<pthread_t> FaultyThreads::detached() const {
    const fakes::Lock lock;
    return script().detached;
}

} // namespace faults

// The names that the linker gives to a call and to its replacement. A cancelled thread unwinds
// through the replacement of the wait, which therefore holds nothing meanwhile.
extern "C" {

int __real_pthread_cond_signal(pthread_cond_t* condition);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cancel(pthread_t thread);
int __real_pthread_join(pthread_t thread, void** result);
int __real_pthread_detach(pthread_t thread);

int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
    const int error = beginSignal();
    return error != 0 ? error : __real_pthread_cond_signal(condition);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    const int error = beginWait();
    return error != 0 ? error : __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cancel(pthread_t thread) {
    const int error = beginCancel(thread);
    const int result = __real_pthread_cancel(thread);
    return error != 0 ? error : result;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    beginJoin(thread);
    return __real_pthread_join(thread, result);
}

int __wrap_pthread_detach(pthread_t thread) {
    beginDetach(thread);
    return __real_pthread_detach(thread);
}

} // extern "C"

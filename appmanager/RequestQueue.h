// Requests that wait for the command thread.

#ifndef OVARD_APPMANAGER_REQUEST_QUEUE_H
#define OVARD_APPMANAGER_REQUEST_QUEUE_H

#include <cstddef>

#include "records/reqcmd.h"

/// Queue of whole records, first in, first out, that refuses where there is no memory. A queue of
/// the C++ library would end the monitor instead. Its caller locks.
class RequestQueue {
public:
    RequestQueue() = default;
    ~RequestQueue() { clear(); }
    RequestQueue(const RequestQueue&) = delete;
    RequestQueue& operator=(const RequestQueue&) = delete;

    bool empty() const { return first_ == nullptr; }
    std::size_t size() const { return size_; }

    /// Appends a copy. False when there is no memory for it, or when a long queue would use up what
    /// the rest of the monitor needs: the queue is then as it was.
    bool push_back(const reqcmd& request);

    /// The oldest record; valid until it is removed. The queue must not be empty.
    const reqcmd& front() const { return first_->request; }

    /// Removes the oldest record. The queue must not be empty.
    void pop_front();

    void clear();

private:
    struct Entry {
        reqcmd request;
        Entry* next;
    };

    Entry* first_ = nullptr;
    Entry* last_ = nullptr; // valid while there is a first one
    std::size_t size_ = 0;
};

#endif // OVARD_APPMANAGER_REQUEST_QUEUE_H

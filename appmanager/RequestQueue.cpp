#include "appmanager/RequestQueue.h"

#include <new>

#include "platform/Memory.h"

namespace {

/// So many requests are queued with the last of the memory; further ones leave the reserve.
constexpr std::size_t kShortQueue = 8;

} // namespace

bool RequestQueue::push_back(const reqcmd& request) {
    if (size_ >= kShortQueue && !platform::memoryIsLeft(sizeof(Entry))) {
        return false;
    }
    void* const block = platform::allocateMemory(sizeof(Entry));
    if (block == nullptr) {
        return false;
    }
    auto* const entry = new (block) Entry{request, nullptr};
    (empty() ? first_ : last_->next) = entry;
    last_ = entry;
    ++size_;
    return true;
}

void RequestQueue::pop_front() {
    Entry* const removed = first_;
    first_ = removed->next;
    --size_;
    platform::releaseMemory(removed);
}

void RequestQueue::clear() {
    while (!empty()) {
        pop_front();
    }
}

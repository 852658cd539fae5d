// The keys of the text form of requests: what each of them reads and writes of a record.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_KEYS_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_KEYS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "records/reqcmd.h"

namespace ovardctl {

/// A key, the bytes of the record that belong to it, and its value as a text without escapes.
struct Key {
    const char* name;
    std::size_t offset;
    std::size_t size;

    /// Takes a value. Returns what is wrong with it, without a line feed; empty when it was taken.
    std::string (*read)(std::string_view value, reqcmd& record);

    /// The value; one that `read` refuses, or takes for other bytes, where the key does not express
    /// those of the record.
    std::string (*write)(const reqcmd& record);
};

/// Some keys, in the order in which they are written.
struct Keys {
    const Key* first;
    std::size_t count;

    const Key* begin() const { return first; }
    const Key* end() const { return first + count; }
};

/// The name of the application, which stands in the head of a section.
const Key& nameKey();

/// The keys for what a request should hold.
Keys plainKeys();

/// The keys that together express any record whatever.
Keys rawKeys();

/// The plain or raw key of that name; null when there is none.
const Key* findKey(std::string_view name);

/// True when both keys give some byte.
bool doOverlap(const Key& left, const Key& right);

/// The bytes of the key are the same in both records.
bool areSame(const Key& key, const reqcmd& left, const reqcmd& right);

/// The word of an action as the key `action` takes it; the number of one that has none.
std::string actionText(std::int32_t action);

/// The port as the key `port` takes it; "TYPE:N" for a type that it does not take.
std::string portText(const reqcmd& record);

/// The restart policy as the key `restart` takes it.
std::string policyText(const reqcmd& record);

/// The action concerns one application by its name.
bool needsName(std::int32_t action);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_KEYS_H

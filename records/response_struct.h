// The reply to a control request.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_RESPONSE_STRUCT_H
#define OVARD_RECORDS_RESPONSE_STRUCT_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// One reply: 1032 bytes, integers in the byte order of the machine.
struct response_struct {
    std::int32_t code;      ///< 0 success, else the failing action's result
    std::int32_t completed; ///< 1 in every reply sent
    char message[1024];     ///< outcome for people, NUL-terminated, usually ends in a line feed
};

static_assert(std::is_trivially_copyable_v<response_struct> &&
              std::is_standard_layout_v<response_struct>);
static_assert(sizeof(response_struct) == 1032);
static_assert(offsetof(response_struct, code) == 0);
static_assert(offsetof(response_struct, completed) == 4);
static_assert(offsetof(response_struct, message) == 8);

#endif // OVARD_RECORDS_RESPONSE_STRUCT_H

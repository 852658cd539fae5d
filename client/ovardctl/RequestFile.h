// The image of a request file: `reqcmd` records one after the other, without anything between them.
// Their integers have the byte order of the machine that wrote them.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_FILE_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "records/reqcmd.h"

namespace ovardctl {

/// The monitor replays so many records of a file; the rest of it is ignored.
inline constexpr std::size_t kMostReplayedRecords = 65536;

/// Files with more records than this are not read. There is room above what the monitor replays, so
/// that it can be said what is wrong with a file.
inline constexpr std::size_t kMostRecords = 100000;

/// Byte order of the integers in a file.
enum class ByteOrder { Little, Big };

constexpr ByteOrder nativeByteOrder() {
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? ByteOrder::Big : ByteOrder::Little;
}

/// "little" or "big".
const char* byteOrderWord(ByteOrder order);

/// Reads "little", "big" or "native". Returns what is wrong with the text; empty when it was taken.
std::string readByteOrder(std::string_view text, ByteOrder& order);

/// A request file, understood.
struct RequestFile {
    std::vector<reqcmd> records; ///< integers in the byte order of this machine
    ByteOrder byteOrder = nativeByteOrder();
    bool isOrderKnown = false; ///< false: the records do not tell their byte order
    std::size_t tailSize = 0;  ///< bytes at the end that are no whole record
};

/// Takes an image apart. Its byte order is recognised from the integers whose values are small:
/// action, port type, priority and restart policy. An order holds when, over all records, more than
/// twice as many of them make sense in it only as do in the other one only; where neither does, it
/// is `presumed`. Every image is taken.
RequestFile decodeRequests(std::string_view image, ByteOrder presumed = nativeByteOrder());

/// The image of records whose integers are in the byte order of this machine.
std::string encodeRequests(const std::vector<reqcmd>& records, ByteOrder order);

/// The name of a record as the monitor takes it: bounded by its field and cut by one character
/// where it lacks its NUL. Views the record.
std::string_view nameOf(const reqcmd& record);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_FILE_H

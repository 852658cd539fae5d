// Images of records that were written by hand from their layout, and no part of which comes from
// the structs that they check.
//
// An image is a text with one field in each line, in the order of memory and without gaps:
//
//     OFFSET KIND SIZE BYTES...   # meaning
//
// OFFSET and SIZE are decimal. KIND says how the bytes lie in memory:
//
//     number   written as on a big-endian machine; the other way round on a little-endian one
//     text     the same on every machine; the rest of the field is zero
//     bytes    the same on every machine, and complete: single bytes, times, what is reserved
//
// BYTES are pairs of hexadecimal digits, "5A*16" for sixteen of them, or characters between double
// quotes.

#ifndef OVARD_TESTS_RECORDS_GOLDEN_IMAGE_H
#define OVARD_TESTS_RECORDS_GOLDEN_IMAGE_H

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/unit/records/NativeImage.h"

namespace recordstest {

/// The bytes of "5A" or "5A*16".
inline std::string hexBytes(const std::string& word) {
    std::size_t digits = 0;
    const unsigned long byte = std::stoul(word, &digits, 16);
    const bool isRepeated = word.size() > 3 && word[2] == '*';
    if (digits != 2 || (word.size() != 2 && !isRepeated)) {
        throw std::invalid_argument(word);
    }
    const std::size_t count = isRepeated ? std::stoul(word.substr(3)) : 1;
    return std::string(count, static_cast<char>(byte));
}

/// The bytes that a line names, up to its end or its comment.
inline std::string namedBytes(std::istringstream& line) {
    std::string bytes;
    while (line >> std::ws && !line.eof() && line.peek() != '#') {
        std::string word;
        if (line.peek() == '"') {
            line >> std::quoted(word);
            bytes += word;
        } else {
            line >> word;
            bytes += hexBytes(word);
        }
    }
    return bytes;
}

/// The bytes of a field as they lie in the memory of a machine of that order.
inline std::string fieldBytes(const std::string& kind, std::size_t size, std::string bytes,
                              ByteOrder order) {
    if (kind == "text") {
        bytes.append(size - std::min(size, bytes.size()), '\0');
    } else if (kind == "number" && order == ByteOrder::Little) {
        std::reverse(bytes.begin(), bytes.end());
    } else if (kind != "number" && kind != "bytes") {
        throw std::invalid_argument(kind);
    }
    return bytes;
}

/// The image in the memory of a machine of that order. Throws std::invalid_argument with the line
/// where one is wrong: a gap, an overlap, too few bytes or too many.
inline std::string goldenImage(const std::string& text, ByteOrder order = kMachineOrder) {
    std::string image;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::size_t offset = 0;
        std::string kind;
        std::size_t size = 0;
        if ((words >> std::ws).eof()) {
            continue;
        }
        words >> offset >> kind >> size;
        const std::string bytes = fieldBytes(kind, size, namedBytes(words), order);
        if (offset != image.size() || bytes.size() != size) {
            throw std::invalid_argument(line);
        }
        image += bytes;
    }
    return image;
}

} // namespace recordstest

#endif // OVARD_TESTS_RECORDS_GOLDEN_IMAGE_H

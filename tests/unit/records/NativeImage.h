// Bytes of a published segment, put together by hand from offsets and values.

#ifndef OVARD_TESTS_RECORDS_NATIVE_IMAGE_H
#define OVARD_TESTS_RECORDS_NATIVE_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace recordstest {

enum class ByteOrder { Little, Big };

inline constexpr ByteOrder kMachineOrder =
    __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? ByteOrder::Big : ByteOrder::Little;

class NativeImage {
public:
    explicit NativeImage(std::size_t size, ByteOrder order = kMachineOrder)
        : bytes_(size, '\0')
        , order_(order) {}

    void putText(std::size_t offset, std::string_view text) {
        bytes_.replace(offset, text.size(), text);
    }

    void put16(std::size_t offset, std::uint16_t value) { putNumber(offset, value, 2, order_); }
    void put32(std::size_t offset, std::uint32_t value) { putNumber(offset, value, 4, order_); }
    void put64(std::size_t offset, std::uint64_t value) { putNumber(offset, value, 8, order_); }

    /// 32-bit IEEE 754, by its bits.
    void putFloat(std::size_t offset, float value) {
        std::uint32_t bits = 0;
        static_assert(sizeof bits == sizeof value);
        std::memcpy(&bits, &value, sizeof bits);
        put32(offset, bits);
    }

    /// Instrument time, big-endian on every machine.
    void putTime(std::size_t offset, std::uint64_t milliseconds) {
        putNumber(offset, milliseconds, 8, ByteOrder::Big);
    }

    const std::string& bytes() const { return bytes_; }

private:
    void putNumber(std::size_t offset, std::uint64_t value, std::size_t size, ByteOrder order) {
        for (std::size_t index = 0; index < size; ++index) {
            const std::size_t shift = 8 * (order == ByteOrder::Big ? size - 1 - index : index);
            bytes_[offset + index] = static_cast<char>(value >> shift & 0xFF);
        }
    }

    std::string bytes_;
    ByteOrder order_;
};

/// Offset of the first byte that differs, the common length when there is none.
inline std::size_t firstDifference(std::string_view left, std::string_view right) {
    std::size_t offset = 0;
    while (offset < left.size() && offset < right.size() && left[offset] == right[offset]) {
        ++offset;
    }
    return offset;
}

} // namespace recordstest

#endif // OVARD_TESTS_RECORDS_NATIVE_IMAGE_H

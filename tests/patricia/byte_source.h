// Operation sequences for the container checkers are decoded from bytes:
// seeded random ones in the tests, the fuzzer's input in the fuzz targets.
#ifndef TARN_TESTS_BYTE_SOURCE_H
#define TARN_TESTS_BYTE_SOURCE_H

#include <cstddef>
#include <cstdint>

namespace tarn_test {

// Hands out the bytes of an input one by one, then zeros.
class ByteSource {
public:
    ByteSource(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return pos_ >= size_; }
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16()
    {
        const uint16_t hi = u8();
        return static_cast<uint16_t>(hi << 8 | u8());
    }
    uint32_t u32()
    {
        const uint32_t hi = u16();
        return hi << 16 | u16();
    }
    // A number in [0, n), n > 0.
    uint32_t below(uint32_t n) { return u16() % n; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_BYTE_SOURCE_H

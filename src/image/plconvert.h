// Float-to-integer truncation with a result defined for every input.
// A plain cast is undefined for NaN and out-of-range values; the pixel code
// relies on what x86 gives there (the "integer indefinite" value, INT_MIN), so
// every conversion that can see such a value goes through these two.
#pragma once

#include <cstddef>
#include <cstdint>

inline int32_t PLTruncI32(double v) {
    if (v > -2147483649.0 && v < 2147483648.0) return static_cast<int32_t>(v);
    return INT32_MIN;
}

inline int64_t PLTruncI64(double v) {
    if (v >= -9223372036854775808.0 && v < 9223372036854775808.0) return static_cast<int64_t>(v);
    return INT64_MIN;
}

// 32-bit signed product that wraps instead of overflowing.
inline int32_t PLMul32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Byte offset of a row or a pixel from an index and its step, taken in 64
// bits: an image may span more than 2^31 bytes from its first row to its last
// (a 16K float frame does), and a 32-bit product would wrap.
inline ptrdiff_t PLOffset(int32_t index, int32_t step) {
    return static_cast<ptrdiff_t>(index) * step;
}

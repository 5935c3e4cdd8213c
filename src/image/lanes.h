// Four float lanes, one per channel of a pixel, and the load of a pixel's
// elements into them. Each lane goes through exactly the single-precision
// operations a scalar channel would (no contraction: -ffp-contract=off), so
// packing the channels changes no bit; it lets one instruction serve all of
// them. Lanes past the channel count hold zero.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

typedef float PLLanes __attribute__((vector_size(16)));

// C elements of type T at `at` as lanes. Element values convert to float
// exactly, so how they are widened makes no difference to the result; on x86
// it is done in registers, since a round trip through memory of another width
// stalls.
template <typename T, int C>
inline PLLanes PLLoadLanes(const uint8_t* at) {
#if defined(__SSE2__)
    if constexpr (std::is_same_v<T, float>) {
        // Host rows promise no alignment: scalar pieces go through memcpy.
        if constexpr (C == 4) {
            return _mm_loadu_ps(reinterpret_cast<const float*>(at));
        } else if constexpr (C == 1) {
            float one;
            std::memcpy(&one, at, sizeof one);
            return _mm_set_ss(one);
        } else {
            double two;
            std::memcpy(&two, at, sizeof two);
            const __m128 low = _mm_castpd_ps(_mm_set_sd(two));
            if constexpr (C == 2) return low;
            float third;
            std::memcpy(&third, at + 2 * sizeof(float), sizeof third);
            return _mm_movelh_ps(low, _mm_set_ss(third));
        }
    } else if constexpr (std::is_same_v<T, uint8_t>) {
        uint32_t bytes = 0;
        std::memcpy(&bytes, at, C);
        const __m128i zero = _mm_setzero_si128();
        const __m128i words = _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(bytes)), zero);
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(words, zero));
    } else {
        uint64_t words = 0;
        std::memcpy(&words, at, C * sizeof(uint16_t));
        const __m128i wide = _mm_cvtsi64_si128(static_cast<long long>(words));
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(wide, _mm_setzero_si128()));
    }
#else
    typedef T Raw __attribute__((vector_size(4 * sizeof(T))));
    T elements[4] = {};
    std::memcpy(elements, at, C * sizeof(T));
    Raw raw;
    std::memcpy(&raw, elements, sizeof raw);
    return __builtin_convertvector(raw, PLLanes);
#endif
}

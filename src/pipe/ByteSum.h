// Sums of payload bytes for the frame checksum, alone or fused with the copy of the payload.
// Inline: on both ends of a pipe the sum is most of a large frame's cost and part of every
// frame's, and a call per frame is not.
#ifndef SABLE_PIPE_BYTE_SUM_H
#define SABLE_PIPE_BYTE_SUM_H

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#include <cstdint>

namespace sable {

namespace bytesum {

// 16 bytes at a time where the CPU has the instruction for it (SSE2's sum of absolute
// differences against zero, NEON's pairwise widening add); copied to `dst` as they go when
// kCopy (one pass over a payload instead of two). How many were taken is left in `done`, the
// tail is the caller's.
template <bool kCopy>
inline uint32_t SumBlocks(uint8_t* dst, const uint8_t* bytes, uint32_t len, uint32_t& done) {
    uint32_t i = 0;
    uint32_t sum = 0;
#if defined(__SSE2__)
    __m128i acc = _mm_setzero_si128();
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= len; i += 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
        if (kCopy) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), chunk);
        }
        acc = _mm_add_epi64(acc, _mm_sad_epu8(chunk, zero));
    }
    sum = static_cast<uint32_t>(_mm_cvtsi128_si64(acc)) +
          static_cast<uint32_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(acc, acc)));
#elif defined(__ARM_NEON)
    uint32x4_t acc = vdupq_n_u32(0);
    for (; i + 16 <= len; i += 16) {
        uint8x16_t chunk = vld1q_u8(bytes + i);
        if (kCopy) {
            vst1q_u8(dst + i, chunk);
        }
        acc = vpadalq_u16(acc, vpaddlq_u8(chunk));
    }
    sum = vaddvq_u32(acc);
#else
    (void)dst;
    (void)bytes;
    (void)len;
#endif
    done = i;
    return sum;
}

}  // namespace bytesum

// The sum of `len` bytes, wrapping at 32 bits.
inline uint32_t SumBytes(const uint8_t* bytes, uint32_t len) {
    uint32_t done = 0;
    uint32_t sum = bytesum::SumBlocks<false>(nullptr, bytes, len, done);
    for (uint32_t i = done; i < len; ++i) {
        sum += bytes[i];
    }
    return sum;
}

// Copies `len` bytes from `bytes` to `dst` (not overlapping) and returns their sum, in one pass.
inline uint32_t CopySumBytes(uint8_t* dst, const uint8_t* bytes, uint32_t len) {
    uint32_t done = 0;
    uint32_t sum = bytesum::SumBlocks<true>(dst, bytes, len, done);
    for (uint32_t i = done; i < len; ++i) {
        dst[i] = bytes[i];
        sum += bytes[i];
    }
    return sum;
}

}  // namespace sable

#endif

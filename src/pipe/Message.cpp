#include "pipe/Message.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif
#include <new>

#include "pipe/MagicReceiver.h"

const uint64_t Message::MAX_PAYLOAD_LEN;

namespace {

// The sum of the payload bytes is most of a large frame's cost, on both ends: 16 bytes at a
// time where the CPU has the instruction for it (SSE2's sum of absolute differences against
// zero, NEON's pairwise widening add), the plain loop elsewhere and for the tail.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("tree-vectorize", "vect-cost-model=dynamic")))
#endif
uint32_t
SumBytesPlain(const uint8_t* bytes, uint32_t len) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; ++i) {
        sum += bytes[i];
    }
    return sum;
}

// The bytes summed 16 at a time, and copied to `dst` as they go when kCopy (one pass over a
// payload instead of two); how many were taken is left in `done`, the tail is the caller's.
template <bool kCopy>
uint32_t SumBlocks(uint8_t* dst, const uint8_t* bytes, uint32_t len, uint32_t& done) {
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

uint32_t SumBytes(const uint8_t* bytes, uint32_t len) {
    uint32_t done = 0;
    const uint32_t sum = SumBlocks<false>(nullptr, bytes, len, done);
    return sum + SumBytesPlain(bytes + done, len - done);
}

uint32_t CopySumBytes(uint8_t* dst, const uint8_t* bytes, uint32_t len) {
    uint32_t done = 0;
    uint32_t sum = SumBlocks<true>(dst, bytes, len, done);
    for (uint32_t i = done; i < len; ++i) {
        dst[i] = bytes[i];
        sum += bytes[i];
    }
    return sum;
}
}  // namespace

uint32_t Message::CopyChecksummed(uint8_t* dst, const uint8_t* src) {
    uint32_t sum = id + type + payloadLen;
    sum += CopySumBytes(dst, src, payloadLen);
    sum += MagicReceiver::MAGIC;
    checksum = sum;
    return sum;
}

uint32_t Message::Checksum() {
    // Unsigned 32-bit arithmetic: every addition wraps, identically on both ends.
    uint32_t sum = id + type + payloadLen;
    const uint8_t* payload = GetData();
    if (payload != nullptr && payloadLen != 0) {
        sum += SumBytes(payload, payloadLen);
    }
    sum += MagicReceiver::MAGIC;
    checksum = sum;
    return sum;
}

InMessage::InMessage(unsigned msgId, unsigned msgType, unsigned msgPayloadLen)
    : Message(msgId, msgType, msgPayloadLen) {}

InMessage::~InMessage() {
    if (!lent) {
        delete[] data;
    }
}

uint8_t* InMessage::GetData() {
    if (SizeValid() && data == nullptr) {
        // nothrow: a failed allocation shows as a null buffer, which the read then refuses.
        data = new (std::nothrow) uint8_t[payloadLen];
    }
    return data;
}

void InMessage::Reset(unsigned msgId, unsigned msgType, unsigned msgPayloadLen) {
    if (!lent) {
        delete[] data;
    }
    data = nullptr;
    lent = false;
    id = msgId;
    type = msgType;
    payloadLen = msgPayloadLen;
    checksum = 0;
}

uint8_t* InMessage::ReleaseData() {
    uint8_t* released = data;
    data = nullptr;
    lent = false;
    return released;
}


#include "pipe/Message.h"

#include <algorithm>
#include <new>

#include "pipe/MagicReceiver.h"

const uint64_t Message::MAX_PAYLOAD_LEN;

namespace {
// A frame must go out in one write that the kernel never splits or interleaves.
constexpr uint64_t kFifoAtomicWriteSize = 4096;

// The sum of the payload bytes is most of a large frame's cost, on both ends. g++ vectorizes
// this loop only from -O3 on (clang already at -O2): ask for it here, whatever the build type.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("tree-vectorize", "vect-cost-model=dynamic")))
#endif
uint32_t SumBytes(const uint8_t* bytes, uint32_t len) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; ++i) {
        sum += bytes[i];
    }
    return sum;
}
}  // namespace

Message::Message(unsigned msgId, unsigned msgType, unsigned msgPayloadLen)
    : id(msgId), type(msgType), payloadLen(msgPayloadLen) {}

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

bool Message::SizeValid() const {
    uint64_t limit = std::min<uint64_t>(kFifoAtomicWriteSize - OverheadSize(), MAX_PAYLOAD_LEN);
    return payloadLen != 0 && payloadLen <= limit;
}

InMessage::InMessage(unsigned msgId, unsigned msgType, unsigned msgPayloadLen)
    : Message(msgId, msgType, msgPayloadLen) {}

InMessage::~InMessage() {
    delete[] data;
}

uint8_t* InMessage::GetData() {
    if (SizeValid() && data == nullptr) {
        // nothrow: a failed allocation shows as a null buffer, which the read then refuses.
        data = new (std::nothrow) uint8_t[payloadLen];
    }
    return data;
}

void InMessage::Reset(unsigned msgId, unsigned msgType, unsigned msgPayloadLen) {
    delete[] data;
    data = nullptr;
    id = msgId;
    type = msgType;
    payloadLen = msgPayloadLen;
    checksum = 0;
}

uint8_t* InMessage::ReleaseData() {
    uint8_t* released = data;
    data = nullptr;
    return released;
}

OutMessage::OutMessage(unsigned msgId, const SabloRequest& req, int timeoutMs)
    : Message(msgId, 0, req.size), timeout(timeoutMs), dataOut(req.data) {}

OutMessage::OutMessage(unsigned msgId, const SabloResponse& rsp)
    : Message(msgId, 1, rsp.size), timeout(-1), dataOut(rsp.data) {}

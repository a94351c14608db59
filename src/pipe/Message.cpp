#include "pipe/Message.h"

#include <new>

#include "pipe/ByteSum.h"
#include "pipe/MagicReceiver.h"

const uint64_t Message::MAX_PAYLOAD_LEN;

uint32_t Message::Checksum() {
    // Unsigned 32-bit arithmetic: every addition wraps, identically on both ends.
    uint32_t sum = id + type + payloadLen;
    const uint8_t* payload = GetData();
    if (payload != nullptr && payloadLen != 0) {
        sum += sable::SumBytes(payload, payloadLen);
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


// The message objects carried by one frame on a pipe FIFO: what a sender builds on its stack
// (OutMessage) and what a receiver reads off the FIFO (InMessage).
#ifndef SABLE_PIPE_MESSAGE_H
#define SABLE_PIPE_MESSAGE_H

#include <cstddef>
#include <cstdint>

#include "pipe/ByteSum.h"
#include "pipe/MagicReceiver.h"
#include "sable_comm.h"

// Frame header and trailer fields shared by both directions. Not thread-safe: a message belongs
// to the thread that builds or reads it.
class Message {
  public:
    // Largest payload a frame may carry; a frame (payload plus OverheadSize()) then stays below
    // the FIFO's atomic-write size.
    static const uint64_t MAX_PAYLOAD_LEN = 4000;

    Message(unsigned msgId, unsigned msgType, unsigned msgPayloadLen)
        : id(msgId), type(msgType), payloadLen(msgPayloadLen) {}
    virtual ~Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // The payload, or null when there is none.
    virtual uint8_t* GetData() const = 0;

    // Computes the additive checksum over id, type, payloadLen, the payload bytes and the
    // magic, stores it in `checksum` and returns it. Allocates nothing.
    uint32_t Checksum();
    // Copies payloadLen bytes from `src` to `dst` and computes the checksum as if `src` were the
    // payload, in one pass; stores it in `checksum` and returns it. The ranges must not overlap.
    uint32_t CopyChecksummed(uint8_t* dst, const uint8_t* src) {
        // Unsigned 32-bit arithmetic, as in Checksum().
        checksum = id + type + payloadLen + sable::CopySumBytes(dst, src, payloadLen) +
                   MagicReceiver::MAGIC;
        return checksum;
    }
    // Bytes of a frame besides the payload: magic, id, type, payloadLen, checksum, timeout and
    // write time.
    size_t OverheadSize() const { return OVERHEAD_SIZE; }
    // Length of the whole frame in bytes; never overflows.
    size_t Size() const { return static_cast<size_t>(payloadLen) + OverheadSize(); }
    // A payload of 1 to MAX_PAYLOAD_LEN bytes (a frame then fits one atomic FIFO write).
    bool SizeValid() const {
        static_assert(MAX_PAYLOAD_LEN + OVERHEAD_SIZE <= FIFO_ATOMIC_WRITE_SIZE,
                      "a frame goes out in one write that the kernel never splits");
        return payloadLen != 0 && payloadLen <= MAX_PAYLOAD_LEN;
    }

    uint32_t id;
    uint32_t type;  // 0 request, 1 response
    uint32_t payloadLen;
    uint32_t checksum = 0;

  private:
    static constexpr size_t OVERHEAD_SIZE = 32;
    // A frame must go out in one write that the kernel never splits or interleaves.
    static constexpr size_t FIFO_ATOMIC_WRITE_SIZE = 4096;
};

// A message read off a FIFO. Owns its payload array (allocated on first GetData()).
class InMessage : public Message {
  public:
    InMessage(unsigned id, unsigned type, unsigned payloadLen);
    ~InMessage() override;

    // The payload as it stands: null before the non-const GetData() allocated it or after
    // ReleaseData().
    uint8_t* GetData() const override { return data; }
    // Allocates the payload array of payloadLen bytes on the first call when SizeValid();
    // otherwise returns the array as it stands (null for an invalid size or when the
    // allocation failed).
    uint8_t* GetData();
    // Hands the payload to the caller: an array allocated with new[], which the caller then
    // frees with delete[], or the lent storage (Lent() tells which, before this call).
    uint8_t* ReleaseData();
    // Makes this the empty message of a new frame header (frees a payload still held), so one
    // object can carry frame after frame.
    void Reset(unsigned id, unsigned type, unsigned payloadLen);
    // Carries its payload in `storage` (payloadLen bytes) that it does not own: never freed
    // here, and handed on by ReleaseData like an array of its own.
    void Lend(uint8_t* storage) {
        if (!lent) {
            delete[] data;
        }
        data = storage;
        lent = true;
    }
    // The payload lives in lent storage.
    bool Lent() const { return lent; }

  private:
    uint8_t* data = nullptr;
    bool lent = false;
};

// A message to send, built on the caller's stack over the caller's payload, which it does not
// own and which must outlive it.
class OutMessage : public Message {
  public:
    // A request (type 0) carrying the sender's time-out in milliseconds.
    OutMessage(unsigned msgId, const SabloRequest& req, int timeoutMs)
        : Message(msgId, 0, req.size), timeout(timeoutMs), dataOut(req.data) {}
    // A response (type 1); its time-out is always -1.
    OutMessage(unsigned msgId, const SabloResponse& rsp)
        : Message(msgId, 1, rsp.size), timeout(-1), dataOut(rsp.data) {}

    uint8_t* GetData() const override { return dataOut; }

    int32_t timeout;
    uint8_t* dataOut;
};

#endif

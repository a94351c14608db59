// Turning a message into the bytes of one frame and reading one frame back.
//
// Frame (native byte order): magic u32, id u32, type u32, payloadLen u32, payload, checksum u32,
// timeout i32, writeStartTime u64 (sender's monotonic microseconds); 32 + payloadLen bytes.
#ifndef SABLE_PIPE_MESSAGE_FRAME_H
#define SABLE_PIPE_MESSAGE_FRAME_H

#include <errno.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include "log/NuxSyslog.h"
#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"

namespace frame_layout {
constexpr size_t kIdOffset = 4;
constexpr size_t kTypeOffset = 8;
constexpr size_t kLenOffset = 12;
constexpr size_t kPayloadOffset = 16;

template <typename T>
inline void Put(char* at, T value) {
    memcpy(at, &value, sizeof(value));
}
}  // namespace frame_layout

// Builds the frame of `msg` into a new buffer of msg.Size() bytes, stored in `buf` and `len`;
// sets msg.checksum. 0, or -EINVAL for a null payload (error line) or an invalid size (no line:
// the sender has already refused and logged it), or -ENOMEM when the buffer cannot be allocated.
// On failure `buf` and `len` are left alone.
// Thread-safe for distinct messages.
int BuildFrame(OutMessage& msg, std::unique_ptr<char[]>& buf, size_t& len);
// The same into the caller's `buf` of `capacity` bytes (-ENOMEM when the frame does not fit),
// so that a sender can build on its stack: nothing is allocated. `writeStartTime` is the
// frame's write time (SableComm::GetCurrentTime() microseconds, read by the sender just before
// it writes). Inline: it is the whole of a send's work besides the write itself.
inline int BuildFrame(OutMessage& msg, char* buf, size_t capacity, size_t& len,
                      uint64_t writeStartTime) {
    using namespace frame_layout;
    if (!msg.SizeValid()) {
        return -EINVAL;
    }
    if (msg.dataOut == nullptr) {
        LOGE("Send msg data ptr is null\n");
        return -EINVAL;
    }
    const size_t size = msg.Size();
    if (capacity < size) {
        return -ENOMEM;
    }
    Put<uint32_t>(buf, MagicReceiver::MAGIC);
    Put<uint32_t>(buf + kIdOffset, msg.id);
    Put<uint32_t>(buf + kTypeOffset, msg.type);
    Put<uint32_t>(buf + kLenOffset, msg.payloadLen);
    // Bounds checked above (a valid size, room for the whole frame, a payload to copy): a plain
    // copy, which on a send path is several times faster than the bounds-checked one, summed
    // for the checksum as it goes.
    const uint32_t checksum =
        msg.CopyChecksummed(reinterpret_cast<uint8_t*>(buf + kPayloadOffset), msg.dataOut);
    char* trailer = buf + kPayloadOffset + msg.payloadLen;
    Put<uint32_t>(trailer, checksum);
    Put<int32_t>(trailer + 4, msg.timeout);
    Put<uint64_t>(trailer + 8, writeStartTime);
    len = size;
    return 0;
}

// Reads one frame through rx.Recv, one Recv of exactly the field's size per field, and returns
// the message with its payload and checksum. Any failure (bad magic, end of file, a short or
// failed read, a length outside 1..MAX_PAYLOAD_LEN, a checksum that does not match) is logged
// and yields null, with the source left wherever the failure stopped: nothing skips ahead to
// the next frame. Never reads past the frame's own bytes. `readFd` and `remoteName` only name
// the source in the checksum line. Blocks only as long as rx.Recv does.
// The lines are restrained (one per call site and thread per 600 s), so that garbage written
// into a FIFO cannot flood the log.
std::unique_ptr<InMessage> ReadFrame(MagicReceiver& rx, int readFd, const std::string& remoteName);
// The same into `msg` (reset to the frame's header, payload allocated for it), allocating
// nothing but the payload: true with a complete frame, false otherwise.
bool ReadFrame(MagicReceiver& rx, InMessage& msg, int readFd, const std::string& remoteName);

class FrameBuffer;
class PayloadArena;

// Takes the first frame of `buffer` into `msg` when it lies there whole and passes every check
// (magic, length, checksum): then true, and the frame's bytes are consumed. Otherwise false with
// nothing consumed; the field-by-field reader then takes over and reports whatever is wrong at
// the same point of the byte stream as it always does. Allocates only the payload, and a
// request's payload (type 0) in `arena` when one is given.
bool TakeWholeFrame(FrameBuffer& buffer, InMessage& msg, PayloadArena* arena = nullptr);

#endif

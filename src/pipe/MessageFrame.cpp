#include "pipe/MessageFrame.h"

#include <errno.h>

#include <cstring>
#include <new>

#include "log/NuxSyslog.h"
#include "log/run_time_record.h"
#include "pipe/FrameBuffer.h"
#include "pipe/PayloadArena.h"

namespace {

using frame_layout::kPayloadOffset;

// One Recv of the whole field; a short count is as much a failure as an error, since the
// rest of the field would otherwise be taken for the next one.
template <typename T>
int32_t RecvField(MagicReceiver& rx, T& field) {
    return rx.Recv(&field, sizeof(field));
}

bool FieldOk(int32_t ret, size_t expected) {
    return ret >= 1 && static_cast<size_t>(ret) == expected;
}

}  // namespace

int BuildFrame(OutMessage& msg, std::unique_ptr<char[]>& buf, size_t& len) {
    if (!msg.SizeValid()) {
        return BuildFrame(msg, nullptr, 0, len, 0);  // the same refusal, nothing allocated
    }
    std::unique_ptr<char[]> frame(new (std::nothrow) char[msg.Size()]);
    if (!frame) {
        return -ENOMEM;
    }
    size_t size = 0;
    int ret = BuildFrame(msg, frame.get(), msg.Size(), size, SableComm::GetCurrentTime());
    if (ret == 0) {
        buf = std::move(frame);
        len = size;
    }
    return ret;
}

bool TakeWholeFrame(FrameBuffer& buffer, InMessage& msg, PayloadArena* arena) {
    const size_t avail = buffer.Available();
    if (avail < kPayloadOffset) {
        return false;
    }
    const uint8_t* at = buffer.Peek();
    uint32_t header[4];
    memcpy(header, at, sizeof(header));
    const uint32_t payloadLen = header[3];
    if (header[0] != MagicReceiver::MAGIC || payloadLen == 0 ||
        payloadLen > Message::MAX_PAYLOAD_LEN) {
        return false;
    }
    const size_t size = kPayloadOffset + payloadLen + 16;
    if (avail < size) {
        return false;  // cut by the end of the last read
    }
    msg.Reset(header[1], header[2], payloadLen);
    if (arena != nullptr && header[2] == 0) {
        uint8_t* stored = arena->Take(payloadLen, avail);
        if (stored != nullptr) {
            msg.Lend(stored);
        }
    }
    uint8_t* payload = msg.GetData();
    if (payload == nullptr) {
        return false;
    }
    uint32_t received = 0;
    memcpy(&received, at + kPayloadOffset + payloadLen, sizeof(received));
    if (msg.CopyChecksummed(payload, at + kPayloadOffset) != received) {
        msg.Reset(0, 0, 0);
        return false;
    }
    buffer.Skip(size);
    return true;
}

std::unique_ptr<InMessage> ReadFrame(MagicReceiver& rx, int readFd, const std::string& remoteName) {
    std::unique_ptr<InMessage> msg(new (std::nothrow) InMessage(0, 0, 0));
    if (!msg || !ReadFrame(rx, *msg, readFd, remoteName)) {
        return nullptr;
    }
    return msg;
}

// Where the reader lies in this file matters. The restraint tells call sites apart by thread,
// file and line, and it takes the line without its leading digit: lines 68 and 88 share one
// entry, and so do 105 and 205. A garbage length (its line printed) would then silence every
// bad checksum (the other line) for the next 600 s. So the reader's sites lie within one
// stretch of fewer than 100 lines, between lines 100 and 999: each of its failures is reported
// on its own. Two assertions keep it there when code above or inside it changes.
bool ReadFrame(MagicReceiver& rx, InMessage& msg, int readFd, const std::string& remoteName) {
    static_assert(__LINE__ >= 100, "the frame reader's log sites must lie on lines 100 to 999");
    MagicReceiver::MagicResult result = rx.RecvMagic();
    if (result != MagicReceiver::MAGIC_OK) {
        LOGE_R("RecvMagic, result != MAGIC_OK, result=%d.\n", static_cast<int>(result));
        return false;
    }
    uint32_t id = 0;
    int32_t ret = RecvField(rx, id);
    if (!FieldOk(ret, sizeof(id))) {
        LOGE_R("Recv msg failed, received id = %u, ret = %d\n", id, ret);
        return false;
    }
    uint32_t type = 0;
    ret = RecvField(rx, type);
    if (!FieldOk(ret, sizeof(type))) {
        LOGE_R("Recv msg failed, received type = %u, ret = %d\n", type, ret);
        return false;
    }
    uint32_t payloadLen = 0;
    ret = RecvField(rx, payloadLen);
    if (!FieldOk(ret, sizeof(payloadLen)) || payloadLen > Message::MAX_PAYLOAD_LEN) {
        LOGE_R("Recv msg failed, received payloadLen = %u, ret = %d\n", payloadLen, ret);
        return false;
    }
    msg.Reset(id, type, payloadLen);
    // A length of 0 (or a failed allocation) leaves the buffer null, which Recv refuses: such a
    // frame is dropped here rather than accepted as an empty message.
    ret = rx.Recv(msg.GetData(), payloadLen);
    if (!FieldOk(ret, payloadLen)) {
        LOGE_R("Recv msg failed, received payloadLen should be %u, ret = %d\n", payloadLen, ret);
        return false;
    }
    uint32_t received = 0;
    ret = RecvField(rx, received);
    if (!FieldOk(ret, sizeof(received))) {
        LOGE_R("Recv msg failed, received checksum = %u, ret = %d\n", received, ret);
        return false;
    }
    uint32_t computed = msg.Checksum();
    if (received != computed) {
        LOGE_R(
            "Recv msg failed, send checksum = %u, but recv checksum = %u for readFd(%d) "
            "remote(%s)\n",
            received, computed, readFd, remoteName.c_str());
        return false;
    }
    // The trailer is read only to consume the frame; nothing downstream uses it.
    int32_t timeout = 0;
    ret = RecvField(rx, timeout);
    if (!FieldOk(ret, sizeof(timeout))) {
        LOGE_R("Recv msg failed, received timeout = %d ms, ret = %d\n", timeout, ret);
        return false;
    }
    int64_t writeStartTime = 0;
    ret = RecvField(rx, writeStartTime);
    if (!FieldOk(ret, sizeof(writeStartTime))) {
        LOGE_R("Recv msg failed, received writeStartTime = %ld, ret = %d\n",
               static_cast<long>(writeStartTime), ret);
        return false;
    }
    return true;
}
static_assert(__LINE__ < 1000, "the frame reader's log sites must lie on lines 100 to 999");

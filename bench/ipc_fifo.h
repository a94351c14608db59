// The frame and FIFO plumbing of the two baselines (ipc_plain, ipc_raw), written without the
// library: the same frame as the library puts on the wire, and the same FIFO pair.
//
// Frame (native byte order): magic u32 0xA6B7C8D9, id u32, type u32 (0 request, 1 response),
// len u32, payload, checksum u32 (id + type + len + every payload byte + magic, wrapping),
// timeout i32, time u64 (sender's CLOCK_MONOTONIC microseconds): 32 + len bytes.
//
// The FIFO carrying FROM's frames to TO is /dev/shm/ipcb_FROM_TO; the peer creates both and
// removes them when it leaves.
#ifndef SABLE_BENCH_IPC_FIFO_H
#define SABLE_BENCH_IPC_FIFO_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "ipc_common.h"

namespace ipcbench {

constexpr uint32_t kMagic = 0xA6B7C8D9u;
constexpr uint32_t kTypeRequest = 0;
constexpr uint32_t kTypeResponse = 1;
constexpr size_t kHeaderSize = 16;
constexpr size_t kTrailerSize = 16;
constexpr size_t kFrameOverhead = kHeaderSize + kTrailerSize;
constexpr size_t kMaxFrame = kFrameOverhead + kMaxPayload;
constexpr size_t kReadBufferSize = 64 * 1024;

uint32_t Checksum(uint32_t id, uint32_t type, uint32_t len, const uint8_t* payload);

// Builds a frame into `out` (at least kFrameOverhead + len bytes); returns its size.
size_t BuildFrame(uint8_t* out, uint32_t id, uint32_t type, const uint8_t* payload, uint32_t len,
                  int32_t timeout);

struct FrameView {
    uint32_t id = 0;
    uint32_t type = 0;
    uint32_t len = 0;
    const uint8_t* payload = nullptr;
    size_t size = 0;  // bytes of the whole frame
};

enum class FrameStatus { kOk, kNeedMore, kBad };

// Header check only (magic, length 1..4000): kNeedMore below kHeaderSize bytes.
FrameStatus CheckHeader(const uint8_t* buf, size_t avail, FrameView& out, std::string& why);
// One whole frame at the front of `buf`: header, then the checksum once it is all there.
FrameStatus ParseFrame(const uint8_t* buf, size_t avail, FrameView& out, std::string& why);

// Every whole frame at the front of buf[0..avail) goes to fn(const FrameView&), which returns
// false to stop. Returns the bytes consumed; a bad frame sets `why` and stops.
template <typename Fn>
size_t ParseFrames(const uint8_t* buf, size_t avail, Fn&& fn, std::string& why) {
    size_t off = 0;
    for (;;) {
        FrameView frame;
        FrameStatus status = ParseFrame(buf + off, avail - off, frame, why);
        if (status != FrameStatus::kOk) return off;
        off += frame.size;
        if (!fn(frame)) return off;
    }
}

std::string FifoPath(const std::string& from, const std::string& to);

// Waits (1 ms steps) until every path exists; false after timeoutMs.
bool WaitForFile(const std::string& path, int timeoutMs);
// open(path, flags) retried on ENXIO (no reader yet) in 1 ms steps; the fd or -errno.
int OpenRetryNoReader(const std::string& path, int flags, int timeoutMs);

// One write of a whole frame on a non-blocking FIFO; EAGAIN (full) yields the CPU and retries,
// counting the retries, for at most kStuckSendSec. 0, or -errno (a short write is -EIO).
int WriteFrameRetry(int fd, const uint8_t* frame, size_t len, uint64_t* retries);

// The peer's two FIFOs, made with mode 0600 and removed when the object goes. Made() is false
// (reported on stderr as `who`) when either could not be made.
class FifoPair {
  public:
    FifoPair(std::string inPath, std::string outPath, const char* who);
    ~FifoPair();
    FifoPair(const FifoPair&) = delete;
    FifoPair& operator=(const FifoPair&) = delete;
    bool Made() const { return made_; }

  private:
    std::string in_;
    std::string out_;
    bool made_ = false;
};
// Blocking write of all bytes (EINTR retried). 0 or -errno.
int WriteAll(int fd, const uint8_t* data, size_t len);
// Blocking read of exactly len bytes: len, 0 at end of file before the first byte, -EIO at end
// of file inside, -errno on error.
ssize_t ReadFull(int fd, uint8_t* data, size_t len);

}  // namespace ipcbench

#endif

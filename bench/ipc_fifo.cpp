#include "ipc_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace ipcbench {

namespace {

template <typename T>
void Put(uint8_t* at, T value) {
    memcpy(at, &value, sizeof(value));
}

template <typename T>
T Get(const uint8_t* at) {
    T value;
    memcpy(&value, at, sizeof(value));
    return value;
}

}  // namespace

uint32_t Checksum(uint32_t id, uint32_t type, uint32_t len, const uint8_t* payload) {
    uint32_t sum = id + type + len;
    for (uint32_t i = 0; i < len; ++i) sum += payload[i];
    return sum + kMagic;
}

size_t BuildFrame(uint8_t* out, uint32_t id, uint32_t type, const uint8_t* payload, uint32_t len,
                  int32_t timeout) {
    Put<uint32_t>(out, kMagic);
    Put<uint32_t>(out + 4, id);
    Put<uint32_t>(out + 8, type);
    Put<uint32_t>(out + 12, len);
    memcpy(out + kHeaderSize, payload, len);
    uint8_t* trailer = out + kHeaderSize + len;
    Put<uint32_t>(trailer, Checksum(id, type, len, payload));
    Put<int32_t>(trailer + 4, timeout);
    Put<uint64_t>(trailer + 8, NowUs());
    return kFrameOverhead + len;
}

FrameStatus CheckHeader(const uint8_t* buf, size_t avail, FrameView& out, std::string& why) {
    if (avail < kHeaderSize) return FrameStatus::kNeedMore;
    if (Get<uint32_t>(buf) != kMagic) {
        why = "bad magic";
        return FrameStatus::kBad;
    }
    out.id = Get<uint32_t>(buf + 4);
    out.type = Get<uint32_t>(buf + 8);
    out.len = Get<uint32_t>(buf + 12);
    if (out.len < 1 || out.len > kMaxPayload) {
        why = "bad length " + std::to_string(out.len);
        return FrameStatus::kBad;
    }
    out.payload = buf + kHeaderSize;
    out.size = kFrameOverhead + out.len;
    return FrameStatus::kOk;
}

FrameStatus ParseFrame(const uint8_t* buf, size_t avail, FrameView& out, std::string& why) {
    FrameStatus status = CheckHeader(buf, avail, out, why);
    if (status != FrameStatus::kOk) return status;
    if (avail < out.size) return FrameStatus::kNeedMore;
    uint32_t sent = Get<uint32_t>(buf + kHeaderSize + out.len);
    if (sent != Checksum(out.id, out.type, out.len, out.payload)) {
        why = "bad checksum";
        return FrameStatus::kBad;
    }
    return FrameStatus::kOk;
}

std::string FifoPath(const std::string& from, const std::string& to) {
    return "/dev/shm/ipcb_" + from + "_" + to;
}

bool WaitForFile(const std::string& path, int timeoutMs) {
    uint64_t deadline = NowNs() + static_cast<uint64_t>(timeoutMs) * 1000000ull;
    struct stat st {};
    while (stat(path.c_str(), &st) != 0) {
        if (NowNs() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int OpenRetryNoReader(const std::string& path, int flags, int timeoutMs) {
    uint64_t deadline = NowNs() + static_cast<uint64_t>(timeoutMs) * 1000000ull;
    for (;;) {
        int fd = open(path.c_str(), flags);
        if (fd >= 0) return fd;
        int err = errno;
        if (err == EINTR) continue;
        if (err != ENXIO || NowNs() > deadline) return -err;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

FifoPair::FifoPair(std::string inPath, std::string outPath, const char* who)
    : in_(std::move(inPath)), out_(std::move(outPath)) {
    made_ = mkfifo(in_.c_str(), 0600) == 0 && mkfifo(out_.c_str(), 0600) == 0;
    if (!made_) fprintf(stderr, "%s peer: mkfifo: %s\n", who, strerror(errno));
}

FifoPair::~FifoPair() {
    unlink(in_.c_str());
    unlink(out_.c_str());
}

int WriteFrameRetry(int fd, const uint8_t* frame, size_t len, uint64_t* retries) {
    return RetryFull(
        [&] {
            for (;;) {
                ssize_t n = write(fd, frame, len);
                if (n == static_cast<ssize_t>(len)) return 0;
                if (n >= 0) return -EIO;  // a frame within PIPE_BUF is never split
                if (errno != EINTR) return -errno;
            }
        },
        retries);
}

int WriteAll(int fd, const uint8_t* data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, data + done, len - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -errno;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

ssize_t ReadFull(int fd, uint8_t* data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = read(fd, data + done, len - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -errno;
        }
        if (n == 0) return done == 0 ? 0 : -EIO;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(len);
}

}  // namespace ipcbench
